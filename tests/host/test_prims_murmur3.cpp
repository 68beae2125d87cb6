// Murmur3MixerState against reference vectors, one-shot and fed in random pieces, plus the
// well-known self-check of the x64-128 variant.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "mc/host/Murmur3.h"

namespace velacore {
namespace {

struct Vector {
    uint32_t seed = 0;
    std::vector<uint8_t> input;
    uint64_t h1 = 0;
    uint64_t h2 = 0;
    std::vector<uint8_t> bytes;
};

std::vector<uint8_t> FromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    if (hex == "-") return out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::vector<Vector> LoadVectors() {
    std::ifstream in(std::string(MC_TEST_DATA_DIR) + "/murmur3_x64_128.tsv");
    std::vector<Vector> vectors;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string seed, input, h1, h2, bytes;
        fields >> seed >> input >> h1 >> h2 >> bytes;
        Vector v;
        v.seed = static_cast<uint32_t>(std::stoul(seed, nullptr, 16));
        v.input = FromHex(input);
        v.h1 = std::stoull(h1, nullptr, 16);
        v.h2 = std::stoull(h2, nullptr, 16);
        v.bytes = FromHex(bytes);
        vectors.push_back(std::move(v));
    }
    return vectors;
}

std::vector<uint8_t> HashOneShot(uint32_t seed, const std::vector<uint8_t>& input) {
    Murmur3MixerState state(seed);
    state.UpdateHashState(input.data(), input.size());
    const auto out = state.GetHashBytes();
    return {out.begin(), out.end()};
}

std::vector<uint8_t> HashInPieces(uint32_t seed, const std::vector<uint8_t>& input,
                                  std::mt19937& rng, size_t maxPiece) {
    Murmur3MixerState state(seed);
    size_t at = 0;
    while (at < input.size()) {
        const size_t piece = std::min(input.size() - at, 1 + rng() % maxPiece);
        state.UpdateHashState(input.data() + at, piece);
        state.UpdateHashState(nullptr, 0);  // empty updates change nothing
        at += piece;
    }
    const auto out = state.GetHashBytes();
    return {out.begin(), out.end()};
}

uint64_t LittleEndian64(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

TEST(PrimsMurmur3, ReferenceVectorsOneShot) {
    const auto vectors = LoadVectors();
    ASSERT_GE(vectors.size(), 30u) << "reference file missing or truncated";
    for (const Vector& v : vectors) {
        const auto got = HashOneShot(v.seed, v.input);
        EXPECT_EQ(got, v.bytes) << "input of " << v.input.size() << " bytes, seed " << v.seed;
        EXPECT_EQ(LittleEndian64(got.data()), v.h1);
        EXPECT_EQ(LittleEndian64(got.data() + 8), v.h2);
    }
}

TEST(PrimsMurmur3, ReferenceVectorsInRandomPieces) {
    std::mt19937 rng(20240611);
    for (const Vector& v : LoadVectors()) {
        for (size_t maxPiece : {size_t{1}, size_t{3}, size_t{7}, size_t{17}, size_t{40}}) {
            EXPECT_EQ(HashInPieces(v.seed, v.input, rng, maxPiece), v.bytes)
                << "input of " << v.input.size() << " bytes, pieces up to " << maxPiece;
        }
    }
}

TEST(PrimsMurmur3, ResultAsGuidCarriesTheSameBytes) {
    Murmur3MixerState state(0);
    state.UpdateHashState("hello", 5);
    const auto bytes = state.GetHashBytes();
    EXPECT_EQ(state.GetHashResult().GetBytes(), bytes);
    EXPECT_EQ(state.GetHashResult().AsString(), "029BBD41-B3A7-D8CB-191D-AE486A901E5B");
}

TEST(PrimsMurmur3, ReadingTheResultMidwayDoesNotDisturbTheStream) {
    std::vector<uint8_t> data(1000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
    Murmur3MixerState streamed(99);
    for (size_t i = 0; i < data.size(); i += 37) {
        streamed.UpdateHashState(data.data() + i, std::min<size_t>(37, data.size() - i));
        (void)streamed.GetHashBytes();
    }
    const auto expected = HashOneShot(99, data);
    const auto got = streamed.GetHashBytes();
    EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.end()), expected);
}

// Hash key[0..i) = {0, 1, .., i-1} with seed 256 - i for i in 0..255, hash the concatenated
// outputs with seed 0: the first four bytes read little-endian are 0x6384BA69.
TEST(PrimsMurmur3, WellKnownSelfCheck) {
    std::vector<uint8_t> key(256);
    std::vector<uint8_t> all;
    for (int i = 0; i < 256; ++i) {
        key[i] = static_cast<uint8_t>(i);
        Murmur3MixerState state(static_cast<uint32_t>(256 - i));
        state.UpdateHashState(key.data(), static_cast<size_t>(i));
        const auto out = state.GetHashBytes();
        all.insert(all.end(), out.begin(), out.end());
    }
    const auto final = HashOneShot(0, all);
    const uint32_t check =
        final[0] | (final[1] << 8) | (final[2] << 16) | (static_cast<uint32_t>(final[3]) << 24);
    EXPECT_EQ(check, 0x6384BA69u);
    // And the same check fed byte by byte.
    std::mt19937 rng(1);
    EXPECT_EQ(HashInPieces(0, all, rng, 1), final);
}

}  // namespace
}  // namespace velacore
