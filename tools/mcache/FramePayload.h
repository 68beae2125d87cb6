// FramePayload: a rendered frame of the demo timeline — a procedural RGBA image whose cost varies
// per frame. Disk-cacheable under the match name "DemoFrame"; the header carries the frame
// number and size so that a file found on disk can be rebuilt.
// Thread-safety: as any payload, guarded by its item's lock; the pixel buffer is swapped
// atomically so purges and readers never see a half-freed buffer.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"

namespace mcache {

struct FrameSpec {
    uint32_t number = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t cost = 1;  // work multiplier of the render (not part of the frame's identity)
};

class FramePayload : public MC_StuffData {
public:
    static constexpr const char* kMatchname = "DemoFrame";

    // An empty frame (a request, or a shell awaiting read-back).
    explicit FramePayload(FrameSpec desc);
    // Renders the frame; returns the payload and the seconds it took in *seconds.
    static IntrusivePtr<FramePayload> Render(FrameSpec desc, double* seconds);
    // Registers the factory that rebuilds frames from disk-cache headers.
    static void RegisterFactory();
    // The GUID shared by every item of a frame number.
    static velacore::Guid FrameGuid(uint32_t number);
    // A request item for FindAndCheckout.
    static IntrusivePtr<MC_Stuff> MakeRequest(FrameSpec desc);

    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override;
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override;
    uint32_t GetApproximateMemorySize() const override;
    bool PurgeIfPossible(MC_ReleaseList* deferredFrees) override;
    bool IsInMemory() const override;
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& header) const override;
    double Write(velacore::OByteStream& out) const override;
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& itemLock) override;

    const FrameSpec& Desc() const { return spec_; }
    // A checksum of the pixels (0 when not resident), for verifying read-backs.
    uint64_t Checksum() const;

private:
    using Pixels = std::vector<uint32_t>;
    FrameSpec spec_;
    std::shared_ptr<Pixels> pixels_;
};

}  // namespace mcache
