// What only the Windows file layer has: UTF-16 names and paths past MAX_PATH, the unbuffered
// write-through cache-file stream on sector-aligned blocks, the not-content-indexed attribute,
// case-insensitive names, and files another handle keeps from being deleted.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "disk/CacheFile.h"
#include "host/windows/Win32.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "mc/host/TextConvert.h"
#include "support/TempDir.h"

namespace {

using mctest::PatternBytes;
using mctest::ReadWholeFile;
using mctest::TempDir;
using velacore::FileSystem;
namespace fs = std::filesystem;

fs::path Utf16Path(std::u16string_view text) {
    return fs::path(std::u16string(text));
}

DWORD AttributesOf(const fs::path& path) {
    return ::GetFileAttributesW((LR"(\\?\)" + fs::absolute(path).native()).c_str());
}

TEST(WindowsPaths, NonAsciiNamesAndPathsPastMaxPathWorkEverywhere) {
    const std::u16string longName(120, u'x');
    struct Case {
        std::u16string folder, file;
    } cases[] = {
        {u"caf\u00E9 \u043A\u044D\u0448", u"\u540D\u524D \U0001F600.zkcache"},
        {longName + u"1\\" + longName + u"2\\" + longName + u"3", u"deep.zkcache"},
    };
    TempDir dir;
    FileSystem& files = velacore::GetFileSystem();
    for (const Case& c : cases) {
        SCOPED_TRACE(velacore::ToUtf8(c.folder));
        fs::path folder = dir.Path();
        for (const fs::path& part : Utf16Path(c.folder)) files.CreateDirectory(folder /= part);
        const fs::path file = folder / Utf16Path(c.file);
        ASSERT_GT(file.native().size(), c.folder.size() > 260 ? 260u : 0u);
        files.CreateFile(file, true);
        const std::vector<uint8_t> data = PatternBytes(files.GetBlockSize(file), 3);
        velacore::AlignedBuffer block(data.size(), data.size());
        std::copy(data.begin(), data.end(), block.Data());
        auto writer = files.OpenForDirectWrite(file);
        writer->Append(block.Data(), block.Size());
        writer->Close();

        const std::vector<velacore::DirectoryEntry> listed = files.ListDirectory(folder);
        ASSERT_EQ(listed.size(), 1u);
        EXPECT_EQ(listed[0].name, velacore::ToUtf8(c.file));
        EXPECT_TRUE(listed[0].isRegularFile);
        EXPECT_EQ(files.FileSize(file), data.size());
        const fs::path renamed = folder / Utf16Path(u"\u00FC" + c.file);
        files.Rename(file, renamed);
        std::vector<uint8_t> back(data.size());
        EXPECT_EQ(files.OpenForRead(renamed)->Read(back.data(), back.size()), data.size());
        EXPECT_EQ(back, data);
        EXPECT_GT(files.GetFreeSpace(folder), 0u);
        files.RemoveDirectoryRecursive(dir.Path() / Utf16Path(c.folder).begin()->native());
        EXPECT_FALSE(files.Exists(renamed));
    }
}

TEST(WindowsPaths, CacheFileStreamKeepsAnOddPayloadByteExactOnWholeAlignedBlocks) {
    TempDir dir;
    const velacore::File file = dir.FileAt("odd.zkcache");
    FastWriteOnlyStream stream(file);
    const std::vector<uint8_t> payload = PatternBytes(stream.BufferSize() * 2 + 4097, 9);
    for (size_t done = 0, piece = 1; done < payload.size(); done += piece, piece = piece * 3 + 1) {
        piece = std::min(piece, payload.size() - done);
        stream.WriteBytes(payload.data() + done, piece);
    }
    EXPECT_TRUE(stream.IsDirectIo());
    stream.Finish();
    stream.Close();
    const std::vector<uint8_t> onDisk = ReadWholeFile(file.GetFullPath());
    ASSERT_EQ(onDisk.size(), stream.BufferSize() * 3);
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), onDisk.begin()));
}

TEST(WindowsPaths, NotContentIndexedIsSetAndKeptThroughRename) {
    TempDir dir;
    FileSystem& files = velacore::GetFileSystem();
    files.CreateFile(dir / "probe", true);
    const std::wstring probe = LR"(\\?\)" + fs::absolute(dir / "probe").native();
    ::SetFileAttributesW(probe.c_str(), FILE_ATTRIBUTE_NOT_CONTENT_INDEXED);
    if ((AttributesOf(dir / "probe") & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED) == 0)
        GTEST_SKIP() << "this volume does not keep the attribute (as under Wine)";
    files.CreateFile(dir / "temp", true);
    ASSERT_EQ(AttributesOf(dir / "temp") & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, 0u);
    files.SetNotContentIndexed(dir / "temp");
    files.Rename(dir / "temp", dir / "final.zkcache");
    EXPECT_NE(AttributesOf(dir / "final.zkcache") & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, 0u);
}

TEST(WindowsPaths, NamesDifferingOnlyInCaseAreOneFile) {
    TempDir dir;
    FileSystem& files = velacore::GetFileSystem();
    files.CreateFile(dir / "Item.zkcache", true);
    try {
        files.CreateFile(dir / "ITEM.ZKCACHE", true);
        ADD_FAILURE() << "exclusive create of the same name in other case succeeded";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), EEXIST);
    }
    EXPECT_TRUE(files.Exists(dir / "item.zkcache"));
    ASSERT_EQ(files.ListDirectory(dir.Path()).size(), 1u);
    EXPECT_EQ(files.ListDirectory(dir.Path())[0].name, "Item.zkcache");
}

TEST(WindowsPaths, FileHeldWithoutShareDeleteFailsItsDeleteButNotTheOthers) {
    TempDir dir;
    FileSystem& files = velacore::GetFileSystem();
    files.CreateDirectory(dir / "sub");
    for (const char* name : {"a.zkcache", "held.zkcache", "z.zkcache"}) {
        files.CreateFile(dir / "sub" / name, true);
    }
    HANDLE held = ::CreateFileW((dir / "sub" / "held.zkcache").c_str(), GENERIC_READ,
                                FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    try {
        files.DeleteFile(dir / "sub" / "held.zkcache");
        ADD_FAILURE() << "deleting a file held without FILE_SHARE_DELETE succeeded";
    } catch (const velacore::FileNotFoundError&) {
        ADD_FAILURE() << "a held file was reported missing";
    } catch (const velacore::IOError& e) {
        EXPECT_TRUE(e.SysErrno() == EBUSY || e.SysErrno() == EACCES) << e.what();
    }
    files.DeleteFile(dir / "sub" / "a.zkcache");
    std::vector<velacore::DirectoryEntry> left = files.ListDirectory(dir / "sub");
    ::CloseHandle(held);
    std::sort(left.begin(), left.end(), [](auto& x, auto& y) { return x.name < y.name; });
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].name, "held.zkcache");
    EXPECT_EQ(files.FileSize(dir / "sub" / "held.zkcache"), 0u);
    files.RemoveDirectoryRecursive(dir / "sub");
    EXPECT_FALSE(files.Exists(dir / "sub"));
}

}  // namespace
