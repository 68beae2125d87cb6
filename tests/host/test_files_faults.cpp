// The fault-injecting file system reaches every operation, counts exactly under concurrency,
// and the file layers let its failures through; TempDir cleans up.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;
using mctest::kFsOpCount;
using mctest::ScopedFileSystem;
using mctest::TempDir;
using velacore::FileSystem;

std::vector<FsOp> AllOps() {
    std::vector<FsOp> ops;
    for (int i = 0; i < kFsOpCount; ++i) ops.push_back(static_cast<FsOp>(i));
    return ops;
}

// Calls every FileSystem operation (files included) once or more, through `fs`.
void UseEveryOperation(FileSystem& fs, const std::filesystem::path& root) {
    const auto dir = root / "d";
    fs.CreateDirectory(dir);
    EXPECT_TRUE(fs.IsDirectory(dir));
    EXPECT_TRUE(fs.Exists(dir));
    const auto file = dir / "f.bin";
    fs.CreateFile(file, true);
    fs.SetNotContentIndexed(file);
    {
        auto writer = fs.OpenForDirectWrite(file);
        writer->Append("abcd", 4);
        writer->Sync();
        writer->Close();
    }
    {
        auto reader = fs.OpenForRead(file);
        reader->Seek(1);
        char buffer[8];
        EXPECT_EQ(reader->Read(buffer, sizeof buffer), 3u);
        EXPECT_EQ(reader->Size(), 4u);
    }
    EXPECT_EQ(fs.FileSize(file), 4u);
    fs.CreationTime(file);
    fs.ModificationTime(file);
    fs.GetBlockSize(file);
    fs.GetFreeSpace(file);
    EXPECT_EQ(fs.ListDirectory(dir).size(), 1u);
    fs.Rename(file, dir / "g.bin");
    fs.DeleteFile(dir / "g.bin");
    fs.RemoveDirectory(dir);
    fs.CreateDirectory(dir);
    fs.RemoveDirectoryRecursive(dir);
}

// The same through File, Dir and the streams.
void UseTheFileLayer(const std::filesystem::path& root) {
    const velacore::Dir dir(root / "a" / "b");
    dir.Create();
    const velacore::File file = dir.GetFile(u"f.bin");
    {
        velacore::OPlatformByteStream out(file);
        out.WriteU64LE(7);
        out.Close();
    }
    {
        velacore::IPlatformByteStream in(file);
        in.Seek(0);
        EXPECT_EQ(in.Size(), 8u);
        EXPECT_EQ(in.ReadU64LE(), 7u);
    }
    EXPECT_EQ(file.Size(), 8u);
    file.Created();
    file.Modified();
    EXPECT_EQ(dir.ListFiles().size(), 1u);
    const velacore::File moved = dir.GetFile(u"g.bin");
    file.Rename(moved);
    moved.Delete();
    velacore::GetVolumeFreeSpace(dir.GetFullPath());
    velacore::Dir(root / "a").Delete(true);
}

TEST(FaultInjection, EveryOperationCanBeMadeToFail) {
    for (const bool throughWrapper : {false, true}) {
        for (FsOp op : AllOps()) {
            SCOPED_TRACE(std::string(mctest::FsOpName(op)) + (throughWrapper ? " (wrapped)" : ""));
            TempDir dir;
            auto fault = std::make_shared<FaultInjectingFileSystem>();
            std::shared_ptr<FileSystem> fs = fault;
            if (throughWrapper) fs = std::make_shared<velacore::FileSystemWrapper>(fault);

            UseEveryOperation(*fs, dir.Path());  // a clean run first
            EXPECT_GE(fault->CallCount(op), 1u);
            EXPECT_EQ(fault->FaultCount(op), 0u);

            fault->FailNth(op, 1, Fault::kIoError);
            try {
                UseEveryOperation(*fs, dir.Path());
                ADD_FAILURE() << "no failure";
            } catch (const velacore::IOError& e) {
                EXPECT_EQ(e.SysErrno(), EIO);
                EXPECT_NE(std::string(e.what()).find(mctest::FsOpName(op)), std::string::npos);
            }
            EXPECT_EQ(fault->FaultCount(op), 1u);
        }
    }
}

TEST(FaultInjection, TheFileLayerLetsFailuresThrough) {
    int reached = 0;
    for (FsOp op : AllOps()) {
        SCOPED_TRACE(std::string(mctest::FsOpName(op)));
        TempDir dir;
        auto fault = std::make_shared<FaultInjectingFileSystem>();
        ScopedFileSystem scoped(fault);
        UseTheFileLayer(dir.Path());
        if (fault->CallCount(op) == 0) continue;  // not used by this layer
        ++reached;
        fault->FailNth(op, 1, Fault::kNoSpace);
        try {
            UseTheFileLayer(dir.Path());
            ADD_FAILURE() << "the failure was swallowed";
        } catch (const velacore::IOError& e) {
            EXPECT_EQ(e.SysErrno(), ENOSPC);
        }
    }
    EXPECT_GE(reached, 15);
}

TEST(FaultInjection, NthCallAndFromNthOn) {
    TempDir dir;
    FaultInjectingFileSystem fs;
    fs.FailNth(FsOp::kExists, 2, Fault::kIoError);
    EXPECT_TRUE(fs.Exists(dir.Path()));
    EXPECT_THROW(fs.Exists(dir.Path()), velacore::IOError);
    EXPECT_TRUE(fs.Exists(dir.Path()));
    EXPECT_EQ(fs.CallCount(FsOp::kExists), 3u);
    EXPECT_EQ(fs.FaultCount(FsOp::kExists), 1u);
    EXPECT_EQ(fs.CallCount(FsOp::kIsDirectory), 0u);

    // Two pending failures count down together.
    fs.FailNth(FsOp::kIsDirectory, 1, Fault::kIoError);
    fs.FailNth(FsOp::kIsDirectory, 3, Fault::kNotFound);
    EXPECT_THROW(fs.IsDirectory(dir.Path()), velacore::IOError);
    EXPECT_TRUE(fs.IsDirectory(dir.Path()));
    EXPECT_THROW(fs.IsDirectory(dir.Path()), velacore::FileNotFoundError);
    EXPECT_TRUE(fs.IsDirectory(dir.Path()));

    fs.FailFrom(FsOp::kFileSize, 2, Fault::kNotFound);
    fs.CreateFile(dir / "x", true);
    EXPECT_EQ(fs.FileSize(dir / "x"), 0u);
    for (int i = 0; i < 3; ++i) EXPECT_THROW(fs.FileSize(dir / "x"), velacore::FileNotFoundError);
    fs.ClearFaults();
    EXPECT_EQ(fs.FileSize(dir / "x"), 0u);
    fs.ResetCounts();
    EXPECT_EQ(fs.CallCount(FsOp::kFileSize), 0u);
    EXPECT_EQ(fs.FaultCount(FsOp::kFileSize), 0u);
}

TEST(FaultInjection, ShortWriteKeepsHalfTheBytes) {
    TempDir dir;
    FaultInjectingFileSystem fs;
    fs.CreateFile(dir / "short", true);
    fs.FailNth(FsOp::kAppend, 2, Fault::kShortWrite);
    auto writer = fs.OpenForDirectWrite(dir / "short");
    const std::vector<uint8_t> data = mctest::PatternBytes(1000, 3);
    writer->Append(data.data(), 100);
    try {
        writer->Append(data.data() + 100, 900);
        FAIL() << "no failure";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), ENOSPC);
    }
    writer->Close();
    EXPECT_EQ(mctest::ReadWholeFile(dir / "short"),
              std::vector<uint8_t>(data.begin(), data.begin() + 550));
}

TEST(FaultInjection, CountsAndFaultsAreExactAcrossThreads) {
    TempDir dir;
    auto fault = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scoped(fault);
    fault->FailNth(FsOp::kExists, 250, Fault::kIoError);
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const velacore::File file = dir.FileAt("t" + std::to_string(t));
            for (int i = 0; i < kRounds; ++i) {
                try {
                    file.Create(false);
                    if (!file.Exists()) ADD_FAILURE() << "file lost";
                    file.Delete();
                } catch (const velacore::IOError&) {
                    failures.fetch_add(1);
                    file.Delete();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(fault->CallCount(FsOp::kExists), uint64_t{kThreads * kRounds});
    EXPECT_EQ(fault->CallCount(FsOp::kCreateFile), uint64_t{kThreads * kRounds});
    EXPECT_EQ(fault->CallCount(FsOp::kDeleteFile), uint64_t{kThreads * kRounds});
    EXPECT_EQ(fault->FaultCount(FsOp::kExists), 1u);
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

TEST(TempDirTest, UniqueAndRemovedWithItsContent) {
    std::filesystem::path kept;
    {
        TempDir a;
        TempDir b;
        EXPECT_NE(a.Path(), b.Path());
        EXPECT_EQ(a.Path().parent_path(),
                  (std::filesystem::temp_directory_path() / "x").parent_path());
        std::filesystem::create_directories(a / "x" / "y");
        mctest::WriteWholeFile(a / "x" / "y" / "z", "data");
        kept = a.Path();
    }
    EXPECT_FALSE(std::filesystem::exists(kept));
}

}  // namespace
