#include "DemoPlugin.h"

#include <cstdio>
#include <string>

#include "HistogramPlugin.h"
#include "Output.h"
#include "helpers/Machine.h"
#include "host/HostOps.h"

namespace mcache {

namespace {
extern "C" int AcquireSuiteForPlugin(const char* name, int32_t major, int32_t minor,
                                     const void** table) {
    return U_SP_AcquireSuite(name, major, minor, table);
}
}  // namespace

struct DemoPlugin::Api {
    HistPluginMainFunc main = nullptr;
    HistPluginShutdownFunc shutdown = nullptr;
    HistPluginGetHistogramFunc getHistogram = nullptr;
    HistPluginGetCountersFunc getCounters = nullptr;
};

#ifndef MCACHE_PLUGIN_DIR
#define MCACHE_PLUGIN_DIR "."
#endif

#ifndef MCACHE_PLUGIN_RELDIR
#define MCACHE_PLUGIN_RELDIR "../lib/mc"
#endif

// Installed: <prefix>/lib/mc beside <prefix>/bin/mcache, found from the executable's own path,
// so a moved installation still finds it. Otherwise the build tree's plug-in.
std::filesystem::path DefaultPluginPath() {
    const std::string kName =
        std::string("mc_example_histogram_plugin") + velacore::SharedLibrarySuffix();
    std::error_code ec;
    const std::filesystem::path exe = velacore::ExecutablePath();
    if (!exe.empty()) {
        const auto installed = exe.parent_path() / MCACHE_PLUGIN_RELDIR / kName;
        if (std::filesystem::is_regular_file(installed, ec)) return installed;
    }
    return std::filesystem::path(MCACHE_PLUGIN_DIR) / kName;
}

DemoPlugin::DemoPlugin(std::unique_ptr<velacore::SharedLibrary> library, std::unique_ptr<Api> api)
    : library_(std::move(library)), api_(std::move(api)) {}

DemoPlugin::~DemoPlugin() = default;

std::unique_ptr<DemoPlugin> DemoPlugin::Load(const std::filesystem::path& requested) {
    const std::filesystem::path path = requested.empty() ? DefaultPluginPath() : requested;
    try {
        auto library = velacore::SharedLibrary::Open(path);
        auto api = std::make_unique<Api>();
        api->main = library->Function<HistPluginMainFunc>("PluginMain");
        api->shutdown = library->Function<HistPluginShutdownFunc>("HistPlugin_Shutdown");
        api->getHistogram =
            library->Function<HistPluginGetHistogramFunc>("HistPlugin_GetHistogram");
        api->getCounters = library->Function<HistPluginGetCountersFunc>("HistPlugin_GetCounters");
        if (!api->main || !api->shutdown || !api->getHistogram || !api->getCounters) {
            std::fprintf(stderr, "mcache: %s is not the statistics plug-in; no statistics\n",
                         PathText(path).c_str());
            return nullptr;
        }
        if (int err = api->main(&AcquireSuiteForPlugin)) {
            std::fprintf(stderr,
                         "mcache: the statistics plug-in failed to start: its PluginMain "
                         "returned error %d\n",
                         err);
            return nullptr;
        }
        std::unique_ptr<DemoPlugin> plugin(new DemoPlugin(std::move(library), std::move(api)));
        plugin->path_ = path;
        return plugin;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mcache: statistics plug-in not loaded: %s\n", e.what());
        return nullptr;
    }
}

void DemoPlugin::FrameStatistics(const FrameSpec& desc) {
    HistogramParams params{desc.width / 8, desc.height / 8, desc.number, 128};
    uint32_t bins[256];
    requests_.fetch_add(1);
    api_->getHistogram(kHistogramClass, &params, bins);
}

uint64_t DemoPlugin::Computed() const {
    HistogramCounters counters{};
    api_->getCounters(&counters);
    return static_cast<uint64_t>(counters.computes);
}

void DemoPlugin::Shutdown() {
    api_->shutdown();
}

}  // namespace mcache
