// The host's localised-string cache layout: a table of {text, 0, 0, 0} entries ended by
// {null, ~0, ~0, 0}. Each text reads "key=default", optionally followed by "{{*COMMENT*}}" and a
// translator's note. Thread-safety: tables are immutable once built.
#pragma once

#include <cstdint>

struct U_LStrCacheEntry {
    const char* text;
    uintptr_t a;
    uintptr_t b;
    uintptr_t c;
};
