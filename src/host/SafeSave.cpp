// SafeSave: write beside, then rename over.
#include "mc/host/SafeSave.h"

#include <cerrno>
#include <stdexcept>

#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"

namespace velacore {

File SafeSave::TempFileFor(const File& finalFile) {
    if (finalFile.IsEmpty()) throw std::invalid_argument("SafeSave needs a file");
    std::filesystem::path path = finalFile.GetFullPath();
    path += ".tmp";
    return File(std::move(path));
}

SafeSave::SafeSave(const File& finalFile) : final_(finalFile), temp_(TempFileFor(finalFile)) {}

SafeSave::~SafeSave() {
    if (!done_) DeleteTempQuietly();
}

void SafeSave::Commit() {
    if (done_) throw std::logic_error("SafeSave: Commit after Commit or Release");
    done_ = true;
    try {
        GetFileSystem().Rename(temp_.GetFullPath(), final_.GetFullPath());
    } catch (const FileNotFoundError& e) {
        DeleteTempQuietly();
        throw IOError(e.what(), ENOENT);
    } catch (...) {
        DeleteTempQuietly();
        throw;
    }
    committed_ = true;
}

void SafeSave::DeleteTempQuietly() noexcept {
    try {
        GetFileSystem().DeleteFile(temp_.GetFullPath());
    } catch (...) {
        // Already gone, or best effort failed: a leftover temporary is ignored by folder scans
        // and replaced by the next save.
    }
}

}  // namespace velacore
