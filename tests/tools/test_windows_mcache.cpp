// mcache on Windows: the folders it composes from the module's UTF-16 pieces keep their
// non-ASCII characters (a narrow path would read them in the ANSI code page).
#include <gtest/gtest.h>

#include <filesystem>

#include "helpers/Machine.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

TEST(WindowsMcache, PurgeRemovesTheNonAsciiMachineFolderItMade) {
    mctest::TempDir temp;
    ASSERT_TRUE(velacore::SetProcessEnv("MC_COMPUTER_NAME", "caf\xC3\xA9-\xE7\x8C\xAB"));
    const fs::path product = temp.Path() / "Ostrel" / "Tessaline";
    fs::create_directories(product);
    const mctest::ToolRun r = mctest::Mcache({"purge", temp.Path().string()});
    velacore::SetProcessEnv("MC_COMPUTER_NAME", nullptr);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_empty(product));  // the version and machine folders it made are gone
}

}  // namespace
