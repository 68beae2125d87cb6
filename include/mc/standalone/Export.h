// Export macro of the standalone host library (mc_standalone). Thread-safety: not applicable.
#pragma once

#if defined(_WIN32)
#if defined(MCSTANDALONE_BUILDING)
#define MCSTANDALONE_API __declspec(dllexport)
#else
#define MCSTANDALONE_API __declspec(dllimport)
#endif
#else
#define MCSTANDALONE_API __attribute__((visibility("default")))
#endif
