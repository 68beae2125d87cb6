// Scanning a disk-cache folder back into a fresh bag, against a bare walk of the same folder,
// sides interleaved round by round, for 20,000 and 100,000 valid cache files.
//   scan: MC_Bag::ScanDiskCacheDir over the valid files plus a tenth as many invalid ones
//         (foreign names, cache files of an unknown data class, and of another version, which
//         the scan deletes and the benchmark puts back between rounds, untimed).
//   bare: the machine's limit: a recursive getdents walk (readdir) with one fstatat per entry
//         relative to its folder, no link followed.
// Prints microseconds per file (minimum and median over the rounds) and the ratio of the
// medians scan / bare (goal <= 2), in wall time and in the process's CPU time (which other
// work on a loaded machine disturbs less). Usage: bench_disk_scan [rounds >= 5].
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchRounds.h"
#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/host/File.h"
#include "mc/host/Guid.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

namespace {

constexpr unsigned kAppVersion = 0x1A;

using Clock = std::chrono::steady_clock;

double CpuSeconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Wall and CPU seconds of one timed side.
struct Timing {
    double wall = 0;
    double cpu = 0;
};

class Stopwatch {
public:
    Timing Read() const {
        return {std::chrono::duration<double>(Clock::now() - wall_).count(), CpuSeconds() - cpu_};
    }

private:
    Clock::time_point wall_ = Clock::now();
    double cpu_ = CpuSeconds();
};

struct Folder {
    explicit Folder(uint32_t valid) : valid(valid) {}
    uint32_t valid;
    mctest::TempDir root{"mc-bench-scan"};
    velacore::Dir cache;
    std::vector<std::pair<velacore::File, std::vector<uint8_t>>> otherVersion;
    uint32_t Files() const { return valid + valid / 10; }
};

std::vector<uint8_t> Content(uint32_t key, unsigned version) {
    CacheFileHeader h;
    h.appVersion = version;
    const auto head = h.Encode();
    std::vector<uint8_t> bytes(head.begin(), head.end());
    bytes.resize(bytes.size() + 32, static_cast<uint8_t>(key));
    return bytes;
}

std::vector<uint8_t> Header(uint32_t key) {
    std::vector<uint8_t> header(8, 0);
    for (int i = 0; i < 4; ++i) header[i] = static_cast<uint8_t>(key >> (8 * i));
    return header;
}

velacore::File Put(const velacore::Dir& cache, const std::u16string& name,
                   const std::vector<uint8_t>& bytes) {
    MCp_CacheFile::EnsureSubfolder(cache, name);
    velacore::File file = MCp_CacheFile::FileFor(cache, name);
    mctest::WriteWholeFile(file.GetFullPath(), bytes);
    return file;
}

void Populate(Folder& f) {
    using velacore::Guid;
    for (uint32_t k = 0; k < f.valid; ++k)
        Put(f.cache,
            MCp_CacheFile::BuildName(Guid::CreateUnique(), "TestPayload", kAppVersion, Header(k)),
            Content(k, kAppVersion));
    for (uint32_t k = 0; k < f.valid / 20; ++k)
        Put(f.cache, Guid::CreateUnique().AsWString() + u".note.txt", {1, 2, 3});
    for (uint32_t k = 0; k < f.valid / 40; ++k)
        Put(f.cache,
            MCp_CacheFile::BuildName(Guid::CreateUnique(), "NoSuchClass", kAppVersion, Header(k)),
            Content(k, kAppVersion));
    for (uint32_t k = 0; k < f.valid / 40; ++k) {
        std::vector<uint8_t> bytes = Content(k, kAppVersion + 1);
        velacore::File file = Put(f.cache,
                                  MCp_CacheFile::BuildName(Guid::CreateUnique(), "TestPayload",
                                                           kAppVersion + 1, Header(k)),
                                  bytes);
        f.otherVersion.emplace_back(file, std::move(bytes));
    }
}

// Seconds of one ScanDiskCacheDir into a fresh bag; checks that every valid file was adopted.
// Puts back the files of another version that a scan deleted.
void Restore(const Folder& f) {
    for (const auto& [file, bytes] : f.otherVersion)
        if (!file.Exists()) mctest::WriteWholeFile(file.GetFullPath(), bytes);
}

Timing TimeScan(Folder& f) {
    Restore(f);
    auto bag = std::make_shared<MC_Bag>(kAppVersion);
    bag->SetDiskCacheInfo(f.root.AsDir(), 100'000);
    const Stopwatch watch;
    bag->ScanDiskCacheDir();
    const Timing t = watch.Read();
    if (bag->GetNumItems() != static_cast<int>(f.valid))
        throw std::runtime_error("the scan did not adopt every valid file");
    bag->ClearBagAndSortDir();
    return t;
}

// Files under the folder open as `dirFd` (which this closes), with one fstatat per entry.
uint64_t BareWalk(int dirFd, uint64_t& bytes) {
    DIR* dir = ::fdopendir(dirFd);
    if (!dir) {
        ::close(dirFd);
        return 0;
    }
    uint64_t files = 0;
    while (const dirent* e = ::readdir(dir)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        struct stat st {};
        if (::fstatat(::dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISREG(st.st_mode)) {
            ++files;
            bytes += static_cast<uint64_t>(st.st_size);
        } else if (S_ISDIR(st.st_mode)) {
            const int sub =
                ::openat(::dirfd(dir), e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub >= 0) files += BareWalk(sub, bytes);
        }
    }
    ::closedir(dir);
    return files;
}

Timing TimeBareWalk(const Folder& f) {
    Restore(f);
    const Stopwatch watch;
    uint64_t bytes = 0;
    const int fd = ::open(f.cache.GetFullPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const uint64_t files = fd < 0 ? 0 : BareWalk(fd, bytes);
    const Timing t = watch.Read();
    if (files != f.Files()) throw std::runtime_error("the bare walk missed files");
    return t;
}

// Per-file figures of one side, wall and CPU.
struct Side {
    mcbench::Samples wall, cpu;
    void Add(const Timing& t, double perFile) {
        wall.Add(t.wall * perFile);
        cpu.Add(t.cpu * perFile);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int rounds = mcbench::RoundsFromArgs(argc, argv);
    auto services = std::make_shared<mctest::RecordingHostServices>();
    services->SetClientVersion("26.1");
    mctest::ScopedHostServices scoped(services);
    MCp_SetInitialDiskRescanPostedForTesting(true);  // the benchmark scans by itself
    MC_Birth(false, kAppVersion, false);
    mctest::TestPayload::RegisterFactory();
    std::printf("rounds %d, load average at start %.2f\n", rounds, mcbench::LoadAverage());
    int rc = 0;
    try {
        for (const uint32_t valid : {20'000u, 100'000u}) {
            Folder folder(valid);
            {
                auto bag = std::make_shared<MC_Bag>(kAppVersion);
                bag->SetDiskCacheInfo(folder.root.AsDir(), 100'000);
                folder.cache = bag->GetDiskCacheDirSpec();
            }
            Populate(folder);
            Side scan, bare;
            const double perFile = 1e6 / folder.Files();
            for (int r = 0; r < rounds; ++r) {
                if (r % 2 == 1) bare.Add(TimeBareWalk(folder), perFile);
                scan.Add(TimeScan(folder), perFile);
                if (r % 2 == 0) bare.Add(TimeBareWalk(folder), perFile);
            }
            std::printf(
                "%u files (%u valid): scan min %.2f median %.2f us/file | bare walk min "
                "%.2f median %.2f us/file | ratio %.2f\n",
                folder.Files(), valid, scan.wall.Min(), scan.wall.Median(), bare.wall.Min(),
                bare.wall.Median(), scan.wall.Median() / bare.wall.Median());
            std::printf(
                "       CPU: scan median %.2f us/file | bare walk median %.2f us/file | ratio "
                "%.2f\n",
                scan.cpu.Median(), bare.cpu.Median(), scan.cpu.Median() / bare.cpu.Median());
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_disk_scan: %s\n", e.what());
        rc = 1;
    }
    std::printf("load average at end %.2f\n", mcbench::LoadAverage());
    MC_StopAllAsyncWork();
    MC_Death();
    return rc;
}
