#ifndef ZQ_KEL_EXCEPTION_H
#define ZQ_KEL_EXCEPTION_H

#include <cstdint>
#include <exception>
#include <string>

#include "zq/kel/Export.h"

namespace zq {
namespace kel {
namespace exception {

// Thrown inside the library and turned into status codes at the public
// operations; a client only meets these when it calls the support library
// (strings, digests) directly.
class ZQ_EXPORT Exception : public std::exception {
  public:
    explicit Exception(int32_t line = 0, const char* file = nullptr) noexcept
        : line_(line), file_(file) {}
    ~Exception() override;
    const char* what() const noexcept override;
    virtual int32_t statusCode() const noexcept;

    // Where the exception was thrown: 0 and null when the thrower gave none.
    int32_t line() const noexcept { return line_; }
    const char* file() const noexcept { return file_; }

  private:
    int32_t line_;
    const char* file_;
};

// One row per plain class: name, base, what text, status code. Adding a class
// is adding a row; the declarations and definitions come from this table.
#define ZQ_KEL_PLAIN_EXCEPTIONS(X)                                                              \
    X(OutOfRange, Exception, "Out of range", 0x8ABC7007u)                                       \
    X(BoundExceeded, Exception, "A request was made that would exceed the bounds", 0x8ABC7007u) \
    X(ObjectAlreadyExists, Exception, "Object already exists", 0x8ABC7009u)                     \
    X(NonexistentException, Exception, "The object does not exist", 0x8ABC700Au)                \
    X(InvalidOperation, Exception, "Invalid operation", 0x8ABC700Eu)                            \
    X(InvalidArgument, Exception, "Invalid argument(s)", 0x8ABC700Fu)                           \
    X(FileWriteFailed, Exception, "Write file operation failed", 0x8ABC7011u)                   \
    X(FileReadFailed, Exception, "Read file operation failed", 0x8ABC7012u)                     \
    X(DeserializationError, Exception, "Failed to deserialize", 0x8ABC7014u)                    \
    X(BufferOverflow, Exception, "Buffer overflowed", 0x8ABC7017u)                              \
    X(FileAlreadyExists, Exception, "File already exists", 0x8ABC701Bu)                         \
    X(InvalidLocale, Exception, "Invalid locale", 0x8ABC7024u)                                  \
    X(InvalidSequence, Exception, "Invalid UTF8 encoding sequence", 0x8ABC7030u)                \
    X(BadGuidString, Exception, "Badly formatted Guid string.", 0x8ABC7032u)                    \
    X(UnableToConvert, Exception, "Unable to convert.", 0x8ABC7034u)                            \
    X(NotImplemented, Exception, "Not implemented", 0x80004001u)

// Classes whose text is a fixed prefix followed by a detail given at the throw.
// Each derives from (and keeps the code of) the class in its second column.
#define ZQ_KEL_DETAIL_EXCEPTIONS(X)                                            \
    X(OutOfRange2, OutOfRange, "Out of range: ", 0x8ABC7007u)                  \
    X(BoundExceeded2, BoundExceeded,                                           \
      "A request was made that would exceed the bounds: ", 0x8ABC7007u)        \
    X(InvalidArgument2, InvalidArgument, "Invalid argument(s): ", 0x8ABC700Fu) \
    X(AccessDenied, Exception, "Access denied: ", 0x8ABC7019u)

#define ZQ_KEL_DECLARE_PLAIN(Name, Base, Text, Code)                                               \
    class ZQ_EXPORT Name : public Base {                                                           \
      public:                                                                                      \
        explicit Name(int32_t line = 0, const char* file = nullptr) noexcept : Base(line, file) {} \
        ~Name() override;                                                                          \
        const char* what() const noexcept override;                                                \
        int32_t statusCode() const noexcept override;                                              \
    };
ZQ_KEL_PLAIN_EXCEPTIONS(ZQ_KEL_DECLARE_PLAIN)
#undef ZQ_KEL_DECLARE_PLAIN

#define ZQ_KEL_DECLARE_DETAIL(Name, Base, Prefix, Code)                                  \
    class ZQ_EXPORT Name : public Base {                                                 \
      public:                                                                            \
        explicit Name(const char* detail, int32_t line = 0, const char* file = nullptr); \
        ~Name() override;                                                                \
        const char* what() const noexcept override;                                      \
        int32_t statusCode() const noexcept override;                                    \
                                                                                         \
      private:                                                                           \
        std::string text_;                                                               \
    };
ZQ_KEL_DETAIL_EXCEPTIONS(ZQ_KEL_DECLARE_DETAIL)
#undef ZQ_KEL_DECLARE_DETAIL

}  // namespace exception
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_EXCEPTION_H
