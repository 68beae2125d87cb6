// The standalone host's labelled allocation (see StandaloneHostAllocator.h).
#include "standalone/StandaloneHostAllocator.h"

#include <algorithm>
#include <new>

namespace velacore {

void* StandaloneLabelledAllocator::Allocate(size_t size, std::string_view label) {
    std::unique_ptr<void, FreeDeleter> block(std::calloc(std::max<size_t>(size, 1), 1));
    if (!block) return nullptr;
    void* p = block.get();
    std::lock_guard lock(mutex_);
    try {
        auto it = labels_.find(label);
        if (it == labels_.end()) it = labels_.emplace(std::string(label), Label{}).first;
        it->second.blocks.push_back(std::move(block));
        it->second.bytes += size;
    } catch (const std::bad_alloc&) {
        return nullptr;  // block still owned here, freed on return
    }
    return p;
}

uint64_t StandaloneLabelledAllocator::Bytes(std::string_view label) const {
    std::lock_guard lock(mutex_);
    auto it = labels_.find(label);
    return it == labels_.end() ? 0 : it->second.bytes;
}

uint64_t StandaloneLabelledAllocator::Blocks(std::string_view label) const {
    std::lock_guard lock(mutex_);
    auto it = labels_.find(label);
    return it == labels_.end() ? 0 : it->second.blocks.size();
}

}  // namespace velacore
