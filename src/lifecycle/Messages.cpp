// The module's localised message table and the misuse convention.
#include "lifecycle/Messages.h"

#include "mc/MC_Module.h"

namespace {
constexpr uintptr_t kOnes = ~uintptr_t{0};

const U_LStrCacheEntry g_messageTable[] = {
    {"$$$/ZK/MC/LStr/0000=", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0001=bag to store cached items", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0002=internal structure damaged", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0003= %s (bag)", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0004= %s (cache sort directory)", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0005= %s (global data)", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0006=disposing non-empty cache", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0007=cannot dispose the global cache", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0008=cannot resize or move disk cache", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0009=cache sort directory", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0010=cannot dispose checked-out cached item", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0011=cached item already checked-out read/write", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0012=cannot check-out read/write already checked-out item", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0013= %s (cache check-out receipt)", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0014=cache check-out receipt", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0015=unable to search importance sort directory", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0016=unable to add cached item to disposed sort directory", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0017=cache item not found", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0018=unable to dispose importance sort directory", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0019=cannot reference an ID which is not checked out", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0020=stale stuff ID", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0021=unsafe operation attempted", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0022=can#{rsquo}t convert to writeable when not checked out", 0, 0, 0},
    {"$$$/ZK/MC/LStr/0023=This Computer{{*COMMENT*}}disk cache subdir name for unnamed machine", 0,
     0, 0},
    {"$$$/ZK/MC/LStr/0024=Disk Cache folder doesn#{rsquo}t exist, so it will be reset to the "
     "system temporary directory. Please check your settings in Memory & Cache Preferences.",
     0, 0, 0},
    {"$$$/ZK/MC/LStr/0025=Disk Cache folder isn#{rsquo}t a folder, so it will be reset to the "
     "system temporary directory. Please check your settings in Memory & Cache Preferences.",
     0, 0, 0},
    {"$$$/ZK/MC/LStr/0026=Unable to write to Disk Cache folder, so disk caching will be "
     "disabled. Please check your settings in Memory & Cache Preferences.",
     0, 0, 0},
    {nullptr, kOnes, kOnes, 0},
};
static_assert(sizeof(g_messageTable) / sizeof(g_messageTable[0]) == 28);
}  // namespace

const U_LStrCacheEntry* const MC_G_zref = g_messageTable;

std::u16string MCp_Message(int index) {
    return U_ZLookupLStrCache(MC_G_zref, index, 0, 0);
}

void MCp_ThrowMisuse(int index, int code) {
    if (U_IsOnMainThread()) Up_ReportErrString(kMCErrorBase, 2, MCp_Message(index));
    throw code;
}

void MCp_FailVerification(const char* message) {
    U_ReportFailedVerification(message);
    throw static_cast<int>(MCp_Err_Invariant);
}
