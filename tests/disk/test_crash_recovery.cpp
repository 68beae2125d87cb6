// Processes that die: a writer killed at random moments leaves a folder that a fresh process
// adopts whole (every item reads back byte-exact, abandoned temporaries go, the budget equals
// the folder); and a host that exits without stopping the module does not leave the memory
// monitor running against the module's destroyed state. The work runs in mc_test_child.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"

extern char** environ;

namespace {

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
