// The standalone host's log and trace output (see StandaloneHostLog.h).
#include "standalone/StandaloneHostLog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <array>
#include <mutex>

#include "mc/standalone/StandaloneHost.h"

namespace velacore {
namespace {

struct LevelName {
    std::string_view name;
    spdlog::level::level_enum level;
};
constexpr std::array<LevelName, 8> kLevelNames{{{"trace", spdlog::level::trace},
                                                {"debug", spdlog::level::debug},
                                                {"info", spdlog::level::info},
                                                {"warn", spdlog::level::warn},
                                                {"warning", spdlog::level::warn},
                                                {"error", spdlog::level::err},
                                                {"critical", spdlog::level::critical},
                                                {"off", spdlog::level::off}}};

spdlog::level::level_enum HostLevel(int level) {
    if (level <= 0) return spdlog::level::debug;
    if (level == 1) return spdlog::level::info;
    if (level == 2) return spdlog::level::warn;
    if (level == 3) return spdlog::level::err;
    return spdlog::level::critical;
}

spdlog::sink_ptr MakeSink(const std::string& target) {
    if (target.empty() || target == "stderr")
        return std::make_shared<spdlog::sinks::stderr_sink_mt>();
    try {
        return std::make_shared<spdlog::sinks::basic_file_sink_mt>(target, false);
    } catch (const std::exception& e) {
        throw StandaloneConfigError("log target '" + target + "': cannot open: " + e.what());
    }
}

}  // namespace

bool StandaloneLogger::IsValidLogLevel(std::string_view name) {
    for (const auto& entry : kLevelNames) {
        if (entry.name == name) return true;
    }
    return false;
}

StandaloneLogger::StandaloneLogger(const std::string& target, const std::string& level,
                                   const std::map<std::string, int, std::less<>>& traceLevels) {
    auto found = std::find_if(kLevelNames.begin(), kLevelNames.end(),
                              [&](const LevelName& n) { return n.name == level; });
    if (found == kLevelNames.end()) {
        throw StandaloneConfigError(
            "log level '" + level +
            "' is unknown (trace, debug, info, warn, error, critical, off)");
    }
    auto sink = MakeSink(target);
    logger_ = std::make_shared<spdlog::logger>("MC", sink);
    logger_->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] %v");
    logger_->set_level(found->level);
    tracer_ = std::make_shared<spdlog::logger>("trace", sink);
    tracer_->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [trace] %v");
    tracer_->set_level(spdlog::level::trace);
    for (const auto& [channel, lvl] : traceLevels) SetTraceLevel(channel, lvl);
}

StandaloneLogger::~StandaloneLogger() {
    if (logger_) logger_->flush();
}

bool StandaloneLogger::ShouldLog(int level) const {
    return logger_->should_log(HostLevel(level));
}

void StandaloneLogger::Log(int level, std::string_view category, std::string_view event,
                           std::string_view text) {
    const auto lvl = HostLevel(level);
    if (!logger_->should_log(lvl)) return;
    logger_->log(lvl, "{} {}: {}", category, event, text);
    if (lvl >= spdlog::level::err) logger_->flush();
}

bool StandaloneLogger::IsTraceEnabled(std::string_view channel, int level) const {
    if (!anyChannel_.load(std::memory_order_acquire)) return false;
    std::shared_lock lock(mutex_);
    auto it = levels_.find(channel);
    if (it == levels_.end()) it = levels_.find(std::string_view("*"));
    return it != levels_.end() && it->second >= level;
}

void StandaloneLogger::Trace(std::string_view channel, int level, std::string_view text) {
    if (!IsTraceEnabled(channel, level)) return;
    traceLines_.fetch_add(1, std::memory_order_relaxed);
    tracer_->trace("{}({}) {}", channel, level, text);
}

void StandaloneLogger::SetTraceLevel(std::string_view channel, int level) {
    std::unique_lock lock(mutex_);
    if (level < 0) {
        auto it = levels_.find(channel);
        if (it != levels_.end()) levels_.erase(it);
    } else {
        levels_.insert_or_assign(std::string(channel), level);
    }
    anyChannel_.store(!levels_.empty(), std::memory_order_release);
}

std::vector<std::pair<std::string, int>> StandaloneLogger::Channels() const {
    std::shared_lock lock(mutex_);
    return {levels_.begin(), levels_.end()};
}

}  // namespace velacore
