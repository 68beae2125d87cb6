// The command line of mcache: sub-commands, options, help and exit codes (0 ok, 1 problems
// found, 2 usage or run-time errors, always one line on stderr).
#include "Cli.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "Admin.h"
#include "Demo.h"
#include "Farm.h"
#include "Output.h"
#include "helpers/Machine.h"
#include "mc/standalone/StandaloneHost.h"

#ifndef MCACHE_VERSION
#define MCACHE_VERSION "0.0.0"
#endif

namespace mcache {

namespace {

namespace fs = std::filesystem;

constexpr const char* kCommands[] = {"demo", "farm", "ls", "verify", "du", "purge", "trim"};

// An error the user can fix: reported as "mcache: <what>" with status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The byte-amount grammar of the whole project: 1048576, 512K, 64M, 64MB, 2g, 25% (of physical
// memory when `percentOf` is non-zero).
uint64_t Amount(const std::string& option, const std::string& text, uint64_t percentOf) {
    if (!percentOf && !text.empty() && text.back() == '%')
        throw UsageError(option + ": a percentage makes no sense here: " + text);
    try {
        const uint64_t bytes = velacore::ParseByteAmount(text, percentOf);
        if (bytes == 0) throw UsageError(option + ": must be more than 0: " + text);
        return bytes;
    } catch (const std::invalid_argument& e) {
        throw UsageError(option + ": not a size: " + text + " (" + e.what() + ")");
    }
}

// Where the demo keeps its cache by default: the user's own cache directory.
fs::path DefaultDemoFolder() {
    const fs::path cache = velacore::UserCacheFolder();
    return cache.empty() ? fs::current_path() / ".mcache-demo" : cache / "mcache-demo";
}

// An option naming a file or folder: its UTF-8 text becomes the path.
CLI::Option* PathOption(CLI::App* cmd, const std::string& name, fs::path& target,
                        const std::string& help) {
    return cmd->add_option_function<std::string>(
        name, [&target](const std::string& text) { target = PathFromText(text); }, help);
}

// "mcache bogus" names the unknown command instead of CLI11's "A subcommand is required".
bool UnknownCommand(int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') return false;
    for (const char* c : kCommands)
        if (std::string(argv[1]) == c) return false;
    std::fprintf(stderr,
                 "mcache: unknown command '%s' (commands: demo, farm, ls, verify, du, "
                 "purge, trim; see mcache --help)\n",
                 argv[1]);
    return true;
}

MC_CachePriority PriorityByName(const std::string& name) {
    if (name == "low") return MC_CachePriority_Low;
    if (name == "high") return MC_CachePriority_High;
    return MC_CachePriority_Normal;
}

}  // namespace

int Main(int argc, char** argv) {
    if (UnknownCommand(argc, argv)) return 2;
    CLI::App app{"mcache — the MC cache: a demo session and disk-cache administration"};
    app.set_version_flag("--version", std::string("mcache ") + MCACHE_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Sizes: 1048576, 512K, 64M, 64MB, 2G (steps of 1024; any case). Exit status: 0 "
        "success, 1 problems found (verify), 2 errors. JSON output replaces bytes of file "
        "names that are not UTF-8 with U+FFFD.");

    DemoOptions demo;
    std::string memory, disk = "480M", priority = "normal";
    auto* demoCmd = app.add_subcommand(
        "demo", "Simulate an interactive compositing session against the cache and summarise it");
    PathOption(demoCmd, "--folder", demo.folder,
               "Disk-cache root (default: $XDG_CACHE_HOME or ~/.cache, on Windows "
               "%LOCALAPPDATA%, /mcache-demo)");
    demoCmd->add_option("--frames", demo.frames, "Frames in the timeline")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
    demoCmd->add_option("--width", demo.width, "Frame width")
        ->check(CLI::Range(8u, 8192u))
        ->capture_default_str();
    demoCmd->add_option("--height", demo.height, "Frame height")
        ->check(CLI::Range(8u, 8192u))
        ->capture_default_str();
    demoCmd->add_option("--cost", demo.cost, "Render work multiplier per frame")
        ->check(CLI::Range(1u, 1000u))
        ->capture_default_str();
    demoCmd->add_option("--threads", demo.threads, "Render threads")
        ->check(CLI::Range(1u, 64u))
        ->capture_default_str();
    demoCmd->add_option("--memory-budget", memory,
                        "Memory budget: a size or a percentage of physical memory (default: "
                        "MC_MEMORY_BUDGET, else 160M); the option wins over the environment");
    demoCmd->add_option("--disk-budget", disk, "Disk-cache budget, in whole MiB")
        ->capture_default_str();
    demoCmd
        ->add_option("--cache-priority", priority,
                     "Frames' cache priority: normal (written when reading back beats "
                     "rendering), high (written whenever the write queue has room), low")
        ->check(CLI::IsMember({"low", "normal", "high"}))
        ->capture_default_str();
    PathOption(demoCmd, "--plugin", demo.plugin, "The statistics plug-in (.so)");
    demoCmd->add_flag("--json", demo.json, "Print the summary as JSON");
    demoCmd->add_option("--report", demo.reportSvg, "Write an SVG report to this file");
    bool quiet = false;
    demoCmd->add_flag("--quiet", quiet, "No progress display");
    demoCmd->add_option("--remote", demo.remoteUrl,
                        "Share frames with other machines through Redis: "
                        "redis://[user:password@]host:port[/db], several comma-separated");
    demoCmd->add_option("--farm-order", demo.farmOrder, "(used by farm) one pass in this order")
        ->group("");

    FarmOptions farm;
    auto* farmCmd = app.add_subcommand(
        "farm", "Run render processes that share frames through one Redis and summarise them");
    farmCmd->add_option("--processes", farm.processes, "Render processes")
        ->check(CLI::Range(1u, 32u))
        ->capture_default_str();
    farmCmd->add_option("--remote", farm.remoteUrl,
                        "The Redis to share (default: a private redis-server for the run)");
    PathOption(farmCmd, "--folder", farm.folder, "Root of the processes' cache folders");
    farmCmd->add_option("--frames", farm.frames, "Frames in the timeline")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
    farmCmd->add_option("--width", farm.width, "Frame width")->check(CLI::Range(8u, 8192u));
    farmCmd->add_option("--height", farm.height, "Frame height")->check(CLI::Range(8u, 8192u));
    farmCmd->add_option("--cost", farm.cost, "Render work multiplier per frame")
        ->check(CLI::Range(1u, 1000u));
    farmCmd->add_option("--threads", farm.threads, "Render threads per process")
        ->check(CLI::Range(1u, 64u));
    farmCmd->add_option("--memory-budget", farm.memoryBudget, "Memory budget per process")
        ->capture_default_str();
    farmCmd->add_option("--disk-budget", farm.diskBudget, "Disk budget per process")
        ->capture_default_str();
    farmCmd->add_flag("--json", farm.json, "Print the summary as JSON");

    fs::path folder;
    bool json = false, deleteInvalid = false, otherVersions = false, strict = false, dryRun = false;
    std::string trimTo;
    auto* ls = app.add_subcommand("ls", "List the cache files of a disk-cache folder");
    PathOption(ls, "FOLDER", folder, "Disk-cache folder")->required();
    ls->add_flag("--json", json, "JSON output");
    auto* verify = app.add_subcommand("verify", "Check names and headers of every cache file");
    PathOption(verify, "FOLDER", folder, "Disk-cache folder")->required();
    verify->add_flag("--delete-invalid", deleteInvalid, "Delete the invalid files");
    verify->add_flag("--strict", strict,
                     "Also count files without a cache-file header (unframed) as invalid");
    verify->add_flag("--json", json, "JSON output");
    auto* du = app.add_subcommand("du", "Disk use of a disk-cache root, per version and in total");
    PathOption(du, "ROOT", folder, "Disk-cache root")->required();
    du->add_flag("--json", json, "JSON output");
    const std::string thisVersion = CurrentVersionText();
    auto* purge = app.add_subcommand(
        "purge",
        "Delete this version's disk cache under ROOT. This version is the application "
        "version of the standalone host, " +
            thisVersion + " (set by MC_CLIENT_VERSION or the configuration file)");
    PathOption(purge, "ROOT", folder, "Disk-cache root")->required();
    purge->add_flag("--other-versions", otherVersions, "Also delete other versions' caches");
    purge->add_flag("--dry-run", dryRun, "Only say what would be deleted");
    purge->add_flag("--json", json, "JSON output");
    auto* trim = app.add_subcommand(
        "trim", "Make a disk-cache folder fit a budget: delete least recently used files first");
    PathOption(trim, "FOLDER", folder, "Disk-cache folder")->required();
    trim->add_option("--to", trimTo, "The budget, e.g. 200M")->required();
    trim->add_flag("--dry-run", dryRun, "Only say what would be deleted");
    trim->add_flag("--json", json, "JSON output");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "mcache: %s (see mcache --help)\n", e.what());
        return 2;
    }
    try {
        if (*demoCmd) {
            if (demo.folder.empty()) demo.folder = DefaultDemoFolder();
            if (!memory.empty())
                demo.memoryBudget = Amount("--memory-budget", memory, PhysicalMemory());
            demo.diskBudgetMb = (Amount("--disk-budget", disk, 0) + (1u << 20) - 1) >> 20;
            demo.cachePriority = PriorityByName(priority);
            demo.progress = !quiet;
            return RunDemo(demo);
        }
        if (*farmCmd) {
            if (farm.folder.empty()) farm.folder = DefaultDemoFolder() / "farm";
            Amount("--memory-budget", farm.memoryBudget, PhysicalMemory());
            Amount("--disk-budget", farm.diskBudget, 0);
            return RunFarm(farm);
        }
        if (*ls) return ListFolder(folder, json);
        if (*verify) return VerifyFolder(folder, deleteInvalid, strict, json);
        if (*du) return DiskUsage(folder, json);
        if (*purge) return PurgeRoot(folder, otherVersions, dryRun, json);
        if (*trim) return TrimFolder(folder, Amount("--to", trimTo, 0), dryRun, json);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "mcache: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mcache: %s\n", e.what());
        return 2;
    } catch (int code) {
        std::fprintf(stderr, "mcache: %s\n", ErrorText(code).c_str());
        return 2;
    }
    return 0;
}

}  // namespace mcache
