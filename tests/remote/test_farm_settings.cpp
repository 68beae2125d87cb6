// The remote tier's settings: the [remote] table, then the MC_REMOTE_* variables over it; unknown
// keys and values of the wrong type are errors.
#include <gtest/gtest.h>

#include "mc/standalone/StandaloneHost.h"

namespace {

using velacore::StandaloneConfig;

TEST(FarmSettings, TableThenEnvironment) {
    StandaloneConfig c = StandaloneConfig::FromTomlText(
        "[remote]\nurls = [\"redis://a:1\"]\nmax_item_bytes = \"8M\"\nread_only = true\n", "t");
    EXPECT_EQ(c.remote.urls, std::vector<std::string>{"redis://a:1"});
    c.ApplyEnvironment([](std::string_view name) -> std::optional<std::string> {
        if (name == "MC_REMOTE_URLS") return "redis://c:5, redis://d:6";
        if (name == "MC_REMOTE_READ_ONLY") return "no";
        return std::nullopt;
    });
    EXPECT_EQ(c.remote.urls, (std::vector<std::string>{"redis://c:5", "redis://d:6"}));
    EXPECT_FALSE(c.remote.readOnly);
    EXPECT_EQ(c.remote.maxItemBytes, 8u << 20);
    for (const char* bad : {"[remote]\nurl = \"x\"\n", "[remote]\nurls = \"redis://a:1\"\n"}) {
        EXPECT_THROW(StandaloneConfig::FromTomlText(bad, "t"), velacore::StandaloneConfigError);
    }
}

}  // namespace
