#ifndef ZQ_ORVANE_STOREOPERATION_H
#define ZQ_ORVANE_STOREOPERATION_H

#include <mutex>
#include <utility>

#include "kel/osdep/RecursiveMutex.h"
#include "source/Guard.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace store {

using Lock = std::lock_guard<kel::osdep::RecursiveMutex>;

// What the store reports for what it catches. Damage has its own code, so a
// caller can tell a broken file from a failing disk.
constexpr ErrorCodes kStoreCodes{status::kFileSystem, status::kFileSystem, status::kUnexpected,
                                 status::kOutsideFile, status::kStoreFailed};

// The edge of every store operation: nothing when the status already holds
// an error, and no exception out.
template <class Body>
auto storeOperation(kel::StatusChain& status, Body&& body) -> decltype(body()) {
    return guarded(status, kStoreCodes, std::forward<Body>(body));
}

}  // namespace store
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STOREOPERATION_H
