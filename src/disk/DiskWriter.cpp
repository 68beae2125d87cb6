// The asynchronous disk writer: queueing an item, the runs on the two-thread disk executor that
// take the oldest entry, and the write of one entry (budget, check-out, file, check-in).
#include <limits>
#include <string>

#include "disk/DiskWriterQueue.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "remote/Farm.h"

namespace {
debug::TraceSite g_writeFailedTrace("DiskCache", 6);

// One scheduled run of WriteToDiskAsyncFromQueue. If the executor drops the run without
// starting it (it was stopped), the ticket drops the oldest queued entry in its place, so that
// the queue never keeps entries that no run will take.
class WriteRunTicket {
  public:
    WriteRunTicket() = default;
    WriteRunTicket(const WriteRunTicket&) = delete;
    WriteRunTicket& operator=(const WriteRunTicket&) = delete;
    ~WriteRunTicket() {
        if (ran_) return;
        try {
            MCp_DiskWriteQueue::Get().DropFront();
        } catch (...) {
            // the entry's receipt reported its own failure
        }
    }
    void Run() {
        ran_ = true;
        MC_Stuff::WriteToDiskAsyncFromQueue();
    }

  private:
    bool ran_ = false;
};

// The file an item's payload of `size` bytes is expected to take: header and payload rounded up
// to whole write buffers (64 blocks of the folder's volume).
int64_t ExpectedFileSize(uint64_t size, const velacore::Dir& folder) {
    const uint64_t block =
        folder.IsEmpty()
            ? 4096
            : velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(folder.GetFullPathUtf8());
    const uint64_t buffer = 64 * (block == 0 ? 4096 : block);
    return static_cast<int64_t>(velacore::RoundUpToBlock(size + 32, buffer));
}

std::string DescribeCurrentException() {
    try {
        throw;
    } catch (int code) {
        return "error " + std::to_string(code);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}
}  // namespace

void MC_Stuff::WriteToDiskAsyncOnDiskThread(IntrusivePtr<MC_Stuff> stuff) {
    if (!stuff) return;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> exec = MCp_DiskExecutor();
    if (!exec) return;  // stopped: nothing is queued any more
    MCr_Publish(stuff);  // the remote tier shares what goes to disk
    std::shared_ptr<MC_ScCheckout> receipt;
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    if (data && data->GetCachePriority() == MC_CachePriority_High) {
        // Keeps the item resident until its turn comes.
        receipt = std::make_shared<MC_ScCheckout>(
            stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly);
        std::shared_ptr<MC_Bag> bag = stuff->LockBag();
        if (bag && bag->IsDiskCacheEnabled() && receipt->DidCheckout())
            receipt->SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
    }
    MCp_DiskWriteQueue::Get().Push({stuff, std::move(receipt)});
    auto ticket = std::make_shared<WriteRunTicket>();
    exec->Post([ticket] { ticket->Run(); });  // a refused post drops the ticket, and the entry
}

void MC_Stuff::WriteToDiskAsyncFromQueue() {
    MCp_DiskWriteQueue::Entry entry;
    if (!MCp_DiskWriteQueue::Get().PopFront(entry)) return;
    WriteToDiskAsync(std::move(entry.stuff), std::move(entry.receipt));
}

void MC_Stuff::WriteToDiskAsync(IntrusivePtr<MC_Stuff> stuff,
                                std::shared_ptr<MC_ScCheckout> receipt) {
    if (!stuff) return;
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    std::shared_ptr<MC_Bag> bag = stuff->LockBag();
    if (!data) MCp_FailVerification("WriteToDiskAsync() called on stuff with no data");
    if (!bag) return;  // left the bag while queued: nothing to account the file to
    try {
        const int64_t need =
            ExpectedFileSize(data->GetApproximateMemorySize(), bag->GetDiskCacheDirSpec());
        if (!bag->EnsureDiskSpace(need, stuff->GetLastUseTime())) {
            bag->GetDiskOutOfSpaceSignal()();
        } else {
            if (!receipt || !receipt->DidCheckout()) {
                receipt = std::make_shared<MC_ScCheckout>(
                    stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly);
                receipt->SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
            }
            if (receipt->DidCheckout() && stuff->IsInMemory() && !stuff->IsOnDisk())
                stuff->PrepAndWrite(bag);
        }
    } catch (...) {
        MCp_GetCounters().writeFailures.fetch_add(1);
        if (g_writeFailedTrace.Enabled())
            g_writeFailedTrace.Write("WriteToDiskAsync failed: " + DescribeCurrentException() +
                                     "\n");
    }
    if (receipt) receipt->Checkin();
}
