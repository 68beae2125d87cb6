// Runs the mcache tool in-process and captures what it printed. Test-only; one call at a time
// (the capture of stdout and stderr is process-wide).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cli.h"

namespace mctest {

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

// `args` without the program name, e.g. {"ls", folder}.
inline ToolRun Mcache(std::vector<std::string> args) {
    args.insert(args.begin(), "mcache");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = mcache::Main(static_cast<int>(argv.size()), argv.data());
    ToolRun run{status, testing::internal::GetCapturedStdout(), {}};
    run.err = testing::internal::GetCapturedStderr();
    return run;
}

}  // namespace mctest
