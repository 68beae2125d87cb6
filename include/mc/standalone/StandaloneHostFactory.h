// The standalone host in two calls: what an application includes when it lets MC run on the
// services that ship with it (configuration file, log, memory monitor, suite registry, media
// manager) instead of its own. Loading libmc_standalone already makes these services the default
// when no others are installed; InstallStandaloneHost does the same explicitly, for programs
// that link the library only as needed. StandaloneHost.h has the full class for hosts that
// configure or inspect the services.
// Thread-safety: both functions may be called from any thread.
#pragma once

#include <memory>

#include "mc/host/HostServices.h"
#include "mc/standalone/Export.h"

namespace velacore {

// Standalone services configured from the file named by MC_CONFIG and the MC_* environment
// variables. A configuration that cannot be used is reported on stderr and the defaults are used
// instead. Never null.
MCSTANDALONE_API std::shared_ptr<HostServices> CreateStandaloneHost();

// Makes CreateStandaloneHost the default services factory: the host operations use standalone
// services (created on first use) whenever no services are installed with SetHostServices.
MCSTANDALONE_API void InstallStandaloneHost();

}  // namespace velacore
