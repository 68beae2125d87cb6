// IsProcessExiting on Windows: the loader says whether DLLs are being detached for process exit.
#include "host/ProcessExit.h"
#include "host/windows/Win32.h"

namespace velacore {

bool IsProcessExiting() {
    using ShutdownQuery = BOOLEAN(WINAPI*)();
    static const auto query = reinterpret_cast<ShutdownQuery>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != 0;
}

}  // namespace velacore
