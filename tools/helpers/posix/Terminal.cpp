// Terminal detection over isatty.
#include <unistd.h>

#include "helpers/Terminal.h"

namespace velacore {
bool IsStdoutTerminal() { return ::isatty(STDOUT_FILENO) == 1; }
bool IsStderrTerminal() { return ::isatty(STDERR_FILENO) == 1; }
}  // namespace velacore
