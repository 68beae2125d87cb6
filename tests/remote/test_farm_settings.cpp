// The remote tier's settings as the standalone host reads them: the [remote] table, then the
// MC_REMOTE_* variables over it; unknown keys and bad values are errors that name the key.
#include <gtest/gtest.h>

#include <map>

#include "mc/standalone/StandaloneHost.h"

namespace {

using velacore::StandaloneConfig;

TEST(FarmSettings, TableThenEnvironment) {
    const StandaloneConfig file = StandaloneConfig::FromTomlText(R"(
[remote]
urls = ["redis://a:1", "redis://u:pw@b:2/3"]
operation_timeout_ms = 750
max_item_bytes = "8M"
read_only = true
)",
                                                                 "t.toml");
    EXPECT_EQ(file.remote.urls, (std::vector<std::string>{"redis://a:1", "redis://u:pw@b:2/3"}));
    EXPECT_TRUE(file.remote.readOnly);

    StandaloneConfig env = file;
    const std::map<std::string, std::string, std::less<>> vars = {
        {"MC_REMOTE_URLS", "redis://c:5, redis://d:6"},
        {"MC_REMOTE_READ_ONLY", "no"},
        {"MC_REMOTE_TIMEOUT_MS", "90"}};
    env.ApplyEnvironment([&](std::string_view name) -> std::optional<std::string> {
        auto it = vars.find(name);
        if (it == vars.end()) return std::nullopt;
        return it->second;
    });
    EXPECT_EQ(env.remote.urls, (std::vector<std::string>{"redis://c:5", "redis://d:6"}));
    EXPECT_FALSE(env.remote.readOnly);
    EXPECT_EQ(env.remote.operationTimeoutMs, 90);
    EXPECT_EQ(env.remote.maxItemBytes, 8u << 20);

    EXPECT_THROW(StandaloneConfig::FromTomlText("[remote]\nurl = \"x\"\n", "t.toml"),
                 velacore::StandaloneConfigError);
    EXPECT_THROW(StandaloneConfig::FromTomlText("[remote]\nurls = \"redis://a:1\"\n", "t.toml"),
                 velacore::StandaloneConfigError);
}

}  // namespace
