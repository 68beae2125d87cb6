// The "ZKGP Compute Cache" suite (version 1) and its publication through the host.
#include "compute/ComputeBoundary.h"
#include "compute/ComputeCheckout.h"
#include "host/HostOps.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_Module.h"

extern "C" {

// Slot 2 behind a boundary: nothing may unwind into a plug-in's C frames.
static int SuiteClassUnregister(const char* className) {
    return MCp_ComputeBoundary([&] { return MC_ComputeClassUnregister(className); });
}

static int SuiteCheckoutOrCompute(const char* className, const void* params, int wait,
                                  ZKGP_ComputeReceipt* receipt) {
    return MCp_ComputeCheckout(className, params,
                               wait ? MCp_ComputeMode_Wait : MCp_ComputeMode_NoWait, receipt);
}

static int SuiteCheckoutIfCached(const char* className, const void* params,
                                 ZKGP_ComputeReceipt* receipt) {
    return MCp_ComputeCheckout(className, params, MCp_ComputeMode_IfCached, receipt);
}

static int SuiteReceiptGetValue(ZKGP_ComputeReceipt receipt, void** value) {
    return MCp_ComputeReceiptGetValue(receipt, value);
}

static int SuiteReceiptCheckin(ZKGP_ComputeReceipt receipt) {
    return MCp_ComputeReceiptCheckin(receipt);
}

}  // extern "C"

namespace {
constexpr int32_t kSuiteFunctionCount = 6;
constexpr ZKGP_ComputeCacheSuite1 kComputeCacheSuite = {
    MC_ComputeClassRegister, SuiteClassUnregister, SuiteCheckoutOrCompute,
    SuiteCheckoutIfCached,   SuiteReceiptGetValue, SuiteReceiptCheckin,
};
static_assert(sizeof(kComputeCacheSuite) == kSuiteFunctionCount * sizeof(void (*)()));
}  // namespace

void MC_SP_Birth() {
    const int err = U_SP_AddSPSuite(
        0, 0, kZKGP_ComputeCacheSuite, kZKGP_ComputeCacheSuiteVersionMajor,
        kZKGP_ComputeCacheSuiteVersionMinor, kSuiteFunctionCount, &kComputeCacheSuite);
    if (err != 0) throw err;
}
