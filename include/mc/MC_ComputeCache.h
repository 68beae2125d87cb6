/* The compute cache as plug-ins see it: a plain C interface (usable from C and C++).
 *
 * A plug-in registers a compute class (a name and four callbacks) and then asks the cache for
 * the value of its parameters. It gets back a receipt that keeps the value alive and unpurged
 * until the plug-in checks the receipt in. Plug-ins reach the cache only through the function
 * suite "ZKGP Compute Cache" version 1, which they acquire from the host by name and version;
 * they never link the module.
 *
 * Plug-in entry convention: a plug-in shared library exports
 *     int PluginMain(ZKGP_AcquireSuiteFunc acquireSuite);
 * The host calls it once after loading the library, handing over its suite acquirer. The
 * plug-in calls acquireSuite(kZKGP_ComputeCacheSuite, 1, 1, &table), keeps the table (it stays
 * valid while the module is loaded) and returns 0 or its own error code.
 *
 * Thread-safety: every suite function and MC_ComputeClass* function may be called from any
 * thread at any time. Callbacks run on the calling plug-in thread, possibly on many threads at
 * once (for different values), and DisposeValue may run on any thread that lets a value go.
 * ApproximateSize and DisposeValue may run while the cache holds its locks: they must not call
 * back into the suite. */
#ifndef MC_COMPUTE_CACHE_H
#define MC_COMPUTE_CACHE_H

#include <stdint.h>

#include "mc/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The 16-byte key a plug-in makes from its parameters. */
typedef struct ZKGP_GUID {
    uint8_t bytes[16];
} ZKGP_GUID;

/* Fills *key from the caller's parameters. Returns 0 or the plug-in's error (handed back). */
typedef int (*ZKGP_GenerateKeyFunc)(const void* params, ZKGP_GUID* key);
/* Computes the value of the parameters into *value (set to NULL on entry). The value belongs
 * to the cache from a 0 return on; it must be non-NULL. Returns 0 or the plug-in's error. */
typedef int (*ZKGP_ComputeFunc)(const void* params, void** value);
/* The bytes a value occupies in memory. */
typedef uint64_t (*ZKGP_ApproximateSizeFunc)(const void* value);
/* Frees a value; the cache calls it exactly once per value, on any thread. */
typedef void (*ZKGP_DisposeValueFunc)(void* value);

/* The callbacks of a compute class, in this order; all four are required. The cache copies the
 * record wherever it keeps it and never keeps a pointer to the caller's record. */
typedef struct ZKGP_ComputeCacheCallbacks {
    ZKGP_GenerateKeyFunc GenerateKey;
    ZKGP_ComputeFunc Compute;
    ZKGP_ApproximateSizeFunc ApproximateSize;
    ZKGP_DisposeValueFunc DisposeValue;
} ZKGP_ComputeCacheCallbacks;

/* A receipt: an opaque handle on one checked-out value. Pass a handle set to NULL to a
 * check-out; give every handle received back exactly once through ReceiptCheckin. */
typedef struct ZKGP_ComputeReceiptOpaque* ZKGP_ComputeReceipt;

/* Results of the compute-cache calls. Any other value is a plug-in callback's own error,
 * passed back unchanged, or the host's code for a failure inside the cache. */
enum {
    ZKGP_ComputeResult_OK = 0,
    ZKGP_ComputeResult_NoSuchClass = 1,    /* no compute class of that name */
    ZKGP_ComputeResult_InvalidReceipt = 2, /* check-in of something that is not a receipt */
    ZKGP_ComputeResult_BadParameter = 3,   /* misuse or broken invariant (reported first) */
    ZKGP_ComputeResult_NotAvailable = 22   /* not cached, or being computed by another thread */
};

#define kZKGP_ComputeCacheSuite "ZKGP Compute Cache"
#define kZKGP_ComputeCacheSuiteVersionMajor 1
#define kZKGP_ComputeCacheSuiteVersionMinor 1

/* The suite, version 1: six functions in this slot order. */
typedef struct ZKGP_ComputeCacheSuite1 {
    /* Registers a class; a name already taken keeps its first callbacks and still yields 0.
     * Yields 3 when a callback is missing. */
    int (*ClassRegister)(const char* className, const ZKGP_ComputeCacheCallbacks* callbacks);
    /* Forgets a class (0 even when unknown). Values already cached stay usable and are still
     * freed through the class's DisposeValue. */
    int (*ClassUnregister)(const char* className);
    /* Hands out the cached value of params, computing it on this thread when absent. When
     * another thread is computing it: waits when wait is non-zero, else yields 22.
     * *receipt must be NULL; on 0 it holds the receipt. */
    int (*CheckoutOrCompute)(const char* className, const void* params, int wait,
                             ZKGP_ComputeReceipt* receipt);
    /* Hands out the value only when it is already cached and complete; else 22, and Compute
     * is never called. *receipt must be NULL; on 0 it holds the receipt. */
    int (*CheckoutIfCached)(const char* className, const void* params,
                            ZKGP_ComputeReceipt* receipt);
    /* Stores the receipt's value in *value (still owned by the cache). 3 for a bad receipt. */
    int (*ReceiptGetValue)(ZKGP_ComputeReceipt receipt, void** value);
    /* Checks the value in and ends the receipt. NULL yields 0; a handle that is not a live
     * receipt yields 2 and an error report. */
    int (*ReceiptCheckin)(ZKGP_ComputeReceipt receipt);
} ZKGP_ComputeCacheSuite1;

/* The host's suite acquirer, handed to PluginMain: sets *table to the suite published under
 * (name, major, minor) and returns 0, or sets it to NULL and returns the host's error. */
typedef int (*ZKGP_AcquireSuiteFunc)(const char* name, int32_t major, int32_t minor,
                                     const void** table);
/* The plug-in entry point, exported under the name "PluginMain". */
typedef int (*ZKGP_PluginMainFunc)(ZKGP_AcquireSuiteFunc acquireSuite);
#define kZKGP_PluginMainName "PluginMain"

/* Marks the functions a plug-in library exports (PluginMain and its own extras). */
#if defined(_WIN32)
#define ZKGP_PLUGIN_EXPORT __declspec(dllexport)
#else
#define ZKGP_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

/* The class registry, for code inside the host process that links the module. */
/* Registers className (copied) with a copy of *callbacks. Returns 0 (also when the name was
 * already taken: the first registration stays), 3 when a callback is missing, or the host's
 * code for a failure (e.g. out of memory). */
MC_API int MC_ComputeClassRegister(const char* className,
                                   const ZKGP_ComputeCacheCallbacks* callbacks);
/* Forgets className. Returns 0 whether or not it was registered. Out of memory propagates. */
MC_API int MC_ComputeClassUnregister(const char* className);
/* Copies the record of className into *callbacks and returns 0; returns 1 and leaves
 * *callbacks untouched when there is no such class. Out of memory propagates. */
MC_API int MC_ComputeClassFind(const char* className, ZKGP_ComputeCacheCallbacks* callbacks);

#ifdef __cplusplus
}
#endif

#endif /* MC_COMPUTE_CACHE_H */
