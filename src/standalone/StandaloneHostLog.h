// StandaloneLogger: the standalone host's log (spdlog, to stderr or a file, off by default) and
// its trace channels (a channel shows a trace line when its configured level >= the line's).
// Trace lines go to the same output whatever the log level. Cheap when off: one atomic load.
// Thread-safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace spdlog {
class logger;
}

namespace velacore {

class StandaloneLogger {
public:
    // target: "" or "stderr", else a file path (appended to). level: a name accepted by
    // IsValidLogLevel. Throws StandaloneConfigError when the file cannot be opened or the level
    // is unknown.
    StandaloneLogger(const std::string& target, const std::string& level,
                     const std::map<std::string, int, std::less<>>& traceLevels);
    ~StandaloneLogger();
    StandaloneLogger(const StandaloneLogger&) = delete;
    StandaloneLogger& operator=(const StandaloneLogger&) = delete;

    // trace, debug, info, warn, warning, error, critical, off.
    static bool IsValidLogLevel(std::string_view name);

    // Host log levels: <= 0 debug, 1 info, 2 warning, 3 error, >= 4 critical.
    bool ShouldLog(int level) const;
    void Log(int level, std::string_view category, std::string_view event, std::string_view text);
    // "*" stands for every channel without a level of its own.
    bool IsTraceEnabled(std::string_view channel, int level) const;
    // Writes the line when the channel is enabled at level.
    void Trace(std::string_view channel, int level, std::string_view text);
    // A negative level removes the channel.
    void SetTraceLevel(std::string_view channel, int level);
    std::vector<std::pair<std::string, int>> Channels() const;
    uint64_t TraceLineCount() const { return traceLines_.load(std::memory_order_relaxed); }

private:
    std::shared_ptr<spdlog::logger> logger_;
    std::shared_ptr<spdlog::logger> tracer_;
    mutable std::shared_mutex mutex_;
    std::map<std::string, int, std::less<>> levels_;
    std::atomic<bool> anyChannel_{false};
    std::atomic<uint64_t> traceLines_{0};
};

}  // namespace velacore
