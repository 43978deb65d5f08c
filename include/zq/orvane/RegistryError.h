#ifndef ZQ_ORVANE_REGISTRYERROR_H
#define ZQ_ORVANE_REGISTRYERROR_H

#include <cstdint>
#include <string>
#include <system_error>

#include "zq/kel/Export.h"

namespace zq {
namespace orvane {

// Orvane's status codes as std::error_code: the value is the library's code
// (status::kWrongType, ...), the message the text the `orvane` tool prints
// for it. Only errors, the negative codes, are ever reported this way: a
// warning such as status::kBucketNotFound is a success.
ZQ_EXPORT const std::error_category& registry_category() noexcept;

inline std::error_code make_error_code(int32_t code) noexcept {
    return std::error_code(static_cast<int>(code), registry_category());
}

// What the Registry and Transaction operations that take no std::error_code
// throw: the code, and in what() the operation that failed.
class RegistryError : public std::system_error {
  public:
    RegistryError(std::error_code code, const std::string& doing)
        : std::system_error(code, doing) {}
};

namespace detail {

// The throwing operations are the std::error_code ones and this, inline in
// the client: no exception ever crosses the library's boundary.
inline void throwIf(std::error_code code, const char* doing) {
    if (code) {
        throw RegistryError(code, doing);
    }
}

// The result of read(ec), or the throw for its failure.
template <class Read>
auto orThrow(const char* doing, Read&& read) {
    std::error_code ec;
    auto result = read(ec);
    throwIf(ec, doing);
    return result;
}

}  // namespace detail

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_REGISTRYERROR_H
