// The disk-cache folder as hostile ground, and processes that die. Whatever is planted beside one
// valid cache file (links out of the folder, link loops, a folder that cannot be listed, FIFOs
// named like cache files), the scan adopts exactly the valid file and never blocks, the budget
// counts exactly what the folder holds, read-back opens only regular files, and neither the
// scan, the read-back, the budget purge nor the purge of every version's folder touches
// anything outside the root, nor does a write through a linked sub-folder. What the cache
// creates is never group- or world-writable.
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "DiskFixture.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace diskbtest;
using velacore::File;

constexpr uint32_t kValidKey = 1;

// Refuses to list chosen folders as a folder without read permission does (root reads every
// folder, so permissions alone cannot plant one).
class DeniedListingFileSystem : public velacore::FileSystemWrapper {
public:
    using FileSystemWrapper::FileSystemWrapper;
    std::vector<velacore::DirectoryEntry> ListDirectory(const fs::path& path) override {
        if (denied.count(path))
            throw velacore::IOError("open folder '" + path.string() + "': denied", EACCES);
        return FileSystemWrapper::ListDirectory(path);
    }
    std::set<fs::path> denied;
};

// Every entry under `root`, links not followed: relative path -> link target or file content.
std::map<std::string, std::string> Snapshot(const fs::path& root) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
        const auto status = e.symlink_status();
        const auto bytes =
            fs::is_regular_file(status) ? mctest::ReadWholeFile(e.path()) : std::vector<uint8_t>{};
        out[fs::relative(e.path(), root).string()] =
            fs::is_symlink(status) ? "link:" + fs::read_symlink(e.path()).string()
                                   : std::string(bytes.begin(), bytes.end());
    }
    return out;
}

// Bytes of the regular files under `root`, links not followed.
uint64_t RegularBytes(const fs::path& root) {
    uint64_t total = 0;
    for (const auto& e : fs::recursive_directory_iterator(root))
        if (fs::is_regular_file(e.symlink_status())) total += fs::file_size(e.path());
    return total;
}

fs::path NameOf(uint32_t key) {
    return velacore::ToUtf8(CacheName(key));
}

// Two hex digits: the sub-folder a key's files go to.
std::string SubOf(uint32_t key) {
    return NameOf(key).string().substr(0, 2);
}

void Fifo(const fs::path& path) {
    fs::create_directories(path.parent_path());
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << path;
}

struct Planted {
    fs::path cache;    // the disk-cache folder
    fs::path product;  // the folder of every version's folder
    fs::path outside;  // beside the root: must never be touched
    fs::path valid;    // the one valid cache file
    std::set<fs::path>* denied;
};

struct HostileCase {
    const char* name;
    std::function<void(Planted&)> plant;
    std::function<void(Planted&)> beforeRead = {};  // may be empty
    bool readsBack = true;                          // the valid file's item becomes resident
};

const HostileCase kCases[] = {
    {"LinkedSubfolders",
     [](Planted& p) {
         // Out there: a file of another version (a scan deletes those) and a valid one; the
         // cache later writes an item of key 3.
         for (auto [key, app] : {std::pair{2u, kApp + 1}, std::pair{3u, kApp}}) {
             WriteTestCacheFile(velacore::Dir(p.outside), key, 0, app, 64);
             fs::create_directory_symlink(p.outside / SubOf(key), p.cache / SubOf(key));
         }
     }},
    {"LinkedCacheFile",
     [](Planted& p) {
         const File victim = WriteTestCacheFile(velacore::Dir(p.outside), 4, 0, kApp, 64);
         fs::create_directories(p.cache / SubOf(4));
         fs::create_symlink(victim.GetFullPath(), p.cache / SubOf(4) / NameOf(4));
     }},
    {"LinkedVersionFolder",
     [](Planted& p) {
         const fs::path theirs = p.outside / "9.0" / p.cache.filename();
         fs::create_directories(theirs);
         WriteTestCacheFile(velacore::Dir(theirs), 5, 0, kApp, 64);
         fs::create_directory_symlink(p.outside / "9.0", p.product / "9.0");
     }},
    {"LinkLoops",
     [](Planted& p) {
         fs::create_symlink("self", p.cache / "self");
         fs::create_directory_symlink(p.cache, p.cache / "up");
     }},
    {"UnreadableFolder",
     [](Planted& p) {
         fs::create_directories(p.cache / "sealed");
         p.denied->insert(p.cache / "sealed");
     }},
    {"FifoNamedLikeACacheFile", [](Planted& p) { Fifo(p.cache / SubOf(6) / NameOf(6)); }},
    {"FifoInPlaceOfAnAdoptedFile",
     {},
     [](Planted& p) {
         fs::remove(p.valid);
         Fifo(p.valid);
     },
     false},
};

// Names the case in test listings (its bytes would hold addresses).
void PrintTo(const HostileCase& c, std::ostream* os) {
    *os << c.name;
}

class HostileFolder : public DiskCacheTest, public ::testing::WithParamInterface<HostileCase> {
protected:
    mctest::TempDir outside_{"mc-outside"};
};

TEST_P(HostileFolder, OnlyTheValidFileIsAdoptedAndNothingOutsideIsTouched) {
    auto denying = std::make_shared<DeniedListingFileSystem>(fs_);
    mctest::ScopedFileSystem scopedDenying(denying);
    Planted p{Folder().GetFullPath(), {}, outside_.Path(), {}, &denying->denied};
    p.product = p.cache.parent_path().parent_path();
    p.valid = WriteTestCacheFile(Folder(), kValidKey, 0, kApp, 100).GetFullPath();
    if (GetParam().plant) GetParam().plant(p);
    const auto outsideBefore = Snapshot(p.outside);

    bag_->ScanDiskCacheDir();  // a FIFO opened blocking hangs it: the test times out
    const auto items = bag_->SnapshotItems();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->GetGuid(), mctest::KeyGuid(kValidKey));
    EXPECT_EQ(static_cast<uint64_t>(bag_->GetCurrentDiskCacheSize()), RegularBytes(p.cache));

    if (GetParam().beforeRead) GetParam().beforeRead(p);
    EXPECT_EQ(items[0]->EnsureInMemory(), GetParam().readsBack);

    WriteNow(InBag(NewItem(3, 5000)));
    bag_->EnsureDiskSpace(bag_->GetCurrentMaxDiskCacheSize(), std::numeric_limits<uint64_t>::max());
    unsigned done = 0, total = 2;
    bag_->PurgeAllDiskCaches({}, true, done, total);
    EXPECT_EQ(Snapshot(p.outside), outsideBefore);
}

INSTANTIATE_TEST_SUITE_P(Planted, HostileFolder, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Folders and files the cache creates stay closed to other users whatever the umask.
TEST_F(DiskCacheTest, CreatedFoldersAndFilesAreNotWritableByOthers) {
    mctest::TempDir root("mc-umask");
    const mode_t previous = ::umask(0);
    bag_->SetDiskCacheInfo(root.AsDir(), 64);
    WriteNow(InBag(NewItem(9, 5000)));
    ::umask(previous);
    size_t files = 0;
    for (const auto& e : fs::recursive_directory_iterator(root.Path())) {
        files += e.is_regular_file();
        EXPECT_EQ(
            fs::status(e.path()).permissions() & (fs::perms::group_write | fs::perms::others_write),
            fs::perms::none)
            << e.path();
    }
    EXPECT_EQ(files, 1u);
}

// Processes that die: a writer killed at random moments leaves a folder that a fresh process
// adopts whole (every item reads back byte-exact, abandoned temporaries go, the budget equals
// the folder); and a host that exits without stopping the module does not leave the memory
// monitor running against the module's destroyed state. The work runs in mc_test_child.

// Starts mc_test_child with `args`; returns its process id.
pid_t Spawn(std::vector<std::string> args) {
    args.insert(args.begin(), MC_TEST_CHILD_PATH);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    EXPECT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
    return pid;
}

int WaitStatus(pid_t pid) {
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

int ExitCode(pid_t pid) {
    const int status = WaitStatus(pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(CrashRecovery, WhatKilledWritersLeaveIsAdoptedWhole) {
    mctest::TempDir root("mc-crash");
    const unsigned seed = std::random_device{}();
    std::mt19937 rng(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (int round = 0; round < 30; ++round) {
        const pid_t writer = Spawn({"crash-writer", root.Path().string(), std::to_string(rng())});
        // The kill moment is the variable under test: anywhere from start-up to steady writing.
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 400));
        ASSERT_EQ(::kill(writer, SIGKILL), 0);
        const int status = WaitStatus(writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself in round " << round;
        ASSERT_EQ(ExitCode(Spawn({"crash-check", root.Path().string()})), 0) << "round " << round;
    }
}

TEST(ProcessExit, MemoryMonitorStopsBeforeTheModuleStateIsDestroyed) {
    for (int run = 0; run < 5; ++run)
        ASSERT_EQ(ExitCode(Spawn({"exit-without-death"})), 0) << "run " << run;
}

}  // namespace
