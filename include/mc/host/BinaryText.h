// Binary data as text: standard base64 (A-Z a-z 0-9 + /) with '=' padding.
// Thread-safety: stateless functions, callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/Export.h"

namespace velacore {

// Returns the padded base64 text of the `size` bytes at `data` (data may be null when size is 0).
MCHOST_API std::string EncodeBinaryDataToUTF8String(const uint8_t* data, size_t size);
MCHOST_API std::string EncodeBinaryDataToUTF8String(const std::vector<uint8_t>& data);

// Returns the bytes of a padded base64 text. Only the canonical form is accepted: a length that
// is a multiple of 4, no characters outside the alphabet (no white space), at most two '=' and
// only at the end, unused low bits zero. Anything else throws velacore::FormatError.
MCHOST_API std::vector<uint8_t> DecodeBinaryDataFromUTF8String(std::string_view text);

}  // namespace velacore
