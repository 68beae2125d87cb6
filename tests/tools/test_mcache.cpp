// The mcache tool's commands, run in-process against real folders: a small demo twice on one
// folder, then ls, verify (with damaged files), du, trim and purge, with their output and exit
// codes; usage errors; the report.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Cli.h"
#include "helpers/Machine.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace {

namespace fs = std::filesystem;

using mctest::Mcache;
using mctest::ToolRun;

// High priority: frames are written whenever the queue has room, however fast they render.
std::vector<std::string> DemoArgs(const fs::path& root) {
    return {"demo",   "--folder",      root.string(), "--frames",         "24",   "--width",
            "96",     "--height",      "64",          "--cost",           "12",   "--memory-budget",
            "64K",    "--disk-budget", "16M",         "--cache-priority", "high", "--json",
            "--quiet"};
}

// Sets an environment variable for the life of the object.
struct ScopedEnv {
    ScopedEnv(const char* name, const std::string& value) : name(name) {
        if (const char* was = std::getenv(name)) old = was;
        velacore::SetProcessEnv(name, value.c_str());
    }
    ~ScopedEnv() { velacore::SetProcessEnv(name, old ? old->c_str() : nullptr); }
    const char* name;
    std::optional<std::string> old;
};

// Everything under root with this extension (".noindex": the demo's one machine folder).
std::vector<fs::path> Find(const fs::path& root, const char* ext = ".zkcache") {
    std::vector<fs::path> found;
    for (const auto& e : fs::recursive_directory_iterator(root))
        if (e.path().extension() == ext) found.push_back(e.path());
    return found;
}
fs::path CacheFolder(const fs::path& root) {
    return Find(root, ".noindex").at(0);
}

class McacheTool : public ::testing::Test {
protected:
    mctest::TempDir temp_;
    fs::path root() const { return temp_.Path() / "root"; }
};

TEST_F(McacheTool, DemoTwiceThenAdministerTheFolder) {
    fs::create_directories(root());
    EXPECT_EQ(Mcache({"purge", root().string()}).status, 0);
    EXPECT_TRUE(fs::is_empty(root()));  // purging where no cache is creates nothing
    // First run: renders, purges memory under pressure, writes files, and draws its report.
    const fs::path svg = temp_.Path() / "report.svg";
    std::vector<std::string> args = DemoArgs(root());
    args.insert(args.end(), {"--report", svg.string()});
    ToolRun first = Mcache(args);
    ASSERT_EQ(first.status, 0) << first.err;
    std::ifstream in(svg);
    const std::string report((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    EXPECT_NE(report.find("24 frames × 24.0 KiB"), std::string::npos);
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
    const size_t files = Find(folder).size();
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
    EXPECT_NE(Mcache({"ls", folder.string()}).out.find(std::to_string(files) + " files"),
              std::string::npos);

    // verify with damaged files (exactly 2 invalid), then deleting them; foreign files stay.
    std::ofstream(folder / "garbage-name.zkcache") << "nothing";
    std::ofstream(folder / "notes.txt") << "not a cache file";
    const fs::path some = Find(folder)[Find(folder)[0] == folder / "garbage-name.zkcache"];
    fs::resize_file(some, 10);  // truncated inside the header
    ToolRun listed = Mcache({"ls", folder.string()});
    EXPECT_NE(listed.out.find(some.filename().string() + "  invalid: shorter"), std::string::npos)
        << listed.out;
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
    const uint64_t total = usage["total"]["bytes"].get<uint64_t>();

    // trim deletes least recently used files first, down to the budget.
    std::vector<fs::path> lru = Find(folder);
    ASSERT_GE(lru.size(), 3u);
    const auto now = fs::file_time_type::clock::now();
    for (size_t i = 0; i < lru.size(); ++i)  // lru[0] is the oldest
        fs::last_write_time(lru[i], now - std::chrono::hours(lru.size() - i));
    const uint64_t budget = total - fs::file_size(lru[0]);
    EXPECT_EQ(Mcache({"trim", folder.string(), "--to", std::to_string(budget), "--dry-run"}).status,
              0);
    EXPECT_TRUE(fs::exists(lru[0]));
    ToolRun trim = Mcache({"trim", folder.string(), "--to", std::to_string(budget), "--json"});
    ASSERT_EQ(trim.status, 0) << trim.err;
    EXPECT_EQ(nlohmann::json::parse(trim.out)["deleted_files"], 1);
    EXPECT_FALSE(fs::exists(lru[0]));
    EXPECT_TRUE(fs::exists(lru[1]));

    // purge: a dry run deletes nothing; then this version's cache is emptied.
    ASSERT_EQ(Mcache({"purge", "--dry-run", root().string()}).status, 0);
    EXPECT_EQ(Find(root()).size(), lru.size() - 1);
    ToolRun purge = Mcache({"purge", "--json", root().string()});
    EXPECT_EQ(purge.status, 0) << purge.err;
    EXPECT_GT(nlohmann::json::parse(purge.out)["purged_bytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(Find(root()).size(), 0u);
}

TEST_F(McacheTool, VerifyStrictRejectsAHeaderOfRandomBytesAndJsonSurvivesOddNames) {
    ASSERT_EQ(Mcache(DemoArgs(root())).status, 0);
    const fs::path folder = CacheFolder(root());
    const fs::path victim = Find(folder).at(0);
    {
        std::fstream f(victim, std::ios::in | std::ios::out | std::ios::binary);
        for (int i = 0; i < 32; ++i) f.put(static_cast<char>(i * 37 + 11));
    }
    EXPECT_EQ(Mcache({"verify", folder.string()}).status, 0);  // readers take it as unframed
    ToolRun strict = Mcache({"verify", "--strict", folder.string()});
    EXPECT_EQ(strict.status, 1);
    EXPECT_NE(strict.out.find(victim.filename().string()), std::string::npos);

    std::ofstream(folder / "\xff\xfe-not-utf8.zkcache") << "x";
    ToolRun fixed = Mcache({"verify", "--strict", "--delete-invalid", "--json", folder.string()});
    EXPECT_EQ(fixed.status, 0) << fixed.err;
    EXPECT_EQ(nlohmann::json::parse(fixed.out)["deleted"], 2);  // valid JSON despite the name
    EXPECT_FALSE(fs::exists(folder / "\xff\xfe-not-utf8.zkcache"));
}

TEST_F(McacheTool, EveryErrorIsOneLineAndStatusTwo) {
    const std::string absent = (temp_.Path() / "absent").string();
    const std::string folder = root().string();
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"ls", absent}, "no such folder"},
        {{"bogus"}, "unknown command 'bogus'"},
        {{"demo", "--frames", "0"}, "--frames"},
        {{"trim", folder}, "--to"},
        {{"demo", "--folder", folder, "--memory-budget", "99999999999999999999G"}, "too large"},
        {{"demo", "--folder", folder, "--report", absent + "/r.svg"}, "--report"},
        {{"demo", "--folder", folder, "--frames", "4", "--quiet", "--plugin", absent + ".so"},
         "plug-in"},
    };
    for (const auto& [args, words] : cases) {
        ToolRun r = Mcache(args);
        const std::string what = args[0] + " " + args.back();
        EXPECT_EQ(r.status, 2) << what;
        EXPECT_NE(r.err.find(words), std::string::npos) << what << ": " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << ": " << r.err;
    }
}

TEST_F(McacheTool, BudgetsFlagBeatsEnvironmentAndDefaultFolderIsTheUsersCache) {
    const ScopedEnv env("MC_MEMORY_BUDGET", "32M");
#ifdef _WIN32
    const ScopedEnv cache("LOCALAPPDATA", (temp_.Path() / "xdg").string());
#else
    const ScopedEnv cache("XDG_CACHE_HOME", (temp_.Path() / "xdg").string());
#endif
    const ScopedEnv tmp("TMPDIR", (temp_.Path() / "no-such-tmp").string());
    auto budget = [&](std::vector<std::string> extra) {
        std::vector<std::string> args = {"demo",     "--frames", "2",      "--width", "8",
                                         "--height", "8",        "--json", "--quiet"};
        args.insert(args.end(), extra.begin(), extra.end());
        ToolRun r = Mcache(args);
        EXPECT_EQ(r.status, 0) << r.err;
        return r.status ? 0 : nlohmann::json::parse(r.out)["memory"]["budget"].get<uint64_t>();
    };
    EXPECT_EQ(budget({}), 32u << 20);
    EXPECT_EQ(budget({"--memory-budget", "64K"}), 64u << 10);
    EXPECT_TRUE(fs::is_directory(temp_.Path() / "xdg" / "mcache-demo"));
}

}  // namespace
