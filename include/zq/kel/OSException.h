#ifndef ZQ_KEL_OSEXCEPTION_H
#define ZQ_KEL_OSEXCEPTION_H

#include <cstdint>
#include <string>

#include "zq/kel/Exception.h"

namespace zq {
namespace kel {
namespace osdep {

// A failure reported by the operating system: the text says what was being
// done, `osErrorCode` keeps the error number.
class ZQ_EXPORT OSException : public exception::Exception {
  public:
    OSException(const char* text, int32_t osError, int32_t line = 0, const char* file = nullptr);
    ~OSException() override;
    const char* what() const noexcept override;
    int32_t statusCode() const noexcept override;
    virtual int32_t osErrorCode() const noexcept;

  private:
    std::string text_;
    int32_t osError_;
};

// An errno value and what failed; its text ends with the system's wording.
class ZQ_EXPORT PosixError : public OSException {
  public:
    PosixError(int32_t error, const char* text, int32_t line = 0, const char* file = nullptr);
    ~PosixError() override;
    int32_t statusCode() const noexcept override;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSEXCEPTION_H
