// Words for the module's integer error codes (the table is in mc/MC_Errors.h).
#include "mc/MC_Errors.h"

const char* MC_ErrorMessage(int code) {
    switch (code) {
        case MCp_Err_FormatVersion:
            return "disk-cache file of an unknown format, or with a name that does not parse";
        case MCp_Err_Invariant:
            return "internal check failed or the cache was misused";
        case MCp_Err_AppVersion:
            return "disk-cache file of another application version";
        case MCp_Err_CheckedOut:
            return "item already checked out read/write, or checked out more than once";
        case MCp_Err_NotCheckedOut:
            return "item cannot become writeable: it is not checked out";
        case MCp_Err_DiskFolder:
            return "disk-cache folder is missing, not a folder, or cannot be written";
        default:
            return "error reported by the host";
    }
}
