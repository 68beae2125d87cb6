// Encoding and checking of the remote tier's records and chunks.
#include "remote/FarmRecord.h"

#include <cstring>

#include "mc/host/BinaryText.h"
#include "mc/host/Murmur3.h"

namespace mc_remote {

namespace {
constexpr uint32_t kRecordMagic = 0x4D435246;  // "MCRF"
constexpr uint32_t kChunkMagic = 0x4D435243;   // "MCRC"
constexpr uint16_t kRecordVersion = 1;

class Writer {
public:
    template <typename T>
    void Put(T v) {
        uint8_t b[sizeof(T)];
        std::memcpy(b, &v, sizeof(T));
        out.insert(out.end(), b, b + sizeof(T));
    }
    void Bytes(const void* p, size_t n) {
        out.insert(out.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
    }
    std::vector<uint8_t> out;
};

class Reader {
public:
    explicit Reader(std::string_view b) : b_(b) {}
    template <typename T>
    bool Get(T* v) {
        if (b_.size() - pos_ < sizeof(T)) return false;
        std::memcpy(v, b_.data() + pos_, sizeof(T));
        pos_ += sizeof(T);
        return true;
    }
    bool Bytes(void* p, size_t n) {
        if (b_.size() - pos_ < n) return false;
        std::memcpy(p, b_.data() + pos_, n);
        pos_ += n;
        return true;
    }
    size_t Pos() const { return pos_; }
    bool AtEnd() const { return pos_ == b_.size(); }

private:
    std::string_view b_;
    size_t pos_ = 0;
};

std::array<uint8_t, 16> Hash(const void* p, size_t n, uint32_t seed) {
    velacore::Murmur3MixerState h(seed);
    h.UpdateHashState(p, n);
    return h.GetHashBytes();
}

// Hash of the identity and the publication token: what every chunk carries.
std::array<uint8_t, 16> ChunkTag(const FarmRecord& rec) {
    Writer w;
    w.Bytes(rec.id.guid.GetBytes().data(), 16);
    w.Put(rec.id.appVersion);
    w.Bytes(rec.id.matchname.data(), rec.id.matchname.size());
    w.Put<uint8_t>(0);
    w.Bytes(rec.id.header.data(), rec.id.header.size());
    w.Put(rec.token);
    return Hash(w.out.data(), w.out.size(), 0xC4A1);
}

std::string Hex(uint64_t v) {
    char buf[17];
    std::snprintf(buf, sizeof buf, "%llX", static_cast<unsigned long long>(v));
    return buf;
}
}  // namespace

std::string Namespace(uint32_t appVersion) {
    return "MC:" + Hex(appVersion) + ":";
}

std::string IndexKey(const std::string& ns, const velacore::Guid& guid) {
    return ns + "g:" + guid.AsString();
}

std::string ItemName(const ItemIdentity& id) {
    return id.matchname + "." + velacore::EncodeBinaryDataToUTF8String(id.header);
}

std::string ChunkKey(const std::string& ns, const FarmRecord& rec, uint32_t index) {
    return ns + "c:" + rec.id.guid.AsString() + ":" + Hex(rec.token) + ":" + std::to_string(index);
}

uint32_t ChunkCount(uint64_t bodyBytes) {
    return static_cast<uint32_t>((bodyBytes + kChunkBytes - 1) / kChunkBytes);
}

size_t ChunkSize(uint64_t bodyBytes, uint32_t index) {
    const uint64_t start = static_cast<uint64_t>(index) * kChunkBytes;
    if (start >= bodyBytes) return 0;
    return static_cast<size_t>(std::min<uint64_t>(kChunkBytes, bodyBytes - start));
}

std::vector<uint8_t> EncodeRecord(const FarmRecord& rec) {
    Writer w;
    w.Put(kRecordMagic);
    w.Put(kRecordVersion);
    w.Bytes(rec.id.guid.GetBytes().data(), 16);
    w.Put(rec.id.appVersion);
    w.Put(static_cast<uint16_t>(rec.id.matchname.size()));
    w.Bytes(rec.id.matchname.data(), rec.id.matchname.size());
    w.Put(static_cast<uint32_t>(rec.id.header.size()));
    w.Bytes(rec.id.header.data(), rec.id.header.size());
    w.Put(rec.computeTime);
    w.Put(rec.savings);
    w.Put(rec.bodyBytes);
    w.Put(rec.chunkCount);
    w.Put(rec.token);
    w.Bytes(rec.bodyHash.data(), rec.bodyHash.size());
    const auto check = Hash(w.out.data(), w.out.size(), 0xDEC0);
    w.Bytes(check.data(), check.size());
    return std::move(w.out);
}

std::optional<FarmRecord> DecodeRecord(std::string_view bytes) {
    if (bytes.size() < 16 || bytes.size() > kMaxRecordBytes) return std::nullopt;
    const size_t body = bytes.size() - 16;
    if (Hash(bytes.data(), body, 0xDEC0) != [&] {
            std::array<uint8_t, 16> a{};
            std::memcpy(a.data(), bytes.data() + body, 16);
            return a;
        }())
        return std::nullopt;
    Reader r(bytes.substr(0, body));
    FarmRecord rec;
    uint32_t magic = 0, headerLen = 0;
    uint16_t version = 0, nameLen = 0;
    velacore::Guid::Bytes guid{};
    if (!r.Get(&magic) || magic != kRecordMagic || !r.Get(&version) || version != kRecordVersion)
        return std::nullopt;
    if (!r.Bytes(guid.data(), 16) || !r.Get(&rec.id.appVersion) || !r.Get(&nameLen))
        return std::nullopt;
    rec.id.guid = velacore::Guid(guid);
    if (nameLen > kMaxNameBytes) return std::nullopt;
    rec.id.matchname.resize(nameLen);
    if (!r.Bytes(rec.id.matchname.data(), nameLen) || !r.Get(&headerLen)) return std::nullopt;
    if (headerLen > kMaxNameBytes) return std::nullopt;
    rec.id.header.resize(headerLen);
    if (!r.Bytes(rec.id.header.data(), headerLen)) return std::nullopt;
    if (!r.Get(&rec.computeTime) || !r.Get(&rec.savings) || !r.Get(&rec.bodyBytes) ||
        !r.Get(&rec.chunkCount) || !r.Get(&rec.token) ||
        !r.Bytes(rec.bodyHash.data(), rec.bodyHash.size()) || !r.AtEnd())
        return std::nullopt;
    if (rec.bodyBytes > kMaxBodyBytes || rec.chunkCount != ChunkCount(rec.bodyBytes))
        return std::nullopt;
    return rec;
}

std::array<uint8_t, 16> BodyHash(const FarmRecord& rec, const uint8_t* body, size_t size) {
    velacore::Murmur3MixerState h(0xB0D1);
    const auto tag = ChunkTag(rec);
    h.UpdateHashState(tag.data(), tag.size());
    h.UpdateHashState(body, size);
    return h.GetHashBytes();
}

std::array<uint8_t, 16> BodyHash(const FarmRecord& rec,
                                 const std::vector<std::string_view>& pieces) {
    velacore::Murmur3MixerState h(0xB0D1);
    const auto tag = ChunkTag(rec);
    h.UpdateHashState(tag.data(), tag.size());
    for (std::string_view p : pieces) h.UpdateHashState(p.data(), p.size());
    return h.GetHashBytes();
}

std::string EncodeChunk(const FarmRecord& rec, uint32_t index, const uint8_t* piece, size_t size) {
    Writer w;
    w.Put(kChunkMagic);
    w.Put(index);
    const auto tag = ChunkTag(rec);
    w.Bytes(tag.data(), tag.size());
    std::string out(reinterpret_cast<const char*>(w.out.data()), w.out.size());
    out.append(reinterpret_cast<const char*>(piece), size);
    return out;
}

std::optional<std::string_view> CheckChunk(const FarmRecord& rec, uint32_t index,
                                           std::string_view value) {
    if (value.size() != kChunkPrefixBytes + ChunkSize(rec.bodyBytes, index)) return std::nullopt;
    Reader r(value);
    uint32_t magic = 0, got = 0;
    std::array<uint8_t, 16> tag{};
    if (!r.Get(&magic) || magic != kChunkMagic || !r.Get(&got) || got != index ||
        !r.Bytes(tag.data(), tag.size()) || tag != ChunkTag(rec))
        return std::nullopt;
    return value.substr(kChunkPrefixBytes);
}

}  // namespace mc_remote
