// FastWriteOnlyStream: the stream a cache file is written through. Direct (unbuffered where the
// file system allows it), write-through and sequential. It collects bytes in an aligned buffer
// of 64 x the volume's efficient block size and writes only whole buffers, the last one too, so
// a finished file's length is always a multiple of the buffer size (the tail is padding).
// Errors: a missing file or folder throws velacore::FileNotFoundError, any other failure
// velacore::IOError; std::bad_alloc when the buffer cannot be allocated.
// Thread-safety: one stream belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mc/host/AlignedBuffer.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"

class FastWriteOnlyStream : public velacore::OPlatformByteStream {
public:
    static constexpr size_t kBlocksPerBuffer = 64;

    // Opens `file` (empties it if it exists; its folder must exist) and allocates the buffer.
    // Throws FileNotFoundError / IOError / std::bad_alloc.
    explicit FastWriteOnlyStream(const velacore::File& file);
    ~FastWriteOnlyStream() override;

    FastWriteOnlyStream(const FastWriteOnlyStream&) = delete;
    FastWriteOnlyStream& operator=(const FastWriteOnlyStream&) = delete;

    // Buffers `size` bytes, writing every buffer that fills up as one block. Throws IOError
    // (also after Finish).
    void WriteBytes(const void* data, size_t size) override;

    // Writes the last, partly filled buffer whole (padding included; nothing when the bytes so far
    // filled whole buffers) and releases the buffer. Only the first call writes; later calls do
    // nothing. Does not close the file: call Close() afterwards to make it durable. Throws
    // IOError.
    void Finish();

    // Bytes handed to WriteBytes so far (without the padding).
    uint64_t TotalBytes() const { return total_; }
    // The buffer size: every block written is exactly this long.
    size_t BufferSize() const { return bufferSize_; }

private:
    void WriteBuffer();

    size_t bufferSize_ = 0;
    velacore::AlignedBuffer buffer_;
    size_t position_ = 0;  // bytes used in buffer_
    uint64_t total_ = 0;
    bool finished_ = false;
};
