// SharedLibrary over LoadLibraryExW/GetProcAddress.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <system_error>

#include "helpers/SharedLibrary.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"

namespace velacore {
namespace {

std::string PathText(const std::filesystem::path& path) {
    const std::wstring& wide = path.native();
    return ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(wide.data()), wide.size()));
}

}  // namespace

std::unique_ptr<SharedLibrary> SharedLibrary::Open(const std::filesystem::path& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        throw FileNotFoundError("load library '" + PathText(path) + "': no such file");
    // The library's own folder is searched for what it depends on, not the current folder.
    const std::filesystem::path full = std::filesystem::absolute(path, ec).make_preferred();
    HMODULE handle = ::LoadLibraryExW(
        full.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    if (handle == nullptr) {
        const DWORD code = ::GetLastError();
        throw IOError("load library '" + PathText(path) + "': error " + std::to_string(code));
    }
    return std::make_unique<SharedLibrary>(Token{}, reinterpret_cast<void*>(handle), path);
}

SharedLibrary::~SharedLibrary() {
    if (handle_) ::FreeLibrary(static_cast<HMODULE>(handle_));
}

void* SharedLibrary::Symbol(const char* name) const {
    if (!name) return nullptr;
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle_), name));
}

}  // namespace velacore
