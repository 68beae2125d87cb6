// The mcache tool's commands, run in-process against real folders: a small demo twice on one
// folder, then ls, verify (with damaged files), du and purge, with their output and exit codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

ToolRun Mcache(std::vector<std::string> args) {
    args.insert(args.begin(), "mcache");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = mcache::Main(static_cast<int>(argv.size()), argv.data());
    ToolRun r{status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    return r;
}

std::vector<std::string> DemoArgs(const fs::path& root) {
    return {"demo",          "--folder", root.string(), "--frames", "24",  "--width",
            "96",            "--height", "64",          "--cost",   "12",  "--memory-budget",
            "64K",           "--disk-budget-mb", "16",  "--json",   "--quiet"};
}

// The one machine folder the demo wrote under root.
fs::path CacheFolder(const fs::path& root) {
    for (const auto& e : fs::recursive_directory_iterator(root))
        if (e.is_directory() && e.path().extension() == ".noindex") return e.path();
    return {};
}

size_t CountCacheFiles(const fs::path& folder) {
    size_t n = 0;
    for (const auto& e : fs::recursive_directory_iterator(folder))
        if (e.path().extension() == ".zkcache") ++n;
    return n;
}

class McacheTool : public ::testing::Test {
protected:
    mctest::TempDir temp_;
    fs::path root() const { return temp_.Path() / "root"; }
};

TEST_F(McacheTool, DemoTwiceThenAdministerTheFolder) {
    // First run: renders, purges memory under pressure, writes files.
    ToolRun first = Mcache(DemoArgs(root()));
    ASSERT_EQ(first.status, 0) << first.err;
    const auto j1 = nlohmann::json::parse(first.out);
    ASSERT_EQ(j1["passes"].size(), 4u);
    EXPECT_EQ(j1["adopted_at_start"], 0);
    uint64_t rendered1 = 0;
    for (const auto& p : j1["passes"]) {
        EXPECT_EQ(p["requests"].get<uint64_t>(), p["from_memory"].get<uint64_t>() +
                                                      p["from_disk"].get<uint64_t>() +
                                                      p["rendered"].get<uint64_t>());
        rendered1 += p["rendered"].get<uint64_t>();
    }
    EXPECT_GE(rendered1, 24u);
    EXPECT_GT(j1["disk"]["bytes_written"].get<uint64_t>(), 0u);
    EXPECT_LE(j1["disk"]["in_use"].get<int64_t>(), int64_t{16} << 20);

    const fs::path folder = CacheFolder(root());
    ASSERT_FALSE(folder.empty());
    const size_t files = CountCacheFiles(folder);
    EXPECT_GT(files, 0u);

    // Second run on the same folder: the first pass comes back from disk.
    ToolRun second = Mcache(DemoArgs(root()));
    ASSERT_EQ(second.status, 0) << second.err;
    const auto j2 = nlohmann::json::parse(second.out);
    EXPECT_EQ(j2["adopted_at_start"].get<uint64_t>(), files);
    EXPECT_GT(j2["passes"][0]["from_disk"].get<uint64_t>(), 0u);
    EXPECT_LT(j2["passes"][0]["rendered"].get<uint64_t>(),
              j1["passes"][0]["rendered"].get<uint64_t>());

    // ls lists every file with its match name.
    ToolRun ls = Mcache({"ls", folder.string()});
    EXPECT_EQ(ls.status, 0);
    EXPECT_NE(ls.out.find("DemoFrame"), std::string::npos);
    EXPECT_NE(ls.out.find(std::to_string(CountCacheFiles(folder)) + " files"), std::string::npos);

    // verify: clean, then with damaged files, then deleting them; foreign files stay.
    ToolRun clean = Mcache({"verify", folder.string()});
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_NE(clean.out.find(", 0 invalid"), std::string::npos);
    std::ofstream(folder / "garbage-name.zkcache") << "nothing";
    std::ofstream(folder / "notes.txt") << "not a cache file";
    const fs::path some = [&] {
        for (const auto& e : fs::recursive_directory_iterator(folder))
            if (e.path().extension() == ".zkcache" && e.path().filename() != "garbage-name.zkcache")
                return e.path();
        return fs::path();
    }();
    fs::resize_file(some, 10);  // truncated inside the header
    ToolRun damaged = Mcache({"verify", folder.string()});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_NE(damaged.out.find("garbage-name.zkcache"), std::string::npos);
    EXPECT_NE(damaged.out.find(some.filename().string()), std::string::npos);
    EXPECT_NE(damaged.out.find(", 2 invalid"), std::string::npos);
    ToolRun repaired = Mcache({"verify", "--delete-invalid", folder.string()});
    EXPECT_EQ(repaired.status, 0);
    EXPECT_FALSE(fs::exists(some));
    EXPECT_FALSE(fs::exists(folder / "garbage-name.zkcache"));
    EXPECT_TRUE(fs::exists(folder / "notes.txt"));

    // du reports the version folder and the total.
    ToolRun du = Mcache({"du", "--json", root().string()});
    ASSERT_EQ(du.status, 0) << du.err;
    const auto usage = nlohmann::json::parse(du.out);
    EXPECT_EQ(usage["versions"].size(), 1u);
    EXPECT_GT(usage["total"]["bytes"].get<uint64_t>(), 0u);

    // purge empties this version's cache.
    ToolRun purge = Mcache({"purge", root().string()});
    EXPECT_EQ(purge.status, 0) << purge.err;
    EXPECT_EQ(CountCacheFiles(root()), 0u);
}

TEST_F(McacheTool, MissingFolderIsOneClearLineAndStatusTwo) {
    for (const char* cmd : {"ls", "verify", "du", "purge"}) {
        ToolRun r = Mcache({cmd, (temp_.Path() / "absent").string()});
        EXPECT_EQ(r.status, 2) << cmd;
        EXPECT_NE(r.err.find("no such folder"), std::string::npos) << cmd;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << cmd;
    }
}

TEST_F(McacheTool, UsageErrorsAndVersion) {
    EXPECT_EQ(Mcache({"--version"}).status, 0);
    EXPECT_NE(Mcache({}).status, 0);  // a sub-command is required
    EXPECT_NE(Mcache({"demo", "--frames", "0"}).status, 0);
    ToolRun bad = Mcache({"demo", "--memory-budget", "lots", "--folder", root().string()});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("not a size"), std::string::npos);
}

}  // namespace
