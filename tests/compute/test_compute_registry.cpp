// The compute-class registry: required callbacks, first registration wins, exact names, copies
// in and out, life beyond module death, and whole records under concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ComputeFixture.h"
#include "mc/MC_ComputeCache.h"

using namespace computetest;

namespace {

int KeyA(const void*, ZKGP_GUID*) {
    return 0;
}
int KeyB(const void*, ZKGP_GUID*) {
    return 1;
}
int ComputeNothing(const void*, void**) {
    return 42;
}
uint64_t SizeOne(const void*) {
    return 1;
}
void DisposeNothing(void*) {}

constexpr ZKGP_ComputeCacheCallbacks kA{KeyA, ComputeNothing, SizeOne, DisposeNothing};
constexpr ZKGP_ComputeCacheCallbacks kB{KeyB, ComputeNothing, SizeOne, DisposeNothing};

// 'A', 'B' for a found record, '-' for none.
char Find(const char* name) {
    ZKGP_ComputeCacheCallbacks out = kB;
    const int r = MC_ComputeClassFind(name, &out);
    if (r != 0) {
        EXPECT_EQ(r, ZKGP_ComputeResult_NoSuchClass);
        EXPECT_EQ(out.GenerateKey, &KeyB) << "a failed find wrote its output";
        return '-';
    }
    EXPECT_TRUE(out.Compute == ComputeNothing && out.ApproximateSize == SizeOne &&
                out.DisposeValue == DisposeNothing);
    return out.GenerateKey == &KeyA ? 'A' : 'B';
}

class Registry : public mctest::ModuleTest {
protected:
    void TearDown() override {
        for (const char* name : {"A", "Alpha", "alpha", "", "durable", "incomplete"}) {
            MC_ComputeClassUnregister(name);
        }
        ModuleTest::TearDown();
    }
};

TEST_F(Registry, RegisterFindAndUnregisterFollowTheRules) {
    struct Step {
        char op;  // 'r' register kA, 'R' register kB, 'u' unregister
        const char* name;
        const char* found;  // what Find gives afterwards for "A", "Alpha", "alpha", ""
    };
    const Step steps[] = {
        {'u', "never registered", "----"},  // unknown names unregister fine
        {'r', "A", "A---"},
        {'R', "A", "A---"},  // the first registration wins
        {'u', "A", "----"},
        {'R', "A", "B---"},  // until it is unregistered
        {'r', "Alpha", "BA--"},
        {'R', "alpha", "BAB-"},
        {'R', "", "BABB"},  // exact byte strings
        {'u', "ALPHA", "BABB"},
        {'u', "", "BAB-"},
    };
    for (const Step& s : steps) {
        ZKGP_ComputeCacheCallbacks record = s.op == 'r' ? kA : kB;
        const int r = s.op == 'u' ? MC_ComputeClassUnregister(s.name)
                                  : MC_ComputeClassRegister(s.name, &record);
        EXPECT_EQ(r, 0) << s.op << " " << s.name;
        record.GenerateKey = nullptr;  // the registry kept its own copy
        const std::string found{Find("A"), Find("Alpha"), Find("alpha"), Find("")};
        EXPECT_EQ(found, s.found) << "after " << s.op << " '" << s.name << "'";
    }
    EXPECT_EQ(Find("Alph"), '-');

    // Each missing callback, and null arguments, are refused with a verification report.
    for (int missing = 0; missing < 4; ++missing) {
        ZKGP_ComputeCacheCallbacks record = kA;
        void** slots[] = {reinterpret_cast<void**>(&record.GenerateKey),
                          reinterpret_cast<void**>(&record.Compute),
                          reinterpret_cast<void**>(&record.ApproximateSize),
                          reinterpret_cast<void**>(&record.DisposeValue)};
        *slots[missing] = nullptr;
        host().ClearRecords();
        EXPECT_EQ(MC_ComputeClassRegister("incomplete", &record), ZKGP_ComputeResult_BadParameter);
        EXPECT_EQ(
            host().FailedVerifications(),
            std::vector<std::string>{"ZKGP_MCComputeClassRegister: Missing required callback"});
    }
    EXPECT_EQ(Find("incomplete"), '-');
    host().ClearRecords();
    ZKGP_ComputeCacheCallbacks out{};
    EXPECT_EQ(MC_ComputeClassRegister(nullptr, &kA), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassRegister("x", nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassFind(nullptr, &out), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassFind("x", nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(MC_ComputeClassUnregister(nullptr), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(host().FailedVerifications().size(), 5u);

    // Classes outlive the module.
    ASSERT_EQ(MC_ComputeClassRegister("durable", &kA), 0);
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_EQ(Find("durable"), 'A');
    MC_Birth(false, kAppVersion, false);
    EXPECT_EQ(Find("durable"), 'A');
}

// Registrations, unregistrations and lookups from many threads at once: each lookup sees either
// nothing or exactly the record its name was registered with.
TEST_F(Registry, ConcurrentUseSeesWholeRecordsOnly) {
    std::atomic<int> torn{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1500; ++i) {
                const int n = (i * 7 + t) % 12;
                const std::string name = "busy-" + std::to_string(n);
                const ZKGP_ComputeCacheCallbacks& mine = n % 2 == 0 ? kA : kB;
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
                        if (r == 0 && (out.GenerateKey != mine.GenerateKey || !out.DisposeValue))
                            torn.fetch_add(1);
                        if (r == ZKGP_ComputeResult_NoSuchClass) r = 0;
                }
                if (r != 0) failures.fetch_add(1);
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int n = 0; n < 12; ++n) MC_ComputeClassUnregister(("busy-" + std::to_string(n)).c_str());
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
