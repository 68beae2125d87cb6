/* The histogram example plug-in: caches the 256-bin histogram of a procedural 8-bit image
 * through the compute-cache suite. The image's parameters are the key. Two classes share the
 * keys: kHistogramClass (the image) and kInvertedHistogramClass (its negative), so equal
 * parameters give two cache entries. Hosts load the library, resolve the functions below by
 * name (the *Func typedefs give their types) and call PluginMain first.
 * Thread-safety: every function may be called from any thread once PluginMain has returned 0;
 * HistPlugin_SetComputeHook while no computation runs. */
#ifndef MC_EXAMPLE_HISTOGRAM_PLUGIN_H
#define MC_EXAMPLE_HISTOGRAM_PLUGIN_H

#include <stdint.h>

#include "mc/MC_ComputeCache.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kHistogramClass "example.histogram"
#define kInvertedHistogramClass "example.histogram.inverted"

/* What the image looks like; every field is part of the key. */
typedef struct HistogramParams {
    uint32_t width;
    uint32_t height;
    uint32_t seed;     /* noise seed */
    uint32_t gradient; /* weight of the horizontal ramp against the noise, 0..256 */
} HistogramParams;

/* A cached value: the parameters it was computed for and the pixel count of each level. */
typedef struct HistogramValue {
    HistogramParams params;
    uint64_t pixels;
    uint32_t bins[256];
} HistogramValue;

/* Running totals of the plug-in's callbacks. */
typedef struct HistogramCounters {
    int64_t keys;       /* GenerateKey calls */
    int64_t computes;   /* Compute calls that produced a value */
    int64_t disposes;   /* DisposeValue calls */
    int64_t liveValues; /* values computed and not yet disposed */
} HistogramCounters;

/* Called by Compute before it works; a non-zero result makes Compute fail with it. */
typedef int (*HistogramComputeHook)(void* context, const HistogramParams* params);

/* Acquires the suite through acquireSuite and registers both classes. Returns 0 or an error. */
typedef int (*HistPluginMainFunc)(ZKGP_AcquireSuiteFunc acquireSuite);
/* Unregisters both classes and forgets the suite. Returns 0 or an error. */
typedef int (*HistPluginShutdownFunc)(void);
/* Unregisters one class by name (cached values stay usable). */
typedef int (*HistPluginUnregisterFunc)(const char* className);
/* Runs one check-out through the suite: mode 0 if cached, 1 compute without waiting, 2 compute
 * or wait. *receipt must be NULL; on 0 it holds a receipt to give back with HistPlugin_Checkin. */
typedef int (*HistPluginCheckoutFunc)(const char* className, const HistogramParams* params,
                                      int mode, ZKGP_ComputeReceipt* receipt);
/* The receipt's value (owned by the cache while the receipt lives). */
typedef int (*HistPluginGetValueFunc)(ZKGP_ComputeReceipt receipt, const HistogramValue** value);
typedef int (*HistPluginCheckinFunc)(ZKGP_ComputeReceipt receipt);
/* Check-out (mode 2), copy of the bins into bins[256], check-in: the everyday use. */
typedef int (*HistPluginGetHistogramFunc)(const char* className, const HistogramParams* params,
                                          uint32_t* bins);
/* Computes a histogram without the cache (for comparison). */
typedef void (*HistPluginComputeDirectFunc)(const HistogramParams* params, int inverted,
                                            HistogramValue* out);
typedef void (*HistPluginSetComputeHookFunc)(HistogramComputeHook hook, void* context);
typedef void (*HistPluginGetCountersFunc)(HistogramCounters* out);

#ifdef __cplusplus
}
#endif

#endif /* MC_EXAMPLE_HISTOGRAM_PLUGIN_H */
