#include "support/FaultInjectingFileSystem.h"

#include <cerrno>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mc/host/Errors.h"

namespace mctest {

using velacore::DirectoryEntry;
using velacore::ReadableFile;
using velacore::WritableFile;

std::string_view FsOpName(FsOp op) {
    static constexpr std::array<std::string_view, kFsOpCount> kNames = {
        "OpenForDirectWrite",
        "Append",
        "Sync",
        "Close",
        "OpenForRead",
        "Read",
        "Seek",
        "ReadableSize",
        "CreateFile",
        "DeleteFile",
        "Rename",
        "FileSize",
        "CreationTime",
        "ModificationTime",
        "Exists",
        "IsDirectory",
        "CreateDirectory",
        "RemoveDirectory",
        "RemoveDirectoryRecursive",
        "ListDirectory",
        "GetBlockSize",
        "GetFreeSpace",
        "SetNotContentIndexed",
    };
    const int index = static_cast<int>(op);
    return index >= 0 && index < kFsOpCount ? kNames[index] : "?";
}

class FaultInjectingFileSystem::State {
  public:
    // Counts a call of `op`; returns the fault to inject, if any.
    std::optional<Fault> Enter(FsOp op) {
        const int index = static_cast<int>(op);
        std::lock_guard lock(mutex_);
        ++calls_[index];
        std::optional<Fault> fault;
        for (auto it = rules_.begin(); it != rules_.end();) {
            if (it->op != op) {
                ++it;
            } else if (it->skip > 0) {
                --(it++)->skip;
            } else {
                if (!fault) fault = it->fault;  // the earliest added wins
                it = it->persistent ? it + 1 : rules_.erase(it);
            }
        }
        if (fault) ++faults_[index];
        return fault;
    }

    // Counts a call and throws the injected fault, if any (a short write counts as EIO here).
    void Check(FsOp op, const std::filesystem::path& path) {
        if (const auto fault = Enter(op)) Throw(op, *fault, path);
    }

    [[noreturn]] static void Throw(FsOp op, Fault fault, const std::filesystem::path& path) {
        const std::string what =
            "injected " + std::string(FsOpName(op)) + " failure on '" + path.string() + "'";
        switch (fault) {
            case Fault::kNoSpace:
                throw velacore::IOError(what + ": no space left", ENOSPC);
            case Fault::kNotFound:
                throw velacore::FileNotFoundError(what + ": not found");
            case Fault::kIoError:
            case Fault::kShortWrite:
                break;
        }
        throw velacore::IOError(what + ": I/O error", EIO);
    }

    void AddRule(FsOp op, uint64_t n, Fault fault, bool persistent) {
        std::lock_guard lock(mutex_);
        rules_.push_back({op, n > 0 ? n - 1 : 0, fault, persistent});
    }

    void ClearRules() {
        std::lock_guard lock(mutex_);
        rules_.clear();
    }

    uint64_t Calls(FsOp op) const {
        std::lock_guard lock(mutex_);
        return calls_[static_cast<int>(op)];
    }

    uint64_t Faults(FsOp op) const {
        std::lock_guard lock(mutex_);
        return faults_[static_cast<int>(op)];
    }

    void ResetCounts() {
        std::lock_guard lock(mutex_);
        calls_.fill(0);
        faults_.fill(0);
    }

  private:
    struct Rule {
        FsOp op;
        uint64_t skip;  // calls still to let through
        Fault fault;
        bool persistent;
    };

    mutable std::mutex mutex_;
    std::array<uint64_t, kFsOpCount> calls_{};
    std::array<uint64_t, kFsOpCount> faults_{};
    std::vector<Rule> rules_;
};

namespace {

using State = FaultInjectingFileSystem::State;

class FaultyWritableFile final : public WritableFile {
  public:
    FaultyWritableFile(std::unique_ptr<WritableFile> target, std::shared_ptr<State> state,
                       std::filesystem::path path)
        : target_(std::move(target)), state_(std::move(state)), path_(std::move(path)) {}

    void Append(const void* data, size_t size) override {
        if (const auto fault = state_->Enter(FsOp::kAppend)) {
            if (*fault == Fault::kShortWrite) {
                target_->Append(data, size / 2);
                State::Throw(FsOp::kAppend, Fault::kNoSpace, path_);
            }
            State::Throw(FsOp::kAppend, *fault, path_);
        }
        target_->Append(data, size);
    }
    void Sync() override {
        state_->Check(FsOp::kSync, path_);
        target_->Sync();
    }
    void Close() override {
        state_->Check(FsOp::kClose, path_);
        target_->Close();
    }
    bool IsDirectIo() const override { return target_->IsDirectIo(); }
    void Reserve(uint64_t size) override { target_->Reserve(size); }

  private:
    std::unique_ptr<WritableFile> target_;
    std::shared_ptr<State> state_;
    std::filesystem::path path_;
};

class FaultyReadableFile final : public ReadableFile {
  public:
    FaultyReadableFile(std::unique_ptr<ReadableFile> target, std::shared_ptr<State> state,
                       std::filesystem::path path)
        : target_(std::move(target)), state_(std::move(state)), path_(std::move(path)) {}

    size_t Read(void* buffer, size_t size) override {
        state_->Check(FsOp::kRead, path_);
        return target_->Read(buffer, size);
    }
    void Seek(uint64_t offset) override {
        state_->Check(FsOp::kSeek, path_);
        target_->Seek(offset);
    }
    uint64_t Size() override {
        state_->Check(FsOp::kReadableSize, path_);
        return target_->Size();
    }

  private:
    std::unique_ptr<ReadableFile> target_;
    std::shared_ptr<State> state_;
    std::filesystem::path path_;
};

}  // namespace

FaultInjectingFileSystem::FaultInjectingFileSystem(std::shared_ptr<velacore::FileSystem> target)
    : FileSystemWrapper(std::move(target)), state_(std::make_shared<State>()) {}

FaultInjectingFileSystem::~FaultInjectingFileSystem() = default;

void FaultInjectingFileSystem::FailNth(FsOp op, uint64_t n, Fault fault) {
    state_->AddRule(op, n, fault, false);
}

void FaultInjectingFileSystem::FailFrom(FsOp op, uint64_t n, Fault fault) {
    state_->AddRule(op, n, fault, true);
}

void FaultInjectingFileSystem::ClearFaults() {
    state_->ClearRules();
}

uint64_t FaultInjectingFileSystem::CallCount(FsOp op) const {
    return state_->Calls(op);
}

uint64_t FaultInjectingFileSystem::FaultCount(FsOp op) const {
    return state_->Faults(op);
}

void FaultInjectingFileSystem::ResetCounts() {
    state_->ResetCounts();
}

std::unique_ptr<WritableFile> FaultInjectingFileSystem::OpenForDirectWrite(
    const std::filesystem::path& path) {
    state_->Check(FsOp::kOpenForDirectWrite, path);
    return std::make_unique<FaultyWritableFile>(FileSystemWrapper::OpenForDirectWrite(path), state_,
                                                path);
}

std::unique_ptr<ReadableFile> FaultInjectingFileSystem::OpenForRead(
    const std::filesystem::path& path) {
    state_->Check(FsOp::kOpenForRead, path);
    return std::make_unique<FaultyReadableFile>(FileSystemWrapper::OpenForRead(path), state_, path);
}

void FaultInjectingFileSystem::CreateFile(const std::filesystem::path& path, bool failIfExists) {
    state_->Check(FsOp::kCreateFile, path);
    FileSystemWrapper::CreateFile(path, failIfExists);
}

void FaultInjectingFileSystem::DeleteFile(const std::filesystem::path& path) {
    state_->Check(FsOp::kDeleteFile, path);
    FileSystemWrapper::DeleteFile(path);
}

void FaultInjectingFileSystem::Rename(const std::filesystem::path& from,
                                      const std::filesystem::path& to) {
    state_->Check(FsOp::kRename, from);
    FileSystemWrapper::Rename(from, to);
}

uint64_t FaultInjectingFileSystem::FileSize(const std::filesystem::path& path) {
    state_->Check(FsOp::kFileSize, path);
    return FileSystemWrapper::FileSize(path);
}

int64_t FaultInjectingFileSystem::CreationTime(const std::filesystem::path& path) {
    state_->Check(FsOp::kCreationTime, path);
    return FileSystemWrapper::CreationTime(path);
}

int64_t FaultInjectingFileSystem::ModificationTime(const std::filesystem::path& path) {
    state_->Check(FsOp::kModificationTime, path);
    return FileSystemWrapper::ModificationTime(path);
}

bool FaultInjectingFileSystem::Exists(const std::filesystem::path& path) {
    state_->Check(FsOp::kExists, path);
    return FileSystemWrapper::Exists(path);
}

bool FaultInjectingFileSystem::IsDirectory(const std::filesystem::path& path) {
    state_->Check(FsOp::kIsDirectory, path);
    return FileSystemWrapper::IsDirectory(path);
}

void FaultInjectingFileSystem::CreateDirectory(const std::filesystem::path& path) {
    state_->Check(FsOp::kCreateDirectory, path);
    FileSystemWrapper::CreateDirectory(path);
}

void FaultInjectingFileSystem::RemoveDirectory(const std::filesystem::path& path) {
    state_->Check(FsOp::kRemoveDirectory, path);
    FileSystemWrapper::RemoveDirectory(path);
}

void FaultInjectingFileSystem::RemoveDirectoryRecursive(const std::filesystem::path& path) {
    state_->Check(FsOp::kRemoveDirectoryRecursive, path);
    FileSystemWrapper::RemoveDirectoryRecursive(path);
}

std::vector<DirectoryEntry> FaultInjectingFileSystem::ListDirectory(
    const std::filesystem::path& path) {
    state_->Check(FsOp::kListDirectory, path);
    return FileSystemWrapper::ListDirectory(path);
}

size_t FaultInjectingFileSystem::GetBlockSize(const std::filesystem::path& path) {
    state_->Check(FsOp::kGetBlockSize, path);
    return FileSystemWrapper::GetBlockSize(path);
}

uint64_t FaultInjectingFileSystem::GetFreeSpace(const std::filesystem::path& path) {
    state_->Check(FsOp::kGetFreeSpace, path);
    return FileSystemWrapper::GetFreeSpace(path);
}

void FaultInjectingFileSystem::SetNotContentIndexed(const std::filesystem::path& path) {
    state_->Check(FsOp::kSetNotContentIndexed, path);
    FileSystemWrapper::SetNotContentIndexed(path);
}

}  // namespace mctest
