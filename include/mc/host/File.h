// File and Dir: value types naming a file or a folder, with the usual operations done through
// GetFileSystem() (never directly on the system). RecursiveFileIterator walks a folder tree.
// Names cross the API as UTF-16; paths are std::filesystem::path (UTF-8 on POSIX).
// Errors: as FileSystem (FileNotFoundError for a missing path, IOError otherwise).
// Thread-safety: File and Dir are plain values (copy them freely; concurrent const use is
// safe). A RecursiveFileIterator belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mc/host/Export.h"

namespace velacore {

class Dir;

class MCHOST_API File {
public:
    // An empty File (IsEmpty() is true); only assignment and comparison make sense on it.
    File() = default;
    explicit File(std::filesystem::path path) : path_(std::move(path)) {}
    // The file `name` (UTF-16, a single component) inside `dir`.
    File(const Dir& dir, std::u16string_view name);

    bool IsEmpty() const { return path_.empty(); }

    // The last component, extension included ("a.b.zkcache").
    std::u16string GetName() const;
    // The part of the name after its last dot (".zkcache" with the dot, "zkcache" without);
    // empty when the name has no dot.
    std::u16string GetExtension(bool withDot) const;
    const std::filesystem::path& GetFullPath() const { return path_; }
    std::string GetFullPathUtf8() const;
    // The folder holding the file.
    Dir GetParent() const;

    // Whether something exists at the path. Throws IOError when it cannot be determined.
    bool Exists() const;
    // Length in bytes. Throws.
    uint64_t Size() const;
    // Deletes the file. Throws (FileNotFoundError when it is already gone).
    void Delete() const;
    // Creates it empty (see FileSystem::CreateFile). Throws.
    void Create(bool failIfExists) const;
    // Birth time (or modification time where unknown) / modification time, in nanoseconds
    // since the Unix epoch. Throw.
    int64_t Created() const;
    int64_t Modified() const;
    // Moves the file on disk to `target` (replacing it). This object keeps naming the old path.
    void Rename(const File& target) const;

    friend bool operator==(const File& a, const File& b) { return a.path_ == b.path_; }

private:
    std::filesystem::path path_;
};

class MCHOST_API Dir {
public:
    Dir() = default;
    explicit Dir(std::filesystem::path path) : path_(std::move(path)) {}

    bool IsEmpty() const { return path_.empty(); }
    const std::filesystem::path& GetFullPath() const { return path_; }
    std::string GetFullPathUtf8() const;
    // The last component of the path.
    std::u16string GetName() const;

    // Whether a folder exists at the path (false for a file). Throws IOError when unknown.
    bool Exists() const;
    // Creates the folder and any missing parents; fine if it exists. Throws.
    void Create() const;
    // Removes the folder: only when empty, or with everything under it if `recursive`. Throws
    // (FileNotFoundError when it does not exist).
    void Delete(bool recursive) const;

    // The folder / file `name` (UTF-16, a single component) inside this one.
    Dir GetSubdir(std::u16string_view name) const;
    File GetFile(std::u16string_view name) const;
    // The regular files / real folders directly inside, in no particular order; symbolic links
    // and other entries are left out. Throw.
    std::vector<File> ListFiles() const;
    std::vector<Dir> ListSubdirs() const;

    friend bool operator==(const Dir& a, const Dir& b) { return a.path_ == b.path_; }

private:
    std::filesystem::path path_;
};

// Depth-first walk over every regular file under a folder, optionally filtered. Symbolic links
// are never followed (neither into folders nor to files), and FIFOs, sockets and devices are
// not yielded. Folders are read when the walk reaches them; a folder or file that vanished by
// then is skipped silently, and a missing root yields nothing. A folder below the root that
// cannot be read is skipped with one line in the host log and the walk goes on; only a root
// that cannot be read throws. Folders more than kMaxDepth levels below the root are not entered.
class MCHOST_API RecursiveFileIterator {
public:
    using Filter = std::function<bool(const File&)>;
    static constexpr int kMaxDepth = 64;

    // `filter` (may be empty = accept all) is called for each file, on the walking thread.
    explicit RecursiveFileIterator(const Dir& root, Filter filter = {});

    // Stores the next accepted file in `out` and returns true; false when the walk is over.
    bool Next(File& out);

private:
    bool LoadNextFolder();

    Filter filter_;
    struct Pending {
        std::filesystem::path path;
        int depth;
    };
    std::vector<Pending> pendingFolders_;
    std::filesystem::path currentFolder_;
    std::vector<std::string> currentFiles_;  // names still to visit in currentFolder_
};

namespace FileUtils {
// The efficient I/O size of the file system holding the path or its nearest existing parent;
// 4096 when it cannot be found. Never throws.
MCHOST_API size_t GetEfficientDiskBufferSizeFromPath(const std::string& utf8Path);
}  // namespace FileUtils

// Creates the folder and its parents if needed. Returns whether it exists as a folder now;
// never throws.
MCHOST_API bool EnsureDirectoryExists(const Dir& dir);

// Replaces the characters some file systems refuse in a name (/ \ : * ? " < > | and control
// characters) with `replacement`, so that names stay portable.
MCHOST_API std::u16string ReplaceIllegalFileNameCharacters(std::u16string_view name,
                                                           char16_t replacement = u'-');

// Bytes available on the volume holding the path or its nearest existing parent. Throws.
MCHOST_API uint64_t GetVolumeFreeSpace(const std::filesystem::path& path);

}  // namespace velacore
