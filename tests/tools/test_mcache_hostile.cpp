// The tool on hostile folders: a link loop does not stop ls, verify or du, du measures nothing
// behind a link, and neither verify --delete-invalid nor purge --other-versions deletes
// anything behind one.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "mc/MC_Module.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

using mctest::Mcache;
using mctest::ToolRun;

std::string MachineDirName() {
    velacore::SetHostServices(velacore::StandaloneHostServices::CreateFromEnvironment());
    const std::string name = velacore::ToUtf8(MC_GetMachineDirName());
    velacore::SetHostServices(nullptr);
    return name;
}

TEST(McacheHostile, LoopsAreSkippedAndLinksNeverFollowed) {
    mctest::TempDir temp("mc-tool-hostile");
    const fs::path root = temp / "root", outside = temp / "outside";
    const fs::path product = root / "Ostrel" / "Tessaline";
    const fs::path folder = product / "1.0" / MachineDirName();
    fs::create_directories(folder);
    fs::create_directories(outside / MachineDirName());
    std::ofstream(folder / "garbage-name.zkcache") << "bad";
    std::ofstream(outside / "victim.zkcache") << "bad, but not ours";
    std::ofstream(outside / MachineDirName() / "theirs.zkcache") << "not ours either";
    fs::create_symlink("self", folder / "self");
    fs::create_directory_symlink(outside, folder / "out");
    fs::create_directory_symlink(outside, product / "0.9");

    EXPECT_EQ(Mcache({"ls", folder.string()}).status, 0);
    const ToolRun du = Mcache({"du", root.string()});
    EXPECT_EQ(du.status, 0);
    EXPECT_EQ(du.out.find("0.9"), std::string::npos) << "a linked version folder was measured";
    EXPECT_EQ(Mcache({"verify", "--delete-invalid", folder.string()}).status, 0);
    EXPECT_FALSE(fs::exists(folder / "garbage-name.zkcache"));
    EXPECT_EQ(Mcache({"purge", "--other-versions", root.string()}).status, 0);
    EXPECT_TRUE(fs::exists(outside / "victim.zkcache"));
    EXPECT_TRUE(fs::exists(outside / MachineDirName() / "theirs.zkcache"));
}

}  // namespace
