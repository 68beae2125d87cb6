// The cache file: names (build, parse, sub-folder), the 32-byte header and the write stream
// (whole buffers, padding, failures).
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "disk/CacheFile.h"
#include "lifecycle/Messages.h"
#include "mc/host/BinaryText.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/SafeSave.h"
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

TEST(CacheFileNameTest, BuildTable) {
    const std::u16string g = kGuid.AsWString();
    // 0xFF 0xFF 0xFF encodes as "////": every slash must become '-' in the name.
    const std::vector<uint8_t> slashes = {0xFF, 0xFF, 0xFF, 0xFB, 0xEF};
    ASSERT_NE(velacore::EncodeBinaryDataToUTF8String(slashes).find('/'), std::string::npos);
    struct Case {
        const char* matchname;
        uint32_t version;
        std::vector<uint8_t> header;
        std::u16string expected;
    };
    const Case cases[] = {
        {"TestPayload", 0x1A, {1, 2, 3}, g + u".TestPayload.1A.AQID.zkcache"},
        {"M", 0xABCDEF, {}, g + u".M.ABCDEF..zkcache"},
        {"M", 0, {}, g + u".M.0..zkcache"},
        {nullptr, 26, {1, 2, 3}, g + u"..1A.AQID.zkcache"},
        {"TestPayload", 26, slashes, g + u".TestPayload.1A.----++8=.zkcache"},
    };
    for (const Case& t : cases) {
        const std::u16string name =
            MCp_CacheFile::BuildName(kGuid, t.matchname, t.version, t.header);
        EXPECT_EQ(name, t.expected);
        const ParsedCacheFileName parsed = MCp_CacheFile::ParseName(InFolder(name), t.version);
        EXPECT_EQ(parsed.guid, kGuid);
        EXPECT_EQ(parsed.matchname, velacore::ToUtf16(t.matchname ? t.matchname : ""));
        EXPECT_EQ(parsed.appVersion, t.version);
        EXPECT_EQ(parsed.header, t.header);
    }
}

// Parsing: the version field is read as a base-16 number (case, blanks, sign, prefix and trailing
// text are the parser's business; only a field without digits or beyond 32 bits never matches);
// what follows the fourth stop is not read; a name not of our format throws the format code.
TEST(CacheFileNameTest, ParseTable) {
    const std::u16string g = kGuid.AsWString();
    struct Case {
        std::u16string name;
        uint32_t expected;
        int code;  // 0: parses, with header 1 2 3
    };
    const Case cases[] = {
        {g + u".M.1A.AQID.zkcache", 26, 0},
        {g + u".M.1a.AQID.zkcache", 26, 0},
        {g + u".M. 1A.AQID.zkcache", 26, 0},
        {g + u".M.+1a.AQID.zkcache", 26, 0},
        {g + u".M.0x1A.AQID.zkcache", 26, 0},
        {g + u".M.0X1a.AQID.zkcache", 26, 0},
        {g + u".M.1Azz.AQID.zkcache", 26, 0},
        {g + u".M.1A.AQID.anything.at.all", 26, 0},
        {g + u".M.1B.AQID.zkcache", 26, MCp_Err_AppVersion},
        {g + u".M..AQID.zkcache", 0, MCp_Err_AppVersion},
        {g + u".M.zz.AQID.zkcache", 0, MCp_Err_AppVersion},
        {g + u".M.-1.AQID.zkcache", 0xFFFFFFFF, MCp_Err_AppVersion},
        {g + u".M.1000000001A.AQID.zkcache", 26, MCp_Err_AppVersion},
        {g + u".M.1A", 26, MCp_Err_FormatVersion},
        {u"garbage.zkcache", 26, MCp_Err_FormatVersion},
        {u"not-a-guid.M.1A.AQID.zkcache", 26, MCp_Err_FormatVersion},
        {g + u".M.1A.A!ID.zkcache", 26, MCp_Err_FormatVersion},
        {g + u".M.1A.AQI.zkcache", 26, MCp_Err_FormatVersion},
        {u".zkcache", 26, MCp_Err_FormatVersion},
    };
    for (const Case& t : cases) {
        SCOPED_TRACE(velacore::ToUtf8(t.name));
        int thrown = 0;
        try {
            const ParsedCacheFileName parsed =
                MCp_CacheFile::ParseName(InFolder(t.name), t.expected);
            EXPECT_EQ(parsed.appVersion, t.expected);
            EXPECT_EQ(parsed.header, (std::vector<uint8_t>{1, 2, 3}));
        } catch (int code) {
            thrown = code;
        }
        EXPECT_EQ(thrown, t.code);
    }
}

TEST(CacheFileNameTest, ExtensionTestIsExactAndCaseSensitive) {
    for (const char16_t* name : {u"a.b.c.d.zkcache", u"x.zkcache"})
        EXPECT_TRUE(MCp_CacheFile::IsCacheFile(InFolder(name)));
    for (const char16_t* name :
         {u"a.b.c.d.ZKCACHE", u"a.b.c.d.zkcache.tmp", u"a.zkcachex", u"zkcache"})
        EXPECT_FALSE(MCp_CacheFile::IsCacheFile(InFolder(name)));
    EXPECT_TRUE(MCp_CacheFile::IsTempFile(InFolder(u"a.b.c.d.zkcache.tmp")));
    EXPECT_FALSE(MCp_CacheFile::IsTempFile(InFolder(u".zkcache.tmp")));
}

TEST(CacheFilePlaceTest, FileLiesInTheSubfolderOfItsFirstTwoCharacters) {
    const Dir cache(std::filesystem::path("/c"));
    const std::u16string name = MCp_CacheFile::BuildName(kGuid, "M", 1, {});
    EXPECT_EQ(MCp_CacheFile::FileFor(cache, name).GetFullPath(),
              std::filesystem::path("/c/0F") / velacore::ToUtf8(name));
    EXPECT_EQ(MCp_CacheFile::FileFor(cache, u"A").GetFullPath(), std::filesystem::path("/c/A/A"));
}

TEST(CacheFilePlaceTest, EnsureSubfolderCreatesCacheFolderAndSubfolder) {
    mctest::TempDir temp;
    const Dir cache = temp.AsDir().GetSubdir(u"cache");
    const std::u16string name = MCp_CacheFile::BuildName(kGuid, "M", 1, {});
    EXPECT_TRUE(MCp_CacheFile::EnsureSubfolder(cache, name));
    EXPECT_TRUE(std::filesystem::is_directory(temp.Path() / "cache" / "0F"));
    EXPECT_TRUE(MCp_CacheFile::EnsureSubfolder(cache, name));  // already there: fine
}

TEST(CacheFilePlaceTest, EnsureSubfolderSwallowsFailuresAndNeverRebuildsAVanishedRoot) {
    mctest::TempDir temp;
    const Dir cache = temp.AsDir().GetSubdir(u"gone").GetSubdir(u"cache");
    EXPECT_FALSE(MCp_CacheFile::EnsureSubfolder(cache, u"ABCD"));
    EXPECT_FALSE(std::filesystem::exists(temp.Path() / "gone"));

    auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
    mctest::ScopedFileSystem scoped(faults);
    faults->FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kIoError);
    EXPECT_FALSE(MCp_CacheFile::EnsureSubfolder(temp.AsDir().GetSubdir(u"c2"), u"ABCD"));
}

using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;
using mctest::ReadWholeFile;
using mctest::ScopedFileSystem;
using mctest::TempDir;
using velacore::File;

constexpr size_t kBlock = 4096;
constexpr size_t kBuffer = FastWriteOnlyStream::kBlocksPerBuffer * kBlock;  // 262,144

// Every volume reports 4096-byte blocks; faults can be injected underneath.
class CacheStreamTest : public ::testing::Test {
protected:
    std::shared_ptr<FaultInjectingFileSystem> faults_ =
        std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped_{std::make_shared<disktest::FixedBlockFileSystem>(faults_, kBlock)};
    TempDir dir_{"mc-diskA-stream"};
};

// Writes header + payload the way the cache writer does: through a SafeSave temporary.
void WriteCacheFile(const File& final, const CacheFileHeader& header,
                    const std::vector<uint8_t>& payload) {
    velacore::SafeSave save(final);
    save.GetTempFile().Create(true);
    FastWriteOnlyStream out(save.GetTempFile());
    header.WriteTo(out);
    out.WriteBytes(payload.data(), payload.size());
    out.Finish();
    out.Close();
    save.Commit();
}

uint32_t U32At(const std::vector<uint8_t>& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

TEST(CacheFileHeaderTest, EncodesLittleEndianAtFixedOffsets) {
    CacheFileHeader h;
    h.appVersion = 0x01020304;
    h.reserved = 0xAABBCCDD;
    h.computeTime = 2.0;  // 0x4000000000000000
    h.savings = -0.5;     // 0xBFE0000000000000
    const auto b = h.Encode();
    const std::array<uint8_t, 32> expected = {0xCB, 0x31, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00,
                                              0x04, 0x03, 0x02, 0x01, 0xDD, 0xCC, 0xBB, 0xAA,
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40,
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xE0, 0xBF};
    EXPECT_EQ(b, expected);
    EXPECT_EQ(CacheFileHeader::Decode(b.data()), h);
}

TEST(CacheFileHeaderTest, ReadsBackFromAStreamAndFailsOnATruncatedOne) {
    CacheFileHeader h;
    h.appVersion = 26;
    h.computeTime = 12.25;
    velacore::OMemoryByteStream out;
    h.WriteTo(out);
    ASSERT_EQ(out.Data().size(), kCacheFileHeaderSize);
    velacore::IMemoryByteStream in(out.Data());
    EXPECT_EQ(CacheFileHeader::ReadFrom(in), h);

    velacore::IMemoryByteStream truncated(
        std::vector<uint8_t>(out.Data().begin(), out.Data().end() - 1));
    EXPECT_THROW(CacheFileHeader::ReadFrom(truncated), velacore::IOError);
}

TEST_F(CacheStreamTest, TenBytePayloadGivesOneWholeBufferWithExactHeader) {
    const File final = dir_.FileAt("item.zkcache");
    CacheFileHeader h;
    h.appVersion = 26;
    h.computeTime = 3.5;
    h.savings = 0.125;
    const std::vector<uint8_t> payload = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    WriteCacheFile(final, h, payload);

    const std::vector<uint8_t> bytes = ReadWholeFile(final.GetFullPath());
    ASSERT_EQ(bytes.size(), 262144u);
    EXPECT_EQ(U32At(bytes, 0), 0x000431CBu);
    EXPECT_EQ(U32At(bytes, 4), 1u);
    EXPECT_EQ(U32At(bytes, 8), 26u);
    EXPECT_EQ(CacheFileHeader::Decode(bytes.data()).computeTime, 3.5);
    EXPECT_EQ(CacheFileHeader::Decode(bytes.data()).savings, 0.125);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 32, bytes.begin() + 42), payload);
    EXPECT_FALSE(std::filesystem::exists(dir_ / "item.zkcache.tmp"));
}

TEST_F(CacheStreamTest, EveryBlockWrittenIsOneWholeBuffer) {
    const File file = dir_.FileAt("big.zkcache");
    file.Create(true);
    FastWriteOnlyStream out(file);
    EXPECT_EQ(out.BufferSize(), kBuffer);
    const std::vector<uint8_t> payload = mctest::PatternBytes(2 * kBuffer + 100, 7);
    // Uneven pieces, single bytes included.
    size_t at = 0;
    for (size_t piece : {size_t{1}, size_t{1}, size_t{5000}, kBuffer, size_t{1}}) {
        out.WriteBytes(payload.data() + at, piece);
        at += piece;
    }
    out.WriteBytes(payload.data() + at, payload.size() - at);
    EXPECT_EQ(out.BytesWritten(), 2 * kBuffer);  // only whole buffers so far
    out.Finish();
    out.Finish();  // once only
    out.Close();
    EXPECT_EQ(out.TotalBytes(), payload.size());
    EXPECT_EQ(faults_->CallCount(FsOp::kAppend), 3u);

    const std::vector<uint8_t> bytes = ReadWholeFile(file.GetFullPath());
    ASSERT_EQ(bytes.size(), 3 * kBuffer);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + payload.size()), payload);
}

TEST_F(CacheStreamTest, ExactlyFullBufferAddsNoEmptyTail) {
    const File file = dir_.FileAt("full.zkcache");
    FastWriteOnlyStream out(file);
    const std::vector<uint8_t> payload(kBuffer, 0x5A);
    out.WriteBytes(payload.data(), payload.size());
    out.Finish();
    out.Close();
    EXPECT_EQ(std::filesystem::file_size(file.GetFullPath()), kBuffer);
}

// The room reserved for the expected size is cut back to the buffers actually written.
TEST_F(CacheStreamTest, RoomReservedPastTheLastBufferIsCutOffAtClose) {
    const File file = dir_.FileAt("short.zkcache");
    FastWriteOnlyStream out(file, 4 * kBuffer);
    const std::vector<uint8_t> payload(kBuffer + 10, 0x3C);
    out.WriteBytes(payload.data(), payload.size());
    out.Finish();
    out.Close();
    const std::vector<uint8_t> bytes = ReadWholeFile(file.GetFullPath());
    ASSERT_EQ(bytes.size(), 2 * kBuffer);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + payload.size()), payload);
}

TEST_F(CacheStreamTest, WriteAfterFinishIsAnIoError) {
    FastWriteOnlyStream out(dir_.FileAt("f.zkcache"));
    out.WriteByte(1);
    out.Finish();
    EXPECT_THROW(out.WriteByte(2), velacore::IOError);
}

TEST_F(CacheStreamTest, MissingFolderIsFileNotFound) {
    EXPECT_THROW(FastWriteOnlyStream(dir_.AsDir().GetSubdir(u"nope").GetFile(u"a.zkcache")),
                 velacore::FileNotFoundError);
}

TEST_F(CacheStreamTest, FailedBlockWriteIsAnIoError) {
    FastWriteOnlyStream out(dir_.FileAt("f.zkcache"));
    faults_->FailNth(FsOp::kAppend, 1, Fault::kNoSpace);
    const std::vector<uint8_t> payload(kBuffer + 1, 1);
    EXPECT_THROW(out.WriteBytes(payload.data(), payload.size()), velacore::IOError);
}

TEST_F(CacheStreamTest, FailedWriteLeavesNothingUnderTheFinalName) {
    const File final = dir_.FileAt("item.zkcache");
    for (Fault fault : {Fault::kNoSpace, Fault::kShortWrite, Fault::kIoError}) {
        faults_->FailNth(FsOp::kAppend, 1, fault);
        EXPECT_THROW(WriteCacheFile(final, CacheFileHeader{}, std::vector<uint8_t>(10, 1)),
                     velacore::IOError);
        EXPECT_TRUE(std::filesystem::is_empty(dir_.Path())) << "after fault " << int(fault);
    }
    faults_->FailNth(FsOp::kRename, 1, Fault::kIoError);
    EXPECT_THROW(WriteCacheFile(final, CacheFileHeader{}, {1}), velacore::IOError);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.Path()));

    WriteCacheFile(final, CacheFileHeader{}, {1});  // no fault: the file appears whole
    EXPECT_EQ(std::filesystem::file_size(final.GetFullPath()), kBuffer);
}

}  // namespace
