// SafeSave: the final file only ever holds a complete content; temporaries never linger.
#include <gtest/gtest.h>

#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/SafeSave.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;
using mctest::PatternBytes;
using mctest::ReadWholeFile;
using mctest::ScopedFileSystem;
using mctest::TempDir;
using velacore::File;
using velacore::SafeSave;

void WriteThrough(const File& file, const std::vector<uint8_t>& data) {
    velacore::OPlatformByteStream out(file);
    out.WriteBytes(data.data(), data.size());
    out.Close();
}

class SafeSaveTest : public ::testing::Test {
  protected:
    // Only the listed names are in the folder.
    void ExpectFolderHolds(std::set<std::string> names) {
        std::set<std::string> actual;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
            actual.insert(entry.path().filename().string());
        }
        EXPECT_EQ(actual, names);
    }

    TempDir dir_;
    File final_ = dir_.FileAt("entry.zkcache");
    std::vector<uint8_t> old_ = PatternBytes(1000, 1);
    std::vector<uint8_t> new_ = PatternBytes(70000, 2);
};

TEST_F(SafeSaveTest, TemporaryIsTheFinalNamePlusTmpBesideIt) {
    SafeSave save(final_);
    EXPECT_EQ(save.GetTempFile().GetName(), u"entry.zkcache.tmp");
    EXPECT_EQ(save.GetTempFile().GetExtension(true), u".tmp");
    EXPECT_EQ(save.GetTempFile().GetParent(), final_.GetParent());
    EXPECT_EQ(save.GetFinalFile(), final_);
    EXPECT_EQ(SafeSave(final_).GetTempFile(), save.GetTempFile());  // deterministic
    EXPECT_THROW({ SafeSave noFile{File()}; }, std::invalid_argument);
    ExpectFolderHolds({});  // constructing touches nothing
}

TEST_F(SafeSaveTest, NothingUnderTheFinalNameBeforeCommit) {
    SafeSave save(final_);
    WriteThrough(save.GetTempFile(), new_);
    EXPECT_FALSE(final_.Exists());
    ExpectFolderHolds({"entry.zkcache.tmp"});
    save.Commit();
    EXPECT_TRUE(save.IsCommitted());
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), new_);
    ExpectFolderHolds({"entry.zkcache"});
}

TEST_F(SafeSaveTest, ReplacesAnExistingFileOnlyAtCommit) {
    mctest::WriteWholeFile(final_.GetFullPath(), old_);
    {
        SafeSave save(final_);
        WriteThrough(save.GetTempFile(), new_);
        EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), old_);
        save.Commit();
    }
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), new_);
    ExpectFolderHolds({"entry.zkcache"});
}

TEST_F(SafeSaveTest, DroppedWithoutCommitRemovesTheTemporary) {
    mctest::WriteWholeFile(final_.GetFullPath(), old_);
    {
        SafeSave save(final_);
        WriteThrough(save.GetTempFile(), new_);
    }
    ExpectFolderHolds({"entry.zkcache"});
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), old_);
    { SafeSave neverWritten(final_); }  // nothing to remove: fine
    ExpectFolderHolds({"entry.zkcache"});
}

TEST_F(SafeSaveTest, FailedWriteLeavesNoTemporaryAndTheOldFile) {
    mctest::WriteWholeFile(final_.GetFullPath(), old_);
    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailNth(FsOp::kAppend, 1, Fault::kShortWrite);
    try {
        SafeSave save(final_);
        WriteThrough(save.GetTempFile(), new_);
        save.Commit();
        FAIL() << "the write did not fail";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), ENOSPC);
    }
    EXPECT_EQ(fault->FaultCount(FsOp::kAppend), 1u);
    EXPECT_EQ(fault->CallCount(FsOp::kRename), 0u);
    ExpectFolderHolds({"entry.zkcache"});
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), old_);
}

TEST_F(SafeSaveTest, FailedCommitThrowsAndRemovesTheTemporary) {
    mctest::WriteWholeFile(final_.GetFullPath(), old_);
    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailNth(FsOp::kRename, 1, Fault::kIoError);
    {
        SafeSave save(final_);
        WriteThrough(save.GetTempFile(), new_);
        try {
            save.Commit();
            FAIL() << "Commit did not fail";
        } catch (const velacore::IOError& e) {
            EXPECT_EQ(e.SysErrno(), EIO);
        }
        EXPECT_FALSE(save.IsCommitted());
        ExpectFolderHolds({"entry.zkcache"});
        EXPECT_THROW(save.Commit(), std::logic_error);
    }
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), old_);
}

TEST_F(SafeSaveTest, CommitWithoutATemporaryIsAnIOError) {
    SafeSave save(final_);
    try {
        save.Commit();
        FAIL() << "Commit did not fail";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), ENOENT);
    }
    ExpectFolderHolds({});
}

TEST_F(SafeSaveTest, SecondWriterMeetsTheFirstOnTheTemporary) {
    SafeSave first(final_);
    first.GetTempFile().Create(true);
    {
        SafeSave second(final_);
        try {
            second.GetTempFile().Create(true);
            FAIL() << "the second writer did not notice the first";
        } catch (const velacore::IOError& e) {
            EXPECT_EQ(e.SysErrno(), EEXIST);
        }
        second.Release();  // not ours: leave it
    }
    EXPECT_TRUE(first.GetTempFile().Exists());
    WriteThrough(first.GetTempFile(), new_);
    first.Commit();
    EXPECT_EQ(ReadWholeFile(final_.GetFullPath()), new_);
    ExpectFolderHolds({"entry.zkcache"});
}

}  // namespace
