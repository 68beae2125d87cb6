// The compute check-out, step by step: class lookup, key and identity, probe, find-or-create,
// compute or wait, validation of the entry, and the receipt hand-out; then the receipt calls.
#include "compute/ComputeCheckout.h"

#include <algorithm>
#include <memory>
#include <new>

#include "compute/ComputeBoundary.h"
#include "compute/ComputeReceipts.h"
#include "host/HostOps.h"
#include "lifecycle/Messages.h"
#include "mc/GenericMCComputeStuffData.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/Murmur3.h"
#include "mc/host/Time.h"

namespace {

constexpr char kIdentityPrefix[] = "MC-Compute";
constexpr size_t kReceiptBlockSize = 80;
constexpr const char* kReceiptBlockLabel = "ZKGP_MCComputeReceipt";
// Find and check out an existing, resident entry only.
constexpr int kFindIfCached = MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly;
// The same, accepting a pending entry, and creating one on a miss.
constexpr int kFindOrCreate =
    kFindIfCached | MC_CheckoutFlag_CreatePending | MC_CheckoutFlag_WaitIfPending;
static_assert(kFindIfCached == 0x03 && kFindOrCreate == 0x53);
constexpr const char* kInvalidReceiptText =
    "$$$/ZK/MC/ThreeWayCheckOut/InvalidReceiptCheckInError=Trying to check in invalid receipt. "
    "Please make sure you are not double checking in or checking in invalid receipts.";
constexpr int kInvalidReceiptCategory = 8;

// What one check-out works with.
struct Request {
    const char* className;
    const void* params;
    MCp_ComputeMode mode;
    ZKGP_ComputeCacheCallbacks callbacks;
    ZKGP_GUID identity;
};

ZKGP_GUID ToKey(const velacore::Guid& guid) {
    ZKGP_GUID key;
    const velacore::Guid::Bytes bytes = velacore::GuidToBytes(guid);
    std::copy(bytes.begin(), bytes.end(), key.bytes);
    return key;
}

// Blocks until the entry another thread is computing is complete (or abandoned).
void WaitForOtherComputer(MC_Stuff& item) {
    debug::ProfileScope profile("ZK.Levels.ThreadWaiting", 6);
    item.WaitForPendingCompletion();
}

// Wraps the plug-in's value; on allocation failure frees it at once and returns null.
std::unique_ptr<MCComputeValue> MakeValue(const Request& req, void* refcon) {
    try {
        return std::make_unique<MCComputeValue>(req.className, req.callbacks, refcon);
    } catch (const std::bad_alloc&) {
        if (refcon) req.callbacks.DisposeValue(refcon);
        return nullptr;
    }
}

// Computes the pending entry this thread created and completes it. Returns 0 or the error of
// Compute (the caller's receipt then abandons the entry).
int ComputeEntry(const Request& req, MC_Stuff& item) {
    IntrusivePtr<GenericMCComputeStuffData> payload =
        velacore::MakeIntrusive<GenericMCComputeStuffData>(req.identity);
    velacore::Timer timer;
    void* refcon = nullptr;
    if (const int err = req.callbacks.Compute(req.params, &refcon)) return err;
    payload->SetValue(MakeValue(req, refcon).release());
    item.SetStuffDataFromPendingRender(payload, timer.GetElapsedSeconds());
    return 0;
}

// The checks a checked-out entry must pass before a receipt is handed out; throws 3 (after the
// report) on the first that fails.
void ValidateEntry(const Request& req, MC_Stuff& item) {
    IntrusivePtr<MC_StuffData> data = item.GetDataPtr();
    auto* payload = dynamic_cast<GenericMCComputeStuffData*>(data.get());
    if (!payload) MCp_FailVerification("MCCompute unexpected stuff of wrong type. corrupt cache??");
    const std::shared_ptr<MCComputeValue> value = payload->GetValue();
    if (!value)
        MCp_FailVerification(
            "MCCompute unexpected missing compute value on successful checkout. corrupt cache??");
    if (item.GetGuid() != payload->GetKey())
        MCp_FailVerification(
            "MCCompute unexpected mismatch between Stuff GUID and ComputeStuff Key! corrupt "
            "cached??");
    if (value->GetClassName() != std::string_view(req.className))
        MCp_FailVerification(
            "MCCompute unexpected creator of cached item/version should match! corrupt cached??");
    if (!value->GetRefcon())
        MCp_FailVerification("MCCompute unexpected missing refcon in value! corrupt cached??");
}

// Finds, computes or waits for the entry of `req`; on 0 *receiptOut holds the receipt.
int CheckoutEntry(const Request& req, ZKGP_ComputeReceipt* receiptOut) {
    IntrusivePtr<MC_Stuff> probe =
        MC_Stuff::CreateNew(velacore::MakeIntrusive<GenericMCComputeStuffData>(req.identity), 0.0);
    probe->SetGuid(velacore::GuidFromBytes(req.identity.bytes));

    auto receipt = std::make_unique<MC_ScCheckout>();
    receipt->FindAndCheckout(probe,
                             req.mode == MCp_ComputeMode_IfCached ? kFindIfCached : kFindOrCreate);
    const IntrusivePtr<MC_Stuff> item = receipt->GetStuffPtr();
    if (!receipt->DidCheckout() || !item) return ZKGP_ComputeResult_NotAvailable;

    if (!receipt->DidCreateNewPending()) {
        if (item->IsPendingRender()) {
            if (req.mode != MCp_ComputeMode_Wait) return ZKGP_ComputeResult_NotAvailable;
            WaitForOtherComputer(*item);
        }
    } else if (const int err = ComputeEntry(req, *item)) {
        return err;
    }

    ValidateEntry(req, *item);
    // A labelled block the host tracks per hand-out; it is deliberately never freed.
    if (!U_AllocatePtrClear(kReceiptBlockSize, kReceiptBlockLabel))
        MCp_FailVerification("MCCompute alloc failure");
    *receiptOut = MCp_ComputeReceipts::Instance().Add(std::move(receipt));
    return ZKGP_ComputeResult_OK;
}

int ComputeCheckoutImpl(const char* className, const void* params, MCp_ComputeMode mode,
                        ZKGP_ComputeReceipt* receiptOut) {
    Request req{className, params, mode, {}, {}};
    if (const int err = MC_ComputeClassFind(className, &req.callbacks)) return err;
    ZKGP_GUID key{};
    if (const int err = req.callbacks.GenerateKey(params, &key)) return err;
    if (!receiptOut) MCp_FailVerification("MCCompute missing receipt pointer");
    if (*receiptOut)
        MCp_FailVerification("unexpected: receipt already exists. improper receipt use?");
    req.identity = ToKey(MCp_ComputeIdentity(className, key));
    return CheckoutEntry(req, receiptOut);
}

}  // namespace

velacore::Guid MCp_ComputeIdentity(std::string_view className, const ZKGP_GUID& key) {
    velacore::Murmur3MixerState hash;
    hash.UpdateHashState(kIdentityPrefix, sizeof kIdentityPrefix - 1);
    const char nul = '\0';  // the name is hashed with its terminating NUL
    hash.UpdateHashState(className.data(), className.size());
    hash.UpdateHashState(&nul, 1);
    hash.UpdateHashState(key.bytes, sizeof key.bytes);
    return hash.GetHashResult();
}

int MCp_ComputeCheckout(const char* className, const void* params, MCp_ComputeMode mode,
                        ZKGP_ComputeReceipt* receipt) noexcept {
    return MCp_ComputeBoundary(
        [&] { return ComputeCheckoutImpl(className, params, mode, receipt); });
}

int MCp_ComputeReceiptGetValue(ZKGP_ComputeReceipt receipt, void** value) noexcept {
    return MCp_ComputeBoundary([&] {
        constexpr const char* kBadReceipt = "bad compute receipt or not checked out";
        if (!value) MCp_FailVerification("MCCompute missing value pointer");
        std::shared_ptr<MCComputeValue> held;  // released after the table's lock
        const bool live = MCp_ComputeReceipts::Instance().Use(receipt, [&](MC_ScCheckout& r) {
            const IntrusivePtr<MC_Stuff> item = r.GetStuffPtr();
            if (!item || item->GetCheckoutCount() == 0) return;
            IntrusivePtr<MC_StuffData> data = item->GetDataPtr();
            if (auto* payload = dynamic_cast<GenericMCComputeStuffData*>(data.get()))
                held = payload->GetValue();
        });
        if (!live || !held) MCp_FailVerification(kBadReceipt);
        *value = held->GetRefcon();
        return static_cast<int>(ZKGP_ComputeResult_OK);
    });
}

int MCp_ComputeReceiptCheckin(ZKGP_ComputeReceipt receipt) noexcept {
    return MCp_ComputeBoundary([&] {
        if (!receipt) return static_cast<int>(ZKGP_ComputeResult_OK);
        std::unique_ptr<MC_ScCheckout> owned = MCp_ComputeReceipts::Instance().Take(receipt);
        if (!owned || owned->GetValidityMarker() != MC_ScCheckout::kValidMarker) {
            U_ReportError(velacore::GetHostServices().Localize(kInvalidReceiptText),
                          kInvalidReceiptCategory);
            return static_cast<int>(ZKGP_ComputeResult_InvalidReceipt);
        }
        owned->Checkin();  // the receipt is destroyed on the way out, even if this throws
        return static_cast<int>(ZKGP_ComputeResult_OK);
    });
}
