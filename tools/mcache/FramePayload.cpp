#include "FramePayload.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/Time.h"

namespace mcache {

namespace {
// A cheap hash-noise value in [0, 1).
float Noise(uint32_t x, uint32_t y, uint32_t seed) {
    uint32_t h = x * 374761393u + y * 668265263u + seed * 2246822519u;
    h = (h ^ (h >> 13)) * 1274126177u;
    return static_cast<float>((h ^ (h >> 16)) & 0xFFFF) / 65536.0f;
}
}  // namespace

FramePayload::FramePayload(FrameSpec desc) : spec_(desc) {}

IntrusivePtr<FramePayload> FramePayload::Render(FrameSpec desc, double* seconds) {
    velacore::Timer timer;
    IntrusivePtr<FramePayload> frame(new FramePayload(desc));
    auto pixels = std::make_shared<Pixels>(size_t{desc.width} * desc.height);
    // The cost varies by frame: between 2 and 9 octaves of noise per pixel.
    const int octaves = 2 + static_cast<int>((desc.number * 7919u) % 8u);
    for (uint32_t y = 0; y < desc.height; ++y) {
        for (uint32_t x = 0; x < desc.width; ++x) {
            float v = 0.0f;
            for (uint32_t pass = 0; pass < std::max(1u, desc.cost); ++pass) {
                float amplitude = 0.5f, octave = 0.0f;
                for (int o = 0; o < octaves; ++o) {
                    octave += amplitude *
                              Noise(x >> o, y >> o, desc.number + static_cast<uint32_t>(o) + pass);
                    amplitude *= 0.5f;
                }
                v += octave / static_cast<float>(std::max(1u, desc.cost));
            }
            const auto level = static_cast<uint32_t>(std::min(255.0f, v * 255.0f));
            (*pixels)[size_t{y} * desc.width + x] =
                0xFF000000u | (level << 16) | (((x + desc.number) & 0xFF) << 8) | (y & 0xFF);
        }
    }
    frame->pixels_ = std::move(pixels);
    if (seconds) *seconds = timer.GetElapsedSeconds();
    return frame;
}

void FramePayload::RegisterFactory() {
    MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
        IntrusivePtr<MC_StuffData> result;
        if (header.size() != 12) return result;
        FrameSpec desc;
        std::memcpy(&desc.number, header.data(), 4);
        std::memcpy(&desc.width, header.data() + 4, 4);
        std::memcpy(&desc.height, header.data() + 8, 4);
        if (desc.width == 0 || desc.height == 0 || desc.width > 16384 || desc.height > 16384)
            return result;
        result = IntrusivePtr<MC_StuffData>(new FramePayload(desc));
        result->SetCachePriority(MC_CachePriority_Normal);
        return result;
    };
    MC_StuffData::RegisterFactory(kMatchname, factory);
}

velacore::Guid FramePayload::FrameGuid(uint32_t number) {
    velacore::Guid::Bytes b{};
    const char tag[] = "demo-frm";
    std::memcpy(b.data(), tag, 8);
    std::memcpy(b.data() + 8, &number, 4);
    return velacore::Guid(b);
}

IntrusivePtr<MC_Stuff> FramePayload::MakeRequest(FrameSpec desc) {
    IntrusivePtr<MC_Stuff> request =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new FramePayload(desc)), 0.0);
    request->SetGuid(FrameGuid(desc.number));
    return request;
}

bool FramePayload::IdenticalRequest(IntrusivePtr<MC_StuffData> request) const {
    auto* r = dynamic_cast<FramePayload*>(request.get());
    return r && r->spec_.number == spec_.number && r->spec_.width == spec_.width &&
           r->spec_.height == spec_.height;
}

bool FramePayload::CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const {
    return IdenticalRequest(request);
}

uint32_t FramePayload::GetApproximateMemorySize() const {
    auto pixels = std::atomic_load(&pixels_);
    return pixels ? static_cast<uint32_t>(pixels->size() * sizeof(uint32_t)) : 0;
}

bool FramePayload::IsInMemory() const {
    return std::atomic_load(&pixels_) != nullptr;
}

bool FramePayload::PurgeIfPossible(MC_ReleaseList* deferredFrees) {
    auto pixels = std::atomic_exchange(&pixels_, std::shared_ptr<Pixels>());
    if (!pixels) return false;
    if (deferredFrees) deferredFrees->push_back(std::move(pixels));
    return true;
}

void FramePayload::GetHeader(std::vector<uint8_t>& header) const {
    header.resize(12);
    std::memcpy(header.data(), &spec_.number, 4);
    std::memcpy(header.data() + 4, &spec_.width, 4);
    std::memcpy(header.data() + 8, &spec_.height, 4);
}

double FramePayload::Write(velacore::OByteStream& out) const {
    velacore::Timer timer;
    auto pixels = std::atomic_load(&pixels_);
    const uint64_t count = pixels ? pixels->size() : 0;
    out.WriteU64LE(count);
    out.WriteU64LE(count ? Checksum() : 0);
    if (count) out.WriteBytes(pixels->data(), count * sizeof(uint32_t));
    return timer.GetElapsedSeconds();
}

double FramePayload::Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) {
    velacore::Timer timer;
    const uint64_t count = in.ReadU64LE();
    const uint64_t checksum = in.ReadU64LE();
    if (count != uint64_t{spec_.width} * spec_.height)
        throw velacore::IOError("frame file does not match its header");
    auto pixels = std::make_shared<Pixels>(count);
    in.ReadBytes(pixels->data(), count * sizeof(uint32_t));
    std::atomic_store(&pixels_, std::move(pixels));
    if (Checksum() != checksum) {
        std::atomic_store(&pixels_, std::shared_ptr<Pixels>());
        throw velacore::IOError("frame file is corrupt (checksum)");
    }
    return timer.GetElapsedSeconds();
}

uint64_t FramePayload::Checksum() const {
    auto pixels = std::atomic_load(&pixels_);
    if (!pixels) return 0;
    uint64_t h = 1469598103934665603ull;
    for (uint32_t p : *pixels) h = (h ^ p) * 1099511628211ull;
    return h;
}

}  // namespace mcache
