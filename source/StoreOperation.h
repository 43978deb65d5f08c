#ifndef ZQ_ORVANE_STOREOPERATION_H
#define ZQ_ORVANE_STOREOPERATION_H

#include <cerrno>
#include <mutex>
#include <new>

#include "kel/osdep/RecursiveMutex.h"
#include "zq/kel/Exception.h"
#include "zq/kel/OSException.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace store {

using Lock = std::lock_guard<kel::osdep::RecursiveMutex>;

// Turns the exception being handled into the store's code for it. Damage -
// a record or position that does not fit, or a read past the end - has its
// own code, so a caller can tell a broken file from a failing disk.
inline void setStoreFailure(kel::StatusChain& status) {
    try {
        throw;
    } catch (const kel::exception::DeserializationError&) {
        status.setCode(status::kOutsideFile);
    } catch (const kel::exception::FileReadFailed&) {
        status.setCode(status::kOutsideFile);
    } catch (const kel::exception::UnableToConvert&) {
        status.setCode(status::kStoreFailed);
    } catch (const kel::osdep::OSException&) {
        status.setCode(status::kFileSystem);
    } catch (const kel::exception::Exception&) {
        status.setCode(status::kFileSystem);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        status.setCode(status::kOutOfMemory);
    } catch (...) {
        status.setCode(status::kUnexpected);
    }
}

// The edge of every store operation: nothing when the status already holds
// an error, and no exception out.
template <class Body>
auto storeOperation(kel::StatusChain& status, Body&& body) -> decltype(body()) {
    using Result = decltype(body());
    if (status.isFatal()) {
        return Result();
    }
    try {
        return body();
    } catch (...) {
        setStoreFailure(status);
    }
    return Result();
}

}  // namespace store
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STOREOPERATION_H
