// The compute-class registry: required callbacks, first registration wins, exact names, copies
// in and out, life beyond module death, and safety under concurrent use.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ComputeFixture.h"
#include "mc/MC_ComputeCache.h"

using namespace computetest;

namespace {

int KeyA(const void*, ZKGP_GUID* key) {
    std::memset(key->bytes, 0xA, sizeof key->bytes);
    return 0;
}
int KeyB(const void*, ZKGP_GUID* key) {
    std::memset(key->bytes, 0xB, sizeof key->bytes);
    return 0;
}
int ComputeNothing(const void*, void**) {
    return 42;
}
uint64_t SizeOne(const void*) {
    return 1;
}
void DisposeNothing(void*) {}

constexpr ZKGP_ComputeCacheCallbacks kRecordA{KeyA, ComputeNothing, SizeOne, DisposeNothing};
constexpr ZKGP_ComputeCacheCallbacks kRecordB{KeyB, ComputeNothing, SizeOne, DisposeNothing};

bool SameRecord(const ZKGP_ComputeCacheCallbacks& a, const ZKGP_ComputeCacheCallbacks& b) {
    return a.GenerateKey == b.GenerateKey && a.Compute == b.Compute &&
           a.ApproximateSize == b.ApproximateSize && a.DisposeValue == b.DisposeValue;
}

// Registers under names it forgets again at the end of the test.
class Registry : public mctest::ModuleTest {
  protected:
    void TearDown() override {
        for (const std::string& name : names_) MC_ComputeClassUnregister(name.c_str());
        ModuleTest::TearDown();
    }
    int Register(const std::string& name, const ZKGP_ComputeCacheCallbacks& record) {
        names_.push_back(name);
        return MC_ComputeClassRegister(name.c_str(), &record);
    }
    static bool Registered(const char* name) {
        ZKGP_ComputeCacheCallbacks out{};
        return MC_ComputeClassFind(name, &out) == 0;
    }
    std::vector<std::string> names_;
};

TEST_F(Registry, EachMissingCallbackIsRefusedWithTheVerificationMessage) {
    for (int missing = 0; missing < 4; ++missing) {
        ZKGP_ComputeCacheCallbacks record = kRecordA;
        if (missing == 0) record.GenerateKey = nullptr;
        if (missing == 1) record.Compute = nullptr;
        if (missing == 2) record.ApproximateSize = nullptr;
        if (missing == 3) record.DisposeValue = nullptr;
        host().ClearRecords();
        EXPECT_EQ(Register("incomplete", record), ZKGP_ComputeResult_BadParameter);
        EXPECT_EQ(
            host().FailedVerifications(),
            std::vector<std::string>{"ZKGP_MCComputeClassRegister: Missing required callback"});
        EXPECT_FALSE(Registered("incomplete"));
    }
    EXPECT_EQ(MC_ComputeClassRegister("incomplete", nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_FALSE(Registered("incomplete"));
}

TEST_F(Registry, TheFirstRegistrationOfANameWins) {
    EXPECT_EQ(Register("A", kRecordA), 0);
    EXPECT_EQ(Register("A", kRecordB), 0);
    ZKGP_ComputeCacheCallbacks found{};
    ASSERT_EQ(MC_ComputeClassFind("A", &found), 0);
    EXPECT_TRUE(SameRecord(found, kRecordA));
    // Only an unregistration makes room for another record.
    EXPECT_EQ(MC_ComputeClassUnregister("A"), 0);
    EXPECT_EQ(Register("A", kRecordB), 0);
    ASSERT_EQ(MC_ComputeClassFind("A", &found), 0);
    EXPECT_TRUE(SameRecord(found, kRecordB));
}

TEST_F(Registry, NamesAreExactByteStringsAndTheEmptyNameIsOne) {
    ASSERT_EQ(Register("Alpha", kRecordA), 0);
    ASSERT_EQ(Register("alpha", kRecordB), 0);
    ASSERT_EQ(Register("", kRecordB), 0);
    ZKGP_ComputeCacheCallbacks found{};
    ASSERT_EQ(MC_ComputeClassFind("Alpha", &found), 0);
    EXPECT_TRUE(SameRecord(found, kRecordA));
    ASSERT_EQ(MC_ComputeClassFind("alpha", &found), 0);
    EXPECT_TRUE(SameRecord(found, kRecordB));
    EXPECT_TRUE(Registered(""));
    EXPECT_FALSE(Registered("Alph"));
    EXPECT_FALSE(Registered("Alpha "));
    EXPECT_EQ(MC_ComputeClassUnregister("ALPHA"), 0);
    EXPECT_TRUE(Registered("Alpha"));
}

TEST_F(Registry, UnregisteringAnUnknownNameSucceedsAndAKnownOneDisappears) {
    EXPECT_EQ(MC_ComputeClassUnregister("never registered"), 0);
    ASSERT_EQ(Register("gone", kRecordA), 0);
    EXPECT_EQ(MC_ComputeClassUnregister("gone"), 0);
    EXPECT_FALSE(Registered("gone"));
    EXPECT_EQ(MC_ComputeClassUnregister("gone"), 0);
}

TEST_F(Registry, RecordsAreCopiedInAndOut) {
    ZKGP_ComputeCacheCallbacks mine = kRecordA;
    ASSERT_EQ(Register("copied", mine), 0);
    mine.GenerateKey = KeyB;  // the registry kept its own copy
    ZKGP_ComputeCacheCallbacks found{};
    ASSERT_EQ(MC_ComputeClassFind("copied", &found), 0);
    EXPECT_TRUE(SameRecord(found, kRecordA));
    found.Compute = nullptr;  // and hands out copies
    ZKGP_ComputeCacheCallbacks again{};
    ASSERT_EQ(MC_ComputeClassFind("copied", &again), 0);
    EXPECT_TRUE(SameRecord(again, kRecordA));
}

TEST_F(Registry, FindOfAnUnknownNameLeavesTheOutputUntouched) {
    ZKGP_ComputeCacheCallbacks out = kRecordB;
    EXPECT_EQ(MC_ComputeClassFind("unknown", &out), ZKGP_ComputeResult_NoSuchClass);
    EXPECT_TRUE(SameRecord(out, kRecordB));
}

TEST_F(Registry, NullArgumentsAreRefusedWithAReport) {
    ZKGP_ComputeCacheCallbacks out{};
    EXPECT_EQ(MC_ComputeClassRegister(nullptr, &kRecordA), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassFind(nullptr, &out), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassFind("x", nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassUnregister(nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(host().FailedVerifications().size(), 4u);
}

TEST_F(Registry, ClassesOutliveModuleDeathAndRebirth) {
    ASSERT_EQ(Register("durable", kRecordA), 0);
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_TRUE(Registered("durable"));
    MC_Birth(false, kAppVersion, false);
    EXPECT_TRUE(Registered("durable"));
}

// Registrations, unregistrations and lookups from many threads at once: each lookup sees either
// nothing or exactly the record its name was registered with.
TEST_F(Registry, ConcurrentUseSeesWholeRecordsOnly) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 1500;
    constexpr int kNames = 12;
    std::vector<std::string> names;
    for (int i = 0; i < kNames; ++i) names.push_back("busy-" + std::to_string(i));
    std::atomic<int> torn{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                const std::string& name = names[(i * 7 + t) % kNames];
                const bool evenName = ((i * 7 + t) % kNames) % 2 == 0;
                const ZKGP_ComputeCacheCallbacks& mine = evenName ? kRecordA : kRecordB;
                ZKGP_ComputeCacheCallbacks out{};
                int r = 0;
                switch ((i + t) % 3) {
                    case 0:
                        r = MC_ComputeClassRegister(name.c_str(), &mine);
                        break;
                    case 1:
                        r = MC_ComputeClassUnregister(name.c_str());
                        break;
                    default:
                        r = MC_ComputeClassFind(name.c_str(), &out);
                        if (r == 0 && !SameRecord(out, mine)) torn.fetch_add(1);
                        if (r == 1) r = 0;
                }
                if (r != 0) failures.fetch_add(1);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (const std::string& name : names) MC_ComputeClassUnregister(name.c_str());
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    for (const std::string& name : names) EXPECT_FALSE(Registered(name.c_str()));
}

// Unregistering through the plug-in's suite: later check-outs of that class yield 1, the other
// class is untouched.
class RegistryThroughPlugin : public ComputeTest {};

TEST_F(RegistryThroughPlugin, CheckoutsOfAnUnregisteredClassYieldOne) {
    ASSERT_EQ(plugin().unregisterClass(kHistogramClass), 0);
    const HistogramParams p = Params(3);
    ZKGP_ComputeReceipt receipt = nullptr;
    for (int mode = 0; mode < 3; ++mode)
        EXPECT_EQ(Checkout(p, mode, &receipt), ZKGP_ComputeResult_NoSuchClass);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(Delta().keys, 0) << "an unknown class is refused before the key is made";
    ScopedReceipt other;
    EXPECT_EQ(Checkout(p, 1, other.Out(), kInvertedHistogramClass), 0);
    EXPECT_EQ(Checkout(p, 1, &receipt, "example.histogram.unknown"),
              ZKGP_ComputeResult_NoSuchClass);
}

}  // namespace
