#ifndef ZQ_ORVANE_LAYERSTATUS_H
#define ZQ_ORVANE_LAYERSTATUS_H

#include <system_error>

#include "source/Guard.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/RegistryError.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

// What the C++ layer reports for what it catches.
constexpr ErrorCodes kLayerCodes{status::kFileSystem, status::kFileSystem, status::kUnexpected};

// A status the library takes for a start: a new one holds "not completed",
// an error, and every call handed it would do nothing.
inline kel::StatusChain clearedStatus() noexcept {
    kel::StatusChain status;
    status.clear();
    return status;
}

// Warnings are successes.
inline std::error_code errorOf(const kel::StatusChain& status) noexcept {
    return status.isFatal() ? make_error_code(status.getCode()) : std::error_code();
}

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_LAYERSTATUS_H
