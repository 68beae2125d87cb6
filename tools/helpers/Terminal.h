// Whether the process's standard streams are terminals, and how wide (for live progress
// displays).
// Thread-safety: any thread.
#pragma once

#include <cstddef>

namespace velacore {
bool IsStdoutTerminal();
bool IsStderrTerminal();
// Columns of the terminal on standard error; 0 when it is none or does not say.
size_t StderrColumns();
}  // namespace velacore
