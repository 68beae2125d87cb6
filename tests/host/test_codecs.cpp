// Codecs: base64, UTF-8/UTF-16 conversion, MurmurHash3 x64-128 (reference vectors, streamed in
// pieces) and the GUID text form, as tables of inputs and expected outputs.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
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

TEST(Codecs, Base64KnownVectorsRoundTripsAndStrictRejection) {
    const std::pair<std::vector<uint8_t>, const char*> known[] = {
        {Bytes(""), ""},        {Bytes("f"), "Zg=="},          {Bytes("fo"), "Zm8="},
        {Bytes("foo"), "Zm9v"}, {Bytes("foobar"), "Zm9vYmFy"}, {{0xFB, 0xFF, 0xBF}, "+/+/"},
        {{0xFF}, "/w=="},       {{0xFF, 0xFF}, "//8="},
    };
    for (const auto& [plain, encoded] : known) {
        EXPECT_EQ(EncodeBinaryDataToUTF8String(plain), encoded);
        EXPECT_EQ(DecodeBinaryDataFromUTF8String(encoded), plain);
    }
    std::mt19937 rng(7);
    for (size_t len = 0; len <= 64; ++len) {
        std::vector<uint8_t> data(len);
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        const std::string text = EncodeBinaryDataToUTF8String(data);
        EXPECT_EQ(text.size(), (len + 2) / 3 * 4);
        EXPECT_EQ(DecodeBinaryDataFromUTF8String(text), data) << "length " << len;
    }
    const std::string bad[] = {"A",     "Zm9",  "====", "A===", "Zm=v",           "Zg==Zg==",
                               "Zm 9v", "-_8=", "Zh==", "Zm9=", "Zm9v\xC3\xA9==", {"Zm9\0", 4}};
    for (const std::string& text : bad) {
        EXPECT_THROW(DecodeBinaryDataFromUTF8String(text), FormatError) << "\"" << text << "\"";
    }
}

TEST(Codecs, TextConvertsBothWaysAndReplacesIllFormedInput) {
    const std::u16string edges =
        u"A\u00E9\u20AC\U0001F600\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U0010FFFF";
    EXPECT_EQ(ToUtf8(u"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(ToUtf16(ToUtf8(edges)), edges);
    const struct {
        const char* input;
        std::u16string expected;
    } utf8[] = {
        {"\xC0\x80", u"\uFFFD\uFFFD"},                      // overlong NUL
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // past U+10FFFF
        {"\x80x", u"\uFFFDx"},                              // stray continuation byte
        {"\xE2\x82x", u"\uFFFDx"},                          // truncated, one replacement
        {"a\xF0\x9F\x98", u"a\uFFFD"},                      // truncated at the end
        {"\xF0\x9F\x98\xF0\x9F\x98\x80", u"\uFFFD\U0001F600"},
    };
    for (const auto& c : utf8) EXPECT_EQ(ToUtf16(c.input), c.expected) << c.input;
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(ToUtf8(std::u16string{char16_t(0xD83D), u'x'}), fffd + "x");
    EXPECT_EQ(ToUtf8(std::u16string{char16_t(0xDE00), char16_t(0xD83D)}), fffd + fffd);
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
            EXPECT_EQ(state.GetHashResult().GetBytes(), got);
        }
        ++vectors;
    }
    EXPECT_GE(vectors, 30) << "reference file missing or truncated";
}

TEST(Codecs, GuidTextIsUpperCaseInByteOrderAndParsingIsStrict) {
    const Guid::Bytes bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    const Guid g(bytes);
    EXPECT_EQ(g.AsString(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(g.AsWString(), u"00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(GuidToBytes(g), bytes);
    EXPECT_EQ(Guid(std::string_view("{00112233-4455-6677-8899-aabbccddeeff}")), g);
    EXPECT_EQ(Guid(std::u16string_view(u"00112233-4455-6677-8899-aAbBcCdDeEfF")), g);
    const char* bad[] = {
        "",
        "00112233-4455-6677-8899-AABBCCDDEEF",    // short
        "00112233-4455-6677-8899-AABBCCDDEEFF0",  // long
        "001122334-455-6677-8899-AABBCCDDEEFF",   // dash moved
        "00112233-4455-6677-8899-AABBCCDDEEFG",   // not hex
        "0x112233-4455-6677-8899-AABBCCDDEEFF",   // prefix
        "{00112233-4455-6677-8899-AABBCCDDEEFF",  // one brace
        "00112233-4455-6677-8899-+ABBCCDDEEFF",
    };
    for (const char* text : bad) EXPECT_THROW(Guid{std::string_view(text)}, FormatError) << text;
    // A wide character whose low byte looks like a hex digit.
    EXPECT_THROW(Guid{std::u16string_view(u"\u0130\u0130112233-4455-6677-8899-AABBCCDDEEFF")},
                 FormatError);
}

TEST(Codecs, UniqueGuidsAreVersion4AndNeverRepeatAcrossThreads) {
    std::vector<std::vector<Guid>> made(4);
    std::vector<std::thread> threads;
    for (auto& mine : made) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < 2000; ++i) mine.push_back(Guid::CreateUnique());
        });
    }
    for (auto& t : threads) t.join();
    std::set<Guid> seen;
    for (const auto& mine : made) {
        for (const Guid& g : mine) {
            const std::string text = g.AsString();
            ASSERT_EQ(text[14], '4') << text;
            ASSERT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
            ASSERT_TRUE(seen.insert(g).second) << text;
        }
    }
}

}  // namespace
}  // namespace velacore
