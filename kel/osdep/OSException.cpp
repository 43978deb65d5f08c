#include "zq/kel/OSException.h"

#include <cerrno>
#include <cstring>

namespace zq {
namespace kel {
namespace osdep {

OSException::OSException(const char* text, int32_t osError, int32_t line, const char* file)
    : Exception(line, file), text_(text != nullptr ? text : ""), osError_(osError) {}
OSException::~OSException() = default;
const char* OSException::what() const noexcept { return text_.c_str(); }
int32_t OSException::statusCode() const noexcept { return 42; }
int32_t OSException::osErrorCode() const noexcept { return osError_; }

namespace {

std::string describeErrno(int32_t error, const char* text) {
    char buffer[128];
    // The GNU variant may return a static text instead of filling the buffer.
    const char* reason = strerror_r(error, buffer, sizeof buffer);
    std::string message = text != nullptr ? text : "";
    message += ": ";
    message += reason;
    return message;
}

}  // namespace

PosixError::PosixError(int32_t error, const char* text, int32_t line, const char* file)
    : OSException(describeErrno(error, text).c_str(), error, line, file) {}
PosixError::~PosixError() = default;

int32_t PosixError::statusCode() const noexcept {
    switch (osErrorCode()) {
        case 0:
            return 0;
        case ENOENT:
            return 7;
        default:
            return 42;
    }
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
