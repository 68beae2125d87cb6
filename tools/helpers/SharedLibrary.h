// SharedLibrary: a shared library loaded at run time (a plug-in) and lookup of the symbols it
// exports. The library is unloaded when the object is destroyed; symbols looked up from it must
// not be used afterwards.
// Thread-safety: Open and Symbol may be called from any thread; one object may be shared by
// threads for Symbol; destroy it when nobody uses it or its symbols any more.
#pragma once

#include <filesystem>
#include <memory>

namespace velacore {

class SharedLibrary {
    struct Token {};

public:
    // Loads the library at `path` (its symbols resolved at once, kept local to it). Throws
    // FileNotFoundError when there is no such file, IOError with the loader's reason otherwise.
    static std::unique_ptr<SharedLibrary> Open(const std::filesystem::path& path);
    // Adopts a handle the loader returned (Open is the way to make one).
    SharedLibrary(Token, void* handle, std::filesystem::path path)
        : handle_(handle), path_(std::move(path)) {}
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // The address of the exported symbol `name`, or null when the library has none.
    void* Symbol(const char* name) const;
    // Symbol(name) as a function pointer of type Fn (null when absent).
    template <class Fn>
    Fn Function(const char* name) const {
        return reinterpret_cast<Fn>(Symbol(name));
    }
    const std::filesystem::path& Path() const { return path_; }

private:
    void* handle_;
    std::filesystem::path path_;
};

}  // namespace velacore
