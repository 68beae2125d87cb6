#include "Admin.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Output.h"
#include "disk/CacheFileFormat.h"
#include "mc/MC.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/host/StandaloneHost.h"
#include "mc/host/Terminal.h"
#include "mc/host/TextConvert.h"

namespace mcache {

namespace {

namespace fs = std::filesystem;

// What one file in a cache folder turned out to be.
struct Entry {
    fs::path path;
    std::string name;
    bool valid = false;
    std::string problem;
    std::string guid, matchname;
    uint32_t version = 0;
    size_t headerBytes = 0;
    uint64_t size = 0;
    double computeTime = 0;
    double ageSeconds = 0;
};

bool RequireFolder(const fs::path& folder) {
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        std::fprintf(stderr, "mcache: %s: no such folder\n", folder.c_str());
        return false;
    }
    return true;
}

// The version field of a cache-file name, or nothing when the name has too few fields.
std::optional<uint32_t> NameVersion(const std::string& name) {
    size_t pos = 0;
    for (int i = 0; i < 2; ++i) {
        pos = name.find('.', pos);
        if (pos == std::string::npos) return std::nullopt;
        ++pos;
    }
    const size_t end = name.find('.', pos);
    if (end == std::string::npos || end == pos) return std::nullopt;
    const std::string text = name.substr(pos, end - pos);
    char* stop = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &stop, 16);
    if (*stop != '\0' || v > 0xFFFFFFFFull) return std::nullopt;
    return static_cast<uint32_t>(v);
}

Entry Inspect(const velacore::File& file) {
    Entry e;
    e.path = file.GetFullPath();
    e.name = velacore::ToUtf8(file.GetName());
    try {
        e.size = file.Size();
        const auto modified = std::chrono::nanoseconds(file.Modified());
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        e.ageSeconds = std::chrono::duration<double>(now - modified).count();
    } catch (const std::exception& ex) {
        e.problem = ex.what();
        return e;
    }
    const std::optional<uint32_t> version = NameVersion(e.name);
    if (!version) {
        e.problem = "name has no valid version field";
        return e;
    }
    try {
        ParsedCacheFileName parsed = ParseCacheFileName(file, *version);
        e.guid = parsed.guid.AsString();
        e.matchname = velacore::ToUtf8(parsed.matchname);
        e.version = parsed.appVersion;
        e.headerBytes = parsed.header.size();
    } catch (int) {
        e.problem = "name does not parse";
        return e;
    }
    if (e.size < kCacheFileHeaderSize) {
        e.problem = "shorter than the 32-byte header";
        return e;
    }
    try {
        velacore::IPlatformByteStream in(file, 1);
        const CacheFileHeader h = CacheFileHeader::ReadFrom(in);
        if (h.magic != kCacheFileMagic) {
            e.problem = "no cache-file header (unframed payload)";
            e.valid = true;  // readers accept unframed files
            return e;
        }
        if (h.formatVersion != kCacheFileFormatVersion) {
            e.problem = "unknown format version " + std::to_string(h.formatVersion);
            return e;
        }
        if (h.appVersion != e.version) {
            e.problem = "header and name disagree on the version";
            return e;
        }
        e.computeTime = h.computeTime;
    } catch (const std::exception& ex) {
        e.problem = ex.what();
        return e;
    }
    e.valid = true;
    return e;
}

std::vector<Entry> InspectFolder(const fs::path& folder) {
    std::vector<Entry> entries;
    velacore::RecursiveFileIterator it(velacore::Dir(folder),
                                       [](const velacore::File& f) { return IsCacheFile(f); });
    velacore::File file;
    while (it.Next(file)) entries.push_back(Inspect(file));
    return entries;
}

std::string Age(double seconds) {
    char buf[32];
    if (seconds < 120) std::snprintf(buf, sizeof buf, "%.0fs", seconds);
    else if (seconds < 7200) std::snprintf(buf, sizeof buf, "%.0fm", seconds / 60);
    else if (seconds < 172800) std::snprintf(buf, sizeof buf, "%.0fh", seconds / 3600);
    else std::snprintf(buf, sizeof buf, "%.0fd", seconds / 86400);
    return buf;
}

nlohmann::json EntryJson(const Entry& e) {
    return {{"path", e.path.string()},    {"valid", e.valid},          {"problem", e.problem},
            {"guid", e.guid},             {"matchname", e.matchname},  {"version", e.version},
            {"header_bytes", e.headerBytes}, {"size", e.size},         {"compute_time", e.computeTime},
            {"age_seconds", e.ageSeconds}};
}

}  // namespace

int ListFolder(const fs::path& folder, bool json) {
    if (!RequireFolder(folder)) return 2;
    const std::vector<Entry> entries = InspectFolder(folder);
    if (json) {
        nlohmann::json j = nlohmann::json::array();
        for (const Entry& e : entries) j.push_back(EntryJson(e));
        std::printf("%s\n", j.dump(2).c_str());
        return 0;
    }
    std::printf("%-36s  %-12s %8s %6s %10s %9s %6s\n", "GUID", "MATCHNAME", "VERSION", "HEADER",
                "SIZE", "COMPUTE", "AGE");
    uint64_t total = 0;
    for (const Entry& e : entries) {
        total += e.size;
        if (e.guid.empty()) {
            std::printf("%-36s  invalid: %s\n", e.name.c_str(), e.problem.c_str());
            continue;
        }
        std::printf("%-36s  %-12s %8X %6zu %10s %8.3fs %6s\n", e.guid.c_str(),
                    e.matchname.c_str(), e.version, e.headerBytes,
                    Bytes(static_cast<double>(e.size)).c_str(), e.computeTime,
                    Age(e.ageSeconds).c_str());
    }
    std::printf("%zu files, %s\n", entries.size(), Bytes(static_cast<double>(total)).c_str());
    return 0;
}

int VerifyFolder(const fs::path& folder, bool deleteInvalid, bool json) {
    if (!RequireFolder(folder)) return 2;
    const std::vector<Entry> entries = InspectFolder(folder);
    size_t invalid = 0, deleted = 0;
    nlohmann::json bad = nlohmann::json::array();
    for (const Entry& e : entries) {
        if (e.valid) continue;
        ++invalid;
        bad.push_back(EntryJson(e));
        if (!json) std::printf("invalid: %s: %s\n", e.path.c_str(), e.problem.c_str());
        if (deleteInvalid) {
            std::error_code ec;
            if (fs::remove(e.path, ec)) ++deleted;
            else std::fprintf(stderr, "mcache: cannot delete %s: %s\n", e.path.c_str(),
                              ec.message().c_str());
        }
    }
    if (json) {
        std::printf("%s\n", nlohmann::json{{"files", entries.size()},
                                           {"invalid", invalid},
                                           {"deleted", deleted},
                                           {"invalid_files", bad}}
                                .dump(2)
                                .c_str());
    } else {
        std::printf("%zu files checked, %zu invalid%s\n", entries.size(), invalid,
                    deleteInvalid ? (", " + std::to_string(deleted) + " deleted").c_str() : "");
    }
    return invalid == deleted ? 0 : 1;
}

int DiskUsage(const fs::path& root, bool json) {
    if (!RequireFolder(root)) return 2;
    const fs::path product = root / fs::path(velacore::ToUtf8(MC_OstrelZKDirs())).relative_path();
    std::map<std::string, std::pair<uint64_t, uint64_t>> perVersion;  // bytes, files
    std::error_code ec;
    if (fs::is_directory(product, ec)) {
        for (const auto& version : fs::directory_iterator(product, ec)) {
            if (version.is_symlink() || !version.is_directory()) continue;  // not through links
            auto& slot = perVersion[version.path().filename().string()];
            velacore::RecursiveFileIterator it{velacore::Dir(version.path())};
            velacore::File file;
            while (it.Next(file)) {
                try {
                    slot.first += file.Size();
                    ++slot.second;
                } catch (const std::exception&) {
                    // vanished meanwhile
                }
            }
        }
    }
    uint64_t total = 0, files = 0;
    nlohmann::json j;
    for (const auto& [version, usage] : perVersion) {
        total += usage.first;
        files += usage.second;
        j["versions"][version] = {{"bytes", usage.first}, {"files", usage.second}};
        if (!json)
            std::printf("%-16s %12s  %8llu files\n", version.c_str(),
                        Bytes(static_cast<double>(usage.first)).c_str(),
                        static_cast<unsigned long long>(usage.second));
    }
    if (json) {
        j["total"] = {{"bytes", total}, {"files", files}};
        std::printf("%s\n", j.dump(2).c_str());
    } else {
        std::printf("%-16s %12s  %8llu files\n", "total", Bytes(static_cast<double>(total)).c_str(),
                    static_cast<unsigned long long>(files));
    }
    return 0;
}

int PurgeRoot(const fs::path& root, bool otherVersions) {
    if (!RequireFolder(root)) return 2;
    auto host = velacore::StandaloneHostServices::CreateFromEnvironment();
    velacore::SetHostServices(host);
    MC_Birth(false, static_cast<unsigned>(host->AppVersion()), false);
    int status = 0;
    try {
        std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
        bag->SetDiskCacheInfo(velacore::Dir(root), 0);
        unsigned folders = 0;
        const uint64_t before = bag->FindDiskCacheSizeAcrossVersions(folders);
        unsigned done = 0, total = otherVersions ? std::max(1u, folders) : 1u;
        const bool terminal = velacore::IsStderrTerminal();
        auto progress = [terminal](unsigned d, unsigned t) {
            const int width = 30;
            const int filled = t ? static_cast<int>(width * d / t) : width;
            std::fprintf(stderr, "%s[%.*s%*s] %u/%u folders%s", terminal ? "\r" : "", filled,
                         "##############################", width - filled, "", d, t,
                         terminal ? "" : "\n");
        };
        bag->PurgeAllDiskCaches(progress, otherVersions, done, total);
        progress(done, total);
        if (terminal) std::fprintf(stderr, "\n");
        const uint64_t after = bag->FindDiskCacheSizeAcrossVersions(folders);
        std::printf("purged %s (%s left%s)\n", Bytes(static_cast<double>(before - std::min(before, after))).c_str(),
                    Bytes(static_cast<double>(after)).c_str(),
                    otherVersions ? "" : "; other versions kept");
    } catch (int code) {
        std::fprintf(stderr, "mcache: cannot use %s as a disk-cache root (error %d)\n",
                     root.c_str(), code);
        status = 2;
    }
    MC_StopAllAsyncWork();
    MC_Death();
    velacore::SetHostServices(nullptr);
    return status;
}

}  // namespace mcache
