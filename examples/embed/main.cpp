// Embedding MC in a host application, end to end: host services with a memory budget of their
// own, a disk-cacheable payload class with its factory, the disk-cache folder and the scan that
// adopts an earlier run's files, the find-render-check-in loop, memory pressure, waiting for the
// disk writer, and shut-down. Run it twice on one folder: the second run reads every tile back
// from disk and renders none.
//
//     mc_embed [FOLDER]      (default: $XDG_CACHE_HOME/mc-embed-example or ~/.cache/...)
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "mc/MC.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/host/HostServices.h"
#include "mc/host/Time.h"
#include "mc/standalone/StandaloneHost.h"

namespace {

// A payload: one rendered tile. Requests for the same tile number are identical.
class Tile : public MC_StuffData {
public:
    static constexpr const char* kMatchname = "Tile";
    explicit Tile(uint32_t number, uint32_t bytes = 0) : number_(number), pixels_(bytes) {
        for (uint32_t i = 0; i < bytes; ++i) pixels_[i] = static_cast<uint8_t>(number + i);
    }
    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* other = dynamic_cast<Tile*>(request.get());
        return other && other->number_ == number_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override {
        return IdenticalRequest(request);
    }
    uint32_t GetApproximateMemorySize() const override {
        return static_cast<uint32_t>(pixels_.size());
    }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        const bool had = !pixels_.empty();
        std::vector<uint8_t>().swap(pixels_);
        return had;
    }
    bool IsInMemory() const override { return !pixels_.empty(); }
    // To go to disk: a match name, a header that is enough to rebuild an empty tile (the
    // factory below), and the bytes.
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.resize(sizeof number_);
        std::memcpy(header.data(), &number_, sizeof number_);
    }
    double Write(velacore::OByteStream& out) const override {
        out.WriteU32LE(static_cast<uint32_t>(pixels_.size()));
        out.WriteBytes(pixels_.data(), pixels_.size());
        return 0;  // seconds spent, if the payload measures them
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) override {
        std::vector<uint8_t> pixels(in.ReadU32LE());
        in.ReadBytes(pixels.data(), pixels.size());
        pixels_.swap(pixels);
        return 0;
    }
    static void RegisterFactory() {
        MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
            IntrusivePtr<MC_StuffData> tile;
            uint32_t number = 0;
            if (header.size() != sizeof number) return tile;  // not one of ours
            std::memcpy(&number, header.data(), sizeof number);
            tile = IntrusivePtr<MC_StuffData>(new Tile(number));
            tile->SetCachePriority(MC_CachePriority_High);
            return tile;
        };
        MC_StuffData::RegisterFactory(kMatchname, factory);
    }

private:
    uint32_t number_;
    std::vector<uint8_t> pixels_;
};

// Host services: the standalone defaults with a hard 1 MiB budget. The amount to purge is decided
// once per purge and stays put while the cache walks its items.
class TinyBudgetHost : public velacore::HostServicesWrapper {
public:
    TinyBudgetHost() : HostServicesWrapper(std::make_shared<velacore::StandaloneHostServices>()) {}
    uint64_t AmountToPurge() override { return target_; }
    // What a host does under memory pressure: decide the amount, ask the cache to free it.
    void RelievePressure(MC_Bag& bag) {
        const int64_t used = bag.GetInMemoryCacheSizeInBytes_LockFree();
        if (used <= kBudget) return;
        target_ = static_cast<uint64_t>(used - kBudget);
        bag.FreeUpSomeMemory(0);
        target_ = 0;
    }
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override {
        if (limit) *limit = kBudget;
        if (physical) *physical = kBudget * 64;
        return 0;
    }
    static constexpr int64_t kBudget = 1 << 20;

private:
    std::atomic<uint64_t> target_{0};
};

// A request: an empty tile plus the GUID that every item of this tile shares. The cache finds
// candidates by GUID; a request without one never finds anything.
IntrusivePtr<MC_Stuff> RequestFor(uint32_t number) {
    IntrusivePtr<MC_Stuff> request =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Tile(number)), 0);
    velacore::Guid::Bytes id{0x7e, 0x11};  // a prefix of this application's own
    std::memcpy(id.data() + 4, &number, sizeof number);
    request->SetGuid(velacore::Guid(id));
    return request;
}

std::filesystem::path DefaultFolder() {
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    if (xdg && *xdg) return std::filesystem::path(xdg) / "mc-embed-example";
    return std::filesystem::path(home ? home : ".") / ".cache" / "mc-embed-example";
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path root = argc > 1 ? argv[1] : DefaultFolder();
    auto host = std::make_shared<TinyBudgetHost>();
    velacore::SetHostServices(host);
    // The application version is major * 256 + minor: 1.0 is 256. Files of other versions are
    // never read.
    MC_Birth(/*interactive=*/false, /*appVersion=*/1 * 256 + 0, /*quilletMode=*/false);
    Tile::RegisterFactory();  // before the scan, so that the scan can rebuild tiles
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    int status = 0;
    try {
        std::filesystem::create_directories(root);
        bag->SetDiskCacheInfo(velacore::Dir(root), 64);
        bag->EnableDiskCache(true);
        bag->ScanDiskCacheDir();  // adopt the files an earlier run left
        const int adopted = bag->GetNumItems();

        int rendered = 0, fromMemory = 0, fromDisk = 0;
        for (int round = 0; round < 2; ++round) {
            for (uint32_t tile = 0; tile < 32; ++tile) {
                const uint64_t asked = velacore::HighPrecisionTime::Now();
                MC_ScCheckout receipt;
                const MC_CheckoutResult r = receipt.FindAndCheckout(
                    RequestFor(tile), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                          MC_CheckoutFlag_WaitIfPendingUnlessLocked);
                if (r == MC_CheckoutResult_CreatedNewPending) {
                    IntrusivePtr<MC_StuffData> pixels(new Tile(tile, 64 * 1024));
                    pixels->SetCachePriority(MC_CachePriority_High);  // 0, the default: never
                    receipt.GetStuffPtr()->SetStuffDataFromPendingRender(pixels, 0.01);
                    ++rendered;
                } else if (r == MC_CheckoutResult_CheckedOut) {
                    ++(receipt.GetStuffPtr()->GetLastReadFromDiskTime() >= asked ? fromDisk
                                                                                 : fromMemory);
                }
            }  // each receipt checks in here; worthwhile tiles are queued for the disk writer
            host->RelievePressure(*bag);  // memory pressure: give back what exceeds the budget
        }
        // Queued writes are dropped by MC_StopAllAsyncWork: wait for them first.
        const bool drained = MC_Bag::WaitForDiskWrites(30);
        std::printf("adopted %d, rendered %d, from memory %d, from disk %d, on disk %lld bytes%s\n",
                    adopted, rendered, fromMemory, fromDisk,
                    static_cast<long long>(bag->GetCurrentDiskCacheSize()),
                    drained ? "" : " (writes still queued)");
        const bool firstRun = adopted == 0;
        status = drained && bag->GetCurrentDiskCacheSize() > 0 &&
                         (firstRun ? rendered == 32 : rendered == 0 && fromDisk > 0)
                     ? 0
                     : 1;
    } catch (int code) {  // the cache's errors are int codes (mc/MC_Errors.h)
        std::fprintf(stderr, "mc_embed: %s (error %d)\n", MC_ErrorMessage(code), code);
        status = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mc_embed: %s\n", e.what());
        status = 1;
    }
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    velacore::SetHostServices(nullptr);
    return status;
}
