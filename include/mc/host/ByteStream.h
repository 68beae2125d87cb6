// Byte streams: OByteStream / IByteStream with little-endian helpers, their file versions
// (through GetFileSystem()), a read buffer with seeking, and in-memory versions.
// Errors: IOError (and FileNotFoundError when opening a missing file).
// Thread-safety: a stream belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mc/host/AlignedBuffer.h"
#include "mc/host/Export.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"

namespace velacore {

// A sink of bytes.
class MCHOST_API OByteStream {
public:
    virtual ~OByteStream();

    // Writes all `size` bytes or throws IOError.
    virtual void WriteBytes(const void* data, size_t size) = 0;
    // Pushes what the stream buffers to where it goes. Throws IOError.
    virtual void Flush() {}

    void WriteByte(uint8_t value) { WriteBytes(&value, 1); }
    void WriteU32LE(uint32_t value);
    void WriteU64LE(uint64_t value);
    void WriteDoubleLE(double value);
};

// A source of bytes with a position.
class MCHOST_API IByteStream {
public:
    virtual ~IByteStream();

    // Reads up to `size` bytes; returns how many (0 only at the end). Throws IOError.
    virtual size_t ReadSome(void* buffer, size_t size) = 0;
    // Moves to an absolute offset (past the end is allowed; reads there return 0). This base
    // cannot seek and throws IOError.
    virtual void Seek(uint64_t offset);
    // The current offset. This base does not know it and throws IOError.
    virtual uint64_t Tell() const;

    // Reads exactly `size` bytes or throws IOError ("unexpected end of stream").
    void ReadBytes(void* buffer, size_t size);
    uint8_t ReadByte();
    uint32_t ReadU32LE();
    uint64_t ReadU64LE();
    double ReadDoubleLE();
};

// Writes a file through the FileSystem's write-through writer (direct I/O where possible).
// WriteBytes goes straight to the file, so with direct I/O each piece should be whole aligned
// blocks (a subclass buffers for that; see GetWritableFile). Call Close() to finish; destroying
// the stream without Close closes the file without reporting errors.
class MCHOST_API OPlatformByteStream : public OByteStream {
public:
    // Creates the file (or empties an existing one) and opens it. Throws.
    explicit OPlatformByteStream(const File& file);
    // Writes to `writer`, already open on `file` (must not be null); the stream owns it now.
    OPlatformByteStream(const File& file, std::unique_ptr<WritableFile> writer);
    ~OPlatformByteStream() override;

    void WriteBytes(const void* data, size_t size) override;

    // Flush()es, then makes the data durable and closes the file. Further calls do nothing.
    // Throws IOError.
    void Close();

    const File& GetFile() const { return file_; }
    // Bytes written so far.
    uint64_t BytesWritten() const { return written_; }
    // Whether the file is written with direct I/O (see WritableFile::IsDirectIo).
    bool IsDirectIo() const;

protected:
    // The open file, for subclasses that write their own blocks. Requires the stream open.
    WritableFile& GetWritableFile() { return *writer_; }
    // Subclasses writing through GetWritableFile() report their bytes here.
    void AddBytesWritten(uint64_t count) { written_ += count; }

private:
    File file_;
    std::unique_ptr<WritableFile> writer_;
    uint64_t written_ = 0;
    bool closed_ = false;
};

// Reads a file through the FileSystem.
class MCHOST_API IPlatformByteStream : public IByteStream {
public:
    static constexpr int kRead = 1;

    // Opens the file for reading. `flags`: kRead (other bits are ignored). Throws
    // FileNotFoundError when it does not exist.
    explicit IPlatformByteStream(const File& file, int flags = kRead);
    ~IPlatformByteStream() override;

    size_t ReadSome(void* buffer, size_t size) override;
    void Seek(uint64_t offset) override;
    uint64_t Tell() const override { return position_; }
    // The file's current length. Throws IOError.
    uint64_t Size();

    const File& GetFile() const { return file_; }

private:
    File file_;
    std::unique_ptr<ReadableFile> reader_;
    uint64_t position_ = 0;
};

// Reads another stream through a buffer of whole blocks: each refill reads `bufferSize` bytes
// (rounded up to whole blocks) from a multiple of `blockSize`, or from where the source already
// stands when that is between the block start and the wanted offset. Seeking inside the
// buffered range costs nothing; elsewhere the next read refills. Reads at least as large as the
// buffer bypass it. The source is only sought when its position differs from the one needed,
// so a source that cannot seek still serves sequential reads. Offsets are the source's; the
// stream starts at the source's Tell() (0 when it has none).
class MCHOST_API IBufferedByteStream : public IByteStream {
public:
    // Owns `source` (non-null). Requires blockSize a power of two and bufferSize > 0
    // (std::invalid_argument otherwise).
    IBufferedByteStream(std::unique_ptr<IByteStream> source, size_t bufferSize, size_t blockSize);
    // Reads `source`, which must outlive this stream.
    IBufferedByteStream(IByteStream& source, size_t bufferSize, size_t blockSize);
    ~IBufferedByteStream() override;

    size_t ReadSome(void* buffer, size_t size) override;
    void Seek(uint64_t offset) override { position_ = offset; }
    uint64_t Tell() const override { return position_; }

private:
    void Refill();
    size_t ReadSource(uint64_t offset, uint8_t* buffer, size_t size);

    std::unique_ptr<IByteStream> owned_;
    IByteStream& source_;
    AlignedBuffer buffer_;
    size_t blockSize_;
    uint64_t bufferStart_ = 0;  // offset of buffer_[0]
    size_t bufferLength_ = 0;   // valid bytes in buffer_
    uint64_t position_ = 0;     // logical offset of the next read
    uint64_t sourcePosition_;   // where the source is now
};

// Collects written bytes in memory.
class MCHOST_API OMemoryByteStream : public OByteStream {
public:
    ~OMemoryByteStream() override;
    void WriteBytes(const void* data, size_t size) override;
    const std::vector<uint8_t>& Data() const { return data_; }
    // Hands the bytes over and leaves the stream empty.
    std::vector<uint8_t> TakeData() { return std::move(data_); }

private:
    std::vector<uint8_t> data_;
};

// Reads bytes it owns.
class MCHOST_API IMemoryByteStream : public IByteStream {
public:
    explicit IMemoryByteStream(std::vector<uint8_t> data) : data_(std::move(data)) {}
    ~IMemoryByteStream() override;

    size_t ReadSome(void* buffer, size_t size) override;
    void Seek(uint64_t offset) override { position_ = offset; }
    uint64_t Tell() const override { return position_; }

private:
    std::vector<uint8_t> data_;
    uint64_t position_ = 0;
};

}  // namespace velacore
