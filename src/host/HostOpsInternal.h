// Internals of the host operations shared with the standalone services.
// Thread-safety: callable from any thread.
#pragma once

#include "mc/host/Export.h"
#include "mc/host/HostServices.h"

namespace velacore {

// The services every host operation forwards to right now, or null when none was installed and
// the default was not created yet. Never creates anything.
MCHOST_API HostServices* InstalledHostServicesOrNull();

}  // namespace velacore
