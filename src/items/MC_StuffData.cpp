// The payload base class and the process-wide factory registry by match name.
#include "mc/MC_StuffData.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace {

using FactoryMap = std::map<std::u16string, MC_StuffData::Factory>;

struct Registry {
    std::recursive_mutex mutex;
    std::unique_ptr<FactoryMap> map;
};

Registry& GetRegistry() {
    static Registry registry;
    return registry;
}

// Widens the 8-bit name one character at a time (match names are ASCII).
std::u16string WidenName(const char* name) {
    const std::string_view narrow = name ? name : "";
    std::u16string wide(narrow.size(), u'\0');
    std::transform(narrow.begin(), narrow.end(), wide.begin(),
                   [](char c) { return static_cast<char16_t>(static_cast<unsigned char>(c)); });
    return wide;
}

}  // namespace

MC_StuffData::~MC_StuffData() = default;

bool MC_StuffData::IdenticalRequest(IntrusivePtr<MC_StuffData>) const {
    return true;
}
bool MC_StuffData::CanSatisfyRequest(IntrusivePtr<MC_StuffData>) const {
    return true;
}
bool MC_StuffData::ShouldAllowPurge() const {
    return true;
}
bool MC_StuffData::CanDiskCache() const {
    return false;
}
const char* MC_StuffData::GetSubclassMatchname() const {
    return nullptr;
}
void MC_StuffData::GetHeader(std::vector<uint8_t>&) const {}
double MC_StuffData::Write(velacore::OByteStream&) const {
    return 0.0;
}
double MC_StuffData::Read(velacore::IByteStream&, velacore::MultiTenantRecursiveMutex&) {
    return 0.0;
}

void MC_StuffData::RegisterFactory(const char* matchname, Factory& factory) {
    Registry& r = GetRegistry();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    if (!r.map) r.map = std::make_unique<FactoryMap>();
    (*r.map)[WidenName(matchname)] = factory;
}

IntrusivePtr<MC_StuffData> MC_StuffData::CreateSubclass(const char* matchname,
                                                        std::vector<uint8_t>& header) {
    Factory factory;
    {
        Registry& r = GetRegistry();
        std::lock_guard<std::recursive_mutex> lock(r.mutex);
        // An unknown name leaves an empty entry behind; a later registration fills it.
        if (r.map) factory = (*r.map)[WidenName(matchname)];
    }
    if (!factory) return nullptr;
    return factory(header);
}

void MC_StuffData::Death() {
    Registry& r = GetRegistry();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    r.map.reset();
}
