// File, Dir and the free file helpers, all through GetFileSystem().
#include "mc/host/File.h"

#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "mc/host/TextConvert.h"

namespace velacore {
namespace {

// Paths are made from UTF-8 (char8_t) so that the conversion is the same on every system.
std::filesystem::path Utf8ToPath(std::string_view utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::filesystem::path NameToPath(std::u16string_view name) {
    return Utf8ToPath(ToUtf8(name));
}

std::string PathToUtf8(const std::filesystem::path& path) {
    const std::u8string utf8 = path.u8string();
    return std::string(utf8.begin(), utf8.end());
}

std::u16string PathToUtf16(const std::filesystem::path& path) {
    return ToUtf16(PathToUtf8(path));
}

}  // namespace

// --- File -----------------------------------------------------------------------------------

File::File(const Dir& dir, std::u16string_view name)
    : path_(dir.GetFullPath() / NameToPath(name)) {}

std::u16string File::GetName() const {
    return PathToUtf16(path_.filename());
}

std::u16string File::GetExtension(bool withDot) const {
    const std::u16string name = GetName();
    const size_t dot = name.rfind(u'.');
    if (dot == std::u16string::npos) return {};
    return name.substr(withDot ? dot : dot + 1);
}

std::string File::GetFullPathUtf8() const {
    return PathToUtf8(path_);
}

Dir File::GetParent() const {
    return Dir(path_.parent_path());
}

bool File::Exists() const {
    return GetFileSystem().Exists(path_);
}

uint64_t File::Size() const {
    return GetFileSystem().FileSize(path_);
}

void File::Delete() const {
    GetFileSystem().DeleteFile(path_);
}

void File::Create(bool failIfExists) const {
    GetFileSystem().CreateFile(path_, failIfExists);
}

int64_t File::Created() const {
    return GetFileSystem().CreationTime(path_);
}

int64_t File::Modified() const {
    return GetFileSystem().ModificationTime(path_);
}

void File::Rename(const File& target) const {
    GetFileSystem().Rename(path_, target.path_);
}

// --- Dir ------------------------------------------------------------------------------------

std::string Dir::GetFullPathUtf8() const {
    return PathToUtf8(path_);
}

std::u16string Dir::GetName() const {
    return PathToUtf16(path_.has_filename() ? path_.filename() : path_.parent_path().filename());
}

bool Dir::Exists() const {
    return GetFileSystem().IsDirectory(path_);
}

void Dir::Create() const {
    FileSystem& fs = GetFileSystem();
    std::vector<std::filesystem::path> missing;
    for (std::filesystem::path p = path_; !p.empty() && !fs.IsDirectory(p); p = p.parent_path()) {
        missing.push_back(p);
        if (p == p.parent_path()) break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) fs.CreateDirectory(*it);
}

void Dir::Delete(bool recursive) const {
    if (recursive) {
        GetFileSystem().RemoveDirectoryRecursive(path_);
    } else {
        GetFileSystem().RemoveDirectory(path_);
    }
}

Dir Dir::GetSubdir(std::u16string_view name) const {
    return Dir(path_ / NameToPath(name));
}

File Dir::GetFile(std::u16string_view name) const {
    return File(*this, name);
}

std::vector<File> Dir::ListFiles() const {
    std::vector<File> files;
    for (const DirectoryEntry& entry : GetFileSystem().ListDirectory(path_)) {
        if (entry.isRegularFile) files.emplace_back(path_ / Utf8ToPath(entry.name));
    }
    return files;
}

std::vector<Dir> Dir::ListSubdirs() const {
    std::vector<Dir> dirs;
    for (const DirectoryEntry& entry : GetFileSystem().ListDirectory(path_)) {
        if (entry.isDirectory) dirs.emplace_back(path_ / Utf8ToPath(entry.name));
    }
    return dirs;
}

// --- RecursiveFileIterator ------------------------------------------------------------------

namespace {

// One log line for an entry the walk leaves out (a link, a FIFO, a folder it cannot read).
void SkipEntry(const std::filesystem::path& path, std::string_view reason) {
    ALOG_Log(10, "MC", "Walk", "skipping " + PathToUtf8(path) + ": " + std::string(reason));
}

}  // namespace

RecursiveFileIterator::RecursiveFileIterator(const Dir& root, Filter filter)
    : filter_(std::move(filter)) {
    pendingFolders_.push_back({root.GetFullPath(), 0});
}

bool RecursiveFileIterator::Next(File& out) {
    for (;;) {
        while (!currentFiles_.empty()) {
            File file(currentFolder_ / Utf8ToPath(currentFiles_.back()));
            currentFiles_.pop_back();
            try {
                if (!file.Exists()) continue;  // deleted since the folder was read
            } catch (const HostError& e) {
                SkipEntry(file.GetFullPath(), e.what());
                continue;
            }
            if (filter_ && !filter_(file)) continue;
            out = std::move(file);
            return true;
        }
        if (!LoadNextFolder()) return false;
    }
}

bool RecursiveFileIterator::LoadNextFolder() {
    while (!pendingFolders_.empty()) {
        Pending folder = std::move(pendingFolders_.back());
        pendingFolders_.pop_back();
        std::vector<DirectoryEntry> entries;
        try {
            entries = GetFileSystem().ListDirectory(folder.path);
        } catch (const FileNotFoundError&) {
            continue;  // deleted since its parent was read
        } catch (const HostError& e) {
            if (folder.depth == 0) throw;
            SkipEntry(folder.path, e.what());
            continue;
        }
        currentFiles_.clear();
        for (DirectoryEntry& entry : entries) {
            if (entry.isRegularFile) {
                currentFiles_.push_back(std::move(entry.name));
            } else if (!entry.isDirectory) {
                SkipEntry(folder.path / Utf8ToPath(entry.name), "not a regular file or folder");
            } else if (folder.depth < kMaxDepth) {
                pendingFolders_.push_back({folder.path / Utf8ToPath(entry.name), folder.depth + 1});
            }
        }
        currentFolder_ = std::move(folder.path);
        return true;
    }
    return false;
}

// --- free helpers ---------------------------------------------------------------------------

namespace {

// Calls `query` on the path or, while it is missing, on its parents. Returns its result;
// throws what the query throws for the last path tried.
template <typename Query>
auto QueryNearestExisting(std::filesystem::path path, Query query) {
    for (;;) {
        try {
            return query(path);
        } catch (const FileNotFoundError&) {
            std::filesystem::path parent = path.parent_path();
            if (parent.empty() && path.is_relative() && path != ".") parent = ".";
            if (parent.empty() || parent == path) throw;
            path = std::move(parent);
        }
    }
}

}  // namespace

size_t FileUtils::GetEfficientDiskBufferSizeFromPath(const std::string& utf8Path) {
    constexpr size_t kUnknown = 4096;
    if (utf8Path.empty()) return kUnknown;
    try {
        return QueryNearestExisting(Utf8ToPath(utf8Path),
                                    [](const auto& p) { return GetFileSystem().GetBlockSize(p); });
    } catch (...) {
        return kUnknown;
    }
}

bool EnsureDirectoryExists(const Dir& dir) {
    if (dir.IsEmpty()) return false;
    try {
        dir.Create();
        return dir.Exists();
    } catch (...) {
        return false;
    }
}

std::u16string ReplaceIllegalFileNameCharacters(std::u16string_view name, char16_t replacement) {
    constexpr std::u16string_view kIllegal = u"/\\:*?\"<>|";
    std::u16string result(name);
    for (char16_t& c : result) {
        if (c < 0x20 || kIllegal.find(c) != std::u16string_view::npos) c = replacement;
    }
    return result;
}

uint64_t GetVolumeFreeSpace(const std::filesystem::path& path) {
    return QueryNearestExisting(path,
                                [](const auto& p) { return GetFileSystem().GetFreeSpace(p); });
}

}  // namespace velacore
