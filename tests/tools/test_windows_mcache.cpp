// mcache on Windows: the folders named in its UTF-8 arguments and those it composes from the
// module's UTF-16 pieces keep their non-ASCII characters (a narrow path would read them in the
// ANSI code page).
#include <gtest/gtest.h>

#include <filesystem>

#include "helpers/Machine.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

TEST(WindowsMcache, PurgeOfANonAsciiRootRemovesTheNonAsciiMachineFolderItMade) {
    mctest::TempDir temp;
    ASSERT_TRUE(velacore::SetProcessEnv("MC_COMPUTER_NAME", "caf\xC3\xA9-\xE7\x8C\xAB"));
    const fs::path root = temp.Path() / fs::path(u8"\u732B \u00E9");
    const fs::path product = root / "Ostrel" / "Tessaline";
    fs::create_directories(product);
    const std::u8string rootText = root.u8string();
    const mctest::ToolRun r =
        mctest::Mcache({"purge", std::string(rootText.begin(), rootText.end())});
    velacore::SetProcessEnv("MC_COMPUTER_NAME", nullptr);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_empty(product));  // the version and machine folders it made are gone
}

}  // namespace
