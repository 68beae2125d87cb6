// TestPayload: a payload for tests. It holds `size` real bytes in memory, is identified by a key
// and a variant (identical = same key and variant; satisfies = same key and a variant at least
// the request's), can refuse purging, can go to disk, and records where its memory was freed.
// Thread-safety: state is atomic; the item lock guards it as for any payload.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"

namespace mctest {

class TestPayload : public MC_StuffData {
public:
    static constexpr const char* kMatchname = "TestPayload";

    // A resident payload of `size` bytes.
    TestPayload(uint32_t key, uint32_t size, uint32_t variant = 0);
    // A request: describes (key, variant), holds nothing.
    static IntrusivePtr<TestPayload> Request(uint32_t key, uint32_t variant = 0);

    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override;
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override;
    uint32_t GetApproximateMemorySize() const override;
    bool PurgeIfPossible(MC_ReleaseList* deferredFrees) override;
    bool IsInMemory() const override;
    bool ShouldAllowPurge() const override { return allowPurge_.load(); }
    bool CanDiskCache() const override { return diskCacheable_.load(); }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& header) const override;
    double Write(velacore::OByteStream& out) const override;
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& itemLock) override;

    uint32_t Key() const { return key_; }
    uint32_t Variant() const { return variant_; }
    void SetAllowPurge(bool allow) { allowPurge_.store(allow); }
    void SetDiskCacheable(bool on) { diskCacheable_.store(on); }
    // Makes Read throw after reading `bytes` bytes (simulating a corrupt body).
    void SetReadFailure(bool fail) { failRead_.store(fail); }
    int Purges() const { return purges_.load(); }
    // Replaces the size (the payload stays resident).
    void Resize(uint32_t size);
    // The bytes, or null when purged.
    std::shared_ptr<std::vector<uint8_t>> Bytes() const { return std::atomic_load(&bytes_); }

    // Process-wide tallies of freed payload buffers and of those freed under the cache lock.
    static std::atomic<int> freedBuffers;
    static std::atomic<int> freedUnderCacheLock;
    // Builds a TestPayload from a header (the disk-cache factory).
    static void RegisterFactory();

private:
    static std::shared_ptr<std::vector<uint8_t>> MakeBytes(uint32_t key, uint32_t size);

    uint32_t key_;
    uint32_t variant_;
    std::atomic<uint32_t> size_;
    std::shared_ptr<std::vector<uint8_t>> bytes_;
    std::atomic<bool> allowPurge_{true};
    std::atomic<bool> diskCacheable_{false};
    std::atomic<bool> failRead_{false};
    std::atomic<int> purges_{0};
};

// An item around a resident payload, not in any bag.
IntrusivePtr<MC_Stuff> MakeItem(uint32_t key, uint32_t size, uint32_t variant = 0);
// A request item for FindAndCheckout: GUID derived from the key, payload = the request.
IntrusivePtr<MC_Stuff> MakeRequest(uint32_t key, uint32_t variant = 0);
// The GUID every item of `key` carries in tests.
velacore::Guid KeyGuid(uint32_t key);

}  // namespace mctest
