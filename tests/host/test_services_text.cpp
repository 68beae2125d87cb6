// Localised strings (the default text of "key=default{{*COMMENT*}}note" with markup resolved),
// the localised-string cache lookups, and byte counts written for people.
#include <gtest/gtest.h>

#include "host/HostOps.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "support/RecordingHostServices.h"

using velacore::LocalizeDefaultText;

TEST(ServicesText, LocalizeTakesTheDefaultText) {
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Busy=Cache busy"), u"Cache busy");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Full=Disk full{{*COMMENT*}}shown when writing"),
              u"Disk full");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Eq=a=b"), u"a=b");  // only the first '=' splits
    EXPECT_EQ(LocalizeDefaultText("No key at all"), u"No key at all");
    EXPECT_EQ(LocalizeDefaultText("Plain{{*COMMENT*}}note with k=v"), u"Plain");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Empty="), u"");
}

TEST(ServicesText, LocalizeResolvesMarkupAndKeepsUnicode) {
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Q=Can#{rsquo}t open"), u"Can\u2019t open");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Q2=#{rsquo}#{rsquo}"), u"\u2019\u2019");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/U=caf\xC3\xA9 \xF0\x9F\x98\x80"),
              u"caf\u00e9 \U0001F600");
    EXPECT_EQ(LocalizeDefaultText("$$$/MC/Partial=#{rsquo"), u"#{rsquo");
}

TEST(ServicesText, LookupWalksTheTableToItsEnd) {
    auto rec = std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scope(rec);
    const U_LStrCacheEntry table[] = {
        {"$$$/MC/A=First", 0, 0, 0},
        {"$$$/MC/B=Second#{rsquo}s{{*COMMENT*}}note", 0, 0, 0},
        {nullptr, ~uintptr_t{0}, ~uintptr_t{0}, 0},
    };
    EXPECT_EQ(U_ZLookupLStrCache(table, 0, 0, 0), u"First");
    EXPECT_EQ(U_ZLookupLStrCache(table, 1, 0, 0), u"Second\u2019s");
    EXPECT_EQ(U_ZLookupLStrCache(table, 2, 0, 0), u"");
    EXPECT_EQ(U_ZLookupLStrCache(table, 5, 0, 0), u"");  // never reads past the terminator
    EXPECT_EQ(U_ZLookupLStrCache(table, -1, 0, 0), u"");
    EXPECT_EQ(U_ZLookupLStrCache(nullptr, 0, 0, 0), u"");

    char buf[32];
    EXPECT_EQ(U_CopyLocalizedString(table, 1, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "Second\xE2\x80\x99s");
    char small[5];
    EXPECT_NE(U_CopyLocalizedString(table, 1, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "");
    char exact[6];  // "First" + NUL
    EXPECT_EQ(U_CopyLocalizedString(table, 0, exact, sizeof(exact)), 0);
    EXPECT_STREQ(exact, "First");
    EXPECT_NE(U_CopyLocalizedString(table, 3, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_NE(U_CopyLocalizedString(table, 0, nullptr, 10), 0);
}

TEST(ServicesText, MemoryStrings) {
    EXPECT_EQ(NumberToMemoryString(10, 2), "10 B");
    EXPECT_EQ(NumberToMemoryString(1023, 2), "1023 B");
    EXPECT_EQ(NumberToMemoryString(1024, 2), "1.00 KB");
    EXPECT_EQ(NumberToMemoryString(512.0 * 1024, 2), "512.00 KB");
    EXPECT_EQ(NumberToMemoryString(1.5 * 1024 * 1024 * 1024, 2), "1.50 GB");
    EXPECT_EQ(NumberToMemoryString(3.0 * 1024 * 1024, 0), "3 MB");
    EXPECT_EQ(NumberToMemoryString(2.0 * 1024 * 1024 * 1024 * 1024, 1), "2.0 TB");
    EXPECT_EQ(NumberToMemoryString(4096.0 * 1024 * 1024 * 1024 * 1024, 1), "4096.0 TB");
    EXPECT_EQ(NumberToMemoryString(0, 2), "0 B");
}
