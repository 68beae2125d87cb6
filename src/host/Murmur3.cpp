// Streaming MurmurHash3 x64-128 (see mc/host/Murmur3.h). Blocks are read little-endian whatever
// the machine's byte order.
#include "mc/host/Murmur3.h"

#include <algorithm>
#include <cstring>

namespace velacore {
namespace {

constexpr uint64_t kC1 = 0x87c37b91114253d5ULL;
constexpr uint64_t kC2 = 0x4cf5ad432745937fULL;

constexpr uint64_t Rotl(uint64_t x, int r) {
    return (x << r) | (x >> (64 - r));
}

constexpr uint64_t FinalMix(uint64_t k) {
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    k *= 0xc4ceb9fe1a85ec53ULL;
    k ^= k >> 33;
    return k;
}

uint64_t LoadLittle64(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

void StoreLittle64(uint64_t v, uint8_t* p) {
    for (int i = 0; i < 8; ++i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}

}  // namespace

Murmur3MixerState::Murmur3MixerState(uint32_t seed) : h1_(seed), h2_(seed) {}

void Murmur3MixerState::MixBlock(const uint8_t* block) {
    uint64_t k1 = LoadLittle64(block);
    uint64_t k2 = LoadLittle64(block + 8);

    k1 *= kC1;
    k1 = Rotl(k1, 31);
    k1 *= kC2;
    h1_ ^= k1;
    h1_ = Rotl(h1_, 27);
    h1_ += h2_;
    h1_ = h1_ * 5 + 0x52dce729;

    k2 *= kC2;
    k2 = Rotl(k2, 33);
    k2 *= kC1;
    h2_ ^= k2;
    h2_ = Rotl(h2_, 31);
    h2_ += h1_;
    h2_ = h2_ * 5 + 0x38495ab5;
}

void Murmur3MixerState::UpdateHashState(const void* data, size_t len) {
    if (len == 0) return;
    const auto* bytes = static_cast<const uint8_t*>(data);
    length_ += len;
    if (pendingSize_ > 0) {
        const size_t take = std::min(len, pending_.size() - pendingSize_);
        std::memcpy(pending_.data() + pendingSize_, bytes, take);
        pendingSize_ += take;
        bytes += take;
        len -= take;
        if (pendingSize_ < pending_.size()) return;
        MixBlock(pending_.data());
        pendingSize_ = 0;
    }
    for (; len >= 16; bytes += 16, len -= 16) MixBlock(bytes);
    std::memcpy(pending_.data(), bytes, len);
    pendingSize_ = len;
}

std::array<uint8_t, 16> Murmur3MixerState::GetHashBytes() const {
    uint64_t h1 = h1_;
    uint64_t h2 = h2_;
    const uint8_t* tail = pending_.data();
    uint64_t k1 = 0;
    uint64_t k2 = 0;
    // The tail bytes, little-endian, as the reference's fall-through switch reads them.
    for (size_t i = pendingSize_; i > 8; --i) k2 = (k2 << 8) | tail[i - 1];
    for (size_t i = std::min<size_t>(pendingSize_, 8); i > 0; --i) k1 = (k1 << 8) | tail[i - 1];
    if (pendingSize_ > 8) {
        k2 *= kC2;
        k2 = Rotl(k2, 33);
        k2 *= kC1;
        h2 ^= k2;
    }
    if (pendingSize_ > 0) {
        k1 *= kC1;
        k1 = Rotl(k1, 31);
        k1 *= kC2;
        h1 ^= k1;
    }

    h1 ^= length_;
    h2 ^= length_;
    h1 += h2;
    h2 += h1;
    h1 = FinalMix(h1);
    h2 = FinalMix(h2);
    h1 += h2;
    h2 += h1;

    std::array<uint8_t, 16> out{};
    StoreLittle64(h1, out.data());
    StoreLittle64(h2, out.data() + 8);
    return out;
}

Guid Murmur3MixerState::GetHashResult() const {
    return Guid(GetHashBytes());
}

}  // namespace velacore
