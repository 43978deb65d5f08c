#include "zq/kel/Exception.h"

namespace zq {
namespace kel {
namespace exception {

Exception::~Exception() = default;
const char* Exception::what() const noexcept { return "unspecified exception"; }
int32_t Exception::statusCode() const noexcept { return -1; }

#define ZQ_KEL_DEFINE_PLAIN(Name, Base, Text, Code)          \
    Name::~Name() = default;                                 \
    const char* Name::what() const noexcept { return Text; } \
    int32_t Name::statusCode() const noexcept { return static_cast<int32_t>(Code); }
ZQ_KEL_PLAIN_EXCEPTIONS(ZQ_KEL_DEFINE_PLAIN)
#undef ZQ_KEL_DEFINE_PLAIN

#define ZQ_KEL_DEFINE_DETAIL(Name, Base, Prefix, Code)                \
    Name::Name(const char* detail, int32_t line, const char* file)    \
        : Base(line, file), text_(Prefix) {                           \
        if (detail != nullptr) {                                      \
            text_ += detail;                                          \
        }                                                             \
    }                                                                 \
    Name::~Name() = default;                                          \
    const char* Name::what() const noexcept { return text_.c_str(); } \
    int32_t Name::statusCode() const noexcept { return static_cast<int32_t>(Code); }
ZQ_KEL_DETAIL_EXCEPTIONS(ZQ_KEL_DEFINE_DETAIL)
#undef ZQ_KEL_DEFINE_DETAIL

}  // namespace exception
}  // namespace kel
}  // namespace zq
