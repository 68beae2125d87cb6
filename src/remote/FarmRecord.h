// What the remote tier stores for one item, and under which keys. Entries are grouped by GUID:
// one hash per GUID ("<ns>g:<guid>") maps each item's name (match name and header) to its
// record, which carries the item's full identity, its times, the body's size, chunk count and
// checksum. The body lies in chunks of at most kChunkBytes under keys that include a token
// drawn at publication, each prefixed with its index and a hash of the identity and token, so
// that no chunk of another item or another publication is ever taken for one of this item's.
// The namespace <ns> holds the product and the application version.
// Thread-safety: plain values and pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/Guid.h"

namespace mc_remote {

constexpr size_t kChunkBytes = 4u << 20;        // 4 MiB
constexpr size_t kChunkPrefixBytes = 24;        // magic, index, identity hash
constexpr uint64_t kMaxBodyBytes = 1ull << 30;  // whatever the settings say
constexpr size_t kMaxCandidates = 64;           // entries of one GUID that are looked at
constexpr size_t kMaxNameBytes = 4096;
constexpr size_t kMaxRecordBytes = 8192;

// Who an item is: the same four things its disk file name holds.
struct ItemIdentity {
    velacore::Guid guid;
    uint32_t appVersion = 0;
    std::string matchname;
    std::vector<uint8_t> header;
};

struct FarmRecord {
    ItemIdentity id;
    double computeTime = 0;
    double savings = 0;
    uint64_t bodyBytes = 0;
    uint32_t chunkCount = 0;
    uint64_t token = 0;
    std::array<uint8_t, 16> bodyHash{};
};

std::string Namespace(uint32_t appVersion);
std::string IndexKey(const std::string& ns, const velacore::Guid& guid);
// The item's field in its GUID's hash: "<matchname>.<header as text>".
std::string ItemName(const ItemIdentity& id);
std::string ChunkKey(const std::string& ns, const FarmRecord& rec, uint32_t index);

std::vector<uint8_t> EncodeRecord(const FarmRecord& rec);
// Nothing when the bytes are not a whole, self-consistent record within the bounds above.
std::optional<FarmRecord> DecodeRecord(std::string_view bytes);

std::array<uint8_t, 16> BodyHash(const FarmRecord& rec, const uint8_t* body, size_t size);
// The same over a body held in pieces (the fetched chunks, without copying them together).
std::array<uint8_t, 16> BodyHash(const FarmRecord& rec,
                                 const std::vector<std::string_view>& pieces);
// The chunk value: prefix then the piece.
std::string EncodeChunk(const FarmRecord& rec, uint32_t index, const uint8_t* piece, size_t size);
// The piece of a chunk value, when its prefix and length are those expected.
std::optional<std::string_view> CheckChunk(const FarmRecord& rec, uint32_t index,
                                           std::string_view value);
// Bytes of chunk `index` of a body of `bodyBytes`.
size_t ChunkSize(uint64_t bodyBytes, uint32_t index);
uint32_t ChunkCount(uint64_t bodyBytes);

}  // namespace mc_remote
