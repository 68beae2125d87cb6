// StandaloneLabelledAllocator: cleared blocks handed out under a label and counted per label
// (bytes and blocks), so that everything handed out is accounted for. The allocator owns the
// blocks and frees any left when destroyed; callers never free them.
// Thread-safety: every member may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace velacore {

class StandaloneLabelledAllocator {
public:
    StandaloneLabelledAllocator() = default;
    StandaloneLabelledAllocator(const StandaloneLabelledAllocator&) = delete;
    StandaloneLabelledAllocator& operator=(const StandaloneLabelledAllocator&) = delete;

    // size cleared bytes (at least one byte is reserved for size 0); null when out of memory.
    void* Allocate(size_t size, std::string_view label);
    uint64_t Bytes(std::string_view label) const;
    uint64_t Blocks(std::string_view label) const;

private:
    struct FreeDeleter {
        void operator()(void* p) const { std::free(p); }
    };
    struct Label {
        uint64_t bytes = 0;
        std::vector<std::unique_ptr<void, FreeDeleter>> blocks;
    };
    mutable std::mutex mutex_;
    std::map<std::string, Label, std::less<>> labels_;
};

}  // namespace velacore
