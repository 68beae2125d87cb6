#include "Admin.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Output.h"
#include "disk/CacheFile.h"
#include "helpers/Terminal.h"
#include "mc/MC.h"
#include "mc/host/ByteStream.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"

namespace mcache {

namespace {

namespace fs = std::filesystem;

// What one file in a cache folder turned out to be.
struct Entry {
    fs::path path;
    std::string name;
    bool valid = false;
    bool unframed = false;  // valid for readers, but without a cache-file header
    std::string problem;
    std::string guid, matchname;
    uint32_t version = 0;
    size_t headerBytes = 0;
    uint64_t size = 0;
    double computeTime = 0;
    double ageSeconds = 0;
};

// A path below `base` made from a relative folder path in UTF-16 (native separators), one
// component at a time through the host's UTF-16 names: non-ASCII folders come out right on
// every system.
fs::path Below(const fs::path& base, std::u16string_view relative) {
    const auto separator = static_cast<char16_t>(fs::path::preferred_separator);
    velacore::Dir dir(base);
    while (!relative.empty()) {
        const size_t end = std::min(relative.find(separator), relative.size());
        if (end > 0) dir = dir.GetSubdir(relative.substr(0, end));
        relative.remove_prefix(std::min(end + 1, relative.size()));
    }
    return dir.GetFullPath();
}

// A folder the command can read; otherwise one line saying why not.
bool RequireFolder(const fs::path& folder) {
    std::error_code ec;
    const fs::file_status st = fs::status(folder, ec);
    const char* problem = nullptr;
    if (!fs::exists(st))
        problem = "no such folder";
    else if (!fs::is_directory(st))
        problem = "not a folder";
    std::string why;
    if (!problem) {
        fs::directory_iterator probe(folder, ec);
        if (ec) {
            why = "cannot read the folder: " + ec.message();
            problem = why.c_str();
        }
    }
    if (problem) std::fprintf(stderr, "mcache: %s: %s\n", PathText(folder).c_str(), problem);
    return problem == nullptr;
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
        ParsedCacheFileName parsed = MCp_CacheFile::ParseName(file, *version);
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
            e.unframed = true;
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
    velacore::RecursiveFileIterator it(velacore::Dir(folder), [](const velacore::File& f) {
        return MCp_CacheFile::IsCacheFile(f);
    });
    velacore::File file;
    while (it.Next(file)) entries.push_back(Inspect(file));
    return entries;
}

std::string Age(double seconds) {
    char buf[32];
    if (seconds < 120)
        std::snprintf(buf, sizeof buf, "%.0fs", seconds);
    else if (seconds < 7200)
        std::snprintf(buf, sizeof buf, "%.0fm", seconds / 60);
    else if (seconds < 172800)
        std::snprintf(buf, sizeof buf, "%.0fh", seconds / 3600);
    else
        std::snprintf(buf, sizeof buf, "%.0fd", seconds / 86400);
    return buf;
}

nlohmann::json EntryJson(const Entry& e) {
    return {{"path", PathText(e.path)},      {"valid", e.valid},
            {"problem", e.problem},          {"guid", e.guid},
            {"matchname", e.matchname},      {"version", e.version},
            {"header_bytes", e.headerBytes}, {"size", e.size},
            {"compute_time", e.computeTime}, {"age_seconds", e.ageSeconds},
            {"unframed", e.unframed}};
}

// The per-version folders under root's product folder, with their bytes and files. Returns an
// error text when a folder that exists cannot be read.
std::string VersionUsage(const fs::path& root,
                         std::map<std::string, std::pair<uint64_t, uint64_t>>& perVersion) {
    const fs::path product = Below(root, MC_OstrelZKDirs());
    std::error_code ec;
    if (!fs::is_directory(product, ec)) return {};
    fs::directory_iterator versions(product, ec);
    if (ec) return PathText(product) + ": cannot read the folder: " + ec.message();
    for (const auto& version : versions) {
        if (!version.is_directory(ec) || version.is_symlink(ec)) continue;
        fs::directory_iterator probe(version.path(), ec);
        if (ec) return PathText(version.path()) + ": cannot read the folder: " + ec.message();
        auto& slot = perVersion[PathText(version.path().filename())];
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
    return {};
}

std::string VersionLabel(const std::string& folderName) {
    return folderName + " (" +
           std::to_string(
               velacore::StandaloneHostServices::AppVersionFromClientVersion(folderName)) +
           ")";
}

}  // namespace

int ListFolder(const fs::path& folder, bool json) {
    if (!RequireFolder(folder)) return 2;
    const std::vector<Entry> entries = InspectFolder(folder);
    if (json) {
        nlohmann::json j = nlohmann::json::array();
        for (const Entry& e : entries) j.push_back(EntryJson(e));
        std::printf("%s\n", JsonText(j).c_str());
        return 0;
    }
    std::printf("%-36s  %-12s %-11s %6s %10s %9s %6s\n", "GUID", "MATCHNAME", "VERSION", "HEADER",
                "SIZE", "COMPUTE", "AGE");
    uint64_t total = 0;
    for (const Entry& e : entries) {
        total += e.size;
        if (!e.valid) {
            std::printf("%s  invalid: %s\n", e.name.c_str(), e.problem.c_str());
            continue;
        }
        std::printf("%-36s  %-12s %-11s %6zu %10s %8.3fs %6s%s\n", e.guid.c_str(),
                    e.matchname.c_str(), AppVersionText(e.version).c_str(), e.headerBytes,
                    Bytes(static_cast<double>(e.size)).c_str(), e.computeTime,
                    Age(e.ageSeconds).c_str(), e.unframed ? "  (unframed)" : "");
    }
    std::printf("%zu files, %s\n", entries.size(), Bytes(static_cast<double>(total)).c_str());
    return 0;
}

int VerifyFolder(const fs::path& folder, bool deleteInvalid, bool strict, bool json) {
    if (!RequireFolder(folder)) return 2;
    const std::vector<Entry> entries = InspectFolder(folder);
    size_t invalid = 0, deleted = 0;
    nlohmann::json bad = nlohmann::json::array();
    for (const Entry& e : entries) {
        if (e.valid && !(strict && e.unframed)) continue;
        ++invalid;
        bad.push_back(EntryJson(e));
        if (!json) std::printf("invalid: %s: %s\n", PathText(e.path).c_str(), e.problem.c_str());
        if (deleteInvalid) {
            std::error_code ec;
            if (fs::remove(e.path, ec))
                ++deleted;
            else
                std::fprintf(stderr, "mcache: cannot delete %s: %s\n", PathText(e.path).c_str(),
                             ec.message().c_str());
        }
    }
    if (json) {
        std::printf("%s\n", nlohmann::json{{"files", entries.size()},
                                           {"invalid", invalid},
                                           {"deleted", deleted},
                                           {"invalid_files", bad}}
                                .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
                                .c_str());
    } else {
        std::printf("%zu files checked, %zu invalid%s\n", entries.size(), invalid,
                    deleteInvalid ? (", " + std::to_string(deleted) + " deleted").c_str() : "");
    }
    return invalid == deleted ? 0 : 1;
}

int DiskUsage(const fs::path& root, bool json) {
    if (!RequireFolder(root)) return 2;
    std::map<std::string, std::pair<uint64_t, uint64_t>> perVersion;  // bytes, files
    if (const std::string problem = VersionUsage(root, perVersion); !problem.empty()) {
        std::fprintf(stderr, "mcache: %s\n", problem.c_str());
        return 2;
    }
    uint64_t total = 0, files = 0;
    nlohmann::json j;
    for (const auto& [version, usage] : perVersion) {
        total += usage.first;
        files += usage.second;
        j["versions"][version] = {{"bytes", usage.first},
                                  {"files", usage.second},
                                  {"app_version", VersionLabel(version)}};
        if (!json)
            std::printf("%-20s %12s  %8llu files\n", VersionLabel(version).c_str(),
                        Bytes(static_cast<double>(usage.first)).c_str(),
                        static_cast<unsigned long long>(usage.second));
    }
    if (json) {
        j["total"] = {{"bytes", total}, {"files", files}};
        std::printf("%s\n", JsonText(j).c_str());
    } else {
        std::printf("%-20s %12s  %8llu files\n", "total", Bytes(static_cast<double>(total)).c_str(),
                    static_cast<unsigned long long>(files));
    }
    return 0;
}

namespace {

// Bytes of this version's folder (and of the others when `others`), without touching anything.
int PurgeDryRun(const fs::path& root, bool others, bool json) {
    std::map<std::string, std::pair<uint64_t, uint64_t>> perVersion;
    if (const std::string problem = VersionUsage(root, perVersion); !problem.empty()) {
        std::fprintf(stderr, "mcache: %s\n", problem.c_str());
        return 2;
    }
    const std::string mine = velacore::StandaloneConfig::FromEnvironment().clientVersion;
    uint64_t bytes = 0, files = 0, kept = 0;
    for (const auto& [version, usage] : perVersion) {
        const bool goes = others || version == mine;
        (goes ? bytes : kept) += usage.first;
        if (goes) files += usage.second;
    }
    if (json) {
        std::printf("%s\n", JsonText({{"root", PathText(root)},
                                      {"dry_run", true},
                                      {"purged_bytes", bytes},
                                      {"purged_files", files},
                                      {"left_bytes", kept}})
                                .c_str());
    } else {
        std::printf(
            "would purge %s in %llu files (%s would be left%s)\n",
            Bytes(static_cast<double>(bytes)).c_str(), static_cast<unsigned long long>(files),
            Bytes(static_cast<double>(kept)).c_str(), others ? "" : "; other versions kept");
    }
    return 0;
}

// Removes, deepest first, the folders of `chain` that did not exist before and are empty.
void RemoveCreated(const std::vector<std::pair<fs::path, bool>>& chain) {
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        std::error_code ec;
        if (!it->second) fs::remove(it->first, ec);  // fails harmlessly when not empty
    }
}

}  // namespace

int PurgeRoot(const fs::path& root, bool otherVersions, bool dryRun, bool json) {
    if (!RequireFolder(root)) return 2;
    if (dryRun) return PurgeDryRun(root, otherVersions, json);
    const fs::path product = Below(root, MC_OstrelZKDirs());
    std::error_code ec;
    if (!fs::is_directory(product, ec)) {  // no cache here: create nothing, delete nothing
        if (json)
            std::printf("%s\n", JsonText({{"root", PathText(root)},
                                          {"dry_run", false},
                                          {"purged_bytes", 0},
                                          {"left_bytes", 0}})
                                    .c_str());
        else
            std::printf("nothing to purge: no disk cache under %s\n", PathText(root).c_str());
        return 0;
    }
    auto host = velacore::StandaloneHostServices::CreateFromEnvironment();
    const fs::path version =
        Below(product, MC_ZKVersDir(velacore::ToUtf16(host->Config().clientVersion)));
    const fs::path machine = Below(version, MC_GetMachineDirName());
    const std::vector<std::pair<fs::path, bool>> chain = {{version, fs::exists(version, ec)},
                                                          {machine, fs::exists(machine, ec)}};
    velacore::SetHostServices(host);
    MC_Birth(false, static_cast<unsigned>(host->AppVersion()), false);
    int status = 0;
    try {
        std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
        bag->SetDiskCacheInfo(velacore::Dir(root), 0);
        unsigned folders = 0;
        const uint64_t before = bag->FindDiskCacheSizeAcrossVersions(folders);
        unsigned done = 0, total = otherVersions ? std::max(1u, folders) : 1u;
        const bool terminal = velacore::IsStderrTerminal() && !json;
        std::pair<unsigned, unsigned> shown{~0u, ~0u};
        auto progress = [terminal, &shown](unsigned d, unsigned t) {
            if (!terminal || shown == std::make_pair(d, t)) return;
            shown = {d, t};
            const int width = 30;
            const int filled = t ? static_cast<int>(width * std::min(d, t) / t) : width;
            std::fprintf(stderr, "\r[%.*s%*s] %u/%u folders", filled,
                         "##############################", width - filled, "", d, t);
        };
        bag->PurgeAllDiskCaches(progress, otherVersions, done, total);
        progress(done, total);  // shown only when the purge did not report its end itself
        if (terminal) std::fprintf(stderr, "\n");
        const uint64_t after = bag->FindDiskCacheSizeAcrossVersions(folders);
        const uint64_t purged = before - std::min(before, after);
        if (json)
            std::printf("%s\n", JsonText({{"root", PathText(root)},
                                          {"dry_run", false},
                                          {"purged_bytes", purged},
                                          {"left_bytes", after}})
                                    .c_str());
        else
            std::printf("purged %s (%s left%s)\n", Bytes(static_cast<double>(purged)).c_str(),
                        Bytes(static_cast<double>(after)).c_str(),
                        otherVersions ? "" : "; other versions kept");
    } catch (int code) {
        std::fprintf(stderr, "mcache: cannot use %s as a disk-cache root: %s\n",
                     PathText(root).c_str(), ErrorText(code).c_str());
        status = 2;
    }
    MC_StopAllAsyncWork();
    MC_Death();
    velacore::SetHostServices(nullptr);
    RemoveCreated(chain);
    return status;
}

int TrimFolder(const fs::path& folder, uint64_t budget, bool dryRun, bool json) {
    if (!RequireFolder(folder)) return 2;
    std::vector<Entry> entries = InspectFolder(folder);
    // Least recently used first: the oldest modification time (the cache's last-use stamp on
    // disk) goes first.
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.ageSeconds > b.ageSeconds; });
    uint64_t total = 0;
    for (const Entry& e : entries) total += e.size;
    uint64_t left = total, freed = 0, removed = 0, failed = 0;
    for (const Entry& e : entries) {
        if (left <= budget) break;
        std::error_code ec;
        if (!dryRun && !fs::remove(e.path, ec)) {
            ++failed;
            std::fprintf(stderr, "mcache: cannot delete %s: %s\n", PathText(e.path).c_str(),
                         ec ? ec.message().c_str() : "already gone");
            continue;
        }
        left -= e.size;
        freed += e.size;
        ++removed;
    }
    if (json) {
        std::printf("%s\n", JsonText({{"folder", PathText(folder)},
                                      {"dry_run", dryRun},
                                      {"budget", budget},
                                      {"before_bytes", total},
                                      {"deleted_files", removed},
                                      {"deleted_bytes", freed},
                                      {"left_bytes", left}})
                                .c_str());
    } else {
        std::printf(
            "%s %llu files, %s; %s left of %s (budget %s)\n", dryRun ? "would delete" : "deleted",
            static_cast<unsigned long long>(removed), Bytes(static_cast<double>(freed)).c_str(),
            Bytes(static_cast<double>(left)).c_str(), Bytes(static_cast<double>(total)).c_str(),
            Bytes(static_cast<double>(budget)).c_str());
    }
    return failed ? 2 : 0;
}

}  // namespace mcache
