// Purging every disk cache: the current version's folder with the bag kept consistent, the other
// versions' folders only on request, the progress pair, and the two refusals (a folder that does
// not match the root, a client version that does not match the application version).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

namespace fs = std::filesystem;

class DiskPurge : public DiskCacheTest {
  protected:
    void SetUp() override {
        DiskCacheTest::SetUp();
        product_ = root_.Path() / "Ostrel" / "Tessaline";
        otherMachine_ = product_ / "0.9" / "Disk Cache - diskb-host.noindex";
        PutFile(otherMachine_ / "AB" / "old.zkcache", 100);
        foreignMachine_ = product_ / "0.9" / "Disk Cache - elsewhere.noindex" / "x.zkcache";
        PutFile(foreignMachine_, 100);
        resident_ = NewItemInBag(1, 1000);
        WriteNow(resident_);
        diskOnly_ = NewItemInBag(2, 1000);
        WriteNow(diskOnly_);
        diskOnly_->FreeUpAsMuchAsPossible(true, nullptr);
        memoryOnly_ = NewItemInBag(3, 1000);
    }

    void Purge(bool includeOtherVersions) {
        bag_->PurgeAllDiskCaches([this](unsigned d, unsigned t) { progress_.emplace_back(d, t); },
                                 includeOtherVersions, done_, total_);
    }

    bool Traced(const std::string& prefix) const {
        for (const auto& line : services_->TraceLines("DiskCache"))
            if (line.text.rfind(prefix, 0) == 0) return true;
        return false;
    }

    bool InBag(const IntrusivePtr<MC_Stuff>& stuff) const {
        const auto items = bag_->SnapshotItems();
        return std::find(items.begin(), items.end(), stuff) != items.end();
    }

    fs::path product_, otherMachine_, foreignMachine_;
    IntrusivePtr<MC_Stuff> resident_, diskOnly_, memoryOnly_;
    unsigned done_ = 0, total_ = 2;
    std::vector<std::pair<unsigned, unsigned>> progress_;
};

TEST_F(DiskPurge, CurrentFolderIsEmptiedAndTheBagForgetsItsFiles) {
    Purge(false);
    EXPECT_TRUE(fs::is_directory(Folder().GetFullPath()));
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);

    EXPECT_TRUE(InBag(resident_));  // still in memory: stays, without a file
    EXPECT_FALSE(resident_->IsOnDisk());
    EXPECT_TRUE(resident_->IsInMemory());
    EXPECT_FALSE(InBag(diskOnly_));  // nothing left of it
    EXPECT_TRUE(InBag(memoryOnly_));

    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));  // other versions untouched
    EXPECT_TRUE(fs::exists(foreignMachine_));
    EXPECT_EQ(progress_, (std::vector<std::pair<unsigned, unsigned>>{{1, 2}}));
    EXPECT_EQ(done_, 1u);
    EXPECT_EQ(total_, 2u);
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: found match curr "));
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: ignoring: "));
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: Finished\n"));
    EXPECT_FALSE(Traced("PurgeAllDiskCaches THREW"));

    // The cache goes on working in the emptied folder.
    IntrusivePtr<MC_Stuff> again = NewItemInBag(4, 1000);
    WriteNow(again);
    EXPECT_TRUE(again->IsOnDisk());
}

TEST_F(DiskPurge, OtherVersionsOfThisMachineAreEmptiedOnRequest) {
    Purge(true);
    EXPECT_TRUE(fs::is_directory(otherMachine_));
    EXPECT_TRUE(fs::is_empty(otherMachine_));
    EXPECT_TRUE(fs::exists(foreignMachine_));  // another machine's folder is not ours
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(progress_, (std::vector<std::pair<unsigned, unsigned>>{{1, 2}, {2, 2}}));
    EXPECT_EQ(done_, 2u);
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: staged to clear: "));
    EXPECT_TRUE(Traced("MCp_PurgeDiskCacheFiles_NoBag "));
}

TEST_F(DiskPurge, AFolderThatNoLongerMatchesTheRootIsNotPurged) {
    host().SetClientVersion("2.0");  // the folder would now be computed under "2.0"
    Purge(true);
    EXPECT_TRUE(
        Traced("PurgeAllDiskCaches: Failed:  Unexpected mismatch of calculated disk cache from "
               "root path"));
    EXPECT_TRUE(resident_->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));
    EXPECT_TRUE(progress_.empty());
    EXPECT_EQ(done_, 0u);
}

// The standalone host's rule: client version "major.minor" is application version
// major * 256 + minor. Here the module was started as 300 while the host says "1.0" (256).
class DiskPurgeVersionMismatch : public DiskPurge {
  protected:
    unsigned AppVersion() const override { return 300; }
};

TEST_F(DiskPurgeVersionMismatch, ClientAndApplicationVersionsMustAgree) {
    Purge(true);
    EXPECT_TRUE(
        Traced("PurgeAllDiskCaches: Failed:  Expecting GetClientInternalVersion and app "
               "version to match"));
    EXPECT_TRUE(resident_->IsOnDisk());
    EXPECT_TRUE(diskOnly_->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));
    EXPECT_TRUE(progress_.empty());
    EXPECT_EQ(done_, 0u);
}

}  // namespace
