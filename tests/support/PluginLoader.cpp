// The test host's side of the plug-in entry convention.
#include "support/PluginLoader.h"

#include "host/HostOps.h"
#include "mc/MC_ComputeCache.h"

namespace mctest {

extern "C" int HostAcquireSuite(const char* name, int32_t major, int32_t minor,
                                const void** table) {
    return U_SP_AcquireSuite(name, major, minor, table);
}

PluginLoader::PluginLoader(const std::filesystem::path& path)
    : library_(velacore::SharedLibrary::Open(path)) {}

int PluginLoader::CallMain() const {
    return Require<ZKGP_PluginMainFunc>(kZKGP_PluginMainName)(&HostAcquireSuite);
}

}  // namespace mctest
