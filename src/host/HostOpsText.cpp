// Localised-string and formatting host operations (see HostOps.h).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"

namespace {

// The entry at index, or null when the table ends first.
const U_LStrCacheEntry* EntryAt(const U_LStrCacheEntry* table, int index) {
    if (table == nullptr || index < 0) return nullptr;
    for (int i = 0; i < index; ++i) {
        if (table[i].text == nullptr) return nullptr;
    }
    return table[index].text != nullptr ? &table[index] : nullptr;
}

}  // namespace

std::u16string U_ZLookupLStrCache(const U_LStrCacheEntry* zref, int index, int, int) {
    const U_LStrCacheEntry* entry = EntryAt(zref, index);
    if (entry == nullptr) return {};
    return velacore::GetHostServices().Localize(entry->text);
}

int U_CopyLocalizedString(const U_LStrCacheEntry* zref, int index, char* buf, size_t size) {
    if (buf == nullptr || size == 0) return velacore::kHostParamError;
    buf[0] = '\0';
    const U_LStrCacheEntry* entry = EntryAt(zref, index);
    if (entry == nullptr) return velacore::kHostGenericError;
    const std::string text = velacore::ToUtf8(velacore::GetHostServices().Localize(entry->text));
    if (text.size() + 1 > size) return velacore::kHostParamError;
    std::memcpy(buf, text.c_str(), text.size() + 1);
    return 0;
}

std::string NumberToMemoryString(double bytes, int decimals) {
    static constexpr const char* kUnits[] = {"B", "KB", "MB", "GB", "TB"};
    size_t unit = 0;
    double value = bytes;
    while (std::fabs(value) >= 1024.0 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    char text[64];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%.0f B", value);
    } else {
        std::snprintf(text, sizeof text, "%.*f %s", std::max(decimals, 0), value, kUnits[unit]);
    }
    return text;
}
