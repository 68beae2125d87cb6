// Export macro of the MC module: names marked MC_API are visible outside the shared library.
// Thread-safety: not applicable.
#pragma once

#if defined(_WIN32)
#if defined(MC_BUILDING_MODULE)
#define MC_API __declspec(dllexport)
#else
#define MC_API __declspec(dllimport)
#endif
#else
#define MC_API __attribute__((visibility("default")))
#endif
