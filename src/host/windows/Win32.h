// The Win32 API for the platform layer: <windows.h> without min/max and without the macros
// that would rename FileSystem's methods (CreateFile, DeleteFile, ...). Include this instead of
// <windows.h> wherever FileSystem is seen too. Thread-safety: not applicable.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#undef CreateFile
#undef DeleteFile
#undef CreateDirectory
#undef RemoveDirectory
#undef GetFreeSpace
