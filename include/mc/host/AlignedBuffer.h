// AlignedBuffer: a fixed-size heap block whose address is a multiple of a chosen alignment, as
// direct (unbuffered) file I/O requires. Move-only RAII owner; the bytes are zero-filled.
// Thread-safety: none of its own; one owner at a time, like a std::vector.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace velacore {

class AlignedBuffer {
public:
    // An empty buffer (Data() is null, Size() is 0).
    AlignedBuffer() = default;

    // Allocates `size` zeroed bytes aligned on `alignment`. Requires alignment to be a power of
    // two (throws std::invalid_argument otherwise); throws std::bad_alloc when out of memory.
    AlignedBuffer(size_t size, size_t alignment) : size_(size), alignment_(alignment) {
        if (alignment == 0 || (alignment & (alignment - 1)) != 0) {
            throw std::invalid_argument("AlignedBuffer: alignment must be a power of two");
        }
        if (size_ != 0) {
            data_ = static_cast<uint8_t*>(::operator new (size_, std::align_val_t{alignment_}));
            std::memset(data_, 0, size_);
        }
    }

    AlignedBuffer(AlignedBuffer&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          alignment_(other.alignment_) {}

    AlignedBuffer& operator=(AlignedBuffer&& other) noexcept {
        if (this != &other) {
            Release();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            alignment_ = other.alignment_;
        }
        return *this;
    }

    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;

    ~AlignedBuffer() { Release(); }

    // The first byte (owned by this buffer; null when empty).
    uint8_t* Data() { return data_; }
    const uint8_t* Data() const { return data_; }
    // Number of usable bytes.
    size_t Size() const { return size_; }
    // The alignment the address honours.
    size_t Alignment() const { return alignment_; }

private:
    void Release() noexcept {
        if (data_ != nullptr) ::operator delete (data_, std::align_val_t{alignment_});
        data_ = nullptr;
    }

    uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t alignment_ = 1;
};

// Rounds `value` up to a multiple of `block` (block > 0).
constexpr uint64_t RoundUpToBlock(uint64_t value, uint64_t block) {
    return (value + block - 1) / block * block;
}

}  // namespace velacore
