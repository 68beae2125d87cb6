// The fault-injecting file system for tests (see FaultInjectingFileSystem.h).
#include "support/FaultInjectingFileSystem.h"

#include <cerrno>
#include <string>

#include "mc/host/Errors.h"

namespace mctest {

bool FaultRules::Enter(FsOp op, Fault* fault) {
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

void FaultRules::Check(FsOp op, const std::filesystem::path& path) {
    Fault fault{};
    if (Enter(op, &fault)) Throw(fault == Fault::kShortWrite ? Fault::kIoError : fault, path);
}

void FaultRules::Throw(Fault fault, const std::filesystem::path& path) {
    const std::string what = "injected failure on '" + path.string() + "'";
    if (fault == Fault::kNoSpace) throw velacore::IOError(what + ": no space left", ENOSPC);
    throw velacore::IOError(what + ": I/O error", EIO);
}

namespace {

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

}  // namespace

std::unique_ptr<velacore::WritableFile> FaultInjectingFileSystem::OpenForDirectWrite(
    const std::filesystem::path& path) {
    rules_->Check(FsOp::kOpenForDirectWrite, path);
    return std::make_unique<FaultyWritableFile>(FileSystemWrapper::OpenForDirectWrite(path),
                                                FaultyFile{rules_, path});
}

std::unique_ptr<velacore::ReadableFile> FaultInjectingFileSystem::OpenForRead(
    const std::filesystem::path& path) {
    return std::make_unique<FaultyReadableFile>(FileSystemWrapper::OpenForRead(path),
                                                FaultyFile{rules_, path});
}

}  // namespace mctest
