// Compute check-outs from many threads through the loaded C plug-in: one computation per entry
// while others wait or are turned away, waiters released when a computation fails, and a soak
// of mixed check-outs against a concurrent purge.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "ComputeFixture.h"

using namespace computetest;

namespace {

class ComputeConcurrency : public ComputeTest {
protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        h.SetMemUsageLimits(4000, uint64_t{1} << 30);  // purges go down to 400 bytes
    }
    uint32_t PendingWaitsSinceStart() const {
        return MCp_GetCounters().pendingWaits.load() - waitsAtStart_;
    }
    void SetUp() override {
        ComputeTest::SetUp();
        waitsAtStart_ = MCp_GetCounters().pendingWaits.load();
    }
    uint32_t waitsAtStart_ = 0;
};

// Eight threads wait for one value: it is computed once, and only released once all seven others
// provably wait; meanwhile a caller that will not wait is turned away at once.
TEST_F(ComputeConcurrency, EightThreadsWaitingForTheSameValueComputeItOnce) {
    constexpr int kThreads = 8;
    const HistogramParams p = Params(100, 256, 256, 64);
    hook_.Hold();
    std::vector<int> results(kThreads, -1);
    std::vector<const HistogramValue*> values(kThreads, nullptr);
    std::vector<ZKGP_ComputeReceipt> receipts(kThreads, nullptr);
    std::thread waiters(mctest::RunThreads, kThreads, [&](int t) {
        results[t] = Checkout(p, 2, &receipts[t]);
        if (results[t] == 0) plugin().getValue(receipts[t], &values[t]);
    });
    ASSERT_TRUE(hook_.WaitForEntered(1));
    ASSERT_TRUE(mctest::Eventually([&] { return PendingWaitsSinceStart() >= kThreads - 1; }));
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(p, 1, &receipt), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(Checkout(p, 0, &receipt), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(PendingWaitsSinceStart(), kThreads - 1u) << "no wait without mode 2";
    hook_.Release();
    waiters.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(results[t], 0) << "thread " << t;
        EXPECT_EQ(values[t], values[0]) << "thread " << t;
    }
    EXPECT_EQ(Delta().computes, 1);
    ASSERT_NE(values[0], nullptr);
    EXPECT_TRUE(SameBins(*values[0], Direct(p)));
    for (ZKGP_ComputeReceipt r : receipts) EXPECT_EQ(plugin().checkin(r), 0);
}

// A failed computation returns its code, leaves nothing behind and releases its waiter; a later
// call computes again.
TEST_F(ComputeConcurrency, WaitersAreReleasedWhenTheComputationFails) {
    const HistogramParams p = Params(102);
    hook_.Hold();
    hook_.FailNext(1, -55);
    ZKGP_ComputeReceipt creatorReceipt = nullptr, waiterReceipt = nullptr;
    int creator = 0, waiter = 0;
    std::thread first([&] { creator = Checkout(p, 2, &creatorReceipt); });
    ASSERT_TRUE(hook_.WaitForEntered(1));
    std::thread second([&] { waiter = Checkout(p, 2, &waiterReceipt); });
    ASSERT_TRUE(mctest::Eventually([&] { return PendingWaitsSinceStart() >= 1; }));
    hook_.Release();
    first.join();
    second.join();

    EXPECT_EQ(creator, -55);
    // The waiter finds the abandoned entry without a value: refused as a corrupt entry.
    EXPECT_EQ(waiter, ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(creatorReceipt, nullptr);
    EXPECT_EQ(waiterReceipt, nullptr);
    EXPECT_EQ(
        host().FailedVerifications(),
        std::vector<std::string>{"MCCompute unexpected stuff of wrong type. corrupt cache??"});
    EXPECT_EQ(bag_->GetNumItems(), 0);

    ScopedReceipt retry;
    ASSERT_EQ(Checkout(p, 2, retry.Out()), 0);
    EXPECT_EQ(Delta().computes, 1);
}

// Mixed check-outs of a few entries from several threads while another thread keeps purging
// whatever is idle. Every receipt must show the value of its own parameters, intact, and every
// computed value must be disposed exactly once in the end.
TEST_F(ComputeConcurrency, MixedCheckoutsAgainstAConcurrentPurgeStayConsistent) {
    constexpr int kSeeds = 6;
    std::vector<HistogramParams> params;
    std::vector<HistogramValue> direct[2];
    for (uint32_t s = 0; s < kSeeds; ++s) {
        params.push_back(Params(200 + s, 32 + s, 24, 40 * s));
        direct[0].push_back(Direct(params.back(), false));
        direct[1].push_back(Direct(params.back(), true));
    }
    host().SetAmountToPurge(uint64_t{1} << 30);
    std::atomic<int> bad{0}, handedOut{0};
    {
        mctest::Repeat purger([&] { bag_->FreeUpSomeMemory(0); });
        mctest::RunThreads(6, [&](int t) {
            std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
            for (int i = 0; i < 300; ++i) {
                const uint32_t seed = rng() % kSeeds, cls = rng() % 2, mode = rng() % 3;
                ZKGP_ComputeReceipt r = nullptr;
                const int result = Checkout(params[seed], static_cast<int>(mode), &r,
                                            cls ? kInvertedHistogramClass : kHistogramClass);
                if (result == ZKGP_ComputeResult_NotAvailable && mode != 2) continue;
                const HistogramValue* v = nullptr;
                // A wrong code, a failing or foreign value, a refused check-in: all bad.
                if (result != 0 || plugin().getValue(r, &v) != 0 || !v ||
                    !SameBins(*v, direct[cls][seed]))
                    bad.fetch_add(1);
                if (result == 0 && plugin().checkin(r) != 0) bad.fetch_add(1);
                handedOut.fetch_add(result == 0);
            }
        });
    }
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(handedOut.load(), 0);
    EXPECT_TRUE(host().FailedVerifications().empty());
    // Everything is idle now: one more purge frees every value that is left.
    bag_->FreeUpSomeMemory(0);
    const HistogramCounters d = Delta();
    EXPECT_EQ(d.disposes, d.computes);
    EXPECT_EQ(bag_->GetNumItems(), 0);
}

}  // namespace
