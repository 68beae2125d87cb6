// Whether the process's standard streams are terminals (for live progress displays).
// Thread-safety: any thread.
#pragma once

#include "mc/host/Export.h"

namespace velacore {
MCHOST_API bool IsStdoutTerminal();
MCHOST_API bool IsStderrTerminal();
}  // namespace velacore
