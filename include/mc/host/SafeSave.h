// SafeSave: replace a file all at once. Write the new content to GetTempFile() (beside the
// final file, named after it plus ".tmp"), then Commit() renames it over the final name. Until
// Commit succeeds nothing appears under the final name; a SafeSave dropped without a successful
// Commit deletes its temporary. The temporary's name is fixed, so two writers of the same file
// meet on it (create it with failIfExists to detect the other one).
// Thread-safety: one SafeSave belongs to one thread at a time.
#pragma once

#include "mc/host/Export.h"
#include "mc/host/File.h"

namespace velacore {

class MCHOST_API SafeSave {
public:
    // Prepares to replace `finalFile` (must not be empty). Touches nothing on disk.
    explicit SafeSave(const File& finalFile);
    // Deletes the temporary unless Commit succeeded or Release was called. Never throws.
    ~SafeSave();

    SafeSave(const SafeSave&) = delete;
    SafeSave& operator=(const SafeSave&) = delete;

    // The file to write: same folder, final name + ".tmp".
    const File& GetTempFile() const { return temp_; }
    // The temporary a SafeSave of `finalFile` writes (must not be empty).
    static File TempFileFor(const File& finalFile);
    const File& GetFinalFile() const { return final_; }

    // Renames the temporary over the final file (replacing it). On failure deletes the
    // temporary and throws IOError. Requires that neither Commit nor Release ran before
    // (std::logic_error otherwise).
    void Commit();

    // Leaves the temporary alone from now on (e.g. when it turned out to be another writer's).
    void Release() { done_ = true; }

    bool IsCommitted() const { return committed_; }

private:
    void DeleteTempQuietly() noexcept;

    File final_;
    File temp_;
    bool committed_ = false;
    bool done_ = false;  // committed, failed or released: the destructor has nothing to do
};

}  // namespace velacore
