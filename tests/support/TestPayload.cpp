#include "support/TestPayload.h"

#include <cstring>

#include "mc/MCp_ScLock.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"

namespace mctest {

std::shared_ptr<std::vector<uint8_t>> TestPayload::MakeBytes(uint32_t key, uint32_t size) {
    auto* v = new std::vector<uint8_t>(size);
    for (uint32_t i = 0; i < size; ++i) (*v)[i] = static_cast<uint8_t>((key * 131 + i) & 0xFF);
    return std::shared_ptr<std::vector<uint8_t>>(v, [](std::vector<uint8_t>* p) {
        freedBuffers.fetch_add(1);
        if (MCp_ScLock::IsHeldByCurrentThread()) freedUnderCacheLock.fetch_add(1);
        delete p;
    });
}

TestPayload::TestPayload(uint32_t key, uint32_t size, uint32_t variant)
    : key_(key),
      variant_(variant),
      size_(size),
      bytes_(size ? MakeBytes(key, size) : nullptr),
      residence_(size != 0 ? kResident : 0) {}

double TestPayload::Write(velacore::OByteStream& out) const {
    std::shared_ptr<std::vector<uint8_t>> bytes = Bytes();
    const uint32_t size = bytes ? static_cast<uint32_t>(bytes->size()) : 0;
    out.WriteU32LE(size);
    if (size) out.WriteBytes(bytes->data(), size);
    return 0.0;
}

double TestPayload::Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) {
    const uint32_t size = in.ReadU32LE();
    if (size > (1u << 30)) throw velacore::IOError("TestPayload: implausible size");
    auto bytes = MakeBytes(key_, 0);
    bytes->resize(size);
    if (size) in.ReadBytes(bytes->data(), size);
    if (failRead_.load()) throw velacore::IOError("TestPayload: corrupt body");
    for (uint32_t i = 0; i < size; ++i)
        if ((*bytes)[i] != static_cast<uint8_t>((key_ * 131 + i) & 0xFF))
            throw velacore::IOError("TestPayload: body does not match its key");
    size_.store(size);
    SwapBytes(std::move(bytes));
    return 0.0;
}

void TestPayload::RegisterFactory() {
    MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
        IntrusivePtr<MC_StuffData> result;
        if (header.size() != 8) return result;
        uint32_t key = 0, variant = 0;
        std::memcpy(&key, header.data(), 4);
        std::memcpy(&variant, header.data() + 4, 4);
        auto* p = new TestPayload(key, 0, variant);
        p->SetDiskCacheable(true);
        result = IntrusivePtr<MC_StuffData>(p);
        return result;
    };
    MC_StuffData::RegisterFactory(kMatchname, factory);
}

velacore::Guid KeyGuid(uint32_t key) {
    velacore::Guid::Bytes b{};
    std::memcpy(b.data(), &key, 4);
    b[15] = 0x5A;
    return velacore::Guid(b);
}

IntrusivePtr<MC_Stuff> MakeItem(uint32_t key, uint32_t size, uint32_t variant) {
    IntrusivePtr<MC_Stuff> stuff =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new TestPayload(key, size, variant)), 0.5);
    stuff->SetGuid(KeyGuid(key));
    return stuff;
}

IntrusivePtr<MC_Stuff> MakeRequest(uint32_t key, uint32_t variant) {
    IntrusivePtr<MC_Stuff> request = MC_Stuff::CreateNew(TestPayload::Request(key, variant), 0.0);
    request->SetGuid(KeyGuid(key));
    return request;
}

}  // namespace mctest
