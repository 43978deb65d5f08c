#ifndef ZQ_ORVANE_VALUETRAITS_H
#define ZQ_ORVANE_VALUETRAITS_H

#include <cstdint>

#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

// The handful of shapes the 29 tags share; code switches on the shape, and
// only the plain kinds need their C++ type (visitPlain below).
enum class ValueShape : uint8_t {
    kUnset,
    kDigest,
    kAnsiString,
    kString,
    kBlob,
    kScalar,
    kAnsiStringArray,
    kStringArray,
    kPlainArray,
};

struct ValueTraits {
    uint32_t tag;
    ValueShape shape;
    uint32_t width;    // bytes of the scalar or of one element; 0 when not fixed
    const char* name;  // printed in the text of an array
};

// One row per tag, in tag order. The plain rows come from the kinds list.
constexpr ValueTraits kValueTraits[] = {
    {kNOTSET, ValueShape::kUnset, 0, "kNOTSET"},
    {kDIGEST, ValueShape::kDigest, 32, "kDIGEST"},
    {kANSISTRING, ValueShape::kAnsiString, 0, "kANSISTRING"},
    {kSTRING, ValueShape::kString, 0, "kSTRING"},
    {kBLOB, ValueShape::kBlob, 0, "kBLOB"},
#define ZQ_ORVANE_ROW(Name, Type, Tag, ArrayTag) {Tag, ValueShape::kScalar, sizeof(Type), #Tag},
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_ROW)
#undef ZQ_ORVANE_ROW
        {kANSISTRINGARRAY, ValueShape::kAnsiStringArray, 0, "kANSISTRINGARRAY"},
    {kSTRINGARRAY, ValueShape::kStringArray, 0, "kSTRINGARRAY"},
#define ZQ_ORVANE_ROW(Name, Type, Tag, ArrayTag) \
    {ArrayTag, ValueShape::kPlainArray, sizeof(Type), #ArrayTag},
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_ROW)
#undef ZQ_ORVANE_ROW
};

constexpr bool rowsAreInTagOrder() {
    for (uint32_t i = 0; i < sizeof kValueTraits / sizeof kValueTraits[0]; ++i) {
        if (kValueTraits[i].tag != i) {
            return false;
        }
    }
    return sizeof kValueTraits / sizeof kValueTraits[0] == kValueTypeCount;
}
static_assert(rowsAreInTagOrder(), "one row per tag, in tag order");

// Unknown tags (read from a record) behave as unset.
inline const ValueTraits& traitsOf(uint32_t tag) {
    return tag < kValueTypeCount ? kValueTraits[tag] : kValueTraits[kNOTSET];
}

inline bool isKnownType(uint32_t tag) { return tag != kNOTSET && tag < kValueTypeCount; }

// How a plain kind is kept in memory: a bool stays the byte it was read as
// (any non-zero byte is true), so a record's byte comes back unchanged.
template <class T>
struct Stored {
    using type = T;
};
template <>
struct Stored<bool> {
    using type = uint8_t;
};

template <class T>
struct TypeTag {
    using type = T;
};

// Calls f(TypeTag<T>()) with the C++ type of a plain scalar or array tag; other
// tags give the empty result of f.
template <class F>
auto visitPlain(uint32_t tag, F&& f) -> decltype(f(TypeTag<bool>())) {
    switch (tag) {
#define ZQ_ORVANE_CASE(Name, Type, Tag, ArrayTag) \
    case Tag:                                     \
    case ArrayTag:                                \
        return f(TypeTag<Type>());
        ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_CASE)
#undef ZQ_ORVANE_CASE
        default:
            return decltype(f(TypeTag<bool>()))();
    }
}

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_VALUETRAITS_H
