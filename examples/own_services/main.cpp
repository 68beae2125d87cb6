// Embedding MC with the host's own services instead of the standalone ones: every host
// operation the cache calls (memory budget, reports, log, suites, identity, ...) is answered by
// this program. It renders 16 tiles twice under a budget of 4 tiles, hands memory back when the
// budget is exceeded, and checks that the second round re-renders exactly what was purged.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "mc/MC.h"
#include "mc/host/HostServices.h"

namespace {

constexpr uint32_t kTileBytes = 256 * 1024;
constexpr uint64_t kBudget = 4 * kTileBytes;

// A rendered tile; requests for the same number are identical. Memory only: no disk cache.
class Tile : public MC_StuffData {
public:
    explicit Tile(uint32_t number, uint32_t bytes = 0) : number_(number), pixels_(bytes, 7) {}
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

// The application's services. Errors and log lines go to stderr; suites and labelled blocks
// live in maps under one mutex.
class AppServices : public velacore::HostServices {
public:
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override {
        if (limit) *limit = kBudget;
        if (physical) *physical = 64 * kBudget;
        return 0;
    }
    uint64_t AmountToPurge() override { return toPurge_; }
    uint64_t AmountAvailableBeforePurge() override { return 0; }
    void PurgeRecycledMemory() override {}
    void SetMemoryClient(std::function<int64_t()>, std::function<void()>) override {}

    void ReportFailedVerification(std::string_view m) override { Say("verification", m); }
    void ReportErrString(uint32_t, int, std::u16string_view) override { ++errors_; }
    void ReportError(std::u16string_view, int) override { ++errors_; }
    int TranslateAndReportException(std::exception_ptr) override { return ++errors_, 1; }
    int StartQuietErrorsOnCurrentThread(int) override { return 0; }
    void EndQuietErrorsOnCurrentThread() override {}
    bool AreErrorsQuietOnCurrentThread() override { return false; }

    bool IsOnMainThread() override { return false; }
    bool IsHoldingNotifyLock() override { return false; }
    bool IsApplicationFrontmost() override { return true; }
    void ExecuteTopLevelFunction(const std::function<void()>& fn) override { fn(); }

    void Log(int, std::string_view category, std::string_view, std::string_view text) override {
        Say(category, text);
    }
    bool IsTraceEnabled(std::string_view, int) override { return false; }
    void Trace(std::string_view, int, std::string_view) override {}
    bool IsConditionalProfiling() override { return false; }
    int ProfilingVolume() override { return 0; }
    void RecordProfile(std::string_view, int64_t) override {}

    std::optional<std::string> GetDebugEntry(std::string_view) override { return {}; }
    std::optional<std::string> GetPreference(std::string_view, std::string_view) override {
        return {};
    }
    void RegisterBetaFeature(std::string_view, int, std::string_view, std::string_view, int, int,
                             int) override {}
    bool IsFeatureEnabled(std::string_view) override { return false; }

    int GetComputerName(char* buf, size_t size) override {
        if (size == 0) return 1;
        std::snprintf(buf, size, "%s", "own-services-host");
        return 0;
    }
    std::string GetClientInternalVersion() override { return "1.0"; }
    bool IsBetaPrime() override { return false; }

    int AddSuite(std::string_view name, int32_t major, int32_t minor, int32_t,
                 const void* table) override {
        std::lock_guard lock(mutex_);
        suites_[{std::string(name), major, minor}] = table;
        return 0;
    }
    int AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                     const void** table) override {
        std::lock_guard lock(mutex_);
        auto it = suites_.find({std::string(name), major, minor});
        *table = it == suites_.end() ? nullptr : it->second;
        return 0;
    }

    NX::IMediaManager* GetMediaManager() override { return nullptr; }  // no media in this host
    std::u16string Localize(std::string_view keyAndDefault) override {
        const auto text = keyAndDefault.substr(keyAndDefault.find('=') + 1);
        return std::u16string(text.begin(), text.end());
    }
    // Blocks handed out here live as long as the services (the cache never frees them).
    void* AllocatePtrClear(size_t size, std::string_view label) override {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::make_unique<std::byte[]>(size));  // zeroed
        bytesByLabel_[std::string(label)] += size;
        return blocks_.back().get();
    }
    uint64_t AllocatedBytes(std::string_view label) override {
        std::lock_guard lock(mutex_);
        auto it = bytesByLabel_.find(std::string(label));
        return it == bytesByLabel_.end() ? 0 : it->second;
    }

    // What the host does under memory pressure: decide the amount, ask the cache to free it.
    void RelievePressure(MC_Bag& bag) {
        const int64_t used = bag.GetInMemoryCacheSizeInBytes_LockFree();
        if (used <= static_cast<int64_t>(kBudget)) return;
        toPurge_ = static_cast<uint64_t>(used) - kBudget;
        bag.FreeUpSomeMemory(0);
        toPurge_ = 0;
    }
    int errors() const { return errors_; }

private:
    static void Say(std::string_view what, std::string_view text) {
        std::fprintf(stderr, "[%.*s] %.*s\n", static_cast<int>(what.size()), what.data(),
                     static_cast<int>(text.size()), text.data());
    }
    std::atomic<uint64_t> toPurge_{0};
    std::atomic<int> errors_{0};
    std::mutex mutex_;
    std::map<std::tuple<std::string, int32_t, int32_t>, const void*> suites_;
    std::vector<std::unique_ptr<std::byte[]>> blocks_;
    std::map<std::string, uint64_t> bytesByLabel_;
};

IntrusivePtr<MC_Stuff> RequestFor(uint32_t number) {
    IntrusivePtr<MC_Stuff> request =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Tile(number)), 0);
    velacore::Guid::Bytes id{0x0a, 0x5e};  // a prefix of this application's own
    std::memcpy(id.data() + 4, &number, sizeof number);
    request->SetGuid(velacore::Guid(id));
    return request;
}

}  // namespace

int main() {
    auto services = std::make_shared<AppServices>();
    velacore::SetHostServices(services);
    MC_Birth(/*interactive=*/false, /*appVersion=*/256, /*quilletMode=*/false);
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    int rendered[2] = {0, 0};
    for (int round = 0; round < 2; ++round) {
        for (uint32_t tile = 0; tile < 16; ++tile) {
            MC_ScCheckout receipt;
            const MC_CheckoutResult r = receipt.FindAndCheckout(
                RequestFor(tile), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending);
            if (r == MC_CheckoutResult_CreatedNewPending) {
                receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
                    IntrusivePtr<MC_StuffData>(new Tile(tile, kTileBytes)), 0.01);
                ++rendered[round];
            }
            receipt.Checkin();
            services->RelievePressure(*bag);
        }
    }
    const int64_t inMemory = bag->GetInMemoryCacheSizeInBytes_LockFree();
    std::printf("rendered %d then %d tiles; %lld bytes in memory (budget %llu)\n", rendered[0],
                rendered[1], static_cast<long long>(inMemory),
                static_cast<unsigned long long>(kBudget));
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    velacore::SetHostServices(nullptr);
    // Rendering in order under an LRU budget of 4 tiles: the first round renders all 16, the
    // purges keep only the newest, so the second round starts with misses again.
    const bool ok = rendered[0] == 16 && rendered[1] > 0 &&
                    inMemory <= static_cast<int64_t>(kBudget) && services->errors() == 0;
    return ok ? 0 : 1;
}
