// The module's localised message table and the misuse convention built on it: report the
// message on the main thread, then throw the module's integer code. Thread-safety: any thread.
#pragma once

#include <cstdint>
#include <string>

#include "host/HostOps.h"

// Module error codes thrown as plain ints.
enum MCp_ErrorCode : int {
    MCp_Err_FormatVersion = 1,        // disk file of an unknown format version
    MCp_Err_Invariant = 3,            // broken invariant (reported first)
    MCp_Err_AppVersion = 9,           // disk file of another application version
    MCp_Err_CheckedOut = 0x3A03,      // check-out misuse
    MCp_Err_NotCheckedOut = 0x3A04,   // convert to writeable without a check-out
    MCp_Err_DiskFolder = 0x3A07,      // unusable disk-cache folder
    MCp_Err_DiskFolderSetting = 14855 // disk-cache folder could not be set
};
constexpr uint32_t kMCErrorBase = 0x3A0000;

// The localised text of message `index` of the module's table.
std::u16string MCp_Message(int index);
// Reports message `index` (main thread only), then throws `code`.
[[noreturn]] void MCp_ThrowMisuse(int index, int code);
// Reports a failed verification with `message`, then throws 3.
[[noreturn]] void MCp_FailVerification(const char* message);
