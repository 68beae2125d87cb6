// Guid: a 16-byte identity with a canonical 36-character upper-case text form
// ("XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", no braces). Thread-safety: a value type;
// CreateUnique may be called from any thread.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "mc/host/Export.h"

namespace velacore {

class MCHOST_API Guid {
public:
    using Bytes = std::array<uint8_t, 16>;

    // The null GUID (all zero bytes).
    Guid() = default;
    explicit Guid(const Bytes& bytes) : bytes_(bytes) {}
    // Parses the canonical text form (upper or lower case, braces optional).
    // Throws velacore::FormatError on anything else.
    explicit Guid(std::string_view text);
    explicit Guid(std::u16string_view text);

    // A new random (version 4) GUID.
    static Guid CreateUnique();

    // Canonical upper-case text form, 36 characters.
    std::string AsString() const;
    std::u16string AsWString() const;
    bool IsNull() const;
    const Bytes& GetBytes() const { return bytes_; }

    friend bool operator==(const Guid&, const Guid&) = default;
    friend auto operator<=>(const Guid&, const Guid&) = default;

private:
    Bytes bytes_{};
};

// The 16 bytes of a GUID in text order, and back.
inline Guid::Bytes GuidToBytes(const Guid& g) {
    return g.GetBytes();
}
inline Guid GuidFromBytes(const Guid::Bytes& b) {
    return Guid(b);
}
MCHOST_API Guid GuidFromBytes(const uint8_t* sixteenBytes);

}  // namespace velacore
