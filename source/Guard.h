#ifndef ZQ_ORVANE_GUARD_H
#define ZQ_ORVANE_GUARD_H

#include <cerrno>
#include <cstdint>
#include <new>

#include "zq/kel/Exception.h"
#include "zq/kel/OSException.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

// The codes one public operation reports for what it catches; running out of
// memory is always status::kOutOfMemory.
struct ErrorCodes {
    int32_t osFailure;       // an OSException (a system call failed)
    int32_t kelFailure;      // any other support-library exception
    int32_t unexpected;      // anything else
    int32_t damage = 0;      // bytes that do not decode or run short; 0: kelFailure
    int32_t conversion = 0;  // text that is not a number; 0: kelFailure
};

// The code alone says only that a system call failed: the message keeps
// the call, its path when it has one and the system's wording ("open
// /data/registry.bin: Permission denied"). Best effort: without memory, or
// for a path that is not UTF-8, the code stands alone.
inline void keepSystemReason(kel::StatusChain& status,
                             const kel::osdep::OSException& failure) noexcept {
    try {
        status.setMessage(kel::WString(failure.what()));
    } catch (...) {
    }
}

// Hands an error met on a side status (a compaction, a catch-up) on to the
// caller's, with the message that says why.
inline void passOnError(kel::StatusChain& status, const kel::StatusChain& met) noexcept {
    status.setCode(met.getCode());
    if (const kel::WString* message = met.getMessage()) {
        try {
            status.setMessage(*message);
        } catch (...) {
        }
    }
}

// Sets the code for the exception being handled. Called only from a catch
// block; one copy of the dispatch serves every guarded operation.
inline void reportCaughtException(kel::StatusChain& status, const ErrorCodes& codes) noexcept {
    const auto orKel = [&codes](int32_t code) { return code != 0 ? code : codes.kelFailure; };
    try {
        throw;
    } catch (const kel::exception::DeserializationError&) {
        status.setCode(orKel(codes.damage));
    } catch (const kel::exception::FileReadFailed&) {
        status.setCode(orKel(codes.damage));
    } catch (const kel::exception::UnableToConvert&) {
        status.setCode(orKel(codes.conversion));
    } catch (const kel::osdep::OSException& failure) {
        status.setCode(codes.osFailure);
        keepSystemReason(status, failure);
    } catch (const kel::exception::Exception&) {
        status.setCode(codes.kelFailure);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        status.setCode(status::kOutOfMemory);
    } catch (...) {
        status.setCode(codes.unexpected);
    }
}

// The edge of every public operation: does nothing when `status` already holds
// an error, and turns whatever `body` throws into a code, so no exception
// crosses the public boundary. On either path the result is then the empty one
// of body's type (0, false, an empty string or handle).
template <class Body>
auto guarded(kel::StatusChain& status, const ErrorCodes& codes, Body&& body) -> decltype(body()) {
    using Result = decltype(body());
    if (status.isFatal()) {
        return Result();
    }
    try {
        return body();
    } catch (...) {
        reportCaughtException(status, codes);
    }
    return Result();
}

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_GUARD_H
