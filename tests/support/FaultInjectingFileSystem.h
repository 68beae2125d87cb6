// FaultInjectingFileSystem: a FileSystemWrapper that counts the operations the disk paths depend
// on and makes chosen calls fail: "no space" (IOError ENOSPC), an I/O error (IOError EIO), or a
// short write (Append writes half the bytes through to the target, then fails with ENOSPC).
// Other operations pass straight through. ScopedFileSystem installs a FileSystem for a scope.
// Thread-safety: every method may be called from any thread; the files it opens belong to one
// thread at a time, like any file.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"

namespace mctest {

// The operations that can be counted and made to fail (Append, Close, Read: file objects).
enum class FsOp : int {
    kOpenForDirectWrite,
    kAppend,
    kClose,
    kRead,
    kCreateFile,
    kRename,
    kCreateDirectory,
    kCount
};

enum class Fault {
    kNoSpace,     // IOError with ENOSPC
    kIoError,     // IOError with EIO
    kShortWrite,  // Append: half the bytes reach the file, then IOError ENOSPC; else as kIoError
};

// Counters and pending failures, shared by the file system and the files it opens.
class FaultRules {
public:
    // Counts a call of `op`; returns whether it fails, and with which fault (the earliest rule
    // added wins).
    bool Enter(FsOp op, Fault* fault) {
        std::lock_guard lock(mutex);
        auto& count = counts[static_cast<int>(op)];
        ++count[0];
        bool fails = false;
        for (auto it = rules.begin(); it != rules.end();) {
            if (it->op != op) {
                ++it;
            } else if (it->skip > 0) {
                --(it++)->skip;
            } else {
                if (!fails) *fault = it->fault;
                fails = true;
                it = it->persistent ? it + 1 : rules.erase(it);
            }
        }
        count[1] += fails ? 1 : 0;
        return fails;
    }
    // Counts a call and throws its injected fault, if any (a short write throws EIO here).
    void Check(FsOp op, const std::filesystem::path& path) {
        Fault fault{};
        if (Enter(op, &fault)) Throw(fault == Fault::kShortWrite ? Fault::kIoError : fault, path);
    }
    [[noreturn]] static void Throw(Fault fault, const std::filesystem::path& path) {
        const std::string what = "injected failure on '" + path.string() + "'";
        if (fault == Fault::kNoSpace) throw velacore::IOError(what + ": no space left", ENOSPC);
        throw velacore::IOError(what + ": I/O error", EIO);
    }

    struct Rule {
        FsOp op;
        uint64_t skip;  // calls still to let through
        Fault fault;
        bool persistent;
    };
    mutable std::mutex mutex;
    std::array<std::array<uint64_t, 2>, static_cast<int>(FsOp::kCount)> counts{};  // calls, faults
    std::vector<Rule> rules;
};

namespace detail {

// What the files opened through the fault-injecting file system share.
struct FaultyFile {
    std::shared_ptr<FaultRules> rules;
    std::filesystem::path path;
};

class FaultyWritableFile final : public velacore::WritableFile, FaultyFile {
public:
    FaultyWritableFile(std::unique_ptr<WritableFile> target, FaultyFile file)
        : FaultyFile(std::move(file)), target_(std::move(target)) {}
    void Append(const void* data, size_t size) override {
        Fault fault{};
        if (rules->Enter(FsOp::kAppend, &fault)) {
            if (fault == Fault::kShortWrite) target_->Append(data, size / 2);
            FaultRules::Throw(fault == Fault::kShortWrite ? Fault::kNoSpace : fault, path);
        }
        target_->Append(data, size);
    }
    void Sync() override { target_->Sync(); }
    void Close() override {
        rules->Check(FsOp::kClose, path);
        target_->Close();
    }
    bool IsDirectIo() const override { return target_->IsDirectIo(); }
    void Reserve(uint64_t size) override { target_->Reserve(size); }

private:
    std::unique_ptr<WritableFile> target_;
};

class FaultyReadableFile final : public velacore::ReadableFile, FaultyFile {
public:
    FaultyReadableFile(std::unique_ptr<ReadableFile> target, FaultyFile file)
        : FaultyFile(std::move(file)), target_(std::move(target)) {}
    size_t Read(void* buffer, size_t size) override {
        rules->Check(FsOp::kRead, path);
        return target_->Read(buffer, size);
    }
    void Seek(uint64_t offset) override { target_->Seek(offset); }
    uint64_t Size() override { return target_->Size(); }

private:
    std::unique_ptr<ReadableFile> target_;
};

}  // namespace detail

class FaultInjectingFileSystem : public velacore::FileSystemWrapper {
public:
    // Wraps `target` (the operating system's by default).
    explicit FaultInjectingFileSystem(
        std::shared_ptr<velacore::FileSystem> target = velacore::GetDefaultFileSystem())
        : FileSystemWrapper(std::move(target)) {}

    // The n-th call of `op` from now (1 = the next one; 0 counts as 1) fails with `fault`; the
    // others pass. When two failures are due on the same call, the one added first decides.
    void FailNth(FsOp op, uint64_t n, Fault fault) { AddRule(op, n, fault, false); }
    // Every call of `op` from the n-th from now on fails with `fault`.
    void FailFrom(FsOp op, uint64_t n, Fault fault) { AddRule(op, n, fault, true); }
    // Forgets every pending failure.
    void ClearFaults() {
        std::lock_guard lock(rules_->mutex);
        rules_->rules.clear();
    }
    // Calls of `op` since construction (failed ones included), and those made to fail.
    uint64_t CallCount(FsOp op) const { return Count(op, 0); }
    uint64_t FaultCount(FsOp op) const { return Count(op, 1); }

    std::unique_ptr<velacore::WritableFile> OpenForDirectWrite(
        const std::filesystem::path& path) override {
        rules_->Check(FsOp::kOpenForDirectWrite, path);
        return std::make_unique<detail::FaultyWritableFile>(
            FileSystemWrapper::OpenForDirectWrite(path), detail::FaultyFile{rules_, path});
    }
    std::unique_ptr<velacore::ReadableFile> OpenForRead(
        const std::filesystem::path& path) override {
        return std::make_unique<detail::FaultyReadableFile>(FileSystemWrapper::OpenForRead(path),
                                                            detail::FaultyFile{rules_, path});
    }
    void CreateFile(const std::filesystem::path& path, bool failIfExists) override {
        rules_->Check(FsOp::kCreateFile, path);
        FileSystemWrapper::CreateFile(path, failIfExists);
    }
    void Rename(const std::filesystem::path& from, const std::filesystem::path& to) override {
        rules_->Check(FsOp::kRename, from);
        FileSystemWrapper::Rename(from, to);
    }
    void CreateDirectory(const std::filesystem::path& path) override {
        rules_->Check(FsOp::kCreateDirectory, path);
        FileSystemWrapper::CreateDirectory(path);
    }

private:
    void AddRule(FsOp op, uint64_t n, Fault fault, bool persistent) {
        std::lock_guard lock(rules_->mutex);
        rules_->rules.push_back({op, n > 0 ? n - 1 : 0, fault, persistent});
    }
    uint64_t Count(FsOp op, int column) const {
        std::lock_guard lock(rules_->mutex);
        return rules_->counts[static_cast<int>(op)][column];
    }
    std::shared_ptr<FaultRules> rules_ = std::make_shared<FaultRules>();
};

// Installs a FileSystem for the lifetime of the object, then puts back the previous one.
class ScopedFileSystem {
public:
    explicit ScopedFileSystem(std::shared_ptr<velacore::FileSystem> fileSystem)
        : previous_(velacore::SetFileSystem(std::move(fileSystem))) {}
    ~ScopedFileSystem() { velacore::SetFileSystem(std::move(previous_)); }
    ScopedFileSystem(const ScopedFileSystem&) = delete;
    ScopedFileSystem& operator=(const ScopedFileSystem&) = delete;

private:
    std::shared_ptr<velacore::FileSystem> previous_;
};

}  // namespace mctest
