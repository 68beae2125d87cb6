// The compute-class registry: required callbacks, first registration wins, exact names, copies
// in and out, life beyond module death, and whole records under concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>

#include "bag/Eventually.h"
#include "mc/MC_ComputeCache.h"
#include "support/ModuleFixture.h"

namespace {

constexpr ZKGP_ComputeCacheCallbacks kA{[](const void*, ZKGP_GUID*) { return 0; },
                                        [](const void*, void**) { return 42; },
                                        [](const void*) -> uint64_t { return 1; }, [](void*) {}};
constexpr ZKGP_ComputeCacheCallbacks kB{[](const void*, ZKGP_GUID*) { return 1; }, kA.Compute,
                                        kA.ApproximateSize, kA.DisposeValue};

// 'A', 'B' for a found record, '-' for none; a failed find leaves its output alone.
char Find(const char* name) {
    ZKGP_ComputeCacheCallbacks out = kB;
    const int r = MC_ComputeClassFind(name, &out);
    if (r != 0) {
        EXPECT_TRUE(r == ZKGP_ComputeResult_NoSuchClass && out.GenerateKey == kB.GenerateKey);
        return '-';
    }
    EXPECT_TRUE(out.Compute == kA.Compute && out.DisposeValue == kA.DisposeValue);
    return out.GenerateKey == kA.GenerateKey ? 'A' : 'B';
}

// Registers a copy of `record` with callback `missing` (0..3) cleared; the copy is spoiled
// afterwards, so the registry must have kept its own.
std::function<int()> Reg(const char* name, ZKGP_ComputeCacheCallbacks record, int missing = -1) {
    return [=]() mutable {
        void** slots[] = {reinterpret_cast<void**>(&record.GenerateKey),
                          reinterpret_cast<void**>(&record.Compute),
                          reinterpret_cast<void**>(&record.ApproximateSize),
                          reinterpret_cast<void**>(&record.DisposeValue)};
        if (missing >= 0) *slots[missing] = nullptr;
        const int r = MC_ComputeClassRegister(name, &record);
        record.GenerateKey = nullptr;
        return r;
    };
}
std::function<int()> Unreg(const char* name) {
    return [=] { return MC_ComputeClassUnregister(name); };
}

class Registry : public mctest::ModuleTest {
protected:
    void TearDown() override {
        for (const char* name : {"A", "Alpha", "alpha", "", "x", "durable"})
            MC_ComputeClassUnregister(name);
        ModuleTest::TearDown();
    }
};

TEST_F(Registry, Rules) {
    constexpr int kBad = ZKGP_ComputeResult_BadParameter;
    struct Row {
        const char* what;
        std::function<int()> call;
        int result;
        const char* found;  // Find for "A", "Alph", "Alpha", "alpha", "", "x" afterwards
    };
    const Row rows[] = {
        {"register", Reg("A", kA), 0, "A-----"},
        {"the first registration wins", Reg("A", kB), 0, "A-----"},
        {"unregister", Unreg("A"), 0, "------"},
        {"a new registration after that", Reg("A", kB), 0, "B-----"},
        {"names are exact byte strings", Reg("Alpha", kA), 0, "B-A---"},
        {"case matters", Reg("alpha", kB), 0, "B-AB--"},
        {"the empty name", Reg("", kB), 0, "B-ABB-"},
        {"no case-folding on unregister", Unreg("ALPHA"), 0, "B-ABB-"},
        {"unregister the empty name", Unreg(""), 0, "B-AB--"},
        {"no GenerateKey", Reg("x", kA, 0), kBad, "B-AB--"},
        {"no Compute", Reg("x", kA, 1), kBad, "B-AB--"},
        {"no ApproximateSize", Reg("x", kA, 2), kBad, "B-AB--"},
        {"no DisposeValue", Reg("x", kA, 3), kBad, "B-AB--"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        host().ClearRecords();
        EXPECT_EQ(row.call(), row.result);
        const std::string found{Find("A"),     Find("Alph"), Find("Alpha"),
                                Find("alpha"), Find(""),     Find("x")};
        EXPECT_EQ(found, row.found);
        EXPECT_EQ(host().FailedVerifications().size(), row.result == 0 ? 0u : 1u);
    }

    // Classes outlive the module.
    ASSERT_EQ(MC_ComputeClassRegister("durable", &kA), 0);
    MC_StopAllAsyncWork();
    MC_Death();
    MC_Birth(false, kAppVersion, false);
    EXPECT_EQ(Find("durable"), 'A');
}

// Registrations, unregistrations and lookups from many threads at once: each lookup sees either
// nothing or exactly the record its name was registered with.
TEST_F(Registry, ConcurrentUseSeesWholeRecordsOnly) {
    std::atomic<int> bad{0};
    mctest::RunThreads(8, [&](int t) {
        for (int i = 0; i < 1500; ++i) {
            const int n = (i * 7 + t) % 12;
            const std::string name = "busy-" + std::to_string(n);
            const ZKGP_ComputeCacheCallbacks& mine = n % 2 == 0 ? kA : kB;
            ZKGP_ComputeCacheCallbacks out{};
            int r = 0;
            if ((i + t) % 3 == 0) r = MC_ComputeClassRegister(name.c_str(), &mine);
            if ((i + t) % 3 == 1) r = MC_ComputeClassUnregister(name.c_str());
            if ((i + t) % 3 == 2) {
                r = MC_ComputeClassFind(name.c_str(), &out);
                if (r == 0 && (out.GenerateKey != mine.GenerateKey || !out.DisposeValue)) r = 1;
                if (r == ZKGP_ComputeResult_NoSuchClass) r = 0;
            }
            if (r != 0) bad.fetch_add(1);
        }
    });
    for (int n = 0; n < 12; ++n) MC_ComputeClassUnregister(("busy-" + std::to_string(n)).c_str());
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
