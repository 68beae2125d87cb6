// DropFileFromPageCache on Windows: the system has no per-file request to drop cached pages
// (only a whole-cache purge that needs administrator rights), so this flushes nothing, changes
// nothing and reports false; benchmarks then say their reads may come from memory.
#include "helpers/PageCache.h"

namespace velacore {

bool DropFileFromPageCache(const std::filesystem::path&) {
    return false;
}

}  // namespace velacore
