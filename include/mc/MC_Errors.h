// The module's error codes. Inside the module, and out of the members documented as throwing,
// errors travel as plain `int` codes (catch them with `catch (int code)`); the compute-cache
// suite returns them as results. MC_ErrorMessage turns a code into words.
// Thread-safety: MC_ErrorMessage may be called from any thread.
//
// Code    Name                   Meaning
// 1       MCp_Err_FormatVersion  a disk-cache file of an unknown format version, or a file name
//                                that does not parse
// 3       MCp_Err_Invariant      a broken invariant or a misuse (reported to the host first)
// 9       MCp_Err_AppVersion     a disk-cache file of another application version
// 0x3A03  MCp_Err_CheckedOut     check-out misuse: already writeable, or checked out more than
//                                once when asking to become writeable
// 0x3A04  MCp_Err_NotCheckedOut  asked to become writeable without a check-out
// 0x3A07  MCp_Err_DiskFolder     the disk-cache folder is missing, not a folder, or cannot be
//                                created or written; nothing was changed
//
// Other values are the host's own error results passed through unchanged.
#pragma once

#include "mc/Export.h"

enum MCp_ErrorCode : int {
    MCp_Err_FormatVersion = 1,
    MCp_Err_Invariant = 3,
    MCp_Err_AppVersion = 9,
    MCp_Err_CheckedOut = 0x3A03,
    MCp_Err_NotCheckedOut = 0x3A04,
    MCp_Err_DiskFolder = 0x3A07,
};

// A short English description of `code`; never null (codes not in the table give a generic
// text). The pointer stays valid for the life of the process.
MC_API const char* MC_ErrorMessage(int code);
