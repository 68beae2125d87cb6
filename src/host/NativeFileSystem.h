// The operating system's FileSystem (posix/ or windows/ provides it).
// Thread-safety: MakeNativeFileSystem may be called from any thread.
#pragma once

#include <memory>

#include "mc/host/Export.h"
#include "mc/host/FileSystem.h"

namespace velacore {

struct NativeFileSystemOptions {
    // Open the writer for direct (unbuffered) I/O where the system allows it; false always uses
    // buffered writes made durable at Close.
    bool allowDirectIo = true;
};

// A new instance of the operating system's file system (owned by the caller).
MCHOST_API std::shared_ptr<FileSystem> MakeNativeFileSystem(NativeFileSystemOptions options = {});

}  // namespace velacore
