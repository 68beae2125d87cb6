// SharedLibrary over dlopen/dlsym.
#include <dlfcn.h>

#include <system_error>

#include "helpers/SharedLibrary.h"
#include "mc/host/Errors.h"

namespace velacore {

std::unique_ptr<SharedLibrary> SharedLibrary::Open(const std::filesystem::path& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        throw FileNotFoundError("load library '" + path.string() + "': no such file");
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        throw IOError("load library '" + path.string() + "': " + (reason ? reason : "unknown"));
    }
    return std::make_unique<SharedLibrary>(Token{}, handle, path);
}

SharedLibrary::~SharedLibrary() {
    if (handle_) ::dlclose(handle_);
}

void* SharedLibrary::Symbol(const char* name) const {
    return name ? ::dlsym(handle_, name) : nullptr;
}

}  // namespace velacore
