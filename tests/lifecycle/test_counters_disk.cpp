// Disk performance counters, driven through real writes and reads in a temporary disk-cache
// folder (with injected file-system faults): each write, read-back, failure, queued write and
// refusal moves exactly its own counter, and the reason counters land in their fields.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/File.h"
#include "support/DiskWriterDrain.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

bool Same(const MC_DiskPerformanceCounters& a, const MC_DiskPerformanceCounters& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Regular files under `root`, whatever they are.
size_t CountFiles(const std::filesystem::path& root) {
    size_t n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        if (it->is_regular_file()) ++n;
    return n;
}

class DiskCounters : public ::testing::Test {
protected:
    void SetUp() override {
        scopedFs_ = std::make_unique<ScopedFileSystem>(fs_);
        services_ = std::make_shared<RecordingHostServices>();
        scoped_ = std::make_unique<ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MCp_SetInitialDiskRescanPostedForTesting(true);  // no background scan of the folder
        MC_Birth(false, 256, false);
        bag_ = MC_GlobalBag();
        TestPayload::RegisterFactory();
        bag_->SetDiskCacheInfo(root_.AsDir(), 64);
        bag_->EnableDiskCache(true);
    }
    void TearDown() override {
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        scoped_.reset();
        scopedFs_.reset();
    }

    // A disk-cacheable item in the global bag, added without the write decision.
    IntrusivePtr<MC_Stuff> NewItem(uint32_t key, uint32_t size,
                                   MC_CachePriority priority = MC_CachePriority_Never,
                                   TestPayload* payload = nullptr) {
        if (payload == nullptr) payload = new TestPayload(key, size);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        stuff->SetGuid(KeyGuid(key));
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
    static TestPayload& PayloadOf(const IntrusivePtr<MC_Stuff>& stuff) {
        return static_cast<TestPayload&>(*stuff->GetDataPtr());
    }
    // Writes the item's file on this thread. Returns the file's size.
    static uint64_t WriteNow(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_Stuff::WriteToDiskAsync(stuff, nullptr);
        return stuff->IsOnDisk() ? stuff->GetDiskCacheFile().Size() : 0;
    }
    static bool DrainWriter() { return mctest::DrainDiskWriter(); }
    // Checks the item out writeable and in again, as a client that changed it would.
    static void WriteableCheckin(const IntrusivePtr<MC_Stuff>& stuff, double computeTime) {
        MC_ScCheckout r(stuff, 0);
        ASSERT_TRUE(r.DidCheckout());
        r.Checkin(0, computeTime);
    }

    TempDir root_{"mc-counters"};
    std::shared_ptr<FaultInjectingFileSystem> fs_ = std::make_shared<FaultInjectingFileSystem>();
    std::unique_ptr<ScopedFileSystem> scopedFs_;
    std::shared_ptr<RecordingHostServices> services_;
    std::unique_ptr<ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
};

// Each disk event moves exactly its own counters: the row's action returns the expected change.
TEST_F(DiskCounters, EachEventMovesExactlyItsOwnCounters) {
    using Counters = MC_DiskPerformanceCounters;
    uint32_t key = 0;
    // An item written to disk and purged from memory, ready to be read back.
    auto onDiskOnly = [&](IntrusivePtr<MC_Stuff>& stuff) {
        stuff = NewItem(++key, 5000);
        ASSERT_GT(WriteNow(stuff), 0u);
        ASSERT_GT(stuff->FreeUpAsMuchAsPossible(true, nullptr), 0u);
    };
    auto readFails = [](const IntrusivePtr<MC_Stuff>& stuff) {
        MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
        EXPECT_FALSE(r.DidCheckout());
    };
    auto reason = [&](MC_StuffData::NoDiskCacheReason why) {
        IntrusivePtr<MC_Stuff> stuff = NewItem(++key, 5000);
        stuff->GetDataPtr()->SetNoDiskCache(why);
        stuff->MaybeWriteToDisk();
    };
    struct Row {
        const char* what;
        std::function<void(IntrusivePtr<MC_Stuff>&)> setup;
        std::function<void(const IntrusivePtr<MC_Stuff>&, Counters&)> act;
    };
    const Row rows[] = {
        {"a write", [&](auto& s) { s = NewItem(++key, 5000); },
         [&](auto& s, Counters& e) {
             const uint64_t size = WriteNow(s);
             EXPECT_GT(size, 5000u);  // header and padding included
             e.bytesWritten += size;
         }},
        {"a read-back", onDiskOnly,
         [&](auto& s, Counters& e) {
             MC_ScCheckout r(s, MC_CheckoutFlag_ReadOnly);
             EXPECT_TRUE(r.DidCheckout() && r.IsInMemory());
             e.bytesRead += s->GetDiskCacheFile().Size();
         }},
        {"a failed write leaves no file", [&](auto& s) { s = NewItem(++key, 5000); },
         [&](auto& s, Counters& e) {
             const size_t files = CountFiles(root_.Path());
             fs_->FailFrom(FsOp::kAppend, 1, Fault::kIoError);
             EXPECT_EQ(WriteNow(s), 0u);
             fs_->ClearFaults();
             EXPECT_EQ(CountFiles(root_.Path()), files);
             e.writeFailures += 1;
         }},
        {"a short write", [&](auto& s) { s = NewItem(++key, 5000); },
         [&](auto& s, Counters& e) {
             fs_->FailNth(FsOp::kAppend, 1, Fault::kShortWrite);
             EXPECT_EQ(WriteNow(s), 0u);
             e.writeFailures += 1;
         }},
        {"a corrupt body deletes the file", onDiskOnly,
         [&](auto& s, Counters& e) {
             const auto path = s->GetDiskCacheFile().GetFullPath();
             PayloadOf(s).SetReadFailure(true);
             readFails(s);
             EXPECT_FALSE(s->IsOnDisk() || std::filesystem::exists(path));
             e.readFailures += 1;
         }},
        {"an I/O error on read", onDiskOnly,
         [&](auto& s, Counters& e) {
             fs_->FailFrom(FsOp::kRead, 1, Fault::kIoError);
             readFails(s);
             fs_->ClearFaults();
             e.readFailures += 1;
         }},
        {"check-in refusals: priority 0 is reason 4, no compute time reason 3", [](auto&) {},
         [&](auto&, Counters& e) {
             WriteableCheckin(NewItem(++key, 5000, MC_CachePriority_Never), 1.0);
             WriteableCheckin(NewItem(++key, 5000, MC_CachePriority_Normal), 0.0);
             ASSERT_TRUE(DrainWriter());
             e.reason4Count += 1;
             e.reason3Count += 1;
         }},
        {"queued check-ins count their priority and their writes", [](auto&) {},
         [&](auto&, Counters& e) {
             IntrusivePtr<MC_Stuff> normal = NewItem(++key, 5000, MC_CachePriority_Normal);
             IntrusivePtr<MC_Stuff> low = NewItem(++key, 5000, MC_CachePriority_Low);
             WriteableCheckin(normal, 1.0);
             WriteableCheckin(low, 1.0);
             ASSERT_TRUE(DrainWriter());
             e.normalWritesQueued += 1;
             e.lowPriorityWritesQueued += 1;
             e.bytesWritten += normal->GetDiskCacheFile().Size() + low->GetDiskCacheFile().Size();
         }},
        {"recorded reasons land in their fields (0 is not counted)", [](auto&) {},
         [&](auto&, Counters& e) {
             reason(MC_StuffData::NoDiskCacheReason_1);
             reason(MC_StuffData::NoDiskCacheReason_2);
             reason(MC_StuffData::NoDiskCacheReason_4);
             reason(MC_StuffData::NoDiskCacheReason_5);
             reason(MC_StuffData::NoDiskCacheReason(0));
             e.reason1Count += 1;
             e.reason2Count += 1;
             e.reason4Count += 1;
             e.reason5Count += 1;
         }},
        {"a full queue records and counts reason 3",
         [&](auto& s) { s = NewItem(++key, 5000, MC_CachePriority_High); },
         [&](auto& s, Counters& e) {
             MCp_DiskWriteQueue::Get().AdjustCountForTesting(200);
             s->MaybeWriteToDisk();
             MCp_DiskWriteQueue::Get().AdjustCountForTesting(-200);
             EXPECT_EQ(s->GetDataPtr()->GetReasonWhyNoDiskCache(),
                       MC_StuffData::NoDiskCacheReason_DiskBusy);
             e.reason3Count += 1;
         }},
        {"frame notifications", [](auto&) {},
         [&](auto&, Counters& e) {
             MC_NotifyFrameWrittenToDisk();
             MC_NotifyFrameWrittenToDisk();
             MC_NotifyFrameReadFromDisk();
             e.framesWritten += 2;
             e.framesRead += 1;
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        IntrusivePtr<MC_Stuff> stuff;
        row.setup(stuff);
        const MC_PerformanceCounters memory = MC_GetPerformanceCounters();
        Counters expected = MC_GetDiskPerformanceCounters();
        row.act(stuff, expected);
        EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
        EXPECT_EQ(MC_GetPerformanceCounters().purgePasses, memory.purgePasses);
    }
}

}  // namespace
