// IsProcessExiting on POSIX: threads outlive exit() until the process ends, so never.
#include "host/ProcessExit.h"

namespace velacore {

bool IsProcessExiting() {
    return false;
}

}  // namespace velacore
