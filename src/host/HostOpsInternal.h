// Internals of the host operations shared with the standalone services.
// Thread-safety: callable from any thread.
#pragma once

#include "mc/host/HostServices.h"

namespace velacore {

// The services every host operation forwards to right now, or null when none was installed and
// the standalone default was not created yet. Never creates anything.
HostServices* InstalledHostServicesOrNull();

}  // namespace velacore
