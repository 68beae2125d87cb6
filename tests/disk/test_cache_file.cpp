// The cache file: names (build, parse, sub-folder), the 32-byte header and the write stream
// (whole buffers, padding, failures).
#include <gtest/gtest.h>

#include "DiskFixture.h"
#include "disk/CacheFile.h"
#include "lifecycle/Messages.h"
#include "mc/host/BinaryText.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "support/FaultInjectingFileSystem.h"

namespace {

using mctest::FsOp;
using velacore::Dir;
using velacore::File;
namespace fs = std::filesystem;

const velacore::Guid kGuid(std::string_view("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"));

File InFolder(const std::u16string& name) {
    return File(Dir(fs::path("/x")), name);
}

// Built names parse back whole; the version field is base 16 and a field without digits or
// beyond 32 bits never matches; a name not of our format throws the format code.
TEST(CacheFileName, BuildAndParseTable) {
    const std::u16string g = kGuid.AsWString();
    // 0xFF 0xFF 0xFF encodes as "////": every slash must become '-' in the name.
    const std::vector<uint8_t> slashes = {0xFF, 0xFF, 0xFF, 0xFB, 0xEF};
    ASSERT_NE(velacore::EncodeBinaryDataToUTF8String(slashes).find('/'), std::string::npos);
    const std::vector<uint8_t> h123 = {1, 2, 3};
    struct Row {
        std::u16string name;
        uint32_t version;
        int code = 0;                   // 0: parses
        std::vector<uint8_t> header{};  // and gives this header
        const char* built = nullptr;    // the matchname that builds `name` ("" for none)
    };
    const Row rows[] = {
        {g + u".TestPayload.1A.AQID.zkcache", 0x1A, 0, h123, "TestPayload"},
        {g + u".M.ABCDEF..zkcache", 0xABCDEF, 0, {}, "M"},
        {g + u".M.0..zkcache", 0, 0, {}, "M"},
        {g + u"..1A.AQID.zkcache", 26, 0, h123, ""},
        {g + u".TestPayload.1A.----++8=.zkcache", 26, 0, slashes, "TestPayload"},
        {g + u".M.1a.AQID.zkcache", 26, 0, h123},
        {g + u".M.1A.AQID.anything.at.all", 26, 0, h123},
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
    for (const Row& t : rows) {
        SCOPED_TRACE(velacore::ToUtf8(t.name));
        if (t.built) {
            EXPECT_EQ(
                MCp_CacheFile::BuildName(kGuid, *t.built ? t.built : nullptr, t.version, t.header),
                t.name);
        }
        int thrown = 0;
        try {
            const ParsedCacheFileName parsed =
                MCp_CacheFile::ParseName(InFolder(t.name), t.version);
            EXPECT_EQ(parsed.guid, kGuid);
            EXPECT_EQ(parsed.appVersion, t.version);
            EXPECT_EQ(parsed.header, t.header);
            if (t.built) {
                EXPECT_EQ(parsed.matchname, velacore::ToUtf16(t.built));
            }
        } catch (int code) {
            thrown = code;
        }
        EXPECT_EQ(thrown, t.code);
    }
}

TEST(CacheFileHeader, EncodesLittleEndianAtFixedOffsets) {
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

constexpr size_t kBuffer =
    FastWriteOnlyStream::kBlocksPerBuffer * diskbtest::kBlockSize;  // 262,144

// Every volume reports 4096-byte blocks; faults can be injected underneath.
class CacheStream : public ::testing::Test {
protected:
    std::shared_ptr<mctest::FaultInjectingFileSystem> faults_ =
        std::make_shared<mctest::FaultInjectingFileSystem>();
    mctest::ScopedFileSystem scoped_{std::make_shared<diskbtest::FakeVolumeFileSystem>(faults_)};
    mctest::TempDir dir_{"mc-diskA-stream"};
};

// Only whole buffers reach the file, whatever the pieces; the tail is padded to one; room
// reserved past the last buffer is cut back at close.
TEST_F(CacheStream, WholeBuffersTable) {
    struct Row {
        std::vector<size_t> pieces;
        uint64_t reserve;
        size_t fileSize;
    };
    const Row rows[] = {
        {{10}, 0, kBuffer},
        {{kBuffer}, 0, kBuffer},  // exactly full: no empty tail
        {{kBuffer + 10}, 4 * kBuffer, 2 * kBuffer},
        {{1, 1, 5000, kBuffer, 1, kBuffer - 4903 + 100}, 0, 3 * kBuffer},
    };
    int n = 0;
    for (const Row& t : rows) {
        SCOPED_TRACE(n);
        const File file = dir_.FileAt("f" + std::to_string(n++) + ".zkcache");
        const uint64_t appendsBefore = faults_->CallCount(FsOp::kAppend);
        std::vector<uint8_t> payload;
        {
            FastWriteOnlyStream out(file, t.reserve);
            EXPECT_EQ(out.BufferSize(), kBuffer);
            for (size_t piece : t.pieces) {
                const auto bytes = mctest::PatternBytes(piece, static_cast<uint32_t>(piece));
                out.WriteBytes(bytes.data(), bytes.size());
                payload.insert(payload.end(), bytes.begin(), bytes.end());
            }
            EXPECT_EQ(out.BytesWritten(), payload.size() / kBuffer * kBuffer);
            out.Finish();
            out.Finish();                                       // once only
            EXPECT_THROW(out.WriteByte(2), velacore::IOError);  // nothing after the finish
            out.Close();
            EXPECT_EQ(out.TotalBytes(), payload.size());
        }
        EXPECT_EQ(faults_->CallCount(FsOp::kAppend) - appendsBefore, t.fileSize / kBuffer);
        const std::vector<uint8_t> bytes = mctest::ReadWholeFile(file.GetFullPath());
        ASSERT_EQ(bytes.size(), t.fileSize);
        EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + payload.size()), payload);
    }
}

}  // namespace
