// The module's localised message table and the misuse convention built on it: report the
// message on the main thread, then throw the module's integer code. Thread-safety: any thread.
#pragma once

#include <cstdint>
#include <string>

#include "host/HostOps.h"
#include "mc/MC_Errors.h"

constexpr uint32_t kMCErrorBase = 0x3A0000;

// The localised text of message `index` of the module's table.
std::u16string MCp_Message(int index);
// Reports message `index` (main thread only), then throws `code`.
[[noreturn]] void MCp_ThrowMisuse(int index, int code);
// Reports a failed verification with `message`, then throws 3.
[[noreturn]] void MCp_FailVerification(const char* message);
