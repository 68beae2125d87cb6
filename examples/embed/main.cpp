// Embedding MC in a host application, end to end: start the module with host services that
// model memory pressure, give the cache a disk folder, define a payload class, run the
// find-render-check-in loop, let memory pressure purge, and shut down.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "mc/MC.h"
#include "mc/host/File.h"
#include "mc/host/HostServices.h"
#include "mc/standalone/StandaloneHost.h"

namespace {

// A payload: one rendered tile. Identical requests are tiles with the same number.
class Tile : public MC_StuffData {
public:
    explicit Tile(uint32_t number, uint32_t bytes = 0) : number_(number), pixels_(bytes, 0x55) {}
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

private:
    uint32_t number_;
    std::vector<uint8_t> pixels_;
};

// Host services: the standalone defaults, but with a hard 1 MiB budget of our own. The amount to
// purge is decided once per purge and stays put while the cache walks its items.
class TinyBudgetHost : public velacore::HostServicesWrapper {
public:
    TinyBudgetHost()
        : HostServicesWrapper(std::make_shared<velacore::StandaloneHostServices>()) {}
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

IntrusivePtr<MC_Stuff> RequestFor(uint32_t number) {
    IntrusivePtr<MC_Stuff> request = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Tile(number)), 0);
    velacore::Guid::Bytes id{};
    std::memcpy(id.data(), &number, sizeof number);
    request->SetGuid(velacore::Guid(id));
    return request;
}

}  // namespace

int main() {
    auto host = std::make_shared<TinyBudgetHost>();
    velacore::SetHostServices(host);
    MC_Birth(/*interactive=*/false, /*appVersion=*/1, /*quilletMode=*/false);
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();

    const auto root = std::filesystem::temp_directory_path() / "mc-embed-example";
    std::filesystem::create_directories(root);
    bag->SetDiskCacheInfo(velacore::Dir(root), 64);
    bag->EnableDiskCache(true);

    int rendered = 0, hits = 0;
    for (int round = 0; round < 2; ++round) {
        for (uint32_t tile = 0; tile < 32; ++tile) {
            MC_ScCheckout receipt;
            const MC_CheckoutResult r = receipt.FindAndCheckout(
                RequestFor(tile), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                      MC_CheckoutFlag_WaitIfPendingUnlessLocked);
            if (r == MC_CheckoutResult_CreatedNewPending) {
                receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
                    IntrusivePtr<MC_StuffData>(new Tile(tile, 64 * 1024)), 0.01);
                ++rendered;
            } else if (r == MC_CheckoutResult_CheckedOut) {
                ++hits;
            }
        }
        // Memory pressure: the host asks the cache to give back what exceeds the budget.
        host->RelievePressure(*bag);
    }
    std::printf("rendered %d, hits %d, in memory %lld bytes (budget %d), %d items\n", rendered,
                hits, static_cast<long long>(bag->GetInMemoryCacheSizeInBytes_LockFree()),
                static_cast<int>(TinyBudgetHost::kBudget), bag->GetNumItems());
    const bool ok = rendered >= 32 && bag->GetInMemoryCacheSizeInBytes_LockFree() <=
                                          TinyBudgetHost::kBudget;
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    std::filesystem::remove_all(root);
    velacore::SetHostServices(nullptr);
    return ok ? 0 : 1;
}
