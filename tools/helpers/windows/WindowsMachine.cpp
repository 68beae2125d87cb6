// Machine queries over GlobalMemoryStatusEx, GetModuleFileNameW and the UTF-16 command line.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// after windows.h
#include <shellapi.h>

#include <cstdlib>
#include <string>

#include "helpers/Machine.h"
#include "mc/host/TextConvert.h"

namespace velacore {

uint64_t PhysicalMemoryBytes() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    return ::GlobalMemoryStatusEx(&status) ? status.ullTotalPhys : 0;
}

std::filesystem::path ExecutablePath() {
    std::wstring name(512, L'\0');
    for (;;) {
        const DWORD length =
            ::GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
        if (length == 0) return {};
        if (length < name.size()) {
            name.resize(length);
            return name;
        }
        if (name.size() >= 32768) return {};
        name.resize(name.size() * 2);
    }
}

const char* SharedLibrarySuffix() {
    return ".dll";
}

std::filesystem::path UserCacheFolder() {
    const wchar_t* local = ::_wgetenv(L"LOCALAPPDATA");
    if (local == nullptr) return {};
    std::filesystem::path folder(local);
    return folder.is_absolute() ? folder : std::filesystem::path();
}

std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    int count = 0;
    LPWSTR* wide = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (wide == nullptr || count != argc) {
        if (wide != nullptr) ::LocalFree(wide);
        return {argv, argv + argc};
    }
    std::vector<std::string> args;
    for (int i = 0; i < count; ++i)
        args.push_back(ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(wide[i]))));
    ::LocalFree(wide);
    return args;
}

bool SetProcessEnv(const char* name, const char* value) {
    // The C runtime's copy is what getenv reads; an empty value removes the variable.
    return ::_putenv_s(name, value != nullptr ? value : "") == 0;
}

}  // namespace velacore
