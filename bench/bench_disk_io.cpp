// Disk-cache throughput against the device's own limit, sides interleaved round by round.
// For 8 MiB payloads (32 items) and 1 MiB payloads (128 items), every round runs, in an order
// that alternates between rounds:
//   cache write: every item rendered and checked in; the writer threads write and commit the
//                files. Timed from the first check-in until the last file is attached.
//   raw write:   the same number of files of the same length (the cache's padded length),
//                written by two threads with O_DIRECT into files preallocated to that length,
//                one fdatasync each, 256 KiB per write.
//   cache read:  every payload purged, the files' pages dropped, every item checked out again
//                (each is read back from its file), one after the other.
//   raw read:    the same files read with O_DIRECT into an aligned buffer, one read per file,
//                header and payload rounded up to whole 4 KiB blocks.
// Prints, per figure, the minimum and median time of a pass over the rounds, the MiB/s of the
// median (file bytes for writes, header and payload bytes for reads), and the ratio of the
// medians cache / raw (goal >= 0.9). Usage: bench_disk_io [rounds >= 5]. The folder is
// MC_BENCH_DIR when set, else the system's temporary folder.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchRounds.h"
#include "disk/DiskFolder.h"
#include "helpers/PageCache.h"
#include "lifecycle/Counters.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/host/Guid.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"

namespace {

constexpr size_t kBlock = 256 * 1024;
constexpr size_t kAlign = 4096;
constexpr uint64_t kHeaderAndSize = 32 + 4;  // cache header, then the payload's length
constexpr unsigned kAppVersion = 256;        // client version "1.0"

using Clock = std::chrono::steady_clock;
using mcbench::Samples;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

uint64_t RoundUp(uint64_t n, uint64_t to) {
    return (n + to - 1) / to * to;
}

// A payload that writes and reads its bytes in one piece (no checking, so that the benchmark
// measures the cache's I/O path and not a payload's own work).
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

// The module started on a fresh cache folder; its items are rendered and written by
// RenderAndWriteAll.
class CacheSession {
public:
    CacheSession(uint32_t items, uint32_t payload) : root_("mc-bench-io", BenchBase()) {
        services_->SetClientVersion("1.0");
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MC_Birth(false, kAppVersion, false);
        bag_ = MC_GlobalBag();
        bag_->SetDiskCacheInfo(root_.AsDir(), 4096);
        bag_->EnableDiskCache(true);
        for (uint32_t key = 0; key < items; ++key)
            payloads_.emplace_back(new BenchPayload(key, payload));
    }
    ~CacheSession() {
        items_.clear();
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
    }
    CacheSession(const CacheSession&) = delete;
    CacheSession& operator=(const CacheSession&) = delete;

    // Renders and checks in every item; returns the seconds until the last file is attached.
    // The wait sleeps until an item's state signal reports a file: polling would take CPU
    // time from the writer threads on a small machine.
    double RenderAndWriteAll() {
        std::vector<velacore::SignalConnection> watches;
        const auto start = Clock::now();
        for (uint32_t key = 0; key < payloads_.size(); ++key) {
            MC_ScCheckout render;
            if (render.FindAndCheckout(Request(key), MC_CheckoutFlag_CreatePending) !=
                MC_CheckoutResult_CreatedNewPending)
                throw std::runtime_error("no pending item to render");
            IntrusivePtr<MC_Stuff> item = render.GetStuffPtr();
            watches.emplace_back(item->GetMemDiskChangedSignal().connect([this](bool, bool) {
                std::lock_guard<std::mutex> lock(mutex_);
                changed_.notify_all();
            }));
            item->SetStuffDataFromPendingRender(payloads_[key], 10.0);
            render.Checkin(0, 10.0);
            items_.push_back(item);
        }
        std::unique_lock<std::mutex> lock(mutex_);
        const bool all = changed_.wait_for(lock, std::chrono::seconds(60), [this] {
            return std::all_of(items_.begin(), items_.end(),
                               [](const auto& item) { return item->IsOnDisk(); });
        });
        if (!all) throw std::runtime_error(NotWrittenReport());
        return Seconds(start);
    }

    // Purges every payload, drops the files' pages, then checks each item out again (read from
    // its file). Returns the seconds the check-outs took.
    double PurgeAndReadAll() {
        bag_->PurgeAllMemoryCaches();
        for (const auto& f : Files()) velacore::DropFileFromPageCache(f);
        const auto start = Clock::now();
        for (uint32_t key = 0; key < payloads_.size(); ++key) {
            MC_ScCheckout receipt;
            if (receipt.FindAndCheckout(Request(key), MC_CheckoutFlag_ReadOnly) !=
                    MC_CheckoutResult_CheckedOut ||
                !receipt.IsInMemory())
                throw std::runtime_error("read-back failed");
        }
        return Seconds(start);
    }

    // Why some item was not written within a minute (the write decision declined it, or the
    // write failed).
    std::string NotWrittenReport() const {
        const MCp_Counters& c = MCp_GetCounters();
        std::string reasons;
        for (int r = 1; r <= 5; ++r) reasons += " " + std::to_string(c.reasonCounts[r].load());
        return "an item was not written within 60 s: write failures " +
               std::to_string(c.writeFailures.load()) + ", queued " +
               std::to_string(c.normalWritesQueued.load()) + ", not-written reasons 1..5" + reasons;
    }

    std::vector<std::filesystem::path> Files() const {
        std::vector<std::filesystem::path> files;
        for (const auto& item : items_) files.push_back(item->GetDiskCacheFile().GetFullPath());
        return files;
    }

private:
    std::shared_ptr<mctest::RecordingHostServices> services_ =
        std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scoped_{services_};
    mctest::TempDir root_;
    std::shared_ptr<MC_Bag> bag_;
    std::vector<IntrusivePtr<MC_StuffData>> payloads_;
    std::vector<IntrusivePtr<MC_Stuff>> items_;
    std::mutex mutex_;  // with changed_: a wake-up when an item's state changes
    std::condition_variable changed_;
};

[[noreturn]] void Fail(const char* what, const std::filesystem::path& path) {
    throw std::runtime_error(std::string(what) + " " + path.string() + ": " + std::strerror(errno));
}

// The device's limit for writing: a new file preallocated to `size`, direct 256 KiB writes,
// one fdatasync.
void RawWrite(const std::filesystem::path& path, uint64_t size, const uint8_t* block) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_DIRECT | O_CLOEXEC, 0644);
    if (fd < 0) Fail("open", path);
    if (::fallocate(fd, 0, 0, static_cast<off_t>(size)) != 0 && errno != EOPNOTSUPP)
        Fail("fallocate", path);
    for (uint64_t done = 0; done < size; done += kBlock)
        if (::pwrite(fd, block, kBlock, static_cast<off_t>(done)) != static_cast<ssize_t>(kBlock))
            Fail("pwrite", path);
    if (::fdatasync(fd) != 0) Fail("fdatasync", path);
    ::close(fd);
}

// The device's limit for reading: one direct read of `size` bytes (a multiple of 4 KiB).
void RawRead(const std::filesystem::path& path, uint64_t size, uint8_t* into) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (fd < 0) Fail("open", path);
    if (::pread(fd, into, size, 0) != static_cast<ssize_t>(size)) Fail("pread", path);
    ::close(fd);
}

struct Figures {
    Samples cacheWrite, rawWrite, cacheRead, rawRead;  // seconds per pass
};

// One round for `items` payloads of `payload` bytes; `rawFirst` decides the order of the sides.
void Round(uint32_t items, uint32_t payload, bool rawFirst, Figures& f) {
    const uint64_t fileSize = RoundUp(kHeaderAndSize + payload, kBlock);
    const uint64_t readSize = RoundUp(kHeaderAndSize + payload, kAlign);
    velacore::AlignedBuffer block(kBlock, kAlign);
    std::memset(block.Data(), 0x5A, kBlock);
    velacore::AlignedBuffer readInto(readSize, kAlign);
    auto rawWrites = [&] {
        mctest::TempDir dir("mc-bench-raw", BenchBase());
        const auto start = Clock::now();
        auto writer = [&](uint32_t first) {
            for (uint32_t i = first; i < items; i += 2)
                RawWrite(dir.Path() / std::to_string(i), fileSize, block.Data());
        };
        std::thread other(writer, 1);
        writer(0);
        other.join();
        f.rawWrite.Add(Seconds(start));
    };
    CacheSession session(items, payload);
    if (rawFirst) rawWrites();
    f.cacheWrite.Add(session.RenderAndWriteAll());
    if (!rawFirst) rawWrites();
    const std::vector<std::filesystem::path> files = session.Files();
    auto rawReads = [&] {
        const auto start = Clock::now();
        for (const auto& file : files) RawRead(file, readSize, readInto.Data());
        f.rawRead.Add(Seconds(start));
    };
    if (rawFirst) rawReads();
    f.cacheRead.Add(session.PurgeAndReadAll());
    if (!rawFirst) rawReads();
}

void Report(const char* what, const Samples& cache, const Samples& raw, double bytes) {
    auto mibs = [&](double seconds) { return bytes / seconds / (1 << 20); };
    std::printf(
        "  %-6s cache min %7.1f ms median %7.1f ms (%6.0f MiB/s) | raw min %7.1f ms "
        "median %7.1f ms (%6.0f MiB/s) | ratio %.2f\n",
        what, cache.Min() * 1e3, cache.Median() * 1e3, mibs(cache.Median()), raw.Min() * 1e3,
        raw.Median() * 1e3, mibs(raw.Median()), raw.Median() / cache.Median());
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = mcbench::RoundsFromArgs(argc, argv);
    std::printf("rounds %d, load average at start %.2f, folder %s\n", rounds,
                mcbench::LoadAverage(), BenchBase().string().c_str());
    struct Size {
        uint32_t payload, items;
    };
    try {
        for (const Size s : {Size{8u << 20, 32}, Size{1u << 20, 128}}) {
            Figures f;
            for (int r = 0; r < rounds; ++r) Round(s.items, s.payload, r % 2 == 1, f);
            const double fileBytes = double(RoundUp(kHeaderAndSize + s.payload, kBlock)) * s.items;
            const double readBytes = double(kHeaderAndSize + s.payload) * s.items;
            std::printf("%u items of %u MiB:\n", s.items, s.payload >> 20);
            Report("write", f.cacheWrite, f.rawWrite, fileBytes);
            Report("read", f.cacheRead, f.rawRead, readBytes);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_disk_io: %s\n", e.what());
        return 1;
    }
    std::printf("load average at end %.2f\n", mcbench::LoadAverage());
    return 0;
}
