// TestPayload: a payload for tests. It holds `size` real bytes in memory, is identified by a key
// and a variant (identical = same key and variant; satisfies = same key and a variant at least
// the request's), can refuse purging, can go to disk, and records where its memory was freed.
// Thread-safety: state is atomic; the item lock guards it as for any payload.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
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
    static IntrusivePtr<TestPayload> Request(uint32_t key, uint32_t variant = 0) {
        return IntrusivePtr<TestPayload>(new TestPayload(key, 0, variant));
    }

    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<TestPayload*>(request.get());
        return r && r->key_ == key_ && r->variant_ == variant_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<TestPayload*>(request.get());
        return r && r->key_ == key_ && variant_ >= r->variant_;
    }
    uint32_t GetApproximateMemorySize() const override { return IsInMemory() ? size_.load() : 0; }
    bool PurgeIfPossible(MC_ReleaseList* deferredFrees) override {
        std::shared_ptr<std::vector<uint8_t>> bytes = SwapBytes(nullptr);
        if (!bytes) return false;
        purges_.fetch_add(1);
        if (deferredFrees) deferredFrees->push_back(std::move(bytes));
        return true;
    }
    // One load, as a real payload's would be (the cache asks on every check-out and check-in).
    bool IsInMemory() const override {
        return (residence_.load(std::memory_order_acquire) & kResident) != 0;
    }
    bool ShouldAllowPurge() const override { return allowPurge_.load(); }
    bool CanDiskCache() const override { return diskCacheable_.load(); }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.resize(8);
        std::memcpy(header.data(), &key_, 4);
        std::memcpy(header.data() + 4, &variant_, 4);
    }
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
    void Resize(uint32_t size) {
        size_.store(size);
        SwapBytes(MakeBytes(key_, size));
    }
    // The bytes, or null when purged.
    std::shared_ptr<std::vector<uint8_t>> Bytes() const {
        Spin();
        std::shared_ptr<std::vector<uint8_t>> bytes = bytes_;
        residence_.fetch_and(static_cast<uint8_t>(~kSwapping), std::memory_order_release);
        return bytes;
    }

    // Process-wide tallies of freed payload buffers and of those freed under the cache lock.
    static inline std::atomic<int> freedBuffers{0};
    static inline std::atomic<int> freedUnderCacheLock{0};
    // Builds a TestPayload from a header (the disk-cache factory).
    static void RegisterFactory();

private:
    static std::shared_ptr<std::vector<uint8_t>> MakeBytes(uint32_t key, uint32_t size);
    // The bytes are guarded by a spin bit beside the residency bit (the standard library's
    // atomic shared_ptr functions go through a global lock table); the residency bit changes
    // with them, so IsInMemory never disagrees with Bytes().
    void Spin() const {
        while (residence_.fetch_or(kSwapping, std::memory_order_acquire) & kSwapping) {
        }
    }
    // Replaces the bytes and returns the old ones.
    std::shared_ptr<std::vector<uint8_t>> SwapBytes(std::shared_ptr<std::vector<uint8_t>> next) {
        Spin();
        std::shared_ptr<std::vector<uint8_t>> old = std::exchange(bytes_, next);
        residence_.store(next ? kResident : 0, std::memory_order_release);  // also ends the spin
        return old;
    }
    static constexpr uint8_t kResident = 1;
    static constexpr uint8_t kSwapping = 2;

    uint32_t key_;
    uint32_t variant_;
    std::atomic<uint32_t> size_;
    std::shared_ptr<std::vector<uint8_t>> bytes_;
    std::atomic<bool> allowPurge_{true};
    std::atomic<bool> diskCacheable_{false};
    std::atomic<bool> failRead_{false};
    mutable std::atomic<uint8_t> residence_;
    std::atomic<int> purges_{0};
};

// An item around a resident payload, not in any bag.
IntrusivePtr<MC_Stuff> MakeItem(uint32_t key, uint32_t size, uint32_t variant = 0);
// A request item for FindAndCheckout: GUID derived from the key, payload = the request.
IntrusivePtr<MC_Stuff> MakeRequest(uint32_t key, uint32_t variant = 0);
// The GUID every item of `key` carries in tests.
velacore::Guid KeyGuid(uint32_t key);

}  // namespace mctest
