// DemoPlugin: the statistics plug-in as the demo host sees it — a C shared library loaded at run
// time that computes per-frame histograms through the compute-cache suite.
// Thread-safety: FrameStatistics may be called from any thread once loaded.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "FramePayload.h"
#include "helpers/SharedLibrary.h"

namespace mcache {

class DemoPlugin {
public:
    // Loads the plug-in (`path`, or the one installed beside the tool when empty) and calls its
    // entry point. Returns null, with a note on stderr, when it cannot be loaded: the demo then
    // runs without statistics (or, when `path` was given, stops with an error).
    static std::unique_ptr<DemoPlugin> Load(const std::filesystem::path& path);

    // The histogram of the frame's thumbnail, through the compute cache.
    void FrameStatistics(const FrameSpec& desc);
    uint64_t Computed() const;
    uint64_t Requests() const { return requests_.load(); }
    void Shutdown();
    const std::filesystem::path& Path() const { return path_; }

private:
    struct Api;
    DemoPlugin(std::unique_ptr<velacore::SharedLibrary> library, std::unique_ptr<Api> api);

    std::unique_ptr<velacore::SharedLibrary> library_;
    std::unique_ptr<Api> api_;
    std::atomic<uint64_t> requests_{0};
    std::filesystem::path path_;

public:
    ~DemoPlugin();
};

// Where the tool looks for the plug-in by default.
std::filesystem::path DefaultPluginPath();

}  // namespace mcache
