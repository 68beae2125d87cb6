// Whether the process's standard streams are terminals (for live progress displays).
// Thread-safety: any thread.
#pragma once

namespace velacore {
bool IsStdoutTerminal();
bool IsStderrTerminal();
}  // namespace velacore
