// Terminal detection over isatty, width over TIOCGWINSZ.
#include "helpers/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace velacore {
bool IsStdoutTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}
bool IsStderrTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}
size_t StderrColumns() {
    winsize ws{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 ? ws.ws_col : 0;
}
}  // namespace velacore
