// What the tool asks of the machine and its own process: installed memory, the program's file,
// the file name suffix of loadable libraries.
// Thread-safety: stateless; callable from any thread.
#pragma once

#include <cstdint>
#include <filesystem>

namespace velacore {

// Installed physical memory in bytes; 0 when the system does not say.
uint64_t PhysicalMemoryBytes();
// The running program's own file; empty when the system does not say.
std::filesystem::path ExecutablePath();
// The file name suffix of a loadable library (".so", ".dll").
const char* SharedLibrarySuffix();

}  // namespace velacore
