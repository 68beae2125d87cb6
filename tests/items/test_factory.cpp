// The payload factory registry and the payload's priority and reason fields.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mc/MC_StuffData.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class FactoryRegistry : public ::testing::Test {
protected:
    void SetUp() override { MC_StuffData::Death(); }
    void TearDown() override { MC_StuffData::Death(); }

    static MC_StuffData::Factory Making(uint32_t size, std::atomic<int>* calls = nullptr) {
        return [size, calls](const std::vector<uint8_t>& header) {
            if (calls) calls->fetch_add(1);
            return IntrusivePtr<MC_StuffData>(
                new TestPayload(header.empty() ? 0 : header[0], size));
        };
    }
};

// Unknown names give null (and a later registration fills them), a second registration
// replaces the first, names are case-sensitive, a factory may use the registry, Death empties it.
TEST_F(FactoryRegistry, Rules) {
    std::vector<uint8_t> header{5};
    auto size = [&](const char* name) {
        IntrusivePtr<MC_StuffData> made = MC_StuffData::CreateSubclass(name, header);
        return made ? made->GetApproximateMemorySize() : 0u;
    };
    EXPECT_EQ(size("Frame"), 0u);  // no map yet
    MC_StuffData::Factory f1 = Making(1), f2 = Making(2), f3 = Making(3);
    MC_StuffData::RegisterFactory("frame", f3);
    EXPECT_EQ(size("Frame"), 0u);
    MC_StuffData::RegisterFactory("Frame", f1);
    MC_StuffData::RegisterFactory("Frame", f2);
    EXPECT_EQ(size("Frame"), 2u);
    EXPECT_EQ(size("frame"), 3u);
    EXPECT_EQ(static_cast<TestPayload*>(MC_StuffData::CreateSubclass("Frame", header).get())->Key(),
              5u);
    MC_StuffData::Factory outer = [](const std::vector<uint8_t>& h) {
        std::vector<uint8_t> copy = h;
        return MC_StuffData::CreateSubclass("Frame", copy);
    };
    MC_StuffData::RegisterFactory("outer", outer);
    EXPECT_EQ(size("outer"), 2u);
    MC_StuffData::Death();
    EXPECT_EQ(size("outer"), 0u);
    EXPECT_EQ(size("Frame"), 0u);
}

TEST_F(FactoryRegistry, ConcurrentRegistrationAndCreation) {
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &calls] {
            for (int i = 0; i < 200; ++i) {
                MC_StuffData::Factory f = Making(static_cast<uint32_t>(t + 1), &calls);
                MC_StuffData::RegisterFactory(i % 2 ? "a" : "b", f);
                std::vector<uint8_t> header;
                MC_StuffData::CreateSubclass(i % 3 ? "a" : "b", header);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(calls.load(), 800);
}

}  // namespace
