// Byte streams: little-endian helpers, end-of-stream errors, the block-buffered reader with
// seeks, file streams and an aligned block writer built on OPlatformByteStream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "mc/host/AlignedBuffer.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "support/TempDir.h"

namespace {

using mctest::PatternBytes;
using mctest::TempDir;
using velacore::AlignedBuffer;
using velacore::IBufferedByteStream;
using velacore::IMemoryByteStream;
using velacore::IOError;
using velacore::OMemoryByteStream;

// A memory source that records where each read started and can refuse to seek.
class RecordingSource : public velacore::IByteStream {
  public:
    RecordingSource(std::vector<uint8_t> data, bool seekable)
        : inner_(std::move(data)), seekable_(seekable) {}
    size_t ReadSome(void* buffer, size_t size) override {
        readOffsets.push_back(position_);
        const size_t got = inner_.ReadSome(buffer, size);
        position_ += got;
        return got;
    }
    void Seek(uint64_t offset) override {
        if (!seekable_) velacore::IByteStream::Seek(offset);
        inner_.Seek(offset);
        position_ = offset;
        ++seeks;
    }
    uint64_t Tell() const override {
        if (!seekable_) return velacore::IByteStream::Tell();
        return position_;
    }

    std::vector<uint64_t> readOffsets;
    int seeks = 0;

  private:
    IMemoryByteStream inner_;
    bool seekable_;
    uint64_t position_ = 0;
};

std::vector<uint8_t> ReadAt(velacore::IByteStream& in, uint64_t offset, size_t size) {
    in.Seek(offset);
    std::vector<uint8_t> out(size);
    size_t done = 0;
    while (done < size) {
        const size_t got = in.ReadSome(out.data() + done, size - done);
        if (got == 0) break;
        done += got;
    }
    out.resize(done);
    return out;
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& data, uint64_t offset, size_t size) {
    if (offset >= data.size()) return {};
    const size_t end = std::min<size_t>(data.size(), offset + size);
    return std::vector<uint8_t>(data.begin() + offset, data.begin() + end);
}

TEST(StreamHelpers, LittleEndianLayoutAndRoundTrip) {
    OMemoryByteStream out;
    out.WriteU32LE(0x04030201u);
    out.WriteU64LE(0x0C0B0A0908070605ull);
    out.WriteByte(0xEE);
    out.WriteDoubleLE(-1.5);
    const std::vector<uint8_t> head(out.Data().begin(), out.Data().begin() + 13);
    EXPECT_EQ(head, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0xEE}));
    // -1.5 is 0xBFF8000000000000.
    EXPECT_EQ(out.Data()[13 + 7], 0xBF);
    EXPECT_EQ(out.Data()[13 + 6], 0xF8);

    IMemoryByteStream in(out.TakeData());
    EXPECT_TRUE(out.Data().empty());
    EXPECT_EQ(in.ReadU32LE(), 0x04030201u);
    EXPECT_EQ(in.ReadU64LE(), 0x0C0B0A0908070605ull);
    EXPECT_EQ(in.ReadByte(), 0xEE);
    EXPECT_EQ(in.ReadDoubleLE(), -1.5);
    EXPECT_EQ(in.Tell(), 21u);
}

TEST(StreamHelpers, ReadBytesPastTheEndThrows) {
    IMemoryByteStream in(std::vector<uint8_t>{1, 2, 3});
    in.ReadByte();
    uint8_t buffer[4];
    EXPECT_THROW(in.ReadBytes(buffer, 3), IOError);
    in.Seek(0);
    EXPECT_NO_THROW(in.ReadBytes(buffer, 3));
    EXPECT_THROW(in.ReadU32LE(), IOError);
    in.Seek(100);
    EXPECT_EQ(in.ReadSome(buffer, 4), 0u);
    EXPECT_THROW(in.ReadByte(), IOError);
}

TEST(StreamHelpers, BaseStreamCannotSeek) {
    RecordingSource source({1, 2}, false);
    EXPECT_THROW(source.Seek(0), IOError);
    EXPECT_THROW(source.Tell(), IOError);
}

TEST(BufferedStream, RandomSeeksAcrossBufferBoundariesMatchTheData) {
    const std::vector<uint8_t> data = PatternBytes(10000, 11);
    auto source = std::make_unique<RecordingSource>(data, true);
    RecordingSource& recorder = *source;
    IBufferedByteStream in(std::move(source), 64, 16);

    std::mt19937 random(12345);
    for (int i = 0; i < 2000; ++i) {
        const uint64_t offset = random() % 10100;  // sometimes past the end
        const size_t size = random() % (i % 10 == 0 ? 200 : 40);
        ASSERT_EQ(ReadAt(in, offset, size), Slice(data, offset, size))
            << "offset " << offset << " size " << size;
        ASSERT_EQ(in.Tell(), offset + Slice(data, offset, size).size());
    }
    // Refills begin on block boundaries (the source only leaves them at its end or after
    // reads too large for the buffer).
    size_t aligned = 0;
    for (uint64_t offset : recorder.readOffsets) aligned += offset % 16 == 0 ? 1 : 0;
    EXPECT_GT(aligned, recorder.readOffsets.size() * 3 / 4);
}

TEST(BufferedStream, SequentialReadsTouchTheSourceOncePerBuffer) {
    const std::vector<uint8_t> data = PatternBytes(1000, 12);
    RecordingSource source(data, true);
    IBufferedByteStream in(source, 100, 4);  // 100 bytes = 25 blocks
    std::vector<uint8_t> got(data.size());
    for (size_t i = 0; i < got.size(); i += 10) in.ReadBytes(got.data() + i, 10);
    EXPECT_EQ(got, data);
    EXPECT_EQ(source.readOffsets.size(), 10u);
    EXPECT_EQ(source.seeks, 0);

    // Seeking back inside the buffered range does not touch the source.
    in.Seek(950);
    EXPECT_EQ(in.ReadByte(), data[950]);
    EXPECT_EQ(source.readOffsets.size(), 10u);
    in.Seek(995);
    EXPECT_THROW(in.ReadU64LE(), IOError);  // 5 bytes left
}

TEST(BufferedStream, WorksOverASourceThatCannotSeek) {
    const std::vector<uint8_t> data = PatternBytes(777, 13);
    RecordingSource source(data, false);
    IBufferedByteStream in(source, 64, 64);
    std::vector<uint8_t> got(data.size());
    in.ReadBytes(got.data(), 5);
    in.ReadBytes(got.data() + 5, got.size() - 5);
    EXPECT_EQ(got, data);
    uint8_t extra;
    EXPECT_EQ(in.ReadSome(&extra, 1), 0u);
    EXPECT_EQ(in.ReadSome(&extra, 1), 0u);
}

TEST(BufferedStream, LargeReadsBypassTheBuffer) {
    const std::vector<uint8_t> data = PatternBytes(5000, 14);
    RecordingSource source(data, true);
    IBufferedByteStream in(source, 128, 32);
    EXPECT_EQ(ReadAt(in, 3, 4000), Slice(data, 3, 4000));
    EXPECT_EQ(ReadAt(in, 4003, 10), Slice(data, 4003, 10));
    EXPECT_EQ(ReadAt(in, 1, 2), Slice(data, 1, 2));
}

TEST(BufferedStream, RejectsBadGeometry) {
    auto make = [](size_t buffer, size_t block) {
        IBufferedByteStream in(std::make_unique<IMemoryByteStream>(std::vector<uint8_t>{}), buffer,
                               block);
    };
    EXPECT_THROW(make(64, 24), std::invalid_argument);
    EXPECT_THROW(make(64, 0), std::invalid_argument);
    EXPECT_THROW(make(0, 16), std::invalid_argument);
    EXPECT_THROW(IBufferedByteStream(std::unique_ptr<velacore::IByteStream>(), 64, 16),
                 std::invalid_argument);
    EXPECT_NO_THROW(make(10, 16));  // rounded up to one block
}

TEST(AlignedBufferTest, AlignmentZeroFillAndMove) {
    for (size_t alignment : {size_t{512}, size_t{4096}}) {
        AlignedBuffer buffer(3 * alignment, alignment);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.Data()) % alignment, 0u);
        EXPECT_EQ(buffer.Size(), 3 * alignment);
        EXPECT_TRUE(std::all_of(buffer.Data(), buffer.Data() + buffer.Size(),
                                [](uint8_t b) { return b == 0; }));
        AlignedBuffer moved(std::move(buffer));
        EXPECT_EQ(buffer.Data(), nullptr);
        EXPECT_EQ(moved.Size(), 3 * alignment);
        buffer = std::move(moved);
        EXPECT_EQ(buffer.Size(), 3 * alignment);
    }
    EXPECT_THROW(AlignedBuffer(64, 48), std::invalid_argument);
    EXPECT_EQ(velacore::RoundUpToBlock(4097, 4096), 8192u);
    EXPECT_EQ(velacore::RoundUpToBlock(4096, 4096), 4096u);
}

TEST(FileStreams, WriteThenReadBack) {
    TempDir dir;
    const velacore::File file = dir.FileAt("values.bin");
    {
        velacore::OPlatformByteStream out(file);  // creates the file
        out.WriteU32LE(42);
        out.WriteDoubleLE(3.25);
        const auto blob = PatternBytes(3000, 15);
        out.WriteBytes(blob.data(), blob.size());
        EXPECT_EQ(out.BytesWritten(), 3012u);
        out.Close();
        out.Close();
        EXPECT_THROW(out.WriteByte(1), IOError);
    }
    velacore::IPlatformByteStream in(file, velacore::IPlatformByteStream::kRead);
    EXPECT_EQ(in.Size(), 3012u);
    EXPECT_EQ(in.ReadU32LE(), 42u);
    EXPECT_EQ(in.ReadDoubleLE(), 3.25);
    in.Seek(12 + 2999);
    EXPECT_EQ(in.ReadByte(), PatternBytes(3000, 15)[2999]);
    EXPECT_THROW(in.ReadByte(), IOError);
    EXPECT_THROW(velacore::IPlatformByteStream(dir.FileAt("absent"), 1),
                 velacore::FileNotFoundError);
}

TEST(FileStreams, BufferedReaderOverAFile) {
    TempDir dir;
    const auto data = PatternBytes(20000, 16);
    mctest::WriteWholeFile(dir / "data.bin", data);
    IBufferedByteStream in(
        std::make_unique<velacore::IPlatformByteStream>(dir.FileAt("data.bin"), 1), 4096, 512);
    for (uint64_t offset : {19990u, 0u, 4090u, 8191u, 12345u, 4096u}) {
        EXPECT_EQ(ReadAt(in, offset, 20), Slice(data, offset, 20)) << offset;
    }
}

// What the module does on top of OPlatformByteStream: gather bytes into an aligned buffer and
// write whole blocks only, padding the last one with zeros.
class BlockWriter : public velacore::OPlatformByteStream {
  public:
    BlockWriter(const velacore::File& file, size_t block)
        : OPlatformByteStream(file), buffer_(4 * block, block), block_(block) {}

    void WriteBytes(const void* data, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const size_t piece = std::min(size, buffer_.Size() - used_);
            std::memcpy(buffer_.Data() + used_, bytes, piece);
            used_ += piece;
            bytes += piece;
            size -= piece;
            if (used_ == buffer_.Size()) WriteBuffer(used_);
        }
    }
    void Flush() override {
        if (used_ == 0) return;
        const size_t padded = static_cast<size_t>(velacore::RoundUpToBlock(used_, block_));
        std::memset(buffer_.Data() + used_, 0, padded - used_);
        WriteBuffer(padded);
    }

  private:
    void WriteBuffer(size_t size) {
        GetWritableFile().Append(buffer_.Data(), size);
        AddBytesWritten(size);
        used_ = 0;
    }

    AlignedBuffer buffer_;
    size_t block_;
    size_t used_ = 0;
};

TEST(FileStreams, AlignedBlockWriterProducesWholeBlocks) {
    TempDir dir;
    const velacore::File file = dir.FileAt("blocks.zkcache");
    file.Create(true);
    const size_t block = velacore::GetFileSystem().GetBlockSize(file.GetFullPath());
    const auto data = PatternBytes(block * 9 + 100, 17);
    BlockWriter out(file, block);
    const bool direct = out.IsDirectIo();
    for (size_t i = 0; i < data.size(); i += 333) {
        out.WriteBytes(data.data() + i, std::min<size_t>(333, data.size() - i));
    }
    out.Close();
    EXPECT_EQ(out.IsDirectIo(), direct);  // never fell back
    EXPECT_EQ(out.BytesWritten(), block * 10);

    auto onDisk = mctest::ReadWholeFile(file.GetFullPath());
    ASSERT_EQ(onDisk.size(), block * 10);
    EXPECT_TRUE(
        std::all_of(onDisk.begin() + data.size(), onDisk.end(), [](uint8_t b) { return b == 0; }));
    onDisk.resize(data.size());
    EXPECT_EQ(onDisk, data);
}

}  // namespace
