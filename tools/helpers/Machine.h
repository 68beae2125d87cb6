// What the tool asks of the machine and its own process: installed memory, the program's file,
// the file name suffix of loadable libraries, the user's cache folder, UTF-8 arguments, setting
// environment variables.
// Thread-safety: stateless; callable from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace velacore {

// Installed physical memory in bytes; 0 when the system does not say.
uint64_t PhysicalMemoryBytes();
// The running program's own file; empty when the system does not say.
std::filesystem::path ExecutablePath();
// The file name suffix of a loadable library (".so", ".dll").
const char* SharedLibrarySuffix();
// The user's own cache folder (%LOCALAPPDATA%, else $XDG_CACHE_HOME or ~/.cache), read as the
// system spells it (UTF-16 on Windows); empty when the environment names no absolute one.
std::filesystem::path UserCacheFolder();
// The program's arguments as UTF-8: on Windows read again from the UTF-16 command line (argv
// holds them in the ANSI code page), elsewhere argv as it is.
std::vector<std::string> Utf8Arguments(int argc, char** argv);
// Sets the process environment variable `name` to `value`, or removes it when `value` is null.
// Returns whether it did. Not safe against concurrent getenv.
bool SetProcessEnv(const char* name, const char* value);

}  // namespace velacore
