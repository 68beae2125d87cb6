// Murmur3MixerState: streaming MurmurHash3 (x64, 128-bit). Feed bytes in any number of pieces
// of any size; the result equals the one-shot hash of the concatenation.
// Thread-safety: a value type; one object must not be used by two threads at once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "mc/host/Export.h"
#include "mc/host/Guid.h"

namespace velacore {

class MCHOST_API Murmur3MixerState {
public:
    explicit Murmur3MixerState(uint32_t seed = 0);

    // Adds len bytes at data (data may be null when len is 0). The caller keeps ownership.
    void UpdateHashState(const void* data, size_t len);

    // The 16 hash bytes: h1 then h2, each little-endian. Does not change the state, so more
    // bytes may be added afterwards.
    std::array<uint8_t, 16> GetHashBytes() const;
    // The same 16 bytes as a Guid.
    Guid GetHashResult() const;

private:
    void MixBlock(const uint8_t* block);

    uint64_t h1_;
    uint64_t h2_;
    uint64_t length_ = 0;
    std::array<uint8_t, 16> pending_{};  // bytes of the incomplete block
    size_t pendingSize_ = 0;
};

}  // namespace velacore
