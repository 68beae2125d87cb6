// Conversions between UTF-8 and UTF-16. Ill-formed input never throws: each maximal ill-formed
// subsequence becomes one U+FFFD (the replacement character).
// Thread-safety: stateless functions, callable from any thread.
#pragma once

#include <string>
#include <string_view>

#include "mc/host/Export.h"

namespace velacore {

// Returns the UTF-16 form of UTF-8 text. Overlong forms, encoded surrogates, code points past
// U+10FFFF, stray continuation bytes and truncated sequences become U+FFFD.
MCHOST_API std::u16string ToUtf16(std::string_view utf8);

// Returns the UTF-8 form of UTF-16 text. Unpaired surrogates become U+FFFD.
MCHOST_API std::string ToUtf8(std::u16string_view utf16);

}  // namespace velacore
