// The mcache tool's commands, run in-process against real folders: a small demo twice on one
// folder, then ls, verify (with damaged files), du, trim and purge, with their output and exit
// codes; usage errors; budgets and the default folder; hostile folders (links and loops); and on
// Windows, non-ASCII folders.
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
#include "mc/MC_Module.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct ToolRun {
    int status;
    std::string out, err;
};

// Runs mcache with `args` (without the program name) and captures what it printed. One call at a
// time: the capture of stdout and stderr is process-wide.
ToolRun Mcache(std::vector<std::string> args) {
    args.insert(args.begin(), "mcache");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = mcache::Main(static_cast<int>(argv.size()), argv.data());
    ToolRun run{status, testing::internal::GetCapturedStdout(), {}};
    run.err = testing::internal::GetCapturedStderr();
    return run;
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

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

class McacheTool : public ::testing::Test {
protected:
    mctest::TempDir temp_;
    fs::path root() const { return temp_.Path() / "root"; }
};

#ifdef _WIN32
// The folders named in the UTF-8 arguments and those composed from the module's UTF-16 pieces
// keep their non-ASCII characters (a narrow path would read them in the ANSI code page). It runs
// first: after a demo in the same process, purge still names the machine folder from the
// services the demo left installed.
TEST_F(McacheTool, PurgeOfANonAsciiRootRemovesTheNonAsciiMachineFolderItMade) {
    ASSERT_TRUE(velacore::SetProcessEnv("MC_COMPUTER_NAME", "caf\xC3\xA9-\xE7\x8C\xAB"));
    const fs::path root = temp_.Path() / fs::path(u8"\u732B \u00E9");
    const fs::path product = root / "Ostrel" / "Tessaline";
    fs::create_directories(product);
    const std::u8string rootText = root.u8string();
    const ToolRun r = Mcache({"purge", std::string(rootText.begin(), rootText.end())});
    velacore::SetProcessEnv("MC_COMPUTER_NAME", nullptr);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_empty(product));  // the version and machine folders it made are gone
}
#endif

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
    EXPECT_TRUE(Has(std::string(std::istreambuf_iterator<char>(in), {}), "24 frames × 24.0 KiB"));
    const Json j1 = Json::parse(first.out);
    ASSERT_EQ(j1["passes"].size(), 4u);
    EXPECT_EQ(j1["adopted_at_start"], 0);
    uint64_t rendered1 = 0;
    for (const auto& p : j1["passes"]) {
        EXPECT_EQ(p["requests"], p["from_memory"].get<uint64_t>() + p["from_disk"].get<uint64_t>() +
                                     p["rendered"].get<uint64_t>());
        rendered1 += p["rendered"].get<uint64_t>();
    }
    EXPECT_GE(rendered1, 24u);
    EXPECT_GT(j1["disk"]["bytes_written"].get<uint64_t>(), 0u);
    EXPECT_LE(j1["disk"]["in_use"].get<int64_t>(), int64_t{16} << 20);
    const fs::path folder = Find(root(), ".noindex").at(0);
    const size_t files = Find(folder).size();
    EXPECT_GT(files, 0u);

    // Second run on the same folder: the first pass comes back from disk.
    ToolRun second = Mcache(DemoArgs(root()));
    ASSERT_EQ(second.status, 0) << second.err;
    const Json j2 = Json::parse(second.out);
    EXPECT_EQ(j2["adopted_at_start"].get<uint64_t>(), files);
    EXPECT_GT(j2["passes"][0]["from_disk"].get<uint64_t>(), 0u);
    EXPECT_LT(j2["passes"][0]["rendered"], j1["passes"][0]["rendered"]);
    EXPECT_TRUE(Has(Mcache({"ls", folder.string()}).out, std::to_string(files) + " files"));

    // verify with damaged files (exactly 2 invalid), then deleting them; foreign files stay.
    const fs::path some = Find(folder)[0];
    fs::resize_file(some, 10);  // truncated inside the header
    std::ofstream(folder / "garbage-name.zkcache") << "nothing";
    std::ofstream(folder / "notes.txt") << "not a cache file";
    EXPECT_TRUE(
        Has(Mcache({"ls", folder.string()}).out, some.filename().string() + "  invalid: shorter"));
    ToolRun damaged = Mcache({"verify", folder.string()});
    EXPECT_EQ(damaged.status, 1);
    for (const std::string part : {"garbage-name.zkcache", ", 2 invalid"})
        EXPECT_TRUE(Has(damaged.out, part)) << part;
    EXPECT_TRUE(Has(damaged.out, some.filename().string()));
    EXPECT_EQ(Mcache({"verify", "--delete-invalid", folder.string()}).status, 0);
    EXPECT_FALSE(fs::exists(some) || fs::exists(folder / "garbage-name.zkcache"));
    EXPECT_TRUE(fs::exists(folder / "notes.txt"));

    // A header of random bytes passes a plain verify (readers take it as unframed), not a strict
    // one; the JSON output survives a name that is not UTF-8.
    const fs::path victim = Find(folder).at(0);
    {
        std::fstream f(victim, std::ios::in | std::ios::out | std::ios::binary);
        for (int i = 0; i < 32; ++i) f.put(static_cast<char>(i * 37 + 11));
    }
    EXPECT_EQ(Mcache({"verify", folder.string()}).status, 0);
    ToolRun strict = Mcache({"verify", "--strict", folder.string()});
    EXPECT_EQ(strict.status, 1);
    EXPECT_TRUE(Has(strict.out, victim.filename().string()));
    std::ofstream(folder / "\xff\xfe-not-utf8.zkcache") << "x";
    ToolRun fixed = Mcache({"verify", "--strict", "--delete-invalid", "--json", folder.string()});
    EXPECT_EQ(fixed.status, 0) << fixed.err;
    EXPECT_EQ(Json::parse(fixed.out)["deleted"], 2);
    EXPECT_FALSE(fs::exists(folder / "\xff\xfe-not-utf8.zkcache"));

    // du reports the version folder and the total; trim deletes least recently used files
    // first, down to the budget.
    ToolRun du = Mcache({"du", "--json", root().string()});
    ASSERT_EQ(du.status, 0) << du.err;
    const Json usage = Json::parse(du.out);
    EXPECT_EQ(usage["versions"].size(), 1u);
    std::vector<fs::path> lru = Find(folder);
    ASSERT_GE(lru.size(), 3u);
    const auto now = fs::file_time_type::clock::now();
    for (size_t i = 0; i < lru.size(); ++i)  // lru[0] is the oldest
        fs::last_write_time(lru[i], now - std::chrono::hours(lru.size() - i));
    const std::string budget =
        std::to_string(usage["total"]["bytes"].get<uint64_t>() - fs::file_size(lru[0]));
    EXPECT_EQ(Mcache({"trim", folder.string(), "--to", budget, "--dry-run"}).status, 0);
    EXPECT_TRUE(fs::exists(lru[0]));
    ToolRun trim = Mcache({"trim", folder.string(), "--to", budget, "--json"});
    ASSERT_EQ(trim.status, 0) << trim.err;
    EXPECT_EQ(Json::parse(trim.out)["deleted_files"], 1);
    EXPECT_FALSE(fs::exists(lru[0]));
    EXPECT_TRUE(fs::exists(lru[1]));

    // purge: a dry run deletes nothing; then this version's cache is emptied.
    ASSERT_EQ(Mcache({"purge", "--dry-run", root().string()}).status, 0);
    EXPECT_EQ(Find(root()).size(), lru.size() - 1);
    ToolRun purge = Mcache({"purge", "--json", root().string()});
    EXPECT_EQ(purge.status, 0) << purge.err;
    EXPECT_GT(Json::parse(purge.out)["purged_bytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(Find(root()).size(), 0u);
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
        SCOPED_TRACE(args[0] + " " + args.back() + ": " + r.err);
        EXPECT_EQ(r.status, 2);
        EXPECT_TRUE(Has(r.err, words));
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
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
        return r.status ? 0 : Json::parse(r.out)["memory"]["budget"].get<uint64_t>();
    };
    EXPECT_EQ(budget({}), 32u << 20);
    EXPECT_EQ(budget({"--memory-budget", "64K"}), 64u << 10);
    EXPECT_TRUE(fs::is_directory(temp_.Path() / "xdg" / "mcache-demo"));
}

#ifndef _WIN32
// A link loop does not stop ls, verify or du, du measures nothing behind a link, and neither
// verify --delete-invalid nor purge --other-versions deletes anything behind one.
TEST_F(McacheTool, LoopsAreSkippedAndLinksNeverFollowed) {
    velacore::SetHostServices(velacore::StandaloneHostServices::CreateFromEnvironment());
    const std::string machine = velacore::ToUtf8(MC_GetMachineDirName());
    velacore::SetHostServices(nullptr);
    const fs::path outside = temp_ / "outside", product = root() / "Ostrel" / "Tessaline";
    const fs::path folder = product / "1.0" / machine;
    fs::create_directories(folder);
    fs::create_directories(outside / machine);
    std::ofstream(folder / "garbage-name.zkcache") << "bad";
    std::ofstream(outside / "victim.zkcache") << "bad, but not ours";
    std::ofstream(outside / machine / "theirs.zkcache") << "not ours either";
    fs::create_symlink("self", folder / "self");
    fs::create_directory_symlink(outside, folder / "out");
    fs::create_directory_symlink(outside, product / "0.9");

    EXPECT_EQ(Mcache({"ls", folder.string()}).status, 0);
    const ToolRun du = Mcache({"du", root().string()});
    EXPECT_EQ(du.status, 0);
    EXPECT_FALSE(Has(du.out, "0.9")) << "a linked version folder was measured";
    EXPECT_EQ(Mcache({"verify", "--delete-invalid", folder.string()}).status, 0);
    EXPECT_FALSE(fs::exists(folder / "garbage-name.zkcache"));
    EXPECT_EQ(Mcache({"purge", "--other-versions", root().string()}).status, 0);
    EXPECT_TRUE(fs::exists(outside / "victim.zkcache"));
    EXPECT_TRUE(fs::exists(outside / machine / "theirs.zkcache"));
}
#endif

}  // namespace
