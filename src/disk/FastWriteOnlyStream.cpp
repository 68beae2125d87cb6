// The cache-file write stream: whole aligned buffers, written through.
#include "disk/FastWriteOnlyStream.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "mc/host/Errors.h"

using velacore::File;
using velacore::IOError;

namespace {

// Host errors and allocation failures pass through; anything else becomes an IOError naming the
// file, so callers see only the two file exceptions.
[[noreturn]] void RethrowAsFileError(const File& file) {
    try {
        throw;
    } catch (const velacore::HostError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw IOError("cache file '" + file.GetFullPathUtf8() + "': " + e.what(), EIO);
    }
}

size_t BlockSizeFor(const File& file) {
    const size_t block =
        velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetFullPathUtf8());
    return block == 0 ? 4096 : block;
}

}  // namespace

FastWriteOnlyStream::FastWriteOnlyStream(const File& file) try
    : OPlatformByteStream(file),
      bufferSize_(kBlocksPerBuffer * BlockSizeFor(file)),
      buffer_(bufferSize_, std::bit_ceil(bufferSize_ / kBlocksPerBuffer)) {
} catch (...) {
    RethrowAsFileError(file);
}

FastWriteOnlyStream::~FastWriteOnlyStream() = default;

void FastWriteOnlyStream::WriteBytes(const void* data, size_t size) {
    if (finished_) throw IOError("write after finish '" + GetFile().GetFullPathUtf8() + "'", EBADF);
    const auto* bytes = static_cast<const uint8_t*>(data);
    total_ += size;
    while (size >= bufferSize_ - position_) {
        const size_t room = bufferSize_ - position_;
        std::memcpy(buffer_.Data() + position_, bytes, room);
        bytes += room;
        size -= room;
        position_ = bufferSize_;
        WriteBuffer();
    }
    if (size != 0) std::memcpy(buffer_.Data() + position_, bytes, size);
    position_ += size;
}

void FastWriteOnlyStream::Finish() {
    Flush();
    if (finished_) return;
    finished_ = true;
    // A buffer that was just written out holds nothing new; otherwise the tail goes out whole,
    // padding included, so the file length stays a multiple of the buffer.
    if (position_ != 0) {
        position_ = bufferSize_;
        WriteBuffer();
    }
    buffer_ = velacore::AlignedBuffer();
}

void FastWriteOnlyStream::WriteBuffer() {
    try {
        GetWritableFile().Append(buffer_.Data(), bufferSize_);
    } catch (...) {
        RethrowAsFileError(GetFile());
    }
    AddBytesWritten(bufferSize_);
    position_ = 0;
}
