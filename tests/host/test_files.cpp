// Files: the operating system's error mapping, listings and removal that never follow links,
// and block writes (safe save under faults is driven by the disk writer's fault table).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "host/NativeFileSystem.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::PatternBytes;
using mctest::ReadWholeFile;
using mctest::TempDir;
using velacore::FileNotFoundError;
using velacore::IOError;

velacore::FileSystem& Fs() {
    return velacore::GetFileSystem();
}

// The errno of the IOError action throws (0 when it throws none); `what` gets the message.
int ErrnoOf(const std::function<void()>& action, std::string* what = nullptr) {
    try {
        action();
    } catch (const FileNotFoundError& e) {
        EXPECT_EQ(e.Code(), velacore::kFileNotFoundCode);
        if (what) *what = e.what();
        return ENOENT;
    } catch (const IOError& e) {
        EXPECT_EQ(e.Code(), velacore::kIOErrorCode);
        return e.SysErrno();
    }
    return 0;
}

TEST(FileSystem, MissingPathsAreNotFoundNamingThePathOtherErrorsKeepTheirErrno) {
    TempDir dir;
    const auto missing = dir / "nope" / "x.bin";
    const auto folder = dir / "folder";
    const auto file = dir / "file";
    Fs().CreateDirectory(folder);
    Fs().CreateDirectory(folder);  // idempotent
    Fs().CreateFile(folder / "inside", true);
    Fs().CreateFile(file, true);
    auto closed = Fs().OpenForDirectWrite(file);
    closed->Close();
    const char byte = 'x';
    const std::set<int> kMissing = {ENOENT};  // FileNotFoundError naming the path
    const std::vector<std::pair<std::function<void()>, std::set<int>>> rows = {
        {[&] { Fs().CreateFile(missing, false); }, kMissing},
        {[&] { Fs().DeleteFile(missing); }, kMissing},
        {[&] { Fs().Rename(missing, dir / "y"); }, kMissing},
        {[&] { Fs().FileSize(missing); }, kMissing},
        {[&] { Fs().CreationTime(missing); }, kMissing},
        {[&] { Fs().ModificationTime(missing); }, kMissing},
        {[&] { Fs().OpenForRead(missing); }, kMissing},
        {[&] { Fs().CreateDirectory(missing); }, kMissing},
        {[&] { Fs().RemoveDirectory(missing); }, kMissing},
        {[&] { Fs().RemoveDirectoryRecursive(missing); }, kMissing},
        {[&] { Fs().ListDirectory(missing); }, kMissing},
        {[&] { Fs().GetBlockSize(missing); }, kMissing},
        {[&] { Fs().GetFreeSpace(missing); }, kMissing},
        {[&] { Fs().OpenForDirectWrite(missing); }, kMissing},
        {[&] { Fs().CreateFile(file, true); }, {EEXIST}},
        {[&] { Fs().CreateDirectory(file); }, {EEXIST}},
        {[&] { Fs().RemoveDirectory(folder); }, {ENOTEMPTY, EEXIST}},
        {[&] { Fs().DeleteFile(folder); }, {EISDIR, EPERM}},
        {[&] { Fs().OpenForDirectWrite(folder); }, {EISDIR}},
        {[&] { closed->Append(&byte, 1); }, {EBADF}},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        std::string what;
        EXPECT_EQ(rows[i].second.count(ErrnoOf(rows[i].first, &what)), 1u) << "row " << i;
        EXPECT_TRUE(rows[i].second != kMissing || what.find(missing.string()) != std::string::npos);
    }
    EXPECT_FALSE(Fs().Exists(missing) || Fs().IsDirectory(missing));
    EXPECT_TRUE(Fs().IsDirectory(folder) && !Fs().IsDirectory(file));
}

TEST(FileSystem, ListingAndRecursiveRemovalNeverFollowLinks) {
    TempDir dir;
    const auto outside = dir / "outside";
    Fs().CreateDirectory(outside);
    Fs().CreateFile(outside / "keep.bin", true);
    const auto tree = dir / "tree";
    Fs().CreateDirectory(tree);
    Fs().CreateDirectory(tree / "\xE6\x97\xA5");
    Fs().CreateFile(tree / "caf\xC3\xA9.zkcache", true);
    Fs().CreateFile(tree / "\xE6\x97\xA5" / "deep.bin", true);
#ifdef _WIN32
    std::error_code linkError;
    std::filesystem::create_directory_symlink(outside, tree / "to-outside", linkError);
    if (linkError) GTEST_SKIP() << "this account or Wine cannot create symbolic links";
#else
    std::filesystem::create_directory_symlink(outside, tree / "to-outside");
#endif
    std::filesystem::create_symlink(outside / "keep.bin", tree / "file-link");

    std::map<std::string, char> listing;  // 'd' folder, 'f' regular file, '-' anything else
    for (const auto& entry : Fs().ListDirectory(tree)) {
        listing[entry.name] = entry.isDirectory ? 'd' : entry.isRegularFile ? 'f' : '-';
    }
    const std::map<std::string, char> expected = {{"caf\xC3\xA9.zkcache", 'f'},
                                                  {"\xE6\x97\xA5", 'd'},
                                                  {"to-outside", '-'},
                                                  {"file-link", '-'}};
    EXPECT_EQ(listing, expected);

    Fs().RemoveDirectoryRecursive(tree);
    EXPECT_FALSE(Fs().Exists(tree));
    EXPECT_TRUE(Fs().Exists(outside / "keep.bin"));
}

// Whole aligned blocks stay direct; an odd tail falls back to buffered writes; a file system
// that refuses direct I/O writes any size. The bytes on disk are always exactly what was sent.
TEST(DirectWrite, BytesOnDiskMatchWhateverTheMode) {
    TempDir dir;
    const auto buffered = velacore::MakeNativeFileSystem({.allowDirectIo = false});
    for (velacore::FileSystem* fs : {&Fs(), buffered.get()}) {
        const auto path = dir / "blocks.bin";
        mctest::WriteWholeFile(path, PatternBytes(100000, 2));  // opening discards it
        const size_t block = fs->GetBlockSize(path);
        const auto data = PatternBytes(block * 9 + 123, 4);
        auto file = fs->OpenForDirectWrite(path);
        const bool direct = file->IsDirectIo();
        velacore::AlignedBuffer buffer(block * 4, block);
        size_t done = 0;
        while (data.size() - done >= block) {  // 4 + 4 + 1 blocks
            const size_t piece = std::min(buffer.Size(), (data.size() - done) / block * block);
            std::memcpy(buffer.Data(), data.data() + done, piece);
            file->Append(buffer.Data(), piece);
            done += piece;
        }
        EXPECT_EQ(file->IsDirectIo(), direct);  // aligned blocks never need the fallback
        file->Append(data.data() + done, data.size() - done);
        file->Sync();
        file->Close();
        EXPECT_EQ(ReadWholeFile(path), data);
        EXPECT_TRUE(fs != buffered.get() || !direct);
    }
}

}  // namespace
