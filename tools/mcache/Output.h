// What mcache shows: the live progress line (fitted to the terminal, plain lines when not on a
// terminal), the demo summary (text within 80 columns, or JSON), the SVG report, and the small
// formatting helpers every command shares. Thread-safety: Progress is used by one thread at a
// time; the free functions may be called from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "Demo.h"

class MC_Bag;

namespace mcache {

class Progress {
public:
    explicit Progress(bool enabled);
    // One refresh: pass progress and speed, where frames came from, the cache's state.
    void Update(const std::string& pass, uint64_t done, uint64_t total, double framesPerSecond,
                uint64_t memory, uint64_t disk, uint64_t rendered, const Sample& sample);
    void PassDone(const PassStats& pass);
    void SetBudgets(uint64_t memory, uint64_t disk) {
        memoryBudget_ = memory;
        diskBudget_ = disk;
    }

private:
    void Erase();  // removes what the last Update drew (terminal only)
    bool enabled_;
    size_t rowsDrawn_ = 0;
    bool terminal_;
    double lastPlain_ = -1;
    uint64_t memoryBudget_ = 0, diskBudget_ = 0;
};

// The progress display for a terminal `columns` wide: one line when it fits, else two (the
// pass and where its frames came from; the cache's memory, disk and write queue), each shorter
// than `columns` so that it never wraps.
std::vector<std::string> ProgressLines(const std::string& pass, uint64_t done, uint64_t total,
                                       double fps, uint64_t memory, uint64_t disk,
                                       uint64_t rendered, const Sample& s, uint64_t memoryBudget,
                                       uint64_t diskBudget, size_t columns);
// Columns of the terminal on stderr ($COLUMNS, else 80 when unknown).
size_t TerminalColumns();

// "12.3 MiB" style.
std::string Bytes(double bytes);

// A path as UTF-8 text for messages (whatever the system's path encoding).
std::string PathText(const std::filesystem::path& path);
// A path from UTF-8 text (the tool's arguments are UTF-8 on every system).
std::filesystem::path PathFromText(const std::string& utf8);
// An application version as "1.0 (256)".
std::string AppVersionText(uint32_t version);
// The standalone host's application version (from the environment), as AppVersionText.
std::string CurrentVersionText();
// An int error code of the module in words, with its number.
std::string ErrorText(int code);
// Installed physical memory in bytes (for percentages).
uint64_t PhysicalMemory();
// JSON text, indented; bytes of strings that are not UTF-8 become U+FFFD instead of aborting.
std::string JsonText(const nlohmann::json& j);

void PrintSummary(const DemoOptions& options, const DemoResult& result, MC_Bag& bag,
                  int appVersion);
// Draws the report: a title with the parameters, memory and disk use against their budgets over
// time with pass boundaries, and where each pass's frames came from. False when writing failed.
bool WriteSvgReport(const DemoOptions& options, const DemoResult& result, int appVersion,
                    std::ostream& out);

}  // namespace mcache
