// Whether the process is past exit(): on Windows the other threads are already gone by then, so
// a static destructor must not wait for them. Thread-safety: any thread.
#pragma once

namespace velacore {

// True while the process is shutting down with its other threads killed (Windows only; false
// elsewhere, where static destructors still run beside live threads).
bool IsProcessExiting();

}  // namespace velacore
