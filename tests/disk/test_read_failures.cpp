// A read-back that fails (missing, empty, truncated, bit-flipped or wrong-version file, or the
// payload's own Read throwing) never escapes a check-out and never hands out a half-read
// payload: it is counted, the payload is purged, the file is deleted and unaccounted, and the
// caller is told to render again.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include "mc/host/Errors.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint32_t kKey = 11, kSize = 20000;

// Fills itself from the file, then reports the body as corrupt.
class HalfReadPayload : public TestPayload {
  public:
    HalfReadPayload(uint32_t key, uint32_t size) : TestPayload(key, size) {}
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& lock) override {
        TestPayload::Read(in, lock);
        throw velacore::IOError("checksum mismatch after the body was read");
    }
};

struct Corruption {
    const char* label;
    std::function<void(const std::filesystem::path&)> apply;
};

void PrintTo(const Corruption& c, std::ostream* os) {
    *os << c.label;
}

std::vector<uint8_t> Load(const std::filesystem::path& p) {
    return mctest::ReadWholeFile(p);
}

class ReadFailureBase : public DiskCacheTest {
  protected:
    // An item written to disk and purged from memory.
    IntrusivePtr<MC_Stuff> OnDiskOnly(IntrusivePtr<MC_Stuff> item) {
        bag_->AddToBagAndSortDir(item);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        item->FreeUpAsMuchAsPossible(true, nullptr);
        EXPECT_FALSE(item->IsInMemory());
        return item;
    }

    // Checks that the failed read left nothing behind.
    void ExpectFailureHandled(const IntrusivePtr<MC_Stuff>& item, const std::filesystem::path& file,
                              uint32_t failuresBefore) {
        EXPECT_EQ(counters().readFailures.load(), failuresBefore + 1);
        EXPECT_FALSE(item->IsInMemory());
        EXPECT_FALSE(item->IsOnDisk());
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
        EXPECT_EQ(item->GetApproximateMemorySize(), 0u);
        EXPECT_EQ(item->GetCheckoutCount(), 0u);
    }
};

class ReadFailures : public ReadFailureBase, public ::testing::WithParamInterface<Corruption> {};

TEST_P(ReadFailures, CheckOutFailsOverToANewRender) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    GetParam().apply(file);
    const uint32_t failuresBefore = counters().readFailures.load();

    MC_ScCheckout receipt;
    MC_CheckoutResult result = MC_CheckoutResult_Failed;
    ASSERT_NO_THROW(
        result = receipt.FindAndCheckout(mctest::MakeRequest(kKey),
                                         MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending));
    EXPECT_EQ(result, MC_CheckoutResult_CreatedNewPending);  // the caller renders again
    EXPECT_NE(receipt.GetStuffPtr(), item);
    ExpectFailureHandled(item, file, failuresBefore);
}

TEST_P(ReadFailures, DirectCheckOutFailsWithoutThrowing) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    GetParam().apply(file);
    const uint32_t failuresBefore = counters().readFailures.load();
    MC_CheckoutResult result = MC_CheckoutResult_CheckedOut;
    ASSERT_NO_THROW(result = item->Checkout(MC_CheckoutFlag_ReadOnly));
    EXPECT_EQ(result, MC_CheckoutResult_Failed);
    ExpectFailureHandled(item, file, failuresBefore);
}

INSTANTIATE_TEST_SUITE_P(
    BadFiles, ReadFailures,
    ::testing::Values(
        Corruption{"Missing", [](const auto& p) { std::filesystem::remove(p); }},
        Corruption{"Empty", [](const auto& p) { std::filesystem::resize_file(p, 0); }},
        Corruption{"TruncatedInTheBody",
                   [](const auto& p) { std::filesystem::resize_file(p, 32 + 4 + kSize / 2); }},
        Corruption{"BitFlippedInTheBody",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       b[32 + 4 + 1234] ^= 0x10;
                       mctest::WriteWholeFile(p, b);
                   }},
        Corruption{"OtherFormatVersion",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       b[4] = 2;  // format version 2
                       mctest::WriteWholeFile(p, b);
                   }},
        Corruption{"GarbageMagicAndBody",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       for (size_t i = 0; i < 64; ++i) b[i] = static_cast<uint8_t>(0xA5 ^ i);
                       mctest::WriteWholeFile(p, b);
                   }}),
    [](const ::testing::TestParamInfo<Corruption>& info) { return std::string(info.param.label); });

class ReadFailure : public ReadFailureBase {};

TEST_F(ReadFailure, PayloadThatThrowsAfterFillingItselfIsPurgedAgain) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly([] {
        auto* payload = new HalfReadPayload(kKey, kSize);
        payload->SetDiskCacheable(true);
        IntrusivePtr<MC_Stuff> s = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        s->SetGuid(mctest::KeyGuid(kKey));
        return s;
    }());
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    const uint32_t failuresBefore = counters().readFailures.load();
    EXPECT_FALSE(item->EnsureInMemory());
    ExpectFailureHandled(item, file, failuresBefore);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

TEST_F(ReadFailure, WrongFormatVersionLeavesTheTimesAlone) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize, MC_CachePriority_Never, 3.0));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    std::vector<uint8_t> b = Load(file);
    b[4] = 7;
    b[16] = 0xFF;  // a compute time that must not be taken
    mctest::WriteWholeFile(file, b);
    EXPECT_FALSE(item->EnsureInMemory());
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 3.0);
}

TEST_F(ReadFailure, AHealthyReadAfterAFailedOneOfAnotherItemStillWorks) {
    IntrusivePtr<MC_Stuff> bad = OnDiskOnly(NewItem(kKey, kSize));
    IntrusivePtr<MC_Stuff> good = OnDiskOnly(NewItem(kKey + 1, kSize));
    std::filesystem::resize_file(bad->GetDiskCacheFile().GetFullPath(), 10);
    EXPECT_FALSE(bad->EnsureInMemory());
    EXPECT_TRUE(good->EnsureInMemory());
    EXPECT_TRUE(good->IsOnDisk());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(good->GetDiskCacheFile().Size()));
}

}  // namespace
