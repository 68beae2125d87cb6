// Codecs: base64, UTF-8/UTF-16 conversion and the GUID text form as one table of inputs and
// outputs; MurmurHash3 x64-128 against reference vectors fed in pieces.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "mc/host/BinaryText.h"
#include "mc/host/Errors.h"
#include "mc/host/Guid.h"
#include "mc/host/Murmur3.h"
#include "mc/host/TextConvert.h"

namespace velacore {
namespace {

std::vector<uint8_t> Bytes(std::string_view s) {
    return {s.begin(), s.end()};
}
std::string Hex16(const std::u16string& s) {  // UTF-16 code units, for comparing
    std::string out;
    for (char16_t c : s) out += std::to_string(c) + " ";
    return out;
}

TEST(Codecs, Table) {
    const std::string kThrows = "<FormatError>";
    const std::string fffd = "65533 ";
    auto enc = [](std::vector<uint8_t> b) {
        return [b] { return EncodeBinaryDataToUTF8String(b); };
    };
    auto dec = [](std::string t) {
        return [t] {
            auto b = DecodeBinaryDataFromUTF8String(t);
            return std::string(b.begin(), b.end());
        };
    };
    auto u16 = [](std::string t) { return [t] { return Hex16(ToUtf16(t)); }; };
    auto u8 = [](std::u16string t) { return [t] { return ToUtf8(t); }; };
    auto guid = [](std::string t) { return [t] { return Guid(std::string_view(t)).AsString(); }; };
    auto wguid = [](std::u16string t) {
        return [t] { return Guid(std::u16string_view(t)).AsString(); };
    };
    const std::string g = "00112233-4455-6677-8899-AABBCCDDEEFF";
    const std::u16string edges =
        u"A\u00E9\u20AC\U0001F600\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U0010FFFF";
    const struct {
        std::string name;
        std::function<std::string()> run;
        std::string expected;
    } rows[] = {
        {"b64 empty", enc({}), ""},
        {"b64 1", enc(Bytes("f")), "Zg=="},
        {"b64 6", enc(Bytes("foobar")), "Zm9vYmFy"},
        {"b64 high bits", enc({0xFB, 0xFF, 0xBF}), "+/+/"},
        {"b64 ff ff", enc({0xFF, 0xFF}), "//8="},
        {"b64 decode", dec("Zm9vYmFy"), "foobar"},
        {"b64 decode pad", dec("//8="), "\xFF\xFF"},
        {"b64 short", dec("Zm9"), kThrows},
        {"b64 pad inside", dec("Zm=v"), kThrows},
        {"b64 space", dec("Zm 9v"), kThrows},
        {"b64 stray bits", dec("Zh=="), kThrows},
        {"b64 stray bits 2", dec("Zm9="), kThrows},
        {"b64 NUL", dec({"Zm9\0", 4}), kThrows},
        {"utf8 out", u8(u"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"utf8 round trip", [&] { return Hex16(ToUtf16(ToUtf8(edges))); }, Hex16(edges)},
        {"overlong NUL", u16("\xC0\x80"), fffd + fffd},
        {"encoded surrogate", u16("\xED\xA0\x80"), fffd + fffd + fffd},
        {"past U+10FFFF", u16("\xF4\x90\x80\x80"), fffd + fffd + fffd + fffd},
        {"stray continuation", u16("\x80x"), fffd + "120 "},
        {"truncated", u16("\xE2\x82x"), fffd + "120 "},
        {"truncated then whole", u16("\xF0\x9F\x98\xF0\x9F\x98\x80"), fffd + "55357 56832 "},
        {"lone high surrogate", u8(std::u16string{char16_t(0xD83D), u'x'}), "\xEF\xBF\xBDx"},
        {"swapped surrogates", u8(std::u16string{char16_t(0xDE00), char16_t(0xD83D)}),
         "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"guid braces lower", guid("{00112233-4455-6677-8899-aabbccddeeff}"), g},
        {"guid wide mixed", wguid(u"00112233-4455-6677-8899-aAbBcCdDeEfF"), g},
        {"guid not hex", guid("00112233-4455-6677-8899-AABBCCDDEEFG"), kThrows},
        {"guid wide look-alike", wguid(u"\u0130\u0130112233-4455-6677-8899-AABBCCDDEEFF"), kThrows},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string got;
        try {
            got = row.run();
        } catch (const FormatError&) {
            got = kThrows;
        }
        EXPECT_EQ(got, row.expected);
    }
}

std::vector<uint8_t> FromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; hex != "-" && i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// Every reference vector, one shot and fed in random pieces with the result read midway.
TEST(Codecs, Murmur3MatchesTheReferenceVectorsHoweverFed) {
    std::ifstream in(std::string(MC_TEST_DATA_DIR) + "/murmur3_x64_128.tsv");
    std::mt19937 rng(20240611);
    int vectors = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string seedHex, inputHex, h1, h2, bytesHex;
        fields >> seedHex >> inputHex >> h1 >> h2 >> bytesHex;
        const auto seed = static_cast<uint32_t>(std::stoul(seedHex, nullptr, 16));
        const auto input = FromHex(inputHex);
        const auto expected = FromHex(bytesHex);
        for (size_t maxPiece : {size_t{0}, size_t{1}, size_t{7}, size_t{40}}) {
            Murmur3MixerState state(seed);
            for (size_t at = 0, piece = 0; at < input.size(); at += piece) {
                piece = maxPiece == 0 ? input.size()
                                      : std::min(input.size() - at, 1 + rng() % maxPiece);
                state.UpdateHashState(input.data() + at, piece);
                (void)state.GetHashBytes();
            }
            const auto got = state.GetHashBytes();
            EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.end()), expected)
                << input.size() << " bytes, seed " << seed << ", pieces up to " << maxPiece;
        }
        ++vectors;
    }
    EXPECT_GE(vectors, 30) << "reference file missing or truncated";
}

}  // namespace
}  // namespace velacore
