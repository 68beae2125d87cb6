// Preferences read as numbers with defaults, debug entries, beta features, suites and labelled
// allocation, through the host operations.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "host/HostOps.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "support/RecordingHostServices.h"

using mctest::RecordingHostServices;
using mctest::ScopedHostServices;
using velacore::StandaloneHostServices;

TEST(ServicesPrefs, IntegersWithDefaults) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    rec->SetPreference("Cache", "Plain", "42");
    rec->SetPreference("Cache", "Blanks", "  -7 ");
    rec->SetPreference("Cache", "Plus", "+5");
    rec->SetPreference("Cache", "Junk", "12abc");
    rec->SetPreference("Cache", "Empty", "");
    rec->SetPreference("Cache", "Huge", "99999999999999999999999");
    rec->SetPreference("Cache", "Float", "1.5");
    const PREF_Handle h = PREF_GetPrefHandle();
    ASSERT_NE(h, nullptr);
    const std::pair<const char*, int64_t> cases[] = {
        {"Plain", 42}, {"Blanks", -7}, {"Plus", 5},   {"Junk", 99},
        {"Empty", 99}, {"Huge", 99},   {"Float", 99}, {"Absent", 99},
    };
    for (const auto& [key, expected] : cases) {
        int64_t value = -1;
        EXPECT_EQ(PREF_GetTextPrefLong(h, "Cache", key, 99, &value), 0) << key;
        EXPECT_EQ(value, expected) << key;
    }
    int64_t value = -1;
    EXPECT_EQ(PREF_GetTextPrefLong(h, "Other", "Plain", 3, &value), 0);  // sections are apart
    EXPECT_EQ(value, 3);
    EXPECT_NE(PREF_GetTextPrefLong(h, "Cache", "Plain", 3, nullptr), 0);
}

TEST(ServicesPrefs, FloatingWithDefaults) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    rec->SetPreference("Disk", "Ratio", "0.25");
    rec->SetPreference("Disk", "Whole", "2");
    rec->SetPreference("Disk", "Exp", "1e3");
    rec->SetPreference("Disk", "Bad", "half");
    const PREF_Handle h = PREF_GetPrefHandle();
    const std::pair<const char*, double> cases[] = {
        {"Ratio", 0.25}, {"Whole", 2.0}, {"Exp", 1000.0}, {"Bad", 9.5}, {"Absent", 9.5}};
    for (const auto& [key, expected] : cases) {
        double value = -1;
        EXPECT_EQ(PREF_GetTextPrefFpLong(h, "Disk", key, 9.5, &value), 0) << key;
        EXPECT_DOUBLE_EQ(value, expected) << key;
    }
}

TEST(ServicesPrefs, StandaloneServicesServeConfiguredEntries) {
    velacore::StandaloneConfig config;
    config.preferences[{"Cache", "MaxItems"}] = "250";
    config.debugEntries["SlowDisk"] = "1";
    config.betaFeatures.insert("Turbo");
    auto s = std::make_shared<StandaloneHostServices>(config);
    ScopedHostServices scope(s);
    int64_t value = 0;
    EXPECT_EQ(PREF_GetTextPrefLong(PREF_GetPrefHandle(), "Cache", "MaxItems", 1, &value), 0);
    EXPECT_EQ(value, 250);
    EXPECT_EQ(velacore::DebugDatabase::GetEntry("SlowDisk"), "1");
    EXPECT_FALSE(velacore::DebugDatabase::GetEntry("FastDisk").has_value());
    EXPECT_TRUE(IsFeatureEnabled("Turbo"));
    EXPECT_FALSE(IsFeatureEnabled("Slow"));
    s->SetFeatureEnabled("Slow", true);
    s->SetFeatureEnabled("Turbo", false);
    EXPECT_TRUE(IsFeatureEnabled("Slow"));
    EXPECT_FALSE(IsFeatureEnabled("Turbo"));
    s->SetPreference("Cache", "MaxItems", "7");
    EXPECT_EQ(PREF_GetTextPrefLong(PREF_GetPrefHandle(), "Cache", "MaxItems", 1, &value), 0);
    EXPECT_EQ(value, 7);
}

TEST(ServicesBeta, FeaturesReachTheCurrentAndLaterServices) {
    auto first = std::make_shared<StandaloneHostServices>();
    ScopedHostServices a(first);
    BetaFeature feature("ServicesTestFeature", 2, "Title", "Description", 0, 0, 0);
    EXPECT_STREQ(feature.Name(), "ServicesTestFeature");
    auto named = [](const auto& list) {
        for (const auto& f : list) {
            if (f.name == "ServicesTestFeature") return true;
        }
        return false;
    };
    EXPECT_TRUE(named(first->RegisteredBetaFeatures()));
    auto later = std::make_shared<RecordingHostServices>();
    ScopedHostServices b(later);
    EXPECT_TRUE(named(later->RegisteredBetaFeatures()));
    EXPECT_FALSE(IsFeatureEnabled("ServicesTestFeature"));  // registered is not enabled
    later->SetFeatureEnabled("ServicesTestFeature", true);
    EXPECT_TRUE(IsFeatureEnabled("ServicesTestFeature"));
}

TEST(ServicesSuites, PublishAndFind) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    static const int tableA[3] = {1, 2, 3};
    static const int tableB[1] = {9};
    EXPECT_EQ(U_SP_AddSPSuite(0, 0, "MC Suite", 1, 2, 3, tableA), 0);
    EXPECT_EQ(U_SP_AddSPSuite(0, 0, "MC Suite", 1, 2, 1, tableB),
              velacore::kStandaloneDuplicateError);
    EXPECT_EQ(U_SP_AddSPSuite(0, 0, "MC Suite", 1, 3, 1, tableB), 0);  // another minor
    EXPECT_NE(U_SP_AddSPSuite(1, 0, "Other", 1, 0, 1, tableB), 0);     // reserved must be 0
    EXPECT_NE(U_SP_AddSPSuite(0, 0, nullptr, 1, 0, 1, tableB), 0);

    const void* found = nullptr;
    EXPECT_EQ(U_SP_AcquireSuite("MC Suite", 1, 2, &found), 0);
    EXPECT_EQ(found, tableA);
    EXPECT_EQ(U_SP_AcquireSuite("MC Suite", 1, 3, &found), 0);
    EXPECT_EQ(found, tableB);
    EXPECT_EQ(U_SP_AcquireSuite("MC Suite", 2, 2, &found), velacore::kStandaloneGenericError);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(U_SP_AcquireSuite("Absent", 1, 2, &found), velacore::kStandaloneGenericError);
    EXPECT_EQ(found, nullptr);
    EXPECT_NE(U_SP_AcquireSuite("MC Suite", 1, 2, nullptr), 0);
}

TEST(ServicesSuites, RecordingServicesHaveTheirOwnRegistry) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    static const int table[1] = {5};
    EXPECT_EQ(U_SP_AddSPSuite(0, 0, "Mine", 1, 0, 1, table), 0);
    EXPECT_EQ(U_SP_AddSPSuite(0, 0, "Mine", 1, 0, 1, table), velacore::kStandaloneDuplicateError);
    const void* found = nullptr;
    EXPECT_EQ(U_SP_AcquireSuite("Mine", 1, 0, &found), 0);
    EXPECT_EQ(found, table);
}

TEST(ServicesAllocation, CountsEveryBlockPerLabel) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    std::vector<unsigned char*> blocks;
    for (size_t size : {100, 28, 0}) {
        auto* p = static_cast<unsigned char*>(U_AllocatePtrClear(size, "tables"));
        ASSERT_NE(p, nullptr);
        for (size_t i = 0; i < size; ++i) ASSERT_EQ(p[i], 0) << i;
        std::memset(p, 0xAB, size);  // writable over its whole size
        blocks.push_back(p);
    }
    EXPECT_EQ(s->AllocatedBytes("tables"), 128u);
    EXPECT_EQ(s->AllocatedBlocks("tables"), 3u);
    EXPECT_EQ(s->AllocatedBytes("other"), 0u);
    EXPECT_NE(blocks[0], blocks[1]);
    // Concurrent allocations are all counted.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) U_AllocatePtrClear(8, "threads");
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(s->AllocatedBytes("threads"), 4u * 50 * 8);
    EXPECT_EQ(s->AllocatedBlocks("threads"), 200u);
}

TEST(ServicesAllocation, RecordingServicesCountAndCanFail) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    EXPECT_NE(U_AllocatePtrClear(64, "x"), nullptr);
    rec->SetFailAllocations(true);
    EXPECT_EQ(U_AllocatePtrClear(64, "x"), nullptr);
    rec->SetFailAllocations(false);
    EXPECT_NE(U_AllocatePtrClear(16, "x"), nullptr);
    EXPECT_EQ(rec->AllocatedBytes("x"), 80u);
    EXPECT_EQ(rec->AllocatedBlocks("x"), 2u);
}
