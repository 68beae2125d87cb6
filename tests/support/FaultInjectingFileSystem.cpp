#include "support/FaultInjectingFileSystem.h"

#include <cerrno>
#include <string>

#include "mc/host/Errors.h"

namespace mctest {

using State = FaultInjectingFileSystem::State;

bool State::Enter(FsOp op, Fault* fault) {
    std::lock_guard lock(mutex_);
    auto& counts = counts_[static_cast<int>(op)];
    ++counts[0];
    bool fails = false;
    for (auto it = rules_.begin(); it != rules_.end();) {
        if (it->op != op) {
            ++it;
        } else if (it->skip > 0) {
            --(it++)->skip;
        } else {
            if (!fails) *fault = it->fault;  // the earliest added wins
            fails = true;
            it = it->persistent ? it + 1 : rules_.erase(it);
        }
    }
    if (fails) ++counts[1];
    return fails;
}

void State::Check(FsOp op, const std::filesystem::path& path) {
    Fault fault{};
    if (Enter(op, &fault)) Throw(fault == Fault::kShortWrite ? Fault::kIoError : fault, path);
}

void State::Throw(Fault fault, const std::filesystem::path& path) {
    const std::string what = "injected failure on '" + path.string() + "'";
    if (fault == Fault::kNoSpace) throw velacore::IOError(what + ": no space left", ENOSPC);
    throw velacore::IOError(what + ": I/O error", EIO);
}

namespace {

class FaultyWritableFile final : public velacore::WritableFile {
public:
    FaultyWritableFile(std::unique_ptr<WritableFile> target, std::shared_ptr<State> state,
                       std::filesystem::path path)
        : target_(std::move(target)), state_(std::move(state)), path_(std::move(path)) {}

    void Append(const void* data, size_t size) override {
        Fault fault{};
        if (state_->Enter(FsOp::kAppend, &fault)) {
            if (fault == Fault::kShortWrite) {
                target_->Append(data, size / 2);
                fault = Fault::kNoSpace;
            }
            State::Throw(fault, path_);
        }
        target_->Append(data, size);
    }
    void Sync() override { target_->Sync(); }
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

class FaultyReadableFile final : public velacore::ReadableFile {
public:
    FaultyReadableFile(std::unique_ptr<ReadableFile> target, std::shared_ptr<State> state,
                       std::filesystem::path path)
        : target_(std::move(target)), state_(std::move(state)), path_(std::move(path)) {}

    size_t Read(void* buffer, size_t size) override {
        state_->Check(FsOp::kRead, path_);
        return target_->Read(buffer, size);
    }
    void Seek(uint64_t offset) override { target_->Seek(offset); }
    uint64_t Size() override { return target_->Size(); }

private:
    std::unique_ptr<ReadableFile> target_;
    std::shared_ptr<State> state_;
    std::filesystem::path path_;
};

}  // namespace

FaultInjectingFileSystem::FaultInjectingFileSystem(std::shared_ptr<velacore::FileSystem> target)
    : FileSystemWrapper(std::move(target)) {}

std::unique_ptr<velacore::WritableFile> FaultInjectingFileSystem::OpenForDirectWrite(
    const std::filesystem::path& path) {
    state_->Check(FsOp::kOpenForDirectWrite, path);
    return std::make_unique<FaultyWritableFile>(FileSystemWrapper::OpenForDirectWrite(path), state_,
                                                path);
}

std::unique_ptr<velacore::ReadableFile> FaultInjectingFileSystem::OpenForRead(
    const std::filesystem::path& path) {
    state_->Check(FsOp::kOpenForRead, path);
    return std::make_unique<FaultyReadableFile>(FileSystemWrapper::OpenForRead(path), state_, path);
}

}  // namespace mctest
