// Guid: text form both ways, strict parsing, random version-4 generation from many threads.
#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "mc/host/Errors.h"
#include "mc/host/Guid.h"

namespace velacore {
namespace {

TEST(PrimsGuid, NullGuid) {
    Guid g;
    EXPECT_TRUE(g.IsNull());
    EXPECT_EQ(g.AsString(), "00000000-0000-0000-0000-000000000000");
    EXPECT_TRUE(Guid("00000000-0000-0000-0000-000000000000").IsNull());
}

TEST(PrimsGuid, TextIsInByteOrderAndUpperCase) {
    const Guid::Bytes bytes{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    const Guid g(bytes);
    EXPECT_EQ(g.AsString(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(g.AsWString(), u"00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_FALSE(g.IsNull());
    EXPECT_EQ(GuidFromBytes(bytes.data()), g);
    EXPECT_EQ(GuidToBytes(g), bytes);
}

TEST(PrimsGuid, ParsesEveryAcceptedSpelling) {
    const Guid expected(std::string_view("00112233-4455-6677-8899-AABBCCDDEEFF"));
    EXPECT_EQ(Guid(std::string_view("00112233-4455-6677-8899-aabbccddeeff")), expected);
    EXPECT_EQ(Guid(std::string_view("{00112233-4455-6677-8899-AaBbCcDdEeFf}")), expected);
    EXPECT_EQ(Guid(std::u16string_view(u"00112233-4455-6677-8899-aabbccddeeff")), expected);
    EXPECT_EQ(Guid(std::u16string_view(u"{00112233-4455-6677-8899-AABBCCDDEEFF}")), expected);
}

TEST(PrimsGuid, RejectsEverythingElse) {
    const char* bad[] = {
        "",
        "00112233-4455-6677-8899-AABBCCDDEEF",     // short
        "00112233-4455-6677-8899-AABBCCDDEEFF0",   // long
        "001122334-455-6677-8899-AABBCCDDEEFF",    // dash moved
        "00112233-4455-6677-8899_AABBCCDDEEFF",    // not a dash
        "00112233-4455-6677-8899-AABBCCDDEEFG",    // not hex
        "0x112233-4455-6677-8899-AABBCCDDEEFF",    // prefix
        " 0112233-4455-6677-8899-AABBCCDDEEFF",    // space
        "{00112233-4455-6677-8899-AABBCCDDEEFF",   // one brace
        "00112233-4455-6677-8899-AABBCCDDEEFF}",   // one brace
        "(00112233-4455-6677-8899-AABBCCDDEEFF)",  // wrong brackets
        "{00112233-4455-6677-8899-AABBCCDDEEF}}",
        "00112233445566778899AABBCCDDEEFF",  // no dashes
        "00112233-4455-6677-8899-+ABBCCDDEEFF",
    };
    for (const char* text : bad) {
        EXPECT_THROW(Guid{std::string_view(text)}, FormatError) << "\"" << text << "\"";
    }
    // A non-ASCII digit (ARABIC-INDIC DIGIT ZERO) in the wide form.
    EXPECT_THROW(Guid{std::u16string_view(u"\u0660\u0660112233-4455-6677-8899-AABBCCDDEEFF")},
                 FormatError);
    // A wide character whose low byte looks like a hex digit.
    EXPECT_THROW(Guid{std::u16string_view(u"\u0130\u0130112233-4455-6677-8899-AABBCCDDEEFF")},
                 FormatError);
    EXPECT_THROW(Guid{std::string_view("00112233-4455-6677-8899-AABBCCDDEE\0F", 36)}, FormatError);
    EXPECT_THROW(GuidFromBytes(nullptr), NullPointerError);
}

TEST(PrimsGuid, UniqueGuidsAreVersion4AndRoundTrip) {
    for (int i = 0; i < 200; ++i) {
        const Guid g = Guid::CreateUnique();
        const std::string text = g.AsString();
        ASSERT_EQ(text.size(), 36u);
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
        EXPECT_EQ(Guid(std::string_view(text)), g);
        EXPECT_EQ(Guid(std::u16string_view(g.AsWString())), g);
    }
}

TEST(PrimsGuid, ThreadsNeverProduceTheSameGuid) {
    std::mutex mutex;
    std::set<Guid> seen;
    size_t total = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            std::vector<Guid> mine;
            for (int i = 0; i < 500; ++i) mine.push_back(Guid::CreateUnique());
            std::lock_guard<std::mutex> lock(mutex);
            seen.insert(mine.begin(), mine.end());
            total += mine.size();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(seen.size(), total);
}

}  // namespace
}  // namespace velacore
