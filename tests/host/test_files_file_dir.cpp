// File and Dir values, names in UTF-16, folder helpers and the recursive walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;
using mctest::ScopedFileSystem;
using mctest::TempDir;
using velacore::Dir;
using velacore::File;
using velacore::RecursiveFileIterator;

std::set<std::u16string> NamesOf(const std::vector<File>& files) {
    std::set<std::u16string> names;
    for (const File& f : files) names.insert(f.GetName());
    return names;
}

std::multiset<std::string> Walk(RecursiveFileIterator& it) {
    std::multiset<std::string> paths;
    File file;
    while (it.Next(file)) paths.insert(file.GetFullPathUtf8());
    return paths;
}

TEST(FileNames, NameAndExtensionInUtf16) {
    if (std::filesystem::path::preferred_separator == '\\')
        GTEST_SKIP() << "narrow path strings are not UTF-8 here";
    TempDir dir;
    // U+540D U+524D ("name"), then an emoji outside the BMP (a surrogate pair).
    const std::u16string name = u"\u540D\u524D.b.\U0001F600cache";
    const File file(dir.AsDir(), name);
    EXPECT_EQ(file.GetName(), name);
    EXPECT_EQ(file.GetExtension(true), u".\U0001F600cache");
    EXPECT_EQ(file.GetExtension(false), u"\U0001F600cache");
    EXPECT_EQ(file.GetParent(), dir.AsDir());
    EXPECT_EQ(file.GetFullPathUtf8(), (dir.Path() / "\xE5\x90\x8D\xE5\x89\x8D.b.\xF0\x9F\x98\x80"
                                                    "cache")
                                          .string());

    EXPECT_EQ(File(dir / "a.b.zkcache").GetExtension(true), u".zkcache");
    EXPECT_EQ(File(dir / "a.b.zkcache").GetExtension(false), u"zkcache");
    EXPECT_EQ(File(dir / "noext").GetExtension(true), u"");
    EXPECT_EQ(File(dir / "trailing.").GetExtension(true), u".");
    EXPECT_EQ(File(dir / "trailing.").GetExtension(false), u"");
    EXPECT_TRUE(File().IsEmpty());
    EXPECT_FALSE(file.IsEmpty());
}

TEST(FileNames, Utf16NamesSurviveTheDisk) {
    TempDir dir;
    const std::u16string name = u"caf\u00E9 \U0001F600.zkcache";
    dir.AsDir().GetFile(name).Create(true);
    const auto files = dir.AsDir().ListFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].GetName(), name);
    EXPECT_EQ(files[0], dir.AsDir().GetFile(name));
}

TEST(FileNames, ReplaceIllegalFileNameCharacters) {
    EXPECT_EQ(velacore::ReplaceIllegalFileNameCharacters(u"a/b\\c:d*e?f\"g<h>i|j"),
              u"a-b-c-d-e-f-g-h-i-j");
    EXPECT_EQ(velacore::ReplaceIllegalFileNameCharacters(u"tab\there\nnul", u'_'), u"tab_here_nul");
    EXPECT_EQ(velacore::ReplaceIllegalFileNameCharacters(std::u16string(u"x\0y", 3)), u"x-y");
    const std::u16string fine = u"caf\u00E9 \U0001F600 (1).zkcache";
    EXPECT_EQ(velacore::ReplaceIllegalFileNameCharacters(fine), fine);
}

TEST(FileOperations, CreateSizeRenameDelete) {
    TempDir dir;
    const File a = dir.FileAt("a.bin");
    const File b = dir.FileAt("b.bin");
    EXPECT_FALSE(a.Exists());
    a.Create(true);
    EXPECT_TRUE(a.Exists());
    EXPECT_THROW(a.Create(true), velacore::IOError);
    mctest::WriteWholeFile(a.GetFullPath(), "12345");
    EXPECT_EQ(a.Size(), 5u);
    EXPECT_GT(a.Modified(), 0);
    EXPECT_GT(a.Created(), 0);

    a.Rename(b);
    EXPECT_FALSE(a.Exists());
    EXPECT_EQ(b.Size(), 5u);
    b.Delete();
    EXPECT_FALSE(b.Exists());
    EXPECT_THROW(b.Delete(), velacore::FileNotFoundError);
    EXPECT_THROW(b.Size(), velacore::FileNotFoundError);
}

TEST(DirOperations, CreateWithParentsListAndDelete) {
    TempDir dir;
    const Dir deep = dir.AsDir().GetSubdir(u"one").GetSubdir(u"two").GetSubdir(u"three");
    EXPECT_FALSE(deep.Exists());
    deep.Create();
    deep.Create();
    EXPECT_TRUE(deep.Exists());
    EXPECT_EQ(deep.GetName(), u"three");
    EXPECT_EQ(Dir(deep.GetFullPath() / "").GetName(), u"three");

    const Dir two = dir.AsDir().GetSubdir(u"one").GetSubdir(u"two");
    two.GetFile(u"x.zkcache").Create(true);
    two.GetFile(u"y.tmp").Create(true);
    EXPECT_EQ(NamesOf(two.ListFiles()), (std::set<std::u16string>{u"x.zkcache", u"y.tmp"}));
    ASSERT_EQ(two.ListSubdirs().size(), 1u);
    EXPECT_EQ(two.ListSubdirs()[0], deep);

    EXPECT_THROW(two.Delete(false), velacore::IOError);
    two.Delete(true);
    EXPECT_FALSE(two.Exists());
    EXPECT_TRUE(dir.AsDir().GetSubdir(u"one").Exists());
    EXPECT_THROW(two.Delete(true), velacore::FileNotFoundError);
    EXPECT_THROW(two.Delete(false), velacore::FileNotFoundError);
}

TEST(DirOperations, AFileIsNotADir) {
    TempDir dir;
    dir.FileAt("plain").Create(true);
    EXPECT_FALSE(Dir(dir / "plain").Exists());
    EXPECT_THROW(Dir(dir / "plain" / "sub").Create(), velacore::HostError);
}

TEST(FolderHelpers, EnsureDirectoryExistsNeverThrows) {
    TempDir dir;
    const Dir nested(dir / "a" / "b" / "c");
    EXPECT_TRUE(velacore::EnsureDirectoryExists(nested));
    EXPECT_TRUE(nested.Exists());
    EXPECT_TRUE(velacore::EnsureDirectoryExists(nested));

    dir.FileAt("blocker").Create(true);
    EXPECT_FALSE(velacore::EnsureDirectoryExists(Dir(dir / "blocker")));
    EXPECT_FALSE(velacore::EnsureDirectoryExists(Dir(dir / "blocker" / "x")));
    EXPECT_FALSE(velacore::EnsureDirectoryExists(Dir()));

    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailNth(FsOp::kCreateDirectory, 1, Fault::kNoSpace);
    EXPECT_FALSE(velacore::EnsureDirectoryExists(Dir(dir / "full")));
    EXPECT_EQ(fault->FaultCount(FsOp::kCreateDirectory), 1u);
    EXPECT_FALSE(Dir(dir / "full").Exists());
}

TEST(FolderHelpers, BufferSizeAndFreeSpaceUseTheNearestExistingFolder) {
    TempDir dir;
    const size_t block = velacore::GetFileSystem().GetBlockSize(dir.Path());
    const std::string missing = (dir / "not" / "yet" / "there").string();
    EXPECT_EQ(velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(dir.Path().string()), block);
    EXPECT_EQ(velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(missing), block);
    EXPECT_EQ(velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(""), 4096u);
    EXPECT_GT(velacore::GetVolumeFreeSpace(missing), 0u);
    EXPECT_FALSE(std::filesystem::exists(dir / "not"));

    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailFrom(FsOp::kGetBlockSize, 1, Fault::kIoError);
    EXPECT_EQ(velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(dir.Path().string()), 4096u);
    fault->FailNth(FsOp::kGetFreeSpace, 1, Fault::kIoError);
    EXPECT_THROW(velacore::GetVolumeFreeSpace(dir.Path()), velacore::IOError);
}

class RecursiveWalk : public ::testing::Test {
  protected:
    // root/f0.zkcache, root/f1.tmp, root/d<i>/g<j>.zkcache, root/d<i>/sub/h.zkcache
    void SetUp() override {
        root_.Create();
        Touch(root_.GetFile(u"f0.zkcache"));
        Touch(root_.GetFile(u"f1.tmp"));
        for (int i = 0; i < 4; ++i) {
            const Dir d = root_.GetSubdir(u"d" + std::u16string(1, char16_t(u'0' + i)));
            d.GetSubdir(u"sub").Create();
            for (int j = 0; j < 3; ++j) {
                Touch(d.GetFile(u"g" + std::u16string(1, char16_t(u'0' + j)) + u".zkcache"));
            }
            Touch(d.GetSubdir(u"sub").GetFile(u"h.zkcache"));
        }
        root_.GetSubdir(u"empty").Create();
    }

    void Touch(const File& file) {
        file.Create(true);
        all_.insert(file.GetFullPathUtf8());
    }

    TempDir temp_;
    Dir root_{temp_ / "root"};
    std::multiset<std::string> all_;
};

TEST_F(RecursiveWalk, FindsEveryNestedFileOnce) {
    RecursiveFileIterator it(root_);
    EXPECT_EQ(Walk(it), all_);
    File after;
    EXPECT_FALSE(it.Next(after));
    EXPECT_EQ(all_.size(), 18u);
}

TEST_F(RecursiveWalk, FilterSelectsFiles) {
    RecursiveFileIterator it(root_,
                             [](const File& f) { return f.GetExtension(true) == u".zkcache"; });
    auto expected = all_;
    expected.erase(root_.GetFile(u"f1.tmp").GetFullPathUtf8());
    EXPECT_EQ(Walk(it), expected);
}

TEST_F(RecursiveWalk, FoldersAndFilesDeletedMidWalkAreSkipped) {
    RecursiveFileIterator it(root_);
    File first;
    ASSERT_TRUE(it.Next(first));
    std::multiset<std::string> expected = all_;
    expected.erase(expected.find(first.GetFullPathUtf8()));
    auto forget = [&](const std::string& prefix) {
        std::erase_if(expected, [&](const std::string& p) { return p.rfind(prefix, 0) == 0; });
    };

    // Two folders vanish whole; one file vanishes from every other folder.
    int removedFolders = 0;
    for (const Dir& d : root_.ListSubdirs()) {
        const std::string prefix =
            d.GetFullPathUtf8() + char(std::filesystem::path::preferred_separator);
        const bool holdsFirst = first.GetFullPathUtf8().rfind(prefix, 0) == 0;
        if (!holdsFirst && d.GetName() != u"empty" && removedFolders < 2) {
            d.Delete(true);
            forget(prefix);
            ++removedFolders;
        } else if (const File victim = d.GetFile(u"g1.zkcache");
                   victim.Exists() && !(victim == first)) {
            victim.Delete();
            forget(victim.GetFullPathUtf8());
        }
    }
    for (const File& victim : root_.ListFiles()) {
        if (victim == first) continue;
        victim.Delete();
        forget(victim.GetFullPathUtf8());
    }
    ASSERT_EQ(removedFolders, 2);

    EXPECT_EQ(Walk(it), expected);
}

TEST_F(RecursiveWalk, MissingOrEmptyRootYieldsNothing) {
    RecursiveFileIterator missing(Dir(temp_ / "absent"));
    File file;
    EXPECT_FALSE(missing.Next(file));
    RecursiveFileIterator empty(root_.GetSubdir(u"empty"));
    EXPECT_FALSE(empty.Next(file));
}

TEST_F(RecursiveWalk, AnUnreadableRootThrowsAnUnreadableFolderIsSkipped) {
    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailNth(FsOp::kListDirectory, 1, Fault::kIoError);
    RecursiveFileIterator unreadable(root_);
    EXPECT_THROW(Walk(unreadable), velacore::IOError);
    fault->FailNth(FsOp::kListDirectory, 2, Fault::kIoError);
    RecursiveFileIterator it(root_);
    const std::multiset<std::string> found = Walk(it);
    EXPECT_EQ(fault->FaultCount(FsOp::kListDirectory), 2u);
    EXPECT_TRUE(std::includes(all_.begin(), all_.end(), found.begin(), found.end()));
}

}  // namespace
