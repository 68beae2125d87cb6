// The error boundary of the calls plug-ins make: an int thrown inside becomes the result; any
// other exception goes to the host's translation, whose code becomes the result. Nothing
// escapes, so the calls are safe to make from C.
// Thread-safety: stateless.
#pragma once

#include <exception>

#include "host/HostOps.h"
#include "mc/MC_ComputeCache.h"

// Runs fn (returning int) and returns its result or the code of what it threw.
template <class Fn>
int MCp_ComputeBoundary(Fn&& fn) noexcept {
    try {
        return fn();
    } catch (int code) {
        return code;
    } catch (...) {
        try {
            return U_TranslateAndReportException(std::current_exception());
        } catch (...) {
            return ZKGP_ComputeResult_BadParameter;  // the translation itself failed
        }
    }
}
