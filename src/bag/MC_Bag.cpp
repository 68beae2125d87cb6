// MC_Bag membership, recency order and size accounting.
#include "mc/MC_Bag.h"

#include <string>
#include <vector>

#include "bag/MC_SortDir.h"
#include "host/HostOps.h"
#include "lifecycle/Messages.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/File.h"
#include "mc/host/Time.h"
#include "mediamap/MediaMapHooks.h"
#include "remote/Farm.h"

using velacore::HighPrecisionTime;
using velacore::ScopedReadLockWrapper;

namespace {
debug::TraceSite g_adjustMemTrace("MC", 7);
debug::TraceSite g_adjustCheckedTrace("MC", 7);
debug::TraceSite g_adjustDiskTrace("MC", 7);
debug::TraceSite g_mediaMapTrace("MC_MediaMap", 6);

std::string PointerText(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}
}  // namespace

MC_Bag::MC_Bag(unsigned appVersion)
    : sortDir_(std::make_shared<MC_SortDir>()),
      appVersion_(appVersion & 0x7FFFFFFFu),
      spareList_(std::make_shared<std::list<IntrusivePtr<MC_Stuff>>>()) {}

// Items still listed lose their link to this bag and the list's reference. Each item forgets
// the bag under its write lock, so that a reader holding the item lock never follows the
// pointer into a bag that is gone.
MC_Bag::~MC_Bag() {
    std::vector<StuffPtr> release;
    MCp_ScLock lock;
    release.reserve(mruSize_);
    while (MC_Stuff* item = mruHead_) {
        release.push_back(Unlink(item));
        velacore::ScopedWriteLockWrapper w(item->lock_);
        item->bag_ = nullptr;
    }
}

// --- recency list --------------------------------------------------------------------------

// A new stamp is normally the newest, so the walk from the young end stops at once.
void MC_Bag::LinkByStamp(MC_Stuff* stuff, uint64_t stamp) {
    MC_Stuff* after = mruTail_;
    while (after && after->mruStamp_ > stamp) after = after->mruPrev_;
    stuff->mruStamp_ = stamp;
    stuff->mruPrev_ = after;
    stuff->mruNext_ = after ? after->mruNext_ : mruHead_;
    (stuff->mruNext_ ? stuff->mruNext_->mruPrev_ : mruTail_) = stuff;
    (after ? after->mruNext_ : mruHead_) = stuff;
    ++mruSize_;
    stuff->RetainObject();
}

MC_Bag::StuffPtr MC_Bag::Unlink(MC_Stuff* stuff) {
    (stuff->mruPrev_ ? stuff->mruPrev_->mruNext_ : mruHead_) = stuff->mruNext_;
    (stuff->mruNext_ ? stuff->mruNext_->mruPrev_ : mruTail_) = stuff->mruPrev_;
    stuff->mruPrev_ = stuff->mruNext_ = nullptr;
    --mruSize_;
    return StuffPtr::Adopt(stuff);
}

// --- membership ----------------------------------------------------------------------------

void MC_Bag::AddStuff(const StuffPtr& stuff) {
    MCp_ScLock lock;
    stuff->UpdateLastUsedTimeToNow();
    AddStuffGuts(stuff, lock, true);
}

void MC_Bag::RemoveStuff(const StuffPtr& stuff) {
    MCp_ScLock lock;
    RemoveStuffGuts(stuff, lock, true);
}

void MC_Bag::AddToBagAndSortDir(const StuffPtr& stuff) {
    debug::ProfileScope profile("ZK.MC_Bag::AddToBagAndSortDir", 7);
    MCp_ScLock lock;
    debug::ProfileScope postLock("ZK.MC_Bag::AddToBagAndSortDir - post lock", 8);
    AddStuff(stuff);
    sortDir_->AddStuff(stuff);
}

void MC_Bag::RemoveStuffFromBagAndSortDir(const StuffPtr& stuff, const MCp_ScLock& lock,
                                          bool updateMediaMap) {
    debug::ProfileScope profile("ZK.MC_Bag::RemoveStuffFromBagAndSortDir", 7);
    sortDir_->RemoveStuff(stuff);
    RemoveStuffGuts(stuff, lock, updateMediaMap);
}

void MC_Bag::AddStuffGuts(const StuffPtr& stuff, const MCp_ScLock&, bool updateMediaMap) {
    if (stuff->bag_) MCp_FailVerification("stuff already in a bag");
    const bool mirror = MCp_MediaMapEnabled() && updateMediaMap;
    if (mirror && stuff->IsInMemory()) MCp_MediaMapRegister(stuff);
    LinkByStamp(stuff.get(), stuff->GetLastUseTime());
    {
        velacore::ScopedWriteLockWrapper w(stuff->lock_);
        stuff->bag_ = this;
    }
    if (IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr())
        stuff->SyncMemorySizeWithBag(data->GetApproximateMemorySize());
    if (mirror && g_mediaMapTrace.Enabled()) TraceMediaMapChange("Added stuff ", stuff);
}

void MC_Bag::RemoveStuffGuts(const StuffPtr& stuff, const MCp_ScLock&, bool updateMediaMap) {
    if (stuff->bag_ != this) MCp_FailVerification("stuff not in the right bag");
    StuffPtr listed = Unlink(stuff.get());  // the caller holds a reference too
    {
        velacore::ScopedWriteLockWrapper w(stuff->lock_);
        stuff->bag_ = nullptr;
    }
    if (MCp_MediaMapEnabled() && updateMediaMap && MCp_MediaMapErase(stuff) &&
        g_mediaMapTrace.Enabled())
        TraceMediaMapChange("Removed stuff ", stuff);
}

void MC_Bag::TraceMediaMapChange(const char* what, const StuffPtr& stuff) {
    uint64_t inMemory = 0, onDisk = 0;
    GetCacheSizesInBytes(inMemory, onDisk);
    g_mediaMapTrace.Write(std::string(what) + PointerText(stuff.get()) + " MC Cache size " +
                          std::to_string(inMemory) + " num entries = " + std::to_string(mruSize_) +
                          " MediaMap size " + std::to_string(MCp_MediaMapSize()) +
                          " num entries = " + std::to_string(MCp_MediaMapEntryCount()) + "\n");
}

// Stamps the item as used now and has the host's top-level runner move it to the young end. The
// runner may run the task later, on any thread: the task takes the cache lock itself and relinks
// the item only if it is still listed in this bag (a bag unlinks its items when it dies). Until
// it runs, the item keeps its old place, so it stays purgeable and removable. The task captures
// two plain pointers, which std::function keeps without a heap block; the item keeps itself
// alive while tasks of it are queued (relinksQueued_).
void MC_Bag::UpdateWithNewLastUsedTime(const StuffPtr& stuff, const MCp_ScLock&) {
    debug::ProfileScope profile("ZK.MC_Bag::UpdateWithNewLastUsedTime", 7);
    if (stuff->bag_ != this) MCp_FailVerification("stuff not in the right bag");
    stuff->UpdateLastUsedTimeToNow();
    MC_Stuff* item = stuff.get();
    if (item->relinksQueued_++ == 0) item->RetainObject();
    config::ExecuteTopLevelFunction([bag = this, item] { MC_Bag::RunQueuedRelink(bag, item); });
}

// The queued task's body: gives back the queue's hold on the item, then relinks it.
void MC_Bag::RunQueuedRelink(MC_Bag* bag, MC_Stuff* item) {
    const StuffPtr stuff(item);
    {
        MCp_ScLock lock;
        if (--item->relinksQueued_ == 0) item->ReleaseObject();  // `stuff` still holds it
    }
    RelinkAtUseTime(bag, stuff);
}

// Moves the item to its place under its current use time and re-syncs its size.
void MC_Bag::RelinkAtUseTime(MC_Bag* bag, const StuffPtr& stuff) {
    MCp_ScLock lock;
    if (stuff->bag_ != bag) return;  // left it meanwhile, or the bag died
    const bool mirror = MCp_MediaMapEnabled();
    if (mirror) MCp_MediaMapErase(stuff);
    MC_Stuff* item = stuff.get();
    const uint64_t stamp = item->GetLastUseTime();
    if (item->mruNext_ || item->mruStamp_ > stamp) {  // the young end stays where it is
        StuffPtr listed = bag->Unlink(item);
        bag->LinkByStamp(item, stamp);
    } else {
        item->mruStamp_ = stamp;
    }
    if (mirror && stuff->IsInMemory()) MCp_MediaMapRegister(stuff);
    if (IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr())
        stuff->SyncMemorySizeWithBag(data->GetApproximateMemorySize());
}

void MC_Bag::AccountForStuffDataModification(const StuffPtr& stuff) {
    stuff->UpdateLastUsedTimeToNow();
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    if (!data) config::DoThrowNullPtrException("MC_StuffData");
    stuff->SyncMemorySizeWithBag(data->GetApproximateMemorySize());
}

void MC_Bag::ClearBagAndSortDir() {
    MCp_ScLock lock;
    for (const StuffPtr& stuff : SnapshotItems()) {
        if (!stuff) config::DoThrowNullPtrException("MC_Stuff");
        stuff->RemoveFromBagAndSortDir();
    }
}

std::vector<MC_Bag::StuffPtr> MC_Bag::SnapshotItems() const {
    MCp_ScLock lock;
    std::vector<StuffPtr> items;
    items.reserve(mruSize_);
    for (MC_Stuff* s = mruHead_; s; s = s->mruNext_) items.emplace_back(s);
    return items;
}

MC_CheckoutResult MC_Bag::FindAndCheckout(const StuffPtr& request, int checkoutFlags,
                                          StuffPtr* found, bool* foundHasDiskFile) {
    const MC_CheckoutResult r =
        sortDir_->FindAndCheckout(request, checkoutFlags, found, foundHasDiskFile);
    // A miss this thread would render: another machine may have rendered it already.
    if (r == MC_CheckoutResult_CreatedNewPending && MCr_FillPending(*found, checkoutFlags))
        return MC_CheckoutResult_CheckedOut;
    return r;
}

// --- size accounting -----------------------------------------------------------------------

void MC_Bag::AdjustInMemoryCacheSize(int64_t delta) {
    const int64_t before = inMemory_.fetch_add(delta);
    const int64_t limit = wakeAbove_.load(std::memory_order_relaxed);
    if (before <= limit && before + delta > limit) {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        if (wake_) wake_();
    }
    if (g_adjustMemTrace.Enabled())
        g_adjustMemTrace.Write("AdjustInMemoryCacheSize: " + std::to_string(delta) + "\n");
}
void MC_Bag::SetMemoryWake(int64_t threshold, std::function<void()> wake) {
    std::lock_guard<std::mutex> lock(wakeMutex_);
    wakeAbove_.store(wake ? threshold : INT64_MAX, std::memory_order_relaxed);
    wake_ = std::move(wake);
}
void MC_Bag::AdjustCheckedOutMemoryCacheSize(int64_t delta) {
    checkedOut_.fetch_add(delta);
    if (g_adjustCheckedTrace.Enabled())
        g_adjustCheckedTrace.Write("AdjustCheckedOutMemoryCacheSize: " + std::to_string(delta) +
                                   "\n");
}
void MC_Bag::AdjustOnDiskCacheSize(int64_t delta) {
    diskSize_.fetch_add(delta);
    if (g_adjustDiskTrace.Enabled())
        g_adjustDiskTrace.Write("AdjustOnDiskCacheSize: " + std::to_string(delta) + "\n");
}

void MC_Bag::GetCacheSizesInBytes(uint64_t& inMemory, uint64_t& onDisk) const {
    debug::ProfileScope profile("ZK.MC_Bag::GetCacheSizesInBytes", 9);
    inMemory = 0;
    onDisk = 0;
    MCp_ScLock lock;
    for (const MC_Stuff* s = mruHead_; s; s = s->mruNext_) {
        ScopedReadLockWrapper r(s->lock_);
        const IntrusivePtr<MC_StuffData>& data = s->data_;
        if (!data) continue;
        const uint64_t size = data->GetApproximateMemorySize();
        if (data->IsInMemory()) inMemory += size;
        if (s->diskFile_) onDisk += size;
    }
}

uint64_t MC_Bag::GetCurrentMaxCacheSize() const {
    return U_AmountAvailableBeforePurge() + static_cast<uint64_t>(inMemory_.load());
}

float MC_Bag::GetPercentOfAvailableMemoryCheckedOut() const {
    std::shared_ptr<MC_Bag> global = MC_GlobalBag();
    const double checkedOut = global ? static_cast<double>(global->checkedOut_.load()) : 0.0;
    const double available =
        static_cast<double>(U_AmountAvailableBeforePurge()) + static_cast<double>(inMemory_.load());
    if (available <= 0.0) return checkedOut > 0.0 ? 1.0f : 0.0f;
    return static_cast<float>(checkedOut / available);
}

float MC_Bag::GetPercentOfAvailableMemoryFree() const {
    return 1.0f - GetPercentOfAvailableMemoryCheckedOut();
}

int MC_Bag::GetNumItems() const {
    MCp_ScLock lock;
    return static_cast<int>(mruSize_);
}

int MC_Bag::GetNumGuidSortedItems() const {
    MCp_ScLock lock;
    return static_cast<int>(sortDir_->Size());
}
