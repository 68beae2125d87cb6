// StandaloneConfig: reading the TOML file and the MC_* environment overrides. Every error names
// its source (file or variable) and key; docs/configuration.md is the reference.
#include <toml++/toml.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "mc/standalone/StandaloneHost.h"
#include "standalone/StandaloneHostLog.h"
#include "standalone/StandaloneSystem.h"

namespace velacore {
namespace {

std::string_view Trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

std::string Lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Splits on sep, trimming each piece and dropping empty ones.
std::vector<std::string_view> Split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    size_t start = 0;
    while (start <= s.size()) {
        size_t end = s.find(sep, start);
        if (end == std::string_view::npos) end = s.size();
        auto piece = Trim(s.substr(start, end - start));
        if (!piece.empty()) out.push_back(piece);
        start = end + 1;
    }
    return out;
}

std::optional<int64_t> ParseInt(std::string_view s) {
    s = Trim(s);
    int64_t v = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || ptr != s.data() + s.size() || s.empty()) return std::nullopt;
    return v;
}

std::optional<bool> ParseBool(std::string_view s) {
    const std::string v = Lower(Trim(s));
    if (v == "1" || v == "true" || v == "yes" || v == "on") return true;
    if (v == "0" || v == "false" || v == "no" || v == "off") return false;
    return std::nullopt;
}

// --- TOML ---------------------------------------------------------------------------------

// Reads one document, remembering its name for error messages.
class TomlReader {
public:
    TomlReader(std::string_view source, StandaloneConfig& config)
        : source_(source), config_(config) {}

    void Read(const toml::table& root) {
        for (auto&& [key, node] : root) {
            const std::string name(key.str());
            const toml::table* table = node.as_table();
            if (!table) Fail(name, "expected a table like [" + name + "]");
            if (name == "memory") {
                ReadMemory(*table);
            } else if (name == "media") {
                ReadMedia(*table);
            } else if (name == "log") {
                ReadLog(*table);
            } else if (name == "trace") {
                ReadTrace(*table);
            } else if (name == "profiling") {
                ReadProfiling(*table);
            } else if (name == "debug") {
                for (auto&& [k, v] : *table)
                    config_.debugEntries[std::string(k.str())] =
                        Text("debug." + std::string(k.str()), v);
            } else if (name == "preferences") {
                ReadPreferences(*table);
            } else if (name == "beta") {
                ReadBeta(*table);
            } else if (name == "identity") {
                ReadIdentity(*table);
            } else if (name == "remote") {
                ReadRemote(*table);
            } else {
                Fail(name, "unknown table");
            }
        }
    }

private:
    [[noreturn]] void Fail(const std::string& key, const std::string& what) const {
        throw StandaloneConfigError(std::string(source_) + ": key '" + key + "': " + what);
    }

    std::string Text(const std::string& key, const toml::node& node) const {
        if (auto s = node.value_exact<std::string>()) return *s;
        if (auto i = node.value_exact<int64_t>()) return std::to_string(*i);
        if (auto b = node.value_exact<bool>()) return *b ? "true" : "false";
        if (auto d = node.value_exact<double>()) {
            std::ostringstream out;
            out << *d;
            return out.str();
        }
        Fail(key, "expected a string, number or boolean");
    }
    std::string String(const std::string& key, const toml::node& node) const {
        auto s = node.value_exact<std::string>();
        if (!s) Fail(key, "expected a string");
        return *s;
    }
    int64_t Int(const std::string& key, const toml::node& node, int64_t lo, int64_t hi) const {
        auto i = node.value_exact<int64_t>();
        if (!i) Fail(key, "expected an integer");
        if (*i < lo || *i > hi) {
            Fail(key,
                 "expected an integer from " + std::to_string(lo) + " to " + std::to_string(hi));
        }
        return *i;
    }
    bool Bool(const std::string& key, const toml::node& node) const {
        auto b = node.value_exact<bool>();
        if (!b) Fail(key, "expected true or false");
        return *b;
    }
    uint64_t Bytes(const std::string& key, const toml::node& node) const {
        if (auto i = node.value_exact<int64_t>()) {
            if (*i < 0) Fail(key, "expected a non-negative byte count");
            return static_cast<uint64_t>(*i);
        }
        auto s = node.value_exact<std::string>();
        if (!s) Fail(key, "expected a byte count or a text like \"512M\", \"2G\" or \"25%\"");
        try {
            return ParseByteAmount(*s, hostsys::PhysicalMemoryBytes());
        } catch (const std::invalid_argument& e) {
            Fail(key, e.what());
        }
    }

    void ReadRemote(const toml::table& t) {
        RemoteTierSettings& r = config_.remote;
        for (auto&& [k, v] : t) {
            const std::string key = "remote." + std::string(k.str());
            if (k == "urls") {
                const toml::array* urls = v.as_array();
                if (!urls) Fail(key, "expected an array of \"redis://host:port\" texts");
                r.urls.clear();
                for (const toml::node& url : *urls) r.urls.push_back(String(key, url));
            } else if (k == "connect_timeout_ms") {
                r.connectTimeoutMs = static_cast<int>(Int(key, v, 1, 600000));
            } else if (k == "operation_timeout_ms") {
                r.operationTimeoutMs = static_cast<int>(Int(key, v, 1, 600000));
            } else if (k == "backoff_ms") {
                r.backoffMs = static_cast<int>(Int(key, v, 1, 3600000));
            } else if (k == "max_item_bytes") {
                r.maxItemBytes = Bytes(key, v);
            } else if (k == "publish_queue") {
                r.publishQueueLength = static_cast<uint32_t>(Int(key, v, 1, 100000));
            } else if (k == "read_only") {
                r.readOnly = Bool(key, v);
            } else {
                Fail(key, "unknown key");
            }
        }
    }

    void ReadMemory(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "memory." + std::string(k.str());
            if (k.str() == "budget") {
                config_.memoryBudget = Bytes(key, v);
            } else if (k.str() == "low_water_percent") {
                config_.lowWaterPercent = static_cast<int>(Int(key, v, 1, 100));
            } else if (k.str() == "monitor_interval_ms") {
                config_.monitorInterval = std::chrono::milliseconds(Int(key, v, 1, 60000));
            } else {
                Fail(key, "unknown key");
            }
        }
    }
    void ReadMedia(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "media." + std::string(k.str());
            if (k.str() != "budget") Fail(key, "unknown key");
            config_.mediaBudget = Bytes(key, v);
        }
    }
    void ReadLog(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "log." + std::string(k.str());
            if (k.str() == "target") {
                config_.logTarget = String(key, v);
            } else if (k.str() == "level") {
                std::string level = Lower(String(key, v));
                if (!StandaloneLogger::IsValidLogLevel(level)) {
                    Fail(key, "unknown level '" + level +
                                  "' (trace, debug, info, warn, error, critical, off)");
                }
                config_.logLevel = level;
            } else {
                Fail(key, "unknown key");
            }
        }
    }
    void ReadTrace(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string channel(k.str());
            config_.traceLevels[channel] = static_cast<int>(Int("trace." + channel, v, 0, 1000));
        }
    }
    void ReadProfiling(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "profiling." + std::string(k.str());
            if (k.str() == "enabled") {
                config_.profiling = Bool(key, v);
            } else if (k.str() == "volume") {
                config_.profilingVolume = static_cast<int>(Int(key, v, 0, 1000));
            } else {
                Fail(key, "unknown key");
            }
        }
    }
    void ReadPreferences(const toml::table& t) {
        for (auto&& [section, node] : t) {
            const std::string prefix = "preferences." + std::string(section.str());
            const toml::table* keys = node.as_table();
            if (!keys) Fail(prefix, "expected a table like [" + prefix + "]");
            for (auto&& [k, v] : *keys) {
                config_.preferences[{std::string(section.str()), std::string(k.str())}] =
                    Text(prefix + "." + std::string(k.str()), v);
            }
        }
    }
    void ReadBeta(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "beta." + std::string(k.str());
            if (k.str() == "build") {
                config_.betaBuild = Bool(key, v);
            } else if (k.str() == "features") {
                const toml::array* names = v.as_array();
                if (!names) Fail(key, "expected an array of names like [\"Name\"]");
                for (const toml::node& name : *names)
                    config_.betaFeatures.insert(String(key, name));
            } else {
                Fail(key, "unknown key");
            }
        }
    }
    void ReadIdentity(const toml::table& t) {
        for (auto&& [k, v] : t) {
            const std::string key = "identity." + std::string(k.str());
            if (k.str() == "client_version") {
                config_.clientVersion = String(key, v);
                if (config_.clientVersion.empty()) Fail(key, "must not be empty");
            } else if (k.str() == "computer_name") {
                config_.computerName = String(key, v);
            } else if (k.str() == "frontmost") {
                config_.frontmost = Bool(key, v);
            } else {
                Fail(key, "unknown key");
            }
        }
    }

    std::string_view source_;
    StandaloneConfig& config_;
};

// --- environment --------------------------------------------------------------------------

[[noreturn]] void FailEnv(std::string_view name, std::string_view value, const std::string& what) {
    throw StandaloneConfigError("environment " + std::string(name) + "='" + std::string(value) +
                                "': " + what);
}

void ApplyTrace(std::string_view value, StandaloneConfig& config) {
    for (auto item : Split(value, ',')) {
        const size_t colon = item.rfind(':');
        const auto level =
            colon == std::string_view::npos ? std::nullopt : ParseInt(item.substr(colon + 1));
        const auto channel =
            colon == std::string_view::npos ? std::string_view{} : Trim(item.substr(0, colon));
        if (!level || *level < 0 || *level > 1000 || channel.empty()) {
            FailEnv("MC_TRACE", value, "expected Channel:level items like \"MC:7,DiskCache:6\"");
        }
        config.traceLevels[std::string(channel)] = static_cast<int>(*level);
    }
}

void ApplyDebug(std::string_view value, StandaloneConfig& config) {
    for (auto item : Split(value, ';')) {
        const size_t eq = item.find('=');
        if (eq == std::string_view::npos || Trim(item.substr(0, eq)).empty()) {
            FailEnv("MC_DEBUG", value, "expected Name=value items separated by ';'");
        }
        config.debugEntries[std::string(Trim(item.substr(0, eq)))] =
            std::string(Trim(item.substr(eq + 1)));
    }
}

void ApplyPrefs(std::string_view value, StandaloneConfig& config) {
    for (auto item : Split(value, ';')) {
        const size_t eq = item.find('=');
        const auto path = Trim(item.substr(0, eq == std::string_view::npos ? 0 : eq));
        const size_t slash = path.find('/');
        if (eq == std::string_view::npos || slash == std::string_view::npos || slash == 0 ||
            slash + 1 == path.size()) {
            FailEnv("MC_PREFS", value, "expected Section/Key=value items separated by ';'");
        }
        config.preferences[{std::string(path.substr(0, slash)),
                            std::string(path.substr(slash + 1))}] =
            std::string(Trim(item.substr(eq + 1)));
    }
}

uint64_t EnvBytes(std::string_view name, std::string_view value) {
    try {
        return ParseByteAmount(value, hostsys::PhysicalMemoryBytes());
    } catch (const std::invalid_argument& e) {
        FailEnv(name, value, e.what());
    }
}

}  // namespace

uint64_t ParseByteAmount(std::string_view text, uint64_t physical) {
    std::string_view s = Trim(text);
    if (!s.empty() && s.back() == '%') {
        auto percent = ParseInt(s.substr(0, s.size() - 1));
        if (!percent || *percent < 0 || *percent > 100) {
            throw std::invalid_argument("a percentage of physical memory must be 0% to 100%");
        }
        const auto p = static_cast<uint64_t>(*percent);
        return physical / 100 * p + physical % 100 * p / 100;  // exact, no overflow
    }
    if (!s.empty() && (s.back() == 'b' || s.back() == 'B')) s.remove_suffix(1);
    uint64_t unit = 1;
    if (!s.empty()) {
        const char last = static_cast<char>(std::toupper(static_cast<unsigned char>(s.back())));
        const std::string_view units = "KMGT";
        if (size_t at = units.find(last); at != std::string_view::npos) {
            unit = uint64_t{1} << (10 * (at + 1));
            s.remove_suffix(1);
        }
    }
    s = Trim(s);
    uint64_t value = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ec == std::errc::result_out_of_range && ptr == s.data() + s.size()) {
        throw std::invalid_argument("byte amount too large");
    }
    if (s.empty() || ec != std::errc() || ptr != s.data() + s.size()) {
        throw std::invalid_argument("expected a byte amount like 1048576, 512K, 64M, 2G or 25%");
    }
    if (value > std::numeric_limits<uint64_t>::max() / unit) {
        throw std::invalid_argument("byte amount too large");
    }
    return value * unit;
}

StandaloneConfig StandaloneConfig::FromTomlText(std::string_view text, std::string_view source) {
    StandaloneConfig config;
    toml::table root;
    try {
        root = toml::parse(text, source);
    } catch (const toml::parse_error& e) {
        std::ostringstream msg;
        msg << source << ":" << e.source().begin.line << ":" << e.source().begin.column << ": "
            << e.description();
        throw StandaloneConfigError(msg.str());
    }
    TomlReader(source, config).Read(root);
    return config;
}

StandaloneConfig StandaloneConfig::FromTomlFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    if (!in || in.bad()) throw StandaloneConfigError(path + ": cannot read the configuration file");
    StandaloneConfig config = FromTomlText(text.str(), path);
    config.configFile = path;
    return config;
}

StandaloneConfig StandaloneConfig::FromLookup(const EnvLookup& lookup) {
    StandaloneConfig config;
    if (auto file = lookup("MC_CONFIG"); file && !file->empty()) config = FromTomlFile(*file);
    config.ApplyEnvironment(lookup);
    return config;
}

StandaloneConfig StandaloneConfig::FromEnvironment() {
    return FromLookup([](std::string_view name) -> std::optional<std::string> {
        const char* value = std::getenv(std::string(name).c_str());
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    });
}

void StandaloneConfig::ApplyEnvironment(const EnvLookup& lookup) {
    if (auto v = lookup("MC_MEMORY_BUDGET")) memoryBudget = EnvBytes("MC_MEMORY_BUDGET", *v);
    if (auto v = lookup("MC_MEDIA_BUDGET")) mediaBudget = EnvBytes("MC_MEDIA_BUDGET", *v);
    if (auto v = lookup("MC_TRACE")) ApplyTrace(*v, *this);
    if (auto v = lookup("MC_LOG")) logTarget = std::string(Trim(*v));
    if (auto v = lookup("MC_LOG_LEVEL")) {
        std::string level = Lower(Trim(*v));
        if (!StandaloneLogger::IsValidLogLevel(level)) {
            FailEnv("MC_LOG_LEVEL", *v,
                    "expected trace, debug, info, warn, error, critical or off");
        }
        logLevel = level;
    }
    if (auto v = lookup("MC_DEBUG")) ApplyDebug(*v, *this);
    if (auto v = lookup("MC_PREFS")) ApplyPrefs(*v, *this);
    if (auto v = lookup("MC_BETA_FEATURES")) {
        for (auto name : Split(*v, ',')) betaFeatures.emplace(name);
    }
    if (auto v = lookup("MC_CLIENT_VERSION")) {
        if (Trim(*v).empty()) FailEnv("MC_CLIENT_VERSION", *v, "must not be empty");
        clientVersion = std::string(Trim(*v));
    }
    if (auto v = lookup("MC_BETA_BUILD")) {
        auto flag = ParseBool(*v);
        if (!flag) FailEnv("MC_BETA_BUILD", *v, "expected 1, 0, true, false, yes, no, on or off");
        betaBuild = *flag;
    }
    if (auto v = lookup("MC_COMPUTER_NAME")) computerName = std::string(Trim(*v));
    if (auto v = lookup("MC_REMOTE_URLS")) {
        remote.urls.clear();
        for (auto url : Split(*v, ',')) remote.urls.emplace_back(url);
    }
    if (auto v = lookup("MC_REMOTE_READ_ONLY")) {
        auto flag = ParseBool(*v);
        if (!flag)
            FailEnv("MC_REMOTE_READ_ONLY", *v, "expected 1, 0, true, false, yes, no, on or off");
        remote.readOnly = *flag;
    }
    if (auto v = lookup("MC_REMOTE_MAX_ITEM"))
        remote.maxItemBytes = EnvBytes("MC_REMOTE_MAX_ITEM", *v);
    if (auto v = lookup("MC_REMOTE_TIMEOUT_MS")) {
        auto ms = ParseInt(*v);
        if (!ms || *ms < 1 || *ms > 600000)
            FailEnv("MC_REMOTE_TIMEOUT_MS", "(value)", "expected milliseconds from 1 to 600000");
        remote.operationTimeoutMs = static_cast<int>(*ms);
    }
}

}  // namespace velacore
