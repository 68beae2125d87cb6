/* The histogram example plug-in (see HistogramPlugin.h). Plain C: it reaches the cache only
 * through the suite the host hands it, and links nothing of the module. */
#include "HistogramPlugin.h"

#include <stdatomic.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

static const ZKGP_ComputeCacheSuite1* _Atomic g_suite;
static _Atomic int64_t g_keys;
static _Atomic int64_t g_computes;
static _Atomic int64_t g_disposes;
static _Atomic(HistogramComputeHook) g_hook;
static void* _Atomic g_hookContext;

/* --- the image ------------------------------------------------------------------------- */

/* One pixel: a horizontal ramp blended with hashed noise. */
static uint8_t Pixel(const HistogramParams* p, uint32_t x, uint32_t y) {
    uint32_t h = x * 374761393u + y * 668265263u + p->seed * 2246822519u;
    h = (h ^ (h >> 13)) * 1274126177u;
    h ^= h >> 16;
    const uint32_t noise = h & 0xFFu;
    const uint32_t ramp = p->width > 1 ? (x * 255u) / (p->width - 1) : 0;
    const uint32_t w = p->gradient > 256 ? 256 : p->gradient;
    return (uint8_t)((ramp * w + noise * (256 - w)) >> 8);
}

static void Histogram(const HistogramParams* p, int inverted, HistogramValue* out) {
    memset(out, 0, sizeof *out);
    out->params = *p;
    for (uint32_t y = 0; y < p->height; ++y) {
        for (uint32_t x = 0; x < p->width; ++x) {
            const uint8_t v = Pixel(p, x, y);
            out->bins[inverted ? 255 - v : v] += 1;
        }
    }
    out->pixels = (uint64_t)p->width * p->height;
}

/* --- the callbacks ----------------------------------------------------------------------- */

static void PutLittleEndian(uint8_t* dst, uint32_t v) {
    for (int i = 0; i < 4; ++i) dst[i] = (uint8_t)(v >> (8 * i));
}

static int GenerateKey(const void* params, ZKGP_GUID* key) {
    const HistogramParams* p = (const HistogramParams*)params;
    atomic_fetch_add(&g_keys, 1);
    if (!p) return ZKGP_ComputeResult_BadParameter;
    PutLittleEndian(key->bytes + 0, p->width);
    PutLittleEndian(key->bytes + 4, p->height);
    PutLittleEndian(key->bytes + 8, p->seed);
    PutLittleEndian(key->bytes + 12, p->gradient);
    return 0;
}

static int ComputeHistogram(const void* params, void** value, int inverted) {
    const HistogramParams* p = (const HistogramParams*)params;
    HistogramComputeHook hook = atomic_load(&g_hook);
    if (hook) {
        const int err = hook(atomic_load(&g_hookContext), p);
        if (err) return err;
    }
    HistogramValue* out = (HistogramValue*)malloc(sizeof *out);
    if (!out) return ZKGP_ComputeResult_BadParameter;
    Histogram(p, inverted, out);
    atomic_fetch_add(&g_computes, 1);
    *value = out;
    return 0;
}

static int Compute(const void* params, void** value) {
    return ComputeHistogram(params, value, 0);
}

static int ComputeInverted(const void* params, void** value) {
    return ComputeHistogram(params, value, 1);
}

static uint64_t ApproximateSize(const void* value) {
    (void)value;
    return sizeof(HistogramValue);
}

static void DisposeValue(void* value) {
    /* Scribble first: a reader of a disposed value sees garbage (and ASan sees the free). */
    memset(value, 0xDD, sizeof(HistogramValue));
    free(value);
    atomic_fetch_add(&g_disposes, 1);
}

/* --- exported functions ------------------------------------------------------------------ */

ZKGP_PLUGIN_EXPORT int PluginMain(ZKGP_AcquireSuiteFunc acquireSuite) {
    const void* table = NULL;
    if (!acquireSuite) return ZKGP_ComputeResult_BadParameter;
    const int err = acquireSuite(kZKGP_ComputeCacheSuite, kZKGP_ComputeCacheSuiteVersionMajor,
                                 kZKGP_ComputeCacheSuiteVersionMinor, &table);
    if (err) return err;
    if (!table) return ZKGP_ComputeResult_BadParameter;
    const ZKGP_ComputeCacheSuite1* suite = (const ZKGP_ComputeCacheSuite1*)table;
    const ZKGP_ComputeCacheCallbacks plain = {GenerateKey, Compute, ApproximateSize, DisposeValue};
    const ZKGP_ComputeCacheCallbacks inverted = {GenerateKey, ComputeInverted, ApproximateSize,
                                                 DisposeValue};
    int result = suite->ClassRegister(kHistogramClass, &plain);
    if (!result) result = suite->ClassRegister(kInvertedHistogramClass, &inverted);
    if (!result) atomic_store(&g_suite, suite);
    return result;
}

ZKGP_PLUGIN_EXPORT int HistPlugin_Shutdown(void) {
    const ZKGP_ComputeCacheSuite1* suite = atomic_exchange(&g_suite, NULL);
    if (!suite) return 0;
    const int a = suite->ClassUnregister(kHistogramClass);
    const int b = suite->ClassUnregister(kInvertedHistogramClass);
    return a ? a : b;
}

ZKGP_PLUGIN_EXPORT int HistPlugin_Unregister(const char* className) {
    const ZKGP_ComputeCacheSuite1* suite = atomic_load(&g_suite);
    return suite ? suite->ClassUnregister(className) : ZKGP_ComputeResult_BadParameter;
}

ZKGP_PLUGIN_EXPORT int HistPlugin_Checkout(const char* className, const HistogramParams* params,
                                           int mode, ZKGP_ComputeReceipt* receipt) {
    const ZKGP_ComputeCacheSuite1* suite = atomic_load(&g_suite);
    if (!suite) return ZKGP_ComputeResult_BadParameter;
    switch (mode) {
        case 0:
            return suite->CheckoutIfCached(className, params, receipt);
        case 1:
            return suite->CheckoutOrCompute(className, params, 0, receipt);
        case 2:
            return suite->CheckoutOrCompute(className, params, 1, receipt);
        default:
            return ZKGP_ComputeResult_BadParameter;
    }
}

ZKGP_PLUGIN_EXPORT int HistPlugin_GetValue(ZKGP_ComputeReceipt receipt,
                                           const HistogramValue** value) {
    const ZKGP_ComputeCacheSuite1* suite = atomic_load(&g_suite);
    void* refcon = NULL;
    if (!suite || !value) return ZKGP_ComputeResult_BadParameter;
    const int err = suite->ReceiptGetValue(receipt, &refcon);
    *value = err ? NULL : (const HistogramValue*)refcon;
    return err;
}

ZKGP_PLUGIN_EXPORT int HistPlugin_Checkin(ZKGP_ComputeReceipt receipt) {
    const ZKGP_ComputeCacheSuite1* suite = atomic_load(&g_suite);
    return suite ? suite->ReceiptCheckin(receipt) : ZKGP_ComputeResult_BadParameter;
}

ZKGP_PLUGIN_EXPORT int HistPlugin_GetHistogram(const char* className, const HistogramParams* params,
                                               uint32_t* bins) {
    ZKGP_ComputeReceipt receipt = NULL;
    const HistogramValue* value = NULL;
    int err = HistPlugin_Checkout(className, params, 2, &receipt);
    if (err) return err;
    err = HistPlugin_GetValue(receipt, &value);
    if (!err) memcpy(bins, value->bins, sizeof value->bins);
    const int checkinErr = HistPlugin_Checkin(receipt);
    return err ? err : checkinErr;
}

ZKGP_PLUGIN_EXPORT void HistPlugin_ComputeDirect(const HistogramParams* params, int inverted,
                                                 HistogramValue* out) {
    Histogram(params, inverted, out);
}

ZKGP_PLUGIN_EXPORT void HistPlugin_SetComputeHook(HistogramComputeHook hook, void* context) {
    atomic_store(&g_hookContext, context);
    atomic_store(&g_hook, hook);
}

ZKGP_PLUGIN_EXPORT void HistPlugin_GetCounters(HistogramCounters* out) {
    out->keys = atomic_load(&g_keys);
    out->computes = atomic_load(&g_computes);
    out->disposes = atomic_load(&g_disposes);
    out->liveValues = out->computes - out->disposes;
}
