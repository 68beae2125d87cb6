// Exceptions thrown by the platform layer. Integer codes follow the host's convention:
// file not found 0xA00F0003, I/O error 0xA0630005, null pointer 0xA0010001, format 0xA0010002.
// Thread-safety: value types.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "mc/host/Export.h"

namespace velacore {

// Base of every host exception: a message plus the integer the host reports it as.
class MCHOST_API HostError : public std::runtime_error {
public:
    HostError(int32_t code, const std::string& what) : std::runtime_error(what), code_(code) {}
    int32_t Code() const { return code_; }

private:
    int32_t code_;
};

constexpr int32_t kFileNotFoundCode = static_cast<int32_t>(0xA00F0003u);
constexpr int32_t kIOErrorCode = static_cast<int32_t>(0xA0630005u);
constexpr int32_t kNullPointerCode = static_cast<int32_t>(0xA0010001u);
constexpr int32_t kFormatErrorCode = static_cast<int32_t>(0xA0010002u);

// Result codes of the host operations and of the services that ship with MC.
constexpr int kHostGenericError = -1;        // unknown exception, suite not found
constexpr int kHostDuplicateError = -2;      // a suite published twice
constexpr int kHostParamError = -50;         // bad argument, buffer too small
constexpr int kHostOutOfMemoryError = -108;  // std::bad_alloc

// A file or folder that does not exist (the message holds the path).
class MCHOST_API FileNotFoundError : public HostError {
public:
    explicit FileNotFoundError(const std::string& what) : HostError(kFileNotFoundCode, what) {}
};

// Any other file-system failure (the message holds the path and the system's reason).
class MCHOST_API IOError : public HostError {
public:
    IOError(const std::string& what, int sysErrno = 0)
        : HostError(kIOErrorCode, what), errno_(sysErrno) {}
    // The system error number behind it (ENOSPC for a full disk), 0 when unknown.
    int SysErrno() const { return errno_; }

private:
    int errno_;
};

class MCHOST_API NullPointerError : public HostError {
public:
    explicit NullPointerError(const std::string& what) : HostError(kNullPointerCode, what) {}
};

// Text that does not parse (a GUID, a number, an encoded string).
class MCHOST_API FormatError : public HostError {
public:
    explicit FormatError(const std::string& what) : HostError(kFormatErrorCode, what) {}
};

}  // namespace velacore
