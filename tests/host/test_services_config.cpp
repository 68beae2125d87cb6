// Standalone configuration: the TOML file, the environment overrides, byte amounts, the version
// rule, and clear errors for bad values.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "mc/host/MediaManager.h"
#include "support/TempDir.h"
#include "test_services_util.h"

using velacore::ParseByteAmount;
using velacore::StandaloneConfig;
using velacore::StandaloneConfigError;
using velacore::StandaloneHostServices;
using namespace services_test;

namespace {

constexpr uint64_t kGiB = uint64_t{1} << 30;

constexpr const char* kFullConfig = R"(
[memory]
budget = "1G"
low_water_percent = 80
monitor_interval_ms = 5

[media]
budget = 268435456

[log]
target = "stderr"
level = "WARN"

[trace]
MC = 7
DiskCache = 6

[profiling]
enabled = true
volume = 2

[debug]
SlowDisk = "1"
Retries = 3

[preferences.Cache]
MaxItems = 200
Ratio = 0.5

[beta]
features = ["Alpha", "Beta"]
build = true

[identity]
client_version = "26.1"
computer_name = "render-box"
frontmost = false
)";

// Runs fn and returns the StandaloneConfigError message it threw ("" when nothing was thrown).
template <typename Fn>
std::string ErrorOf(Fn fn) {
    try {
        fn();
    } catch (const StandaloneConfigError& e) {
        return e.what();
    }
    return {};
}

void WriteText(const std::filesystem::path& path, std::string_view text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

}  // namespace

TEST(ServicesConfig, TomlTextFillsEveryField) {
    const StandaloneConfig c = StandaloneConfig::FromTomlText(kFullConfig, "test.toml");
    EXPECT_EQ(c.memoryBudget, kGiB);
    EXPECT_EQ(c.lowWaterPercent, 80);
    EXPECT_EQ(c.monitorInterval, std::chrono::milliseconds(5));
    EXPECT_EQ(c.mediaBudget, uint64_t{268435456});
    EXPECT_EQ(c.logTarget, "stderr");
    EXPECT_EQ(c.logLevel, "warn");
    EXPECT_EQ(c.traceLevels.at("MC"), 7);
    EXPECT_EQ(c.traceLevels.at("DiskCache"), 6);
    EXPECT_TRUE(c.profiling);
    EXPECT_EQ(c.profilingVolume, 2);
    EXPECT_EQ(c.debugEntries.at("SlowDisk"), "1");
    EXPECT_EQ(c.debugEntries.at("Retries"), "3");
    EXPECT_EQ(c.preferences.at({"Cache", "MaxItems"}), "200");
    EXPECT_EQ(c.preferences.at({"Cache", "Ratio"}), "0.5");
    EXPECT_EQ(c.betaFeatures.count("Alpha"), 1u);
    EXPECT_EQ(c.betaFeatures.count("Beta"), 1u);
    EXPECT_TRUE(c.betaBuild);
    EXPECT_EQ(c.clientVersion, "26.1");
    EXPECT_EQ(c.computerName, "render-box");
    EXPECT_FALSE(c.frontmost);
    EXPECT_TRUE(c.configFile.empty());
}

TEST(ServicesConfig, EmptyDocumentKeepsDefaults) {
    const StandaloneConfig c = StandaloneConfig::FromTomlText("", "empty.toml");
    EXPECT_FALSE(c.memoryBudget.has_value());
    EXPECT_FALSE(c.mediaBudget.has_value());
    EXPECT_EQ(c.lowWaterPercent, 90);
    EXPECT_EQ(c.monitorInterval, std::chrono::milliseconds(20));
    EXPECT_EQ(c.clientVersion, "1.0");
    EXPECT_FALSE(c.betaBuild);
    EXPECT_TRUE(c.frontmost);
    EXPECT_FALSE(c.logLevel.has_value());
}

TEST(ServicesConfig, FileNamedByMcConfigThenEnvironmentOverrides) {
    mctest::TempDir dir("mc-services-config");
    const auto file = dir / "mc.toml";
    WriteText(file, kFullConfig);
    const StandaloneConfig c = StandaloneConfig::FromLookup(MapEnv({
        {"MC_CONFIG", file.string()},
        {"MC_MEMORY_BUDGET", "2G"},
        {"MC_MEDIA_BUDGET", "512M"},
        {"MC_TRACE", "MC:3, Bag:5"},
        {"MC_LOG", "/tmp/never-opened.log"},
        {"MC_LOG_LEVEL", "debug"},
        {"MC_DEBUG", "SlowDisk=0;NewEntry=yes"},
        {"MC_PREFS", "Cache/MaxItems=10;Disk/Folder=a=b"},
        {"MC_BETA_FEATURES", "Gamma, Delta"},
        {"MC_CLIENT_VERSION", "27.3"},
        {"MC_BETA_BUILD", "no"},
        {"MC_COMPUTER_NAME", "other-box"},
    }));
    EXPECT_EQ(c.configFile, file.string());
    EXPECT_EQ(c.memoryBudget, 2 * kGiB);
    EXPECT_EQ(c.mediaBudget, uint64_t{512} << 20);
    EXPECT_EQ(c.traceLevels.at("MC"), 3);         // overridden
    EXPECT_EQ(c.traceLevels.at("DiskCache"), 6);  // kept from the file
    EXPECT_EQ(c.traceLevels.at("Bag"), 5);        // added
    EXPECT_EQ(c.logTarget, "/tmp/never-opened.log");
    EXPECT_EQ(c.logLevel, "debug");
    EXPECT_EQ(c.debugEntries.at("SlowDisk"), "0");
    EXPECT_EQ(c.debugEntries.at("NewEntry"), "yes");
    EXPECT_EQ(c.debugEntries.at("Retries"), "3");
    EXPECT_EQ(c.preferences.at({"Cache", "MaxItems"}), "10");
    EXPECT_EQ(c.preferences.at({"Disk", "Folder"}), "a=b");
    EXPECT_EQ(c.betaFeatures.size(), 4u);
    EXPECT_EQ(c.betaFeatures.count("Delta"), 1u);
    EXPECT_EQ(c.clientVersion, "27.3");
    EXPECT_FALSE(c.betaBuild);
    EXPECT_EQ(c.computerName, "other-box");
    EXPECT_EQ(c.lowWaterPercent, 80);  // only in the file
}

TEST(ServicesConfig, NoFileNoVariablesGivesDefaults) {
    const StandaloneConfig c = StandaloneConfig::FromLookup(MapEnv({}));
    EXPECT_TRUE(c.configFile.empty());
    EXPECT_FALSE(c.memoryBudget.has_value());
    EXPECT_TRUE(c.traceLevels.empty());
}

TEST(ServicesConfig, BadTomlValuesNameTheSourceAndKey) {
    struct Case {
        const char* toml;
        const char* key;
    };
    const Case cases[] = {
        {"[memory]\nbudget = \"lots\"\n", "memory.budget"},
        {"[memory]\nbudget = -4\n", "memory.budget"},
        {"[memory]\nlow_water_percent = 0\n", "memory.low_water_percent"},
        {"[memory]\nbudgte = 5\n", "memory.budgte"},
        {"[media]\nbudget = true\n", "media.budget"},
        {"[log]\nlevel = \"loud\"\n", "log.level"},
        {"[trace]\nMC = \"high\"\n", "trace.MC"},
        {"[profiling]\nenabled = 1\n", "profiling.enabled"},
        {"[beta]\nfeatures = \"Alpha\"\n", "beta.features"},
        {"[identity]\nclient_version = \"\"\n", "identity.client_version"},
        {"[preferences]\nCache = 3\n", "preferences.Cache"},
        {"[colours]\nred = 1\n", "colours"},
        {"memory = 5\n", "memory"},
    };
    for (const Case& c : cases) {
        const std::string message =
            ErrorOf([&] { StandaloneConfig::FromTomlText(c.toml, "bad.toml"); });
        EXPECT_NE(message.find("bad.toml"), std::string::npos) << c.toml << " -> " << message;
        EXPECT_NE(message.find(std::string("'") + c.key + "'"), std::string::npos)
            << c.toml << " -> " << message;
    }
}

TEST(ServicesConfig, SyntaxErrorNamesFileAndLine) {
    mctest::TempDir dir("mc-services-config");
    const auto file = dir / "broken.toml";
    WriteText(file, "[memory]\nbudget = \"1G\"\nthis is not toml\n");
    const std::string message = ErrorOf([&] { StandaloneConfig::FromTomlFile(file.string()); });
    EXPECT_NE(message.find(file.string() + ":3:"), std::string::npos) << message;
}

TEST(ServicesConfig, MissingFileIsAClearError) {
    mctest::TempDir dir("mc-services-config");
    const auto file = dir / "absent.toml";
    const std::string message = ErrorOf([&] {
        StandaloneConfig::FromLookup(MapEnv({{"MC_CONFIG", file.string()}}));
    });
    EXPECT_NE(message.find(file.string()), std::string::npos) << message;
    EXPECT_NE(message.find("cannot read"), std::string::npos) << message;
}

TEST(ServicesConfig, BadEnvironmentValuesNameTheVariable) {
    const std::pair<const char*, const char*> cases[] = {
        {"MC_MEMORY_BUDGET", "12X"}, {"MC_MEDIA_BUDGET", "-1"},  {"MC_TRACE", "MC"},
        {"MC_TRACE", "MC:high"},     {"MC_TRACE", ":3"},         {"MC_LOG_LEVEL", "loud"},
        {"MC_DEBUG", "NoValue"},     {"MC_PREFS", "NoSlash=1"},  {"MC_PREFS", "/Key=1"},
        {"MC_CLIENT_VERSION", "  "}, {"MC_BETA_BUILD", "maybe"},
    };
    for (const auto& [name, value] : cases) {
        StandaloneConfig c;
        const std::string message = ErrorOf([&] { c.ApplyEnvironment(MapEnv({{name, value}})); });
        EXPECT_NE(message.find(name), std::string::npos)
            << name << "=" << value << " -> " << message;
    }
}

TEST(ServicesConfig, ByteAmounts) {
    EXPECT_EQ(ParseByteAmount("1024", 0), 1024u);
    EXPECT_EQ(ParseByteAmount(" 512K ", 0), 512u * 1024);
    EXPECT_EQ(ParseByteAmount("64m", 0), uint64_t{64} << 20);
    EXPECT_EQ(ParseByteAmount("2GB", 0), 2 * kGiB);
    EXPECT_EQ(ParseByteAmount("1T", 0), uint64_t{1} << 40);
    EXPECT_EQ(ParseByteAmount("25%", 1000), 250u);
    EXPECT_EQ(ParseByteAmount("100%", 8 * kGiB), 8 * kGiB);
    for (const char* bad : {"", "K", "12X", "-5", "1.5G", "101%", "x%", "99999999999T"}) {
        EXPECT_THROW(ParseByteAmount(bad, 1000), std::invalid_argument) << bad;
    }
}

TEST(ServicesConfig, AppVersionRule) {
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("1.0"), 256);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("26.1"), 26 * 256 + 1);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("26.1.3 beta"), 26 * 256 + 1);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("3"), 3 * 256);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("7.x"), 7 * 256);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("2.300"), 2 * 256 + 255);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion("abc"), 0);
    EXPECT_EQ(StandaloneHostServices::AppVersionFromClientVersion(""), 0);
    // Distinct versions give distinct numbers.
    EXPECT_NE(StandaloneHostServices::AppVersionFromClientVersion("1.10"),
              StandaloneHostServices::AppVersionFromClientVersion("2.0"));
}

TEST(ServicesConfig, ServicesResolveDefaultsFromPhysicalMemory) {
    StandaloneHostServices s;
    ASSERT_GT(s.PhysicalMemory(), 0u);
    EXPECT_EQ(s.MemoryBudget(), s.PhysicalMemory() / 4);
    EXPECT_EQ(s.MediaBudget(), s.PhysicalMemory() / 2);
    EXPECT_EQ(s.LowWaterBytes(), s.MemoryBudget() / 10 * 9 + s.MemoryBudget() % 10 * 9 / 10);
    uint64_t limit = 0;
    uint64_t physical = 0;
    EXPECT_EQ(s.GetMemUsageLimits(&limit, &physical), 0);
    EXPECT_EQ(limit, s.MemoryBudget());
    EXPECT_EQ(physical, s.PhysicalMemory());
    EXPECT_EQ(s.GetClientInternalVersion(), "1.0");
    EXPECT_EQ(s.AppVersion(), 256);
    EXPECT_FALSE(s.IsBetaPrime());
    EXPECT_TRUE(s.IsApplicationFrontmost());
}

TEST(ServicesConfig, ServicesTakeTheConfiguration) {
    StandaloneConfig config = StandaloneConfig::FromTomlText(kFullConfig, "test.toml");
    config.logTarget.clear();
    config.logLevel = "off";
    StandaloneHostServices s(config);
    EXPECT_EQ(s.MemoryBudget(), kGiB);
    EXPECT_EQ(s.LowWaterBytes(), kGiB / 100 * 80 + kGiB % 100 * 80 / 100);
    EXPECT_EQ(s.MediaBudget(), uint64_t{268435456});
    EXPECT_EQ(s.GetMediaManager()->GetFixedMaxCacheSize(), uint64_t{268435456});
    EXPECT_EQ(s.AppVersion(), 26 * 256 + 1);
    EXPECT_TRUE(s.IsBetaPrime());
    EXPECT_FALSE(s.IsApplicationFrontmost());
    EXPECT_TRUE(s.IsConditionalProfiling());
    EXPECT_EQ(s.ProfilingVolume(), 2);
    EXPECT_TRUE(s.IsTraceEnabled("MC", 7));
    EXPECT_FALSE(s.IsTraceEnabled("MC", 8));
    EXPECT_TRUE(s.IsFeatureEnabled("Alpha"));
    EXPECT_FALSE(s.IsFeatureEnabled("Gamma"));
    EXPECT_EQ(s.GetDebugEntry("SlowDisk"), "1");
    EXPECT_FALSE(s.GetDebugEntry("Absent").has_value());
    EXPECT_EQ(s.GetPreference("Cache", "MaxItems"), "200");
    char name[64];
    EXPECT_EQ(s.GetComputerName(name, sizeof(name)), 0);
    EXPECT_STREQ(name, "render-box");
    char tiny[4];
    EXPECT_EQ(s.GetComputerName(tiny, sizeof(tiny)), velacore::kStandaloneParamError);
    EXPECT_STREQ(tiny, "");
}

TEST(ServicesConfig, LogFileReceivesLogAndTraceLines) {
    mctest::TempDir dir("mc-services-log");
    const auto file = dir / "mc.log";
    {
        StandaloneConfig config;
        config.logTarget = file.string();  // level defaults to info with a target
        config.traceLevels["Disk"] = 4;
        StandaloneHostServices s(config);
        s.Log(1, "Bag", "opened", "info line");
        s.Log(0, "Bag", "detail", "debug line");  // below info: dropped
        s.Trace("Disk", 4, "trace line");
        s.Trace("Disk", 5, "too detailed");
        s.ReportError(u"visible error", 7);
        s.StartQuietErrorsOnCurrentThread(1);
        s.ReportError(u"quiet error", 7);
        s.EndQuietErrorsOnCurrentThread();
        EXPECT_EQ(s.GetCounters().errors, 2u);
    }
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    const std::string log = text.str();
    EXPECT_NE(log.find("Bag opened: info line"), std::string::npos) << log;
    EXPECT_EQ(log.find("debug line"), std::string::npos) << log;
    EXPECT_NE(log.find("Disk(4) trace line"), std::string::npos) << log;
    EXPECT_EQ(log.find("too detailed"), std::string::npos) << log;
    EXPECT_NE(log.find("visible error"), std::string::npos) << log;
    EXPECT_EQ(log.find("quiet error"), std::string::npos) << log;
}

TEST(ServicesConfig, UnopenableLogFileIsAConfigError) {
    mctest::TempDir dir("mc-services-log");
    StandaloneConfig config;
    // spdlog creates missing folders; a path under a regular file cannot exist.
    WriteText(dir / "plain", "x");
    config.logTarget = (dir / "plain" / "mc.log").string();
    const std::string message = ErrorOf([&] { StandaloneHostServices s(config); });
    EXPECT_NE(message.find("plain"), std::string::npos) << message;
}
