// The command line of mcache: sub-commands, options, help and exit codes.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

#include "Admin.h"
#include "Demo.h"
#include "Output.h"
#include "Cli.h"

#ifndef MCACHE_VERSION
#define MCACHE_VERSION "0.0.0"
#endif

namespace {

// Parses "96M", "2G", "1048576" into bytes.
bool ParseSize(const std::string& text, uint64_t& out) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || v < 0) return false;
    double scale = 1;
    const std::string unit(end);
    if (unit == "K" || unit == "KiB") scale = 1024.0;
    else if (unit == "M" || unit == "MiB") scale = 1024.0 * 1024;
    else if (unit == "G" || unit == "GiB") scale = 1024.0 * 1024 * 1024;
    else if (!unit.empty()) return false;
    out = static_cast<uint64_t>(v * scale);
    return true;
}

}  // namespace

namespace mcache {

int Main(int argc, char** argv) {
    CLI::App app{"mcache — the MC cache: a demo session and disk-cache administration"};
    app.set_version_flag("--version", std::string("mcache ") + MCACHE_VERSION);
    app.require_subcommand(1);

    mcache::DemoOptions demo;
    demo.folder = std::filesystem::temp_directory_path() / "mcache-demo";
    std::string memory = std::to_string(demo.memoryBudget >> 20) + "M";
    auto* demoCmd = app.add_subcommand(
        "demo", "Simulate an interactive compositing session against the cache and summarise it");
    demoCmd->add_option("--folder", demo.folder, "Disk-cache root folder")->capture_default_str();
    demoCmd->add_option("--frames", demo.frames, "Frames in the timeline")
        ->check(CLI::Range(1u, 100000u))->capture_default_str();
    demoCmd->add_option("--width", demo.width, "Frame width")->check(CLI::Range(8u, 8192u))
        ->capture_default_str();
    demoCmd->add_option("--height", demo.height, "Frame height")->check(CLI::Range(8u, 8192u))
        ->capture_default_str();
    demoCmd->add_option("--cost", demo.cost, "Render work multiplier per frame")
        ->check(CLI::Range(1u, 1000u))->capture_default_str();
    demoCmd->add_option("--threads", demo.threads, "Render threads")->check(CLI::Range(1u, 64u))
        ->capture_default_str();
    demoCmd->add_option("--memory-budget", memory, "Memory budget (bytes, K, M or G)")
        ->capture_default_str();
    demoCmd->add_option("--disk-budget-mb", demo.diskBudgetMb, "Disk-cache budget in MiB")
        ->capture_default_str();
    demoCmd->add_option("--plugin", demo.plugin, "The statistics plug-in (.so)");
    demoCmd->add_flag("--json", demo.json, "Print the summary as JSON");
    demoCmd->add_option("--report", demo.reportSvg, "Write an SVG report to this file");
    bool quiet = false;
    demoCmd->add_flag("--quiet", quiet, "No progress display");

    std::filesystem::path folder;
    bool json = false, deleteInvalid = false, otherVersions = false;
    auto* ls = app.add_subcommand("ls", "List the cache files of a disk-cache folder");
    ls->add_option("FOLDER", folder, "Disk-cache folder")->required();
    ls->add_flag("--json", json, "JSON output");
    auto* verify = app.add_subcommand("verify", "Check names and headers of every cache file");
    verify->add_option("FOLDER", folder, "Disk-cache folder")->required();
    verify->add_flag("--delete-invalid", deleteInvalid, "Delete the invalid files");
    verify->add_flag("--json", json, "JSON output");
    auto* du = app.add_subcommand("du", "Disk use of a disk-cache root, per version and in total");
    du->add_option("ROOT", folder, "Disk-cache root")->required();
    du->add_flag("--json", json, "JSON output");
    auto* purge = app.add_subcommand("purge", "Delete this version's disk cache under ROOT");
    purge->add_option("ROOT", folder, "Disk-cache root")->required();
    purge->add_flag("--other-versions", otherVersions, "Also delete other versions' caches");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    try {
        if (*demoCmd) {
            if (!ParseSize(memory, demo.memoryBudget)) {
                std::fprintf(stderr, "mcache: --memory-budget: not a size: %s\n", memory.c_str());
                return 2;
            }
            demo.progress = !quiet;
            return mcache::RunDemo(demo);
        }
        if (*ls) return mcache::ListFolder(folder, json);
        if (*verify) return mcache::VerifyFolder(folder, deleteInvalid, json);
        if (*du) return mcache::DiskUsage(folder, json);
        if (*purge) return mcache::PurgeRoot(folder, otherVersions);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mcache: %s\n", e.what());
        return 2;
    }
    return 0;
}

}  // namespace mcache
