// Terminal detection and width on the Windows console. A console stream gets virtual-terminal
// processing switched on, so the progress line's escape sequences work.
#define WIN32_LEAN_AND_MEAN
#include "helpers/Terminal.h"

#include <windows.h>

namespace velacore {
namespace {

bool IsConsole(DWORD stream) {
    HANDLE handle = ::GetStdHandle(stream);
    DWORD mode = 0;
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE || !::GetConsoleMode(handle, &mode)) {
        return false;
    }
    if ((mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) == 0) {
        ::SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    return true;
}

}  // namespace

bool IsStdoutTerminal() {
    return IsConsole(STD_OUTPUT_HANDLE);
}
bool IsStderrTerminal() {
    return IsConsole(STD_ERROR_HANDLE);
}

size_t StderrColumns() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_ERROR_HANDLE), &info)) return 0;
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    return columns > 0 ? static_cast<size_t>(columns) : 0;
}

}  // namespace velacore
