// Windows side of the standalone host's system queries (see standalone/StandaloneSystem.h).
#define WIN32_LEAN_AND_MEAN
#include <malloc.h>
#include <windows.h>

#include <string>

#include "mc/host/TextConvert.h"
#include "standalone/StandaloneSystem.h"

namespace velacore::hostsys {

uint64_t PhysicalMemoryBytes() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    if (!::GlobalMemoryStatusEx(&status)) return 0;
    return status.ullTotalPhys;
}

std::string MachineName() {
    wchar_t name[256] = {};
    DWORD length = static_cast<DWORD>(std::size(name));
    if (!::GetComputerNameExW(ComputerNameDnsHostname, name, &length)) {
        length = static_cast<DWORD>(std::size(name));
        if (!::GetComputerNameW(name, &length)) return {};
    }
    return ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(name), length));
}

bool ReleaseFreeHeapMemory() {
    return ::_heapmin() == 0;
}

}  // namespace velacore::hostsys
