// PluginLoader: the host side of the plug-in entry convention for tests. It loads a plug-in
// library, resolves its exported functions and calls its PluginMain with HostAcquireSuite, which
// hands out suites from the installed host services.
// Thread-safety: a loader is built once and then only read; HostAcquireSuite may be called from
// any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "helpers/SharedLibrary.h"

namespace mctest {

// The suite acquirer a host hands to PluginMain: U_SP_AcquireSuite, which looks (name, major,
// minor) up in the installed host services. Returns 0 with *table set, or an error with *table
// null.
extern "C" int HostAcquireSuite(const char* name, int32_t major, int32_t minor, const void** table);

class PluginLoader {
public:
    // Loads the library at `path`. Throws what SharedLibrary::Open throws.
    explicit PluginLoader(const std::filesystem::path& path);

    // The exported function `name` as type Fn. Throws std::runtime_error when it is missing.
    template <class Fn>
    Fn Require(const char* name) const {
        Fn fn = library_->Function<Fn>(name);
        if (!fn) throw std::runtime_error(library_->Path().string() + " exports no " + name);
        return fn;
    }
    // Calls the plug-in's PluginMain with HostAcquireSuite; returns its result.
    int CallMain() const;

private:
    std::unique_ptr<velacore::SharedLibrary> library_;
};

}  // namespace mctest
