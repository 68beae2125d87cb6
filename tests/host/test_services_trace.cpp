// Trace call sites cache their answer until the trace settings change anywhere; installing
// services and changing levels move the change count. Profiled scopes record only at volume.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/HostOps.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "support/RecordingHostServices.h"
#include "test_services_util.h"

using mctest::RecordingHostServices;
using mctest::ScopedHostServices;
using velacore::StandaloneHostServices;

namespace {

// Counts how often a trace site asks the services.
class CountingServices : public velacore::HostServicesWrapper {
  public:
    explicit CountingServices(std::shared_ptr<RecordingHostServices> target)
        : HostServicesWrapper(target), recording(std::move(target)) {}
    bool IsTraceEnabled(std::string_view c, int l) override {
        queries++;
        return HostServicesWrapper::IsTraceEnabled(c, l);
    }
    std::shared_ptr<RecordingHostServices> recording;
    std::atomic<int> queries{0};
};

}  // namespace

TEST(ServicesTrace, SiteCachesUntilTheChangeCountMoves) {
    auto counting = std::make_shared<CountingServices>(std::make_shared<RecordingHostServices>());
    ScopedHostServices scope(counting);
    debug::TraceSite site("TestChannel", 5);
    EXPECT_FALSE(site.Enabled());
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(site.Enabled());
    EXPECT_EQ(counting->queries.load(), 1);  // cached "off"

    const uint64_t before = debug::TraceChangeCount();
    counting->recording->SetTraceLevel("TestChannel", 5);
    EXPECT_GT(debug::TraceChangeCount(), before);
    EXPECT_TRUE(site.Enabled());  // seen after the count moved
    EXPECT_EQ(counting->queries.load(), 2);
    site.Write("hello");
    const auto lines = counting->recording->TraceLines("TestChannel");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 5);
    EXPECT_EQ(lines[0].text, "hello");

    counting->recording->SetTraceLevel("TestChannel", 4);  // below the site's level
    EXPECT_FALSE(site.Enabled());
    counting->recording->SetTraceLevel("TestChannel", -1);
    EXPECT_FALSE(site.Enabled());
}

TEST(ServicesTrace, InstallingServicesRefreshesSites) {
    auto first = std::make_shared<RecordingHostServices>();
    auto second = std::make_shared<RecordingHostServices>();
    second->SetTraceLevel("Swap", 9);
    debug::TraceSite site("Swap", 2);
    {
        ScopedHostServices a(first);
        EXPECT_FALSE(site.Enabled());
        {
            ScopedHostServices b(second);
            EXPECT_TRUE(site.Enabled());
        }
        EXPECT_FALSE(site.Enabled());
    }
}

TEST(ServicesTrace, StandaloneLevelsAndWildcard) {
    velacore::StandaloneConfig config;
    config.traceLevels["MC"] = 7;
    auto s = std::make_shared<StandaloneHostServices>(config);
    ScopedHostServices scope(s);
    debug::TraceSite mc("MC", 7);
    debug::TraceSite disk("DiskCache", 3);
    EXPECT_TRUE(mc.Enabled());
    EXPECT_FALSE(disk.Enabled());
    s->SetTraceLevel("*", 3);  // every other channel up to 3
    EXPECT_TRUE(disk.Enabled());
    EXPECT_TRUE(debug::IsTraceEnabled("Anything", 3));
    EXPECT_FALSE(debug::IsTraceEnabled("Anything", 4));
    s->SetTraceLevel("*", -1);
    EXPECT_FALSE(disk.Enabled());
    const auto channels = s->TraceChannels();
    ASSERT_EQ(channels.size(), 1u);
    EXPECT_EQ(channels[0].first, "MC");
}

TEST(ServicesTrace, ConcurrentSitesSettleOnTheLatestSettings) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    debug::TraceSite site("Race", 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) (void)site.Enabled();
        });
    }
    for (int i = 0; i < 200; ++i) rec->SetTraceLevel("Race", i % 2 == 0 ? 1 : -1);
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_FALSE(site.Enabled());  // the last setting hid the channel
    rec->SetTraceLevel("Race", 1);
    EXPECT_TRUE(site.Enabled());
}

TEST(ServicesTrace, ProfileScopeRecordsAtVolume) {
    auto rec = std::make_shared<RecordingHostServices>();
    rec->SetProfiling(true, 2);
    {
        ScopedHostServices scope(rec);  // installing refreshes the global flag
        EXPECT_TRUE(debug::IsProfiling(2));
        EXPECT_FALSE(debug::IsProfiling(3));
        { debug::ProfileScope p("loud", 2); }
        { debug::ProfileScope p("loud", 1); }
        { debug::ProfileScope p("quiet", 3); }
        const auto profiles = rec->Profiles();
        ASSERT_EQ(profiles.count("loud"), 1u);
        EXPECT_EQ(profiles.at("loud").first, 2u);
        EXPECT_GE(profiles.at("loud").second, 0);
        EXPECT_EQ(profiles.count("quiet"), 0u);
    }
    auto quiet = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(quiet);
    EXPECT_FALSE(debug::IsProfiling(0));
}

TEST(ServicesTrace, StandaloneProfilingFollowsItsSetter) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    EXPECT_FALSE(debug::IsProfiling(0));
    s->SetConditionalProfiling(true, 1);
    EXPECT_TRUE(debug::IsProfiling(1));
    { debug::ProfileScope p("scan", 1); }
    { debug::ProfileScope p("scan", 1); }
    const auto totals = s->ProfileFor("scan");
    ASSERT_TRUE(totals.has_value());
    EXPECT_EQ(totals->count, 2u);
    EXPECT_FALSE(s->ProfileFor("other").has_value());
    s->SetConditionalProfiling(false, 0);
    EXPECT_FALSE(debug::IsProfiling(0));
}
