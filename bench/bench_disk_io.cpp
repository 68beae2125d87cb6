// Disk-cache throughput against the disk's own limit, measured on the same folder in the same run.
//   write: 32 items of 8 MiB rendered and checked in; the check-in queues them and the two
//          writer threads write and commit the files. Timed from the first check-in until the
//          last file is attached. Limit: the same bytes (whole files, padding included) written
//          as direct writes of 256 KiB blocks, file after file, by one thread and by two (with
//          synchronous direct writes a file system may commit two streams together far faster
//          than one; the better pass is the limit, and the one-stream ratio is printed too).
//   read:  the same 32 items purged from memory and checked out again, one after the other, so
//          that each is read back from its file. Limit: the same bytes (header and payload) of
//          the same files read by one plain read each into fresh memory.
// Writes are direct (O_DIRECT) where the file system allows it (printed). Reads are buffered:
// every file's pages are dropped from the page cache (posix_fadvise DONTNEED) before each read
// pass, so both read passes come from the device.
// Prints both ratios (targets: at least 0.85). The folder is MC_BENCH_DIR when set, else the
// system's temporary folder.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "disk/DiskFolder.h"
#include "helpers/PageCache.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "mc/host/Guid.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"

namespace {

constexpr uint32_t kItems = 32;
constexpr uint32_t kPayload = 8u << 20;
constexpr size_t kBlock = 256 * 1024;
constexpr unsigned kAppVersion = 256;  // client version "1.0"

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

// An 8 MiB payload that writes and reads its bytes in one piece (no checking, so that the
// benchmark measures the cache's I/O path and not a payload's own work).
class BenchPayload : public MC_StuffData {
public:
    BenchPayload(uint32_t key, uint32_t size) : key_(key), size_(size) {
        SetCachePriority(MC_CachePriority_Normal);
        if (size == 0) return;
        bytes_.reset(new uint8_t[size]);
        for (uint32_t i = 0; i < size; i += 4096) bytes_[i] = static_cast<uint8_t>(key + i);
    }
    bool IdenticalRequest(IntrusivePtr<MC_StuffData> r) const override {
        auto* b = dynamic_cast<BenchPayload*>(r.get());
        return b && b->key_ == key_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> r) const override {
        return IdenticalRequest(r);
    }
    uint32_t GetApproximateMemorySize() const override { return bytes_ ? size_ : 0; }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        const bool had = bytes_ != nullptr;
        bytes_.reset();
        return had;
    }
    bool IsInMemory() const override { return bytes_ != nullptr; }
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return "BenchPayload"; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.assign(reinterpret_cast<const uint8_t*>(&key_),
                      reinterpret_cast<const uint8_t*>(&key_) + 4);
    }
    double Write(velacore::OByteStream& out) const override {
        out.WriteU32LE(size_);
        out.WriteBytes(bytes_.get(), size_);
        return 0.0;
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) override {
        const uint32_t size = in.ReadU32LE();
        std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
        in.ReadBytes(bytes.get(), size);
        size_ = size;
        bytes_ = std::move(bytes);
        return 0.0;
    }
    const uint8_t* Data() const { return bytes_.get(); }

private:
    uint32_t key_;
    uint32_t size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

IntrusivePtr<MC_Stuff> Request(uint32_t key) {
    IntrusivePtr<MC_Stuff> r =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new BenchPayload(key, 0)), 0.0);
    velacore::Guid::Bytes b{};
    std::memcpy(b.data(), &key, 4);
    b[15] = 0xB5;
    r->SetGuid(velacore::Guid(b));
    return r;
}

std::filesystem::path BenchBase() {
    const char* dir = std::getenv("MC_BENCH_DIR");
    return dir && *dir ? std::filesystem::path(dir) : std::filesystem::temp_directory_path();
}

void DropPages(const velacore::Dir& folder) {
    velacore::RecursiveFileIterator walk(folder);
    velacore::File file;
    while (walk.Next(file)) velacore::DropFileFromPageCache(file.GetFullPath());
}

struct Best {
    double bytesPerSecond = 0;
    bool directIo = false;
    void Note(double bytes, double seconds) {
        if (seconds > 0) bytesPerSecond = std::max(bytesPerSecond, bytes / seconds);
    }
};
Best g_plainWrite, g_plainWrite2, g_cacheWrite, g_plainRead, g_cacheRead;

// The module started on a fresh cache folder, with the items rendered and written.
class CacheSession {
public:
    CacheSession() : root_("mc-bench-io", BenchBase()) {
        services_->SetClientVersion("1.0");
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MC_Birth(false, kAppVersion, false);
        bag_ = MC_GlobalBag();
        bag_->SetDiskCacheInfo(root_.AsDir(), 4096);
        bag_->EnableDiskCache(true);
        for (uint32_t key = 0; key < kItems; ++key)
            payloads_.emplace_back(new BenchPayload(key, kPayload));
    }
    ~CacheSession() {
        items_.clear();
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
    }

    // Renders and checks in every item; returns the seconds until the last file is attached.
    double RenderAndWriteAll() {
        const auto start = Clock::now();
        for (uint32_t key = 0; key < kItems; ++key) {
            MC_ScCheckout render;
            if (render.FindAndCheckout(Request(key), MC_CheckoutFlag_CreatePending) !=
                MC_CheckoutResult_CreatedNewPending)
                throw std::runtime_error("no pending item to render");
            IntrusivePtr<MC_Stuff> item = render.GetStuffPtr();
            item->SetStuffDataFromPendingRender(payloads_[key], 10.0);
            render.Checkin(0, 10.0);
            items_.push_back(item);
        }
        for (const auto& item : items_)
            while (!item->IsOnDisk()) std::this_thread::sleep_for(std::chrono::microseconds(50));
        return Seconds(start);
    }

    // Purges every payload, drops the files' pages, then checks each item out again (read from
    // its file). Returns the seconds the check-outs took.
    double PurgeAndReadAll() {
        bag_->PurgeAllMemoryCaches();
        DropPages(Folder());
        const auto start = Clock::now();
        for (uint32_t key = 0; key < kItems; ++key) {
            MC_ScCheckout receipt;
            if (receipt.FindAndCheckout(Request(key), MC_CheckoutFlag_ReadOnly) !=
                    MC_CheckoutResult_CheckedOut ||
                !receipt.IsInMemory())
                throw std::runtime_error("read-back failed");
        }
        return Seconds(start);
    }

    velacore::Dir Folder() const { return bag_->GetDiskCacheDirSpec(); }
    std::vector<velacore::File> Files() const {
        std::vector<velacore::File> files;
        for (const auto& item : items_) files.push_back(item->GetDiskCacheFile());
        return files;
    }
    uint64_t FileBytes() const {
        uint64_t total = 0;
        for (const auto& f : Files()) total += f.Size();
        return total;
    }
    const BenchPayload& Payload(uint32_t key) const {
        return static_cast<const BenchPayload&>(*payloads_[key]);
    }

private:
    std::shared_ptr<mctest::RecordingHostServices> services_ =
        std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scoped_{services_};
    mctest::TempDir root_;
    std::shared_ptr<MC_Bag> bag_;
    std::vector<IntrusivePtr<MC_StuffData>> payloads_;
    std::vector<IntrusivePtr<MC_Stuff>> items_;
};

// Writes `size` bytes of `source` (repeated as needed) to a new file in 256 KiB direct blocks.
bool PlainWrite(const std::filesystem::path& path, const uint8_t* source, uint64_t size,
                velacore::AlignedBuffer& block) {
    velacore::FileSystem& fs = velacore::GetFileSystem();
    fs.CreateFile(path, true);
    std::unique_ptr<velacore::WritableFile> out = fs.OpenForDirectWrite(path);
    for (uint64_t done = 0; done < size; done += kBlock) {
        std::memcpy(block.Data(), source + (done % kPayload), kBlock);
        out->Append(block.Data(), kBlock);
    }
    const bool direct = out->IsDirectIo();
    out->Close();
    return direct;
}

// Reads the first `size` bytes of the file into fresh memory with one plain read.
void PlainRead(const std::filesystem::path& path, uint64_t size) {
    std::unique_ptr<velacore::ReadableFile> in = velacore::GetFileSystem().OpenForRead(path);
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
    if (in->Read(bytes.get(), size) != size) throw std::runtime_error("short read");
    benchmark::DoNotOptimize(bytes.get());
}

void BM_CacheWrite(benchmark::State& state) {
    for (auto _ : state) {
        CacheSession session;
        const double seconds = session.RenderAndWriteAll();
        state.SetIterationTime(seconds);
        const double bytes = static_cast<double>(session.FileBytes());
        g_cacheWrite.Note(bytes, seconds);
        state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(bytes));
    }
}

// The same files as the cache writes (header and payload rounded up to whole 256 KiB blocks),
// written by `state.range(0)` threads, each taking every n-th file.
void BM_PlainWrite(benchmark::State& state) {
    const uint64_t fileSize = (kPayload + 36 + kBlock - 1) / kBlock * kBlock;
    const int streams = static_cast<int>(state.range(0));
    BenchPayload source(7, kPayload);
    Best& best = streams == 1 ? g_plainWrite : g_plainWrite2;
    for (auto _ : state) {
        mctest::TempDir dir("mc-bench-plain", BenchBase());
        std::vector<std::thread> threads;
        std::atomic<bool> direct{true};
        const auto start = Clock::now();
        for (int t = 0; t < streams; ++t)
            threads.emplace_back([&, t] {
                velacore::AlignedBuffer block(kBlock, 4096);
                for (uint32_t i = t; i < kItems; i += streams)
                    if (!PlainWrite(dir.Path() / std::to_string(i), source.Data(), fileSize, block))
                        direct.store(false);
            });
        for (auto& t : threads) t.join();
        const double seconds = Seconds(start);
        state.SetIterationTime(seconds);
        best.Note(static_cast<double>(fileSize) * kItems, seconds);
        best.directIo = direct.load();
        state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(fileSize * kItems));
    }
}

// One session serves both read passes: the cache's check-outs and the plain reads of the same
// files, alternating, each after the pages were dropped.
void BM_ReadBack(benchmark::State& state) {
    CacheSession session;
    session.RenderAndWriteAll();
    const uint64_t perFile = 32 + 4 + uint64_t{kPayload};
    const double bytes = static_cast<double>(perFile) * kItems;
    const std::vector<velacore::File> files = session.Files();
    bool plainFirst = false;
    auto plainPass = [&] {
        DropPages(session.Folder());
        const auto start = Clock::now();
        for (const auto& f : files) PlainRead(f.GetFullPath(), perFile);
        g_plainRead.Note(bytes, Seconds(start));
    };
    for (auto _ : state) {
        if (plainFirst) plainPass();  // alternate, so that neither pass always goes first
        const double cacheSeconds = session.PurgeAndReadAll();
        g_cacheRead.Note(bytes, cacheSeconds);
        if (!plainFirst) plainPass();
        plainFirst = !plainFirst;
        state.SetIterationTime(cacheSeconds);
        state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(bytes));
    }
}

BENCHMARK(BM_PlainWrite)
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CacheWrite)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadBack)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);

double MiBs(const Best& b) {
    return b.bytesPerSecond / (1 << 20);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf(
        "\n%u items of %u MiB; writes direct (O_DIRECT): %s; reads buffered, pages dropped "
        "before each read pass\n",
        kItems, kPayload >> 20, g_plainWrite.directIo ? "yes" : "no (fallback)");
    if (g_plainWrite.bytesPerSecond > 0 && g_cacheWrite.bytesPerSecond > 0) {
        // The disk's limit is the better of one stream and two (the writer uses two threads).
        const double limit = std::max(g_plainWrite.bytesPerSecond, g_plainWrite2.bytesPerSecond);
        std::printf(
            "write: cache %.0f MiB/s; plain direct 256 KiB writes %.0f MiB/s (1 stream), "
            "%.0f MiB/s (2 streams)\n",
            MiBs(g_cacheWrite), MiBs(g_plainWrite), MiBs(g_plainWrite2));
        std::printf(
            "write ratio %.2f against the better plain pass, %.2f against one stream "
            "(target >= 0.85)\n",
            g_cacheWrite.bytesPerSecond / limit,
            g_cacheWrite.bytesPerSecond / g_plainWrite.bytesPerSecond);
    }
    if (g_plainRead.bytesPerSecond > 0 && g_cacheRead.bytesPerSecond > 0)
        std::printf(
            "read:  cache check-out %.0f MiB/s, plain read %.0f MiB/s, ratio %.2f "
            "(target >= 0.85)\n",
            MiBs(g_cacheRead), MiBs(g_plainRead),
            g_cacheRead.bytesPerSecond / g_plainRead.bytesPerSecond);
    return 0;
}
