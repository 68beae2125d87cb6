// Byte streams: little-endian helpers, file streams, the block-buffered reader, memory streams.
#include "mc/host/ByteStream.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "mc/host/Errors.h"

namespace velacore {

// --- OByteStream / IByteStream --------------------------------------------------------------

OByteStream::~OByteStream() = default;

void OByteStream::WriteU32LE(uint32_t value) {
    uint8_t bytes[4];
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    WriteBytes(bytes, sizeof bytes);
}

void OByteStream::WriteU64LE(uint64_t value) {
    uint8_t bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    WriteBytes(bytes, sizeof bytes);
}

void OByteStream::WriteDoubleLE(double value) {
    WriteU64LE(std::bit_cast<uint64_t>(value));
}

IByteStream::~IByteStream() = default;

void IByteStream::Seek(uint64_t) {
    throw IOError("this stream cannot seek", ESPIPE);
}

uint64_t IByteStream::Tell() const {
    throw IOError("this stream has no position", ESPIPE);
}

void IByteStream::ReadBytes(void* buffer, size_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < size) {
        const size_t got = ReadSome(bytes + done, size - done);
        if (got == 0) {
            throw IOError("unexpected end of stream: needed " + std::to_string(size) +
                          " bytes, got " + std::to_string(done));
        }
        done += got;
    }
}

uint8_t IByteStream::ReadByte() {
    uint8_t value = 0;
    ReadBytes(&value, 1);
    return value;
}

uint32_t IByteStream::ReadU32LE() {
    uint8_t bytes[4];
    ReadBytes(bytes, sizeof bytes);
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

uint64_t IByteStream::ReadU64LE() {
    uint8_t bytes[8];
    ReadBytes(bytes, sizeof bytes);
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

double IByteStream::ReadDoubleLE() {
    return std::bit_cast<double>(ReadU64LE());
}

// --- file streams ---------------------------------------------------------------------------

OPlatformByteStream::OPlatformByteStream(const File& file) : file_(file) {
    FileSystem& fs = GetFileSystem();
    fs.CreateFile(file_.GetFullPath(), false);
    writer_ = fs.OpenForDirectWrite(file_.GetFullPath());
}

OPlatformByteStream::OPlatformByteStream(const File& file, std::unique_ptr<WritableFile> writer)
    : file_(file), writer_(std::move(writer)) {
    if (!writer_) throw std::invalid_argument("OPlatformByteStream needs an open file");
}

OPlatformByteStream::~OPlatformByteStream() = default;

void OPlatformByteStream::WriteBytes(const void* data, size_t size) {
    if (closed_) throw IOError("write to closed stream '" + file_.GetFullPathUtf8() + "'", EBADF);
    writer_->Append(data, size);
    written_ += size;
}

void OPlatformByteStream::Close() {
    if (closed_) return;
    Flush();
    closed_ = true;
    writer_->Close();
}

bool OPlatformByteStream::IsDirectIo() const {
    return writer_->IsDirectIo();
}

IPlatformByteStream::IPlatformByteStream(const File& file, int /*flags*/)
    : file_(file), reader_(GetFileSystem().OpenForRead(file.GetFullPath())) {}

IPlatformByteStream::~IPlatformByteStream() = default;

size_t IPlatformByteStream::ReadSome(void* buffer, size_t size) {
    const size_t got = reader_->Read(buffer, size);
    position_ += got;
    return got;
}

void IPlatformByteStream::Seek(uint64_t offset) {
    reader_->Seek(offset);
    position_ = offset;
}

uint64_t IPlatformByteStream::Size() {
    return reader_->Size();
}

// --- IBufferedByteStream --------------------------------------------------------------------

namespace {

size_t CheckedCapacity(size_t bufferSize, size_t blockSize) {
    if (blockSize == 0 || (blockSize & (blockSize - 1)) != 0) {
        throw std::invalid_argument("IBufferedByteStream: block size must be a power of two");
    }
    if (bufferSize == 0) throw std::invalid_argument("IBufferedByteStream: empty buffer");
    return static_cast<size_t>(RoundUpToBlock(bufferSize, blockSize));
}

uint64_t CurrentOffset(const IByteStream& source) {
    try {
        return source.Tell();
    } catch (const IOError&) {
        return 0;  // a stream without positions is read from where it is
    }
}

}  // namespace

IBufferedByteStream::IBufferedByteStream(std::unique_ptr<IByteStream> source, size_t bufferSize,
                                         size_t blockSize)
    : owned_(source ? std::move(source)
                    : throw std::invalid_argument("IBufferedByteStream: null source")),
      source_(*owned_),
      buffer_(CheckedCapacity(bufferSize, blockSize), blockSize),
      blockSize_(blockSize),
      position_(CurrentOffset(source_)),
      sourcePosition_(position_) {}

IBufferedByteStream::IBufferedByteStream(IByteStream& source, size_t bufferSize, size_t blockSize)
    : source_(source),
      buffer_(CheckedCapacity(bufferSize, blockSize), blockSize),
      blockSize_(blockSize),
      position_(CurrentOffset(source_)),
      sourcePosition_(position_) {}

IBufferedByteStream::~IBufferedByteStream() = default;

size_t IBufferedByteStream::ReadSome(void* buffer, size_t size) {
    if (size == 0) return 0;
    auto* out = static_cast<uint8_t*>(buffer);
    const bool inBuffer = position_ >= bufferStart_ && position_ < bufferStart_ + bufferLength_;
    if (!inBuffer) {
        if (size >= buffer_.Size()) {
            const size_t got = ReadSource(position_, out, size);
            position_ += got;
            return got;
        }
        Refill();
        if (position_ >= bufferStart_ + bufferLength_) return 0;  // end of the source
    }
    const size_t offset = static_cast<size_t>(position_ - bufferStart_);
    const size_t count = std::min(size, bufferLength_ - offset);
    std::memcpy(out, buffer_.Data() + offset, count);
    position_ += count;
    return count;
}

void IBufferedByteStream::Refill() {
    uint64_t start = position_ & ~static_cast<uint64_t>(blockSize_ - 1);
    // Already past the block start (after the end of the source, or after a large read): read
    // on from there rather than seeking back.
    if (sourcePosition_ > start && sourcePosition_ <= position_) start = sourcePosition_;
    bufferLength_ = 0;
    bufferLength_ = ReadSource(start, buffer_.Data(), buffer_.Size());
    bufferStart_ = start;
}

size_t IBufferedByteStream::ReadSource(uint64_t offset, uint8_t* buffer, size_t size) {
    if (sourcePosition_ != offset) {
        source_.Seek(offset);
        sourcePosition_ = offset;
    }
    size_t total = 0;
    while (total < size) {
        const size_t got = source_.ReadSome(buffer + total, size - total);
        if (got == 0) break;
        total += got;
        sourcePosition_ += got;
    }
    return total;
}

// --- memory streams -------------------------------------------------------------------------

OMemoryByteStream::~OMemoryByteStream() = default;

void OMemoryByteStream::WriteBytes(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    data_.insert(data_.end(), bytes, bytes + size);
}

IMemoryByteStream::~IMemoryByteStream() = default;

size_t IMemoryByteStream::ReadSome(void* buffer, size_t size) {
    if (position_ >= data_.size()) return 0;
    const size_t count = std::min(size, static_cast<size_t>(data_.size() - position_));
    if (count == 0) return 0;
    std::memcpy(buffer, data_.data() + position_, count);
    position_ += count;
    return count;
}

}  // namespace velacore
