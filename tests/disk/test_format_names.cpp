// Cache-file names: what the writer builds, the scan must read back; anything else is rejected
// with the code that makes the scan delete the file.
#include <gtest/gtest.h>

#include <filesystem>

#include "disk/CacheFileFormat.h"
#include "lifecycle/Messages.h"
#include "mc/host/BinaryText.h"
#include "mc/host/TextConvert.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"
#include "test_format_util.h"

namespace {

using velacore::Dir;
using velacore::File;
using velacore::Guid;

const Guid kGuid(std::string_view("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"));

File InFolder(const std::u16string& name) {
    return File(Dir(std::filesystem::path("/x")), name);
}

// Expects ParseCacheFileName to throw exactly `code`.
void ExpectParseThrows(const std::u16string& name, uint32_t expected, int code) {
    try {
        ParseCacheFileName(InFolder(name), expected);
        ADD_FAILURE() << "no error for " << velacore::ToUtf8(name);
    } catch (int thrown) {
        EXPECT_EQ(thrown, code) << velacore::ToUtf8(name);
    }
}

TEST(CacheFileNameTest, NameHasTheFiveFieldsInOrder) {
    const std::u16string name = BuildCacheFileName(kGuid, "TestPayload", 0x1A, {0x01, 0x02, 0x03});
    EXPECT_EQ(name, u"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0.TestPayload.1A.AQID.zkcache");
}

TEST(CacheFileNameTest, VersionIsUpperCaseHexWithoutLeadingZeros) {
    EXPECT_NE(BuildCacheFileName(kGuid, "M", 0xABCDEF, {}).find(u".ABCDEF."), std::u16string::npos);
    EXPECT_NE(BuildCacheFileName(kGuid, "M", 0, {}).find(u".M.0.."), std::u16string::npos);
}

TEST(CacheFileNameTest, RoundTripWithSlashInTheEncodedHeader) {
    // 0xFF 0xFF 0xFF encodes as "////": every slash must become '-' in the name.
    const std::vector<uint8_t> header = {0xFF, 0xFF, 0xFF, 0xFB, 0xEF};
    ASSERT_NE(velacore::EncodeBinaryDataToUTF8String(header).find('/'), std::string::npos);
    const std::u16string name = BuildCacheFileName(kGuid, "TestPayload", 26, header);
    EXPECT_EQ(name.find(u'/'), std::u16string::npos);
    EXPECT_NE(name.find(u'-', 37), std::u16string::npos);

    const ParsedCacheFileName parsed = ParseCacheFileName(InFolder(name), 26);
    EXPECT_EQ(parsed.guid, kGuid);
    EXPECT_EQ(parsed.matchname, u"TestPayload");
    EXPECT_EQ(parsed.appVersion, 26u);
    EXPECT_EQ(parsed.header, header);
}

TEST(CacheFileNameTest, EmptyHeaderGivesAnEmptyFieldAndRoundTrips) {
    const std::u16string name = BuildCacheFileName(kGuid, "TestPayload", 26, {});
    EXPECT_NE(name.find(u".1A..zkcache"), std::u16string::npos);
    EXPECT_TRUE(ParseCacheFileName(InFolder(name), 26).header.empty());
}

// The version field is read as a base-16 number: case, blanks, sign, prefix and trailing text
// are the parser's business; only a field without digits or beyond 32 bits never matches.
TEST(CacheFileNameTest, VersionFieldIsReadAsABase16Number) {
    const std::u16string guid = kGuid.AsWString();
    for (const std::u16string field : {u"1A", u"1a", u" 1A", u"+1a", u"0x1A", u"0X1a", u"1Azz"})
        EXPECT_EQ(
            ParseCacheFileName(InFolder(guid + u".M." + field + u".AQID.zkcache"), 26).appVersion,
            26u)
            << velacore::ToUtf8(field);
    ExpectParseThrows(guid + u".M.1B.AQID.zkcache", 26, MCp_Err_AppVersion);
    ExpectParseThrows(guid + u".M..AQID.zkcache", 0, MCp_Err_AppVersion);  // empty never matches
    ExpectParseThrows(guid + u".M.zz.AQID.zkcache", 0, MCp_Err_AppVersion);
    ExpectParseThrows(guid + u".M.-1.AQID.zkcache", 0xFFFFFFFF, MCp_Err_AppVersion);
    ExpectParseThrows(guid + u".M.1000000001A.AQID.zkcache", 26, MCp_Err_AppVersion);  // > 32 bits
}

TEST(CacheFileNameTest, MalformedNamesThrowTheFormatCode) {
    const std::u16string guid = kGuid.AsWString();
    ExpectParseThrows(guid + u".M.1A", 26, kMalformedCacheFileNameError);  // three stops
    ExpectParseThrows(u"garbage.zkcache", 26, kMalformedCacheFileNameError);
    ExpectParseThrows(u"not-a-guid.M.1A.AQID.zkcache", 26, kMalformedCacheFileNameError);
    ExpectParseThrows(guid + u".M.1A.A!ID.zkcache", 26, kMalformedCacheFileNameError);
    ExpectParseThrows(guid + u".M.1A.AQI.zkcache", 26, kMalformedCacheFileNameError);  // not /4
    ExpectParseThrows(u".zkcache", 26, kMalformedCacheFileNameError);
}

TEST(CacheFileNameTest, WhatFollowsTheFourthStopIsNotRead) {
    const std::u16string name = kGuid.AsWString() + u".M.1A.AQID.anything.at.all";
    EXPECT_EQ(ParseCacheFileName(InFolder(name), 26).header, (std::vector<uint8_t>{1, 2, 3}));
}

TEST(CacheFileNameTest, ExtensionTestIsExactAndCaseSensitive) {
    EXPECT_TRUE(IsCacheFile(InFolder(u"a.b.c.d.zkcache")));
    EXPECT_TRUE(IsCacheFile(InFolder(u"x.zkcache")));
    EXPECT_FALSE(IsCacheFile(InFolder(u"a.b.c.d.ZKCACHE")));
    EXPECT_FALSE(IsCacheFile(InFolder(u"a.b.c.d.zkcache.tmp")));
    EXPECT_FALSE(IsCacheFile(InFolder(u"a.b.c.d.zkcachex")));
    EXPECT_FALSE(IsCacheFile(InFolder(u"zkcache")));
}

TEST(CacheFilePlaceTest, FileLiesInTheSubfolderOfItsFirstTwoCharacters) {
    const Dir cache(std::filesystem::path("/c"));
    const std::u16string name = BuildCacheFileName(kGuid, "M", 1, {});
    EXPECT_EQ(CacheFileFor(cache, name).GetFullPath(),
              std::filesystem::path("/c/0F") / velacore::ToUtf8(name));
    EXPECT_EQ(CacheFileFor(cache, u"A").GetFullPath(), std::filesystem::path("/c/A/A"));
}

TEST(CacheFilePlaceTest, EnsureSubfolderCreatesCacheFolderAndSubfolder) {
    mctest::TempDir temp;
    const Dir cache = temp.AsDir().GetSubdir(u"cache");
    const std::u16string name = BuildCacheFileName(kGuid, "M", 1, {});
    EXPECT_TRUE(EnsureCacheSubfolder(cache, name));
    EXPECT_TRUE(std::filesystem::is_directory(temp.Path() / "cache" / "0F"));
    EXPECT_TRUE(EnsureCacheSubfolder(cache, name));  // already there: fine
}

TEST(CacheFilePlaceTest, EnsureSubfolderSwallowsFailuresAndNeverRebuildsAVanishedRoot) {
    mctest::TempDir temp;
    const Dir cache = temp.AsDir().GetSubdir(u"gone").GetSubdir(u"cache");
    EXPECT_FALSE(EnsureCacheSubfolder(cache, u"ABCD"));
    EXPECT_FALSE(std::filesystem::exists(temp.Path() / "gone"));

    auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
    mctest::ScopedFileSystem scoped(faults);
    faults->FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kIoError);
    EXPECT_FALSE(EnsureCacheSubfolder(temp.AsDir().GetSubdir(u"c2"), u"ABCD"));
}

}  // namespace
