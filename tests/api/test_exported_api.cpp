// Uses the module only through the shared MC library and the headers under include/: proves that
// the exported surface is enough to embed the cache.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <vector>

#include "mc/MC.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/standalone/StandaloneHostFactory.h"

namespace {

// A frame of pixels; its number lives in its guid.
class Frame : public MC_StuffData {
public:
    explicit Frame(uint32_t bytes) : pixels_(bytes, 0x7F) {}
    uint32_t GetApproximateMemorySize() const override {
        return static_cast<uint32_t>(pixels_.size());
    }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        if (pixels_.empty()) return false;
        std::vector<uint8_t>().swap(pixels_);
        return true;
    }
    bool IsInMemory() const override { return !pixels_.empty(); }

private:
    std::vector<uint8_t> pixels_;
};

IntrusivePtr<MC_Stuff> Request(uint32_t number) {
    IntrusivePtr<MC_Stuff> r = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Frame(0)), 0);
    velacore::Guid::Bytes b{};
    std::memcpy(b.data(), &number, sizeof number);
    r->SetGuid(velacore::Guid(b));
    return r;
}

// A miss creates a pending item; the render's payload is checked in with it.
void Render(uint32_t number, IntrusivePtr<MC_StuffData> data) {
    MC_ScCheckout receipt;
    ASSERT_EQ(receipt.FindAndCheckout(Request(number),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    receipt.GetStuffPtr()->SetStuffDataFromPendingRender(std::move(data), 0.25);
}

// A frame whose Write blocks until the test lets it go.
class HeldFrame : public Frame {
public:
    HeldFrame(std::promise<void>& started, std::shared_future<void> release)
        : Frame(4096), started_(started), release_(std::move(release)) {}
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return "HeldFrame"; }
    void GetHeader(std::vector<uint8_t>& header) const override { header.assign(4, 9); }
    double Write(velacore::OByteStream& out) const override {
        started_.set_value();
        release_.wait();
        out.WriteU32LE(9);
        return 0.001;
    }
    double Read(velacore::IByteStream&, velacore::MultiTenantRecursiveMutex&) override { return 0; }

private:
    std::promise<void>& started_;
    std::shared_future<void> release_;
};

// A render checked in and hit again; a disk write waited for while it is in progress.
TEST(ExportedApi, FindRenderCheckInHitAgainAndWaitForDiskWrites) {
    const auto root =
        std::filesystem::temp_directory_path() /
        ("mc-api-wait-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
    std::filesystem::create_directories(root);
#ifdef _WIN32
    // The Windows linker drops a DLL nothing refers to: naming the host keeps it loaded.
    velacore::InstallStandaloneHost();
#endif
    MC_Birth(false, 256, false);
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    ASSERT_TRUE(bag);
    Render(3, IntrusivePtr<MC_StuffData>(new Frame(4096)));
    EXPECT_EQ(bag->GetNumItems(), 1);
    EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 4096);
    {
        MC_ScCheckout receipt;
        ASSERT_EQ(receipt.FindAndCheckout(Request(3), MC_CheckoutFlag_ReadOnly),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_TRUE(receipt.IsInMemory());
        EXPECT_EQ(MC_GetPerformanceCounters().activeCheckouts, 1u);
    }
    bag->PurgeAllMemoryCaches();
    EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 0);

    bag->SetDiskCacheInfo(velacore::Dir(root), 16);
    bag->EnableDiskCache(true);
    EXPECT_TRUE(MC_Bag::WaitForDiskWrites(0));  // nothing to wait for
    std::promise<void> started, release;
    IntrusivePtr<MC_StuffData> data(new HeldFrame(started, release.get_future().share()));
    data->SetCachePriority(MC_CachePriority_High);
    Render(9, data);  // the check-in queues the write
    ASSERT_EQ(started.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    // Taken off the queue but still being written: not idle.
    EXPECT_FALSE(MC_Bag::WaitForDiskWrites(0.05));
    release.set_value();
    EXPECT_TRUE(MC_Bag::WaitForDiskWrites(30));
    EXPECT_GT(bag->GetCurrentDiskCacheSize(), 0);  // the file is committed and accounted
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_FALSE(MC_GlobalBag());
    std::filesystem::remove_all(root);
}

}  // namespace
