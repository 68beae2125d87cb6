// Export macro of the platform layer (mchost). Thread-safety: not applicable.
#pragma once

#if defined(_WIN32)
#if defined(MCHOST_BUILDING)
#define MCHOST_API __declspec(dllexport)
#else
#define MCHOST_API __declspec(dllimport)
#endif
#else
#define MCHOST_API __attribute__((visibility("default")))
#endif
