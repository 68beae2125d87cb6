// Operating-system queries the standalone host services need (physical memory, machine name,
// heap trimming). Implemented in posix/StandaloneSystemPosix.cpp; everything else stays portable.
// Thread-safety: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace velacore::hostsys {

// Installed physical memory in bytes; 0 when the system does not say.
uint64_t PhysicalMemoryBytes();
// The machine's network name; empty when unavailable.
std::string MachineName();
// Asks the allocator to hand free heap memory back to the system. Returns whether it did.
bool ReleaseFreeHeapMemory();

}  // namespace velacore::hostsys
