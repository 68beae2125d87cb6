// Scanning a disk-cache folder back into a fresh bag, against a bare walk of the same folder.
//   scan:    MC_Bag::ScanDiskCacheDir over 20,000 valid cache files and 2,000 invalid ones
//            (1,000 foreign names, 500 cache files of an unknown data class, 500 of another
//            version that the scan deletes and the benchmark puts back between iterations).
//   listing: a recursive listing of the same folder with one size query per file, through the
//            same file-system layer.
// Prints microseconds per file for both and their ratio (target: scan <= 3x listing).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

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
constexpr uint32_t kValid = 20'000;
constexpr uint32_t kForeign = 1'000;
constexpr uint32_t kUnknownClass = 500;
constexpr uint32_t kOtherVersion = 500;
constexpr uint32_t kFiles = kValid + kForeign + kUnknownClass + kOtherVersion;

using Clock = std::chrono::steady_clock;

struct Folder {
    mctest::TempDir root{"mc-bench-scan"};
    velacore::Dir cache;
    std::vector<std::pair<velacore::File, std::vector<uint8_t>>> otherVersion;
};
Folder* g_folder = nullptr;

struct Totals {
    double seconds = 0;
    uint64_t files = 0;
    double MicrosPerFile() const { return files ? seconds * 1e6 / static_cast<double>(files) : 0; }
};
Totals g_scan, g_listing;

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
    for (uint32_t k = 0; k < kValid; ++k)
        Put(f.cache,
            MCp_CacheFile::BuildName(Guid::CreateUnique(), "TestPayload", kAppVersion, Header(k)),
            Content(k, kAppVersion));
    for (uint32_t k = 0; k < kForeign; ++k)
        Put(f.cache, Guid::CreateUnique().AsWString() + u".note.txt", {1, 2, 3});
    for (uint32_t k = 0; k < kUnknownClass; ++k)
        Put(f.cache,
            MCp_CacheFile::BuildName(Guid::CreateUnique(), "NoSuchClass", kAppVersion, Header(k)),
            Content(k, kAppVersion));
    for (uint32_t k = 0; k < kOtherVersion; ++k) {
        std::vector<uint8_t> bytes = Content(k, kAppVersion + 1);
        velacore::File file = Put(f.cache,
                                  MCp_CacheFile::BuildName(Guid::CreateUnique(), "TestPayload",
                                                           kAppVersion + 1, Header(k)),
                                  bytes);
        f.otherVersion.emplace_back(file, std::move(bytes));
    }
}

void RestoreOtherVersionFiles() {
    for (const auto& [file, bytes] : g_folder->otherVersion)
        if (!file.Exists()) mctest::WriteWholeFile(file.GetFullPath(), bytes);
}

void BM_ScanDiskCacheDir(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        RestoreOtherVersionFiles();
        auto bag = std::make_shared<MC_Bag>(kAppVersion);
        bag->SetDiskCacheInfo(g_folder->root.AsDir(), 100'000);
        state.ResumeTiming();

        const auto start = Clock::now();
        bag->ScanDiskCacheDir();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        g_scan.seconds += seconds;
        g_scan.files += kFiles;

        state.PauseTiming();
        if (bag->GetNumItems() != static_cast<int>(kValid))
            state.SkipWithError("the scan did not adopt every valid file");
        bag->ClearBagAndSortDir();
        bag.reset();
        state.ResumeTiming();
    }
    state.counters["us_per_file"] = g_scan.MicrosPerFile();
}

void BM_BareListingWithStat(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = Clock::now();
        velacore::RecursiveFileIterator walk(g_folder->cache);
        velacore::File file;
        uint64_t count = 0, bytes = 0;
        while (walk.Next(file)) {
            bytes += file.Size();
            ++count;
        }
        benchmark::DoNotOptimize(bytes);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        g_listing.seconds += seconds;
        g_listing.files += count;
    }
    state.counters["us_per_file"] = g_listing.MicrosPerFile();
}

}  // namespace

BENCHMARK(BM_BareListingWithStat)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScanDiskCacheDir)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    auto services = std::make_shared<mctest::RecordingHostServices>();
    services->SetClientVersion("26.1");
    mctest::ScopedHostServices scoped(services);
    MCp_SetInitialDiskRescanPostedForTesting(true);  // the benchmark scans by itself
    MC_Birth(false, kAppVersion, false);
    mctest::TestPayload::RegisterFactory();
    int rc = 0;
    {
        Folder folder;
        {
            auto bag = std::make_shared<MC_Bag>(kAppVersion);
            bag->SetDiskCacheInfo(folder.root.AsDir(), 100'000);
            folder.cache = bag->GetDiskCacheDirSpec();
        }
        std::printf("creating %u files in %s ...\n", kFiles,
                    folder.cache.GetFullPathUtf8().c_str());
        Populate(folder);
        g_folder = &folder;

        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
            rc = 1;
        } else {
            benchmark::RunSpecifiedBenchmarks();
            std::printf("\n== summary ==\n");
            std::printf("bare listing + one stat: %.2f us/file\n", g_listing.MicrosPerFile());
            std::printf("ScanDiskCacheDir:        %.2f us/file (%u files, %u valid)\n",
                        g_scan.MicrosPerFile(), kFiles, kValid);
            if (g_listing.MicrosPerFile() > 0)
                std::printf("ratio scan / listing:    %.2f (target <= 3)\n",
                            g_scan.MicrosPerFile() / g_listing.MicrosPerFile());
        }
        g_folder = nullptr;
    }
    benchmark::Shutdown();
    MC_StopAllAsyncWork();
    MC_Death();
    return rc;
}
