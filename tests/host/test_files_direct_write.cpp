// Write-through files: whole aligned blocks with direct I/O, the buffered fallback, and the
// errors of the writer.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "host/NativeFileSystem.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "support/TempDir.h"

namespace {

using mctest::PatternBytes;
using mctest::ReadWholeFile;
using mctest::TempDir;
using velacore::AlignedBuffer;
using velacore::FileSystem;

// Writes `data` (a whole number of blocks) through one aligned buffer of `blocksPerWrite`.
void AppendInAlignedPieces(velacore::WritableFile& file, const std::vector<uint8_t>& data,
                           size_t block, size_t blocksPerWrite) {
    AlignedBuffer buffer(block * blocksPerWrite, block);
    for (size_t done = 0; done < data.size(); done += buffer.Size()) {
        const size_t piece = std::min(buffer.Size(), data.size() - done);
        std::memcpy(buffer.Data(), data.data() + done, piece);
        file.Append(buffer.Data(), piece);
    }
}

TEST(DirectWrite, WholeAlignedBlocksRoundTrip) {
    TempDir dir;
    FileSystem& fs = velacore::GetFileSystem();
    const auto path = dir / "blocks.bin";
    fs.CreateFile(path, true);
    const size_t block = fs.GetBlockSize(path);
    const std::vector<uint8_t> data = PatternBytes(block * 11, 1);

    auto file = fs.OpenForDirectWrite(path);
    const bool directAtOpen = file->IsDirectIo();
    AppendInAlignedPieces(*file, data, block, 4);  // 4 + 4 + 3 blocks
    // Aligned whole blocks never need the buffered fallback.
    EXPECT_EQ(file->IsDirectIo(), directAtOpen);
    file->Sync();
    file->Close();

    EXPECT_EQ(fs.FileSize(path), data.size());
    EXPECT_EQ(fs.FileSize(path) % block, 0u);
    EXPECT_EQ(ReadWholeFile(path), data);
    if (!directAtOpen) GTEST_SKIP() << "the temporary folder's file system refuses direct I/O";
}

TEST(DirectWrite, OpeningDiscardsThePreviousContent) {
    TempDir dir;
    FileSystem& fs = velacore::GetFileSystem();
    const auto path = dir / "old.bin";
    mctest::WriteWholeFile(path, PatternBytes(100000, 2));
    const size_t block = fs.GetBlockSize(path);
    const std::vector<uint8_t> data = PatternBytes(block, 3);

    auto file = fs.OpenForDirectWrite(path);
    AppendInAlignedPieces(*file, data, block, 1);
    file->Close();
    EXPECT_EQ(ReadWholeFile(path), data);
}

TEST(DirectWrite, UnalignedAppendFallsBackToBufferedWrites) {
    TempDir dir;
    FileSystem& fs = velacore::GetFileSystem();
    const auto path = dir / "odd.bin";
    fs.CreateFile(path, true);
    const size_t block = fs.GetBlockSize(path);
    const std::vector<uint8_t> data = PatternBytes(3 * block + 123, 4);

    auto file = fs.OpenForDirectWrite(path);
    if (!file->IsDirectIo()) GTEST_SKIP() << "no direct I/O in the temporary folder";
    AppendInAlignedPieces(*file, std::vector<uint8_t>(data.begin(), data.begin() + 2 * block),
                          block, 1);
    // An odd address and an odd length: a file system that checks alignment refuses it.
    std::vector<uint8_t> tail(data.begin() + 2 * block, data.end());
    tail.insert(tail.begin(), 0);
    file->Append(tail.data() + 1, tail.size() - 1);
    const bool stillDirect = file->IsDirectIo();
    file->Close();

    EXPECT_EQ(ReadWholeFile(path), data);
    if (stillDirect) GTEST_SKIP() << "this file system accepts unaligned direct writes";
}

TEST(DirectWrite, BufferedModeWritesAnySizeAndSyncsAtClose) {
    TempDir dir;
    const auto native = velacore::MakeNativeFileSystem({.allowDirectIo = false});
    FileSystem& fs = *native;
    const auto path = dir / "buffered.bin";
    fs.CreateFile(path, true);
    const std::vector<uint8_t> data = PatternBytes(10007, 5);

    auto file = fs.OpenForDirectWrite(path);
    EXPECT_FALSE(file->IsDirectIo());
    for (size_t done = 0; done < data.size(); done += 1000) {
        file->Append(data.data() + done, std::min<size_t>(1000, data.size() - done));
    }
    file->Close();
    EXPECT_EQ(ReadWholeFile(path), data);
}

TEST(DirectWrite, MemoryFileSystemRoundTripWhateverItSupports) {
    const std::filesystem::path shm = "/dev/shm";
    std::error_code ec;
    if (!std::filesystem::is_directory(shm, ec)) GTEST_SKIP() << "no /dev/shm";
    TempDir dir("mc-test", shm);
    FileSystem& fs = velacore::GetFileSystem();
    const auto path = dir / "shm.bin";
    fs.CreateFile(path, true);
    const size_t block = fs.GetBlockSize(path);
    const std::vector<uint8_t> data = PatternBytes(block * 5 + 17, 6);

    auto file = fs.OpenForDirectWrite(path);
    const bool direct = file->IsDirectIo();
    AppendInAlignedPieces(*file, std::vector<uint8_t>(data.begin(), data.end() - 17), block, 2);
    file->Append(data.data() + data.size() - 17, 17);
    file->Close();
    EXPECT_EQ(ReadWholeFile(path), data);
    RecordProperty("direct_io", direct ? "yes" : "no");
}

TEST(DirectWrite, OpeningAMissingFileThrowsFileNotFound) {
    TempDir dir;
    const auto path = dir / "missing.bin";
    try {
        velacore::GetFileSystem().OpenForDirectWrite(path);
        FAIL() << "no exception";
    } catch (const velacore::FileNotFoundError& e) {
        EXPECT_EQ(e.Code(), velacore::kFileNotFoundCode);
        EXPECT_NE(std::string(e.what()).find(path.string()), std::string::npos) << e.what();
    }
    EXPECT_FALSE(std::filesystem::exists(path));  // never created behind our back
}

TEST(DirectWrite, AppendAfterCloseThrowsAndCloseTwiceIsHarmless) {
    TempDir dir;
    FileSystem& fs = velacore::GetFileSystem();
    const auto path = dir / "closed.bin";
    fs.CreateFile(path, true);
    auto file = fs.OpenForDirectWrite(path);
    file->Close();
    file->Close();
    const char byte = 'x';
    try {
        file->Append(&byte, 1);
        FAIL() << "no exception";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), EBADF);
    }
    EXPECT_THROW(file->Sync(), velacore::IOError);
}

TEST(DirectWrite, OpeningAFolderIsAnIOError) {
    TempDir dir;
    try {
        velacore::GetFileSystem().OpenForDirectWrite(dir.Path());
        FAIL() << "no exception";
    } catch (const velacore::IOError& e) {
        EXPECT_EQ(e.SysErrno(), EISDIR);
    }
}

}  // namespace
