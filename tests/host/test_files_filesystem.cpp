// The operating system's FileSystem: path operations, errors, times, folders, listings, the
// installed instance.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::TempDir;
using velacore::FileNotFoundError;
using velacore::FileSystem;
using velacore::IOError;

FileSystem& Fs() {
    return velacore::GetFileSystem();
}

int ErrnoOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const IOError& e) {
        EXPECT_EQ(e.Code(), velacore::kIOErrorCode);
        return e.SysErrno();
    }
    ADD_FAILURE() << "no IOError";
    return 0;
}

// Name -> 'd' (folder), 'f' (regular file) or '-' (anything else, links included).
std::map<std::string, char> ListingOf(const std::filesystem::path& path) {
    std::map<std::string, char> result;
    for (const auto& entry : Fs().ListDirectory(path)) {
        const char kind = entry.isDirectory ? 'd' : entry.isRegularFile ? 'f' : '-';
        EXPECT_TRUE(result.emplace(entry.name, kind).second) << entry.name;
    }
    return result;
}

TEST(FileSystemPaths, CreateFileHonoursFailIfExistsAndEmptiesOtherwise) {
    TempDir dir;
    const auto path = dir / "a.bin";
    Fs().CreateFile(path, true);
    EXPECT_TRUE(Fs().Exists(path));
    EXPECT_EQ(Fs().FileSize(path), 0u);

    EXPECT_EQ(ErrnoOf([&] { Fs().CreateFile(path, true); }), EEXIST);
    mctest::WriteWholeFile(path, "content");
    Fs().CreateFile(path, false);
    EXPECT_EQ(Fs().FileSize(path), 0u);
}

TEST(FileSystemPaths, MissingPathsThrowFileNotFoundNamingThePath) {
    TempDir dir;
    const auto missing = dir / "nope" / "x.bin";
    const std::vector<std::function<void()>> actions = {
        [&] { Fs().CreateFile(missing, false); }, [&] { Fs().DeleteFile(missing); },
        [&] { Fs().Rename(missing, dir / "y"); }, [&] { Fs().FileSize(missing); },
        [&] { Fs().CreationTime(missing); },      [&] { Fs().ModificationTime(missing); },
        [&] { Fs().OpenForRead(missing); },       [&] { Fs().CreateDirectory(missing); },
        [&] { Fs().RemoveDirectory(missing); },   [&] { Fs().RemoveDirectoryRecursive(missing); },
        [&] { Fs().ListDirectory(missing); },     [&] { Fs().GetBlockSize(missing); },
        [&] { Fs().GetFreeSpace(missing); },
    };
    for (size_t i = 0; i < actions.size(); ++i) {
        try {
            actions[i]();
            ADD_FAILURE() << "action " << i << " did not throw";
        } catch (const FileNotFoundError& e) {
            EXPECT_EQ(e.Code(), velacore::kFileNotFoundCode);
            EXPECT_NE(std::string(e.what()).find(missing.string()), std::string::npos)
                << "action " << i << ": " << e.what();
        }
    }
    EXPECT_FALSE(Fs().Exists(missing));
    EXPECT_FALSE(Fs().IsDirectory(missing));
}

TEST(FileSystemPaths, OtherFailuresCarryTheirErrno) {
    TempDir dir;
    const auto folder = dir / "folder";
    const auto file = dir / "file";
    Fs().CreateDirectory(folder);
    Fs().CreateFile(folder / "inside", true);
    Fs().CreateFile(file, true);

    EXPECT_EQ(ErrnoOf([&] { Fs().CreateDirectory(file); }), EEXIST);
    const int notEmpty = ErrnoOf([&] { Fs().RemoveDirectory(folder); });
    EXPECT_TRUE(notEmpty == ENOTEMPTY || notEmpty == EEXIST) << notEmpty;
    const int deleteFolder = ErrnoOf([&] { Fs().DeleteFile(folder); });
    EXPECT_TRUE(deleteFolder == EISDIR || deleteFolder == EPERM) << deleteFolder;
    EXPECT_TRUE(Fs().IsDirectory(folder));
}

TEST(FileSystemPaths, RenameReplacesTheTarget) {
    TempDir dir;
    mctest::WriteWholeFile(dir / "from", "new");
    mctest::WriteWholeFile(dir / "to", "old content");
    Fs().Rename(dir / "from", dir / "to");
    EXPECT_FALSE(Fs().Exists(dir / "from"));
    EXPECT_EQ(mctest::ReadWholeFile(dir / "to"), (std::vector<uint8_t>{'n', 'e', 'w'}));
}

TEST(FileSystemPaths, TimesAreNanosecondsSinceTheEpoch) {
    if (std::filesystem::path::preferred_separator == '\\')
        GTEST_SKIP() << "file times step by 100 ns here";
    TempDir dir;
    const auto path = dir / "t.bin";
    Fs().CreateFile(path, true);
    // 2020-01-02 03:04:05.123456789 UTC
    const auto when = std::chrono::sys_seconds(std::chrono::seconds(1577934245)) +
                      std::chrono::nanoseconds(123456789);
    std::filesystem::last_write_time(path, std::chrono::file_clock::from_sys(when));
    EXPECT_EQ(Fs().ModificationTime(path), 1577934245123456789LL);

    // The birth time (or the modification time where unknown) is near now, not in seconds.
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const int64_t created = Fs().CreationTime(path);
    constexpr int64_t kDay = 86400LL * 1000000000LL;
    EXPECT_TRUE(created == 1577934245123456789LL || std::llabs(created - now) < kDay) << created;
}

TEST(FileSystemPaths, ExistsAndIsDirectoryTellFilesFromFolders) {
    TempDir dir;
    Fs().CreateFile(dir / "f", true);
    EXPECT_TRUE(Fs().Exists(dir / "f"));
    EXPECT_FALSE(Fs().IsDirectory(dir / "f"));
    EXPECT_TRUE(Fs().Exists(dir.Path()));
    EXPECT_TRUE(Fs().IsDirectory(dir.Path()));
    EXPECT_FALSE(Fs().Exists(dir / "f" / "under-a-file"));
}

TEST(FileSystemVolumes, BlockSizeAndFreeSpaceArePlausible) {
    TempDir dir;
    const size_t block = Fs().GetBlockSize(dir.Path());
    EXPECT_GE(block, 512u);
    EXPECT_EQ(block & (block - 1), 0u) << block;
    EXPECT_GT(Fs().GetFreeSpace(dir.Path()), 0u);
    Fs().SetNotContentIndexed(dir.Path());
}

TEST(FileSystemFolders, CreateDirectoryIsOneLevelAndIdempotent) {
    TempDir dir;
    Fs().CreateDirectory(dir / "a");
    Fs().CreateDirectory(dir / "a");
    EXPECT_TRUE(Fs().IsDirectory(dir / "a"));
    EXPECT_THROW(Fs().CreateDirectory(dir / "b" / "c"), FileNotFoundError);
    EXPECT_FALSE(Fs().Exists(dir / "b"));
}

TEST(FileSystemFolders, ListDirectoryReportsUtf8NamesAndKinds) {
    if (std::filesystem::path::preferred_separator == '\\')
        GTEST_SKIP() << "narrow paths are not UTF-8 and links need a privilege here";
    TempDir dir;
    Fs().CreateFile(dir / "caf\xC3\xA9.zkcache", true);
    Fs().CreateDirectory(dir / "\xE6\x97\xA5\xE6\x9C\xAC");
    Fs().CreateFile(dir / ".hidden", true);
    std::filesystem::create_directory_symlink(dir / "\xE6\x97\xA5\xE6\x9C\xAC", dir / "link");

    const std::map<std::string, char> expected = {{"caf\xC3\xA9.zkcache", 'f'},
                                                  {"\xE6\x97\xA5\xE6\x9C\xAC", 'd'},
                                                  {".hidden", 'f'},
                                                  {"link", '-'}};
    EXPECT_EQ(ListingOf(dir.Path()), expected);
    EXPECT_TRUE(Fs().ListDirectory(dir / "link").empty());
}

TEST(FileSystemFolders, RemoveDirectoryRecursiveRemovesTreeButNotLinkTargets) {
    if (std::filesystem::path::preferred_separator == '\\')
        GTEST_SKIP() << "creating symbolic links needs a privilege here";
    TempDir dir;
    const auto outside = dir / "outside";
    Fs().CreateDirectory(outside);
    Fs().CreateFile(outside / "keep.bin", true);

    const auto tree = dir / "tree";
    Fs().CreateDirectory(tree);
    Fs().CreateDirectory(tree / "a");
    Fs().CreateDirectory(tree / "a" / "b");
    Fs().CreateDirectory(tree / "empty");
    Fs().CreateFile(tree / "top.bin", true);
    Fs().CreateFile(tree / "a" / "b" / "deep.bin", true);
    std::filesystem::create_directory_symlink(outside, tree / "a" / "to-outside");
    std::filesystem::create_symlink(outside / "keep.bin", tree / "file-link");

    Fs().RemoveDirectoryRecursive(tree);
    EXPECT_FALSE(Fs().Exists(tree));
    EXPECT_TRUE(Fs().Exists(outside / "keep.bin"));
    EXPECT_THROW(Fs().RemoveDirectoryRecursive(tree), FileNotFoundError);
}

TEST(FileSystemInstall, SetFileSystemSwapsAndNullRestoresTheDefault) {
    FileSystem& before = velacore::GetFileSystem();
    EXPECT_EQ(&before, velacore::GetDefaultFileSystem().get());
    auto fault = std::make_shared<mctest::FaultInjectingFileSystem>();
    {
        mctest::ScopedFileSystem scoped(fault);
        EXPECT_EQ(&velacore::GetFileSystem(), fault.get());
        auto inner = std::make_shared<velacore::FileSystemWrapper>(fault);
        {
            mctest::ScopedFileSystem nested(inner);
            EXPECT_EQ(&velacore::GetFileSystem(), inner.get());
        }
        EXPECT_EQ(&velacore::GetFileSystem(), fault.get());
    }
    EXPECT_EQ(&velacore::GetFileSystem(), &before);

    auto previous = velacore::SetFileSystem(fault);
    EXPECT_EQ(previous.get(), &before);
    EXPECT_EQ(velacore::SetFileSystem(nullptr).get(), fault.get());
    EXPECT_EQ(&velacore::GetFileSystem(), &before);
    EXPECT_THROW({ velacore::FileSystemWrapper wrapper(nullptr); }, std::invalid_argument);
}

}  // namespace
