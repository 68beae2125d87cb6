// A write that fails at any step (no space, I/O error, a short write halfway, a failed commit)
// leaves no file under the final name and no temporary, accounts no bytes, counts one write
// failure, keeps the item resident, and lets a later write of the same item succeed.
#include <gtest/gtest.h>

#include <string>

#include "test_writer_fixture.h"

using namespace diskbtest;
using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;

namespace {

struct WriteFault {
    FsOp op;
    uint64_t nth;
    Fault fault;
    const char* label;
};

void PrintTo(const WriteFault& f, std::ostream* os) {
    *os << f.label;
}

class WriteFaults : public DiskCacheTest, public ::testing::WithParamInterface<WriteFault> {};

TEST_P(WriteFaults, LeaveNothingBehindAndAccountNothing) {
    const WriteFault& f = GetParam();
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(1, 1u << 20);  // 1 MiB: five buffers
    const uint64_t writtenBefore = counters().bytesWritten.load();
    const uint32_t failuresBefore = counters().writeFailures.load();
    {
        auto faults = std::make_shared<FaultInjectingFileSystem>(fs_);
        mctest::ScopedFileSystem installed(faults);
        faults->FailNth(f.op, f.nth, f.fault);
        WriteNow(stuff);
        EXPECT_EQ(faults->FaultCount(f.op), 1u) << "the fault was not reached";
    }
    EXPECT_FALSE(stuff->IsOnDisk());
    EXPECT_TRUE(stuff->IsInMemory());
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    EXPECT_EQ(counters().bytesWritten.load(), writtenBefore);
    EXPECT_EQ(counters().writeFailures.load(), failuresBefore + 1);
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);

    // Nothing stays claimed: the next attempt writes the file.
    WriteNow(stuff);
    ASSERT_TRUE(stuff->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(AllFiles().size(), 1u);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(5 * kFileUnit));
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, WriteFaults,
    ::testing::Values(WriteFault{FsOp::kCreateFile, 1, Fault::kNoSpace, "NoSpaceForTemporary"},
                      WriteFault{FsOp::kOpenForDirectWrite, 1, Fault::kIoError, "OpenFails"},
                      WriteFault{FsOp::kAppend, 1, Fault::kIoError, "FirstBlockIoError"},
                      WriteFault{FsOp::kAppend, 3, Fault::kShortWrite, "ShortWriteHalfway"},
                      WriteFault{FsOp::kAppend, 3, Fault::kNoSpace, "NoSpaceHalfway"},
                      WriteFault{FsOp::kAppend, 5, Fault::kIoError, "LastBlockIoError"},
                      WriteFault{FsOp::kClose, 1, Fault::kIoError, "CloseFails"},
                      WriteFault{FsOp::kRename, 1, Fault::kIoError, "CommitFails"}),
    [](const ::testing::TestParamInfo<WriteFault>& info) { return std::string(info.param.label); });

}  // namespace
