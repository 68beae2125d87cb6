// Fuzzes adopting and reading back an arbitrary file. Input: one byte choosing the name (even: a
// valid name for key 1; odd: the bytes up to the first newline, plus ".zkcache"), then the file's
// content (after that newline for an odd first byte). The file is planted in a real disk-cache
// folder, adopted as a scan adopts it, and every adopted item is read back. Nothing may crash, a
// read-back may only succeed with a payload that checks out against its key, and the budget always
// equals the files the items hold.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"

namespace {

constexpr unsigned kAppVersion = 256;
constexpr uint32_t kMaxPayload = 1 << 16;
const char* const kMatchname = "FuzzPayload";

uint32_t Checksum(const std::vector<uint8_t>& bytes, uint32_t key) {
    uint32_t h = 2166136261u ^ key;
    for (const uint8_t b : bytes) h = (h ^ b) * 16777619u;
    return h;
}

// Content: key, length, bytes, checksum of key and bytes (all checked on read).
class FuzzPayload : public MC_StuffData {
public:
    explicit FuzzPayload(uint32_t key) : key_(key) {}
    uint32_t GetApproximateMemorySize() const override {
        return resident_ ? static_cast<uint32_t>(bytes_.size()) + 1 : 0;
    }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        const bool was = resident_;
        resident_ = false;
        bytes_.clear();
        return was;
    }
    bool IsInMemory() const override { return resident_; }
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.resize(4);
        std::memcpy(header.data(), &key_, 4);
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) override {
        if (in.ReadU32LE() != key_) throw velacore::IOError("FuzzPayload: not this key's bytes");
        const uint32_t size = in.ReadU32LE();
        if (size > kMaxPayload) throw velacore::IOError("FuzzPayload: implausible size");
        std::vector<uint8_t> bytes(size);
        if (size) in.ReadBytes(bytes.data(), size);
        if (in.ReadU32LE() != Checksum(bytes, key_))
            throw velacore::IOError("FuzzPayload: checksum");
        bytes_ = std::move(bytes);
        resident_ = true;
        return 0.0;
    }
    bool Verified() const { return resident_; }

private:
    uint32_t key_;
    std::vector<uint8_t> bytes_;
    bool resident_ = false;
};

struct Module {
    std::shared_ptr<MC_Bag> bag;
    velacore::Dir folder;
    std::filesystem::path root;

    Module() {
        velacore::StandaloneConfig config;
        config.computerName = "fuzz-host";
        velacore::SetHostServices(std::make_shared<velacore::StandaloneHostServices>(config));
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MC_Birth(false, kAppVersion, false);
        MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
            IntrusivePtr<MC_StuffData> data;
            uint32_t key = 0;
            if (header.size() != 4) return data;
            std::memcpy(&key, header.data(), 4);
            data = IntrusivePtr<MC_StuffData>(new FuzzPayload(key));
            return data;
        };
        MC_StuffData::RegisterFactory(kMatchname, factory);
        // Under $TMPDIR: scripts/fuzz.sh points it at a folder it removes afterwards.
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/mc-fuzz-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        root = pattern;
        bag = MC_GlobalBag();
        bag->SetDiskCacheInfo(velacore::Dir(root), 64);
        folder = bag->GetDiskCacheDirSpec();
    }
};

Module& TheModule() {
    static Module module;
    return module;
}

std::u16string ValidName() {
    velacore::Guid::Bytes guid{};
    guid[0] = 1;
    guid[15] = 0x5A;
    return MCp_CacheFile::BuildName(velacore::Guid(guid), kMatchname, kAppVersion, {1, 0, 0, 0});
}

// The name in front of the first newline (all of the input without one); `contentAt` is set to
// where the content starts.
std::u16string FuzzedName(const uint8_t* data, size_t size, size_t& contentAt) {
    std::string name(reinterpret_cast<const char*>(data), size);
    const size_t newline = name.find('\n');
    contentAt = newline == std::string::npos ? size : newline + 1;
    name = name.substr(0, newline);
    for (char& c : name)
        if (c == '/' || c == '\0') c = '_';
    return velacore::ToUtf16(name + ".zkcache");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    Module& m = TheModule();
    size_t contentAt = 0;
    const std::u16string name =
        (data[0] & 1) ? FuzzedName(data + 1, size - 1, contentAt) : ValidName();
    const uint8_t* content = data + 1 + contentAt;
    const size_t contentSize = size - 1 - contentAt;
    if (name.size() > 200) return 0;  // longer than a file system takes
    MCp_CacheFile::EnsureSubfolder(m.folder, name);
    const velacore::File file = MCp_CacheFile::FileFor(m.folder, name);
    {
        std::ofstream out(file.GetFullPath(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(content),
                  static_cast<std::streamsize>(contentSize));
    }
    m.bag->ScanOneDiskCacheFile(file);

    const auto items = m.bag->SnapshotItems();
    if (items.size() > 1) std::abort();
    int64_t held = 0;
    for (const auto& item : items) {
        const bool resident = item->EnsureInMemory();
        auto* payload = dynamic_cast<FuzzPayload*>(item->GetDataPtr().get());
        if (!payload || resident != payload->Verified()) std::abort();
        if (item->IsOnDisk()) held += static_cast<int64_t>(item->GetDiskCacheFile().Size());
    }
    if (m.bag->GetCurrentDiskCacheSize() != held) std::abort();

    m.bag->ClearBagAndSortDir();
    std::error_code ignored;
    std::filesystem::remove(file.GetFullPath(), ignored);
    return 0;
}
