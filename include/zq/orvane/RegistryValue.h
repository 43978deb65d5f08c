#ifndef ZQ_ORVANE_REGISTRYVALUE_H
#define ZQ_ORVANE_REGISTRYVALUE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "zq/orvane/Digest.h"
#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

// A narrow string value (kANSISTRING): bytes kept as they are. A wide string
// value (kSTRING) is a std::string of UTF-8.
struct AnsiString {
    std::string bytes;

    bool operator==(const AnsiString& other) const { return bytes == other.bytes; }
    bool operator!=(const AnsiString& other) const { return bytes != other.bytes; }
};

// A kBLOB value; a kUINT8ARRAY is a std::vector<uint8_t>.
using Blob = std::vector<std::byte>;

// One stored value of any type. The index of the alternative is the value's
// ValueType tag: std::monostate is kNOTSET, std::string kSTRING, int32_t
// kINT32, std::vector<double> kFLOAT64ARRAY.
#define ZQ_ORVANE_SCALAR_ALTERNATIVE(Name, Type, Tag, ArrayTag) , Type
#define ZQ_ORVANE_ARRAY_ALTERNATIVE(Name, Type, Tag, ArrayTag) , std::vector<Type>
using Value =
    std::variant<std::monostate, Digest, AnsiString, std::string,
                 Blob ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SCALAR_ALTERNATIVE), std::vector<AnsiString>,
                 std::vector<std::string> ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_ARRAY_ALTERNATIVE)>;
#undef ZQ_ORVANE_SCALAR_ALTERNATIVE
#undef ZQ_ORVANE_ARRAY_ALTERNATIVE

static_assert(std::variant_size_v<Value> == kValueTypeCount, "one alternative per tag");
#define ZQ_ORVANE_CHECK_ALTERNATIVE(Name, Type, Tag, ArrayTag)                              \
    static_assert(                                                                          \
        std::is_same_v<std::variant_alternative_t<Tag, Value>, Type> &&                     \
            std::is_same_v<std::variant_alternative_t<ArrayTag, Value>, std::vector<Type>>, \
        "alternatives in tag order");
ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_CHECK_ALTERNATIVE)
#undef ZQ_ORVANE_CHECK_ALTERNATIVE

// The data values of a bucket by name. Names are kept as stored; the
// registry itself compares them case-insensitively.
using ValueMap = std::map<std::string, Value>;

// The tag of the value `value` holds.
inline ValueType type_of(const Value& value) { return static_cast<ValueType>(value.index()); }

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_REGISTRYVALUE_H
