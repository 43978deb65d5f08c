#ifndef ZQ_ORVANE_VALUETYPE_H
#define ZQ_ORVANE_VALUETYPE_H

#include <cstdint>

namespace zq {
namespace orvane {

// The tag of a bucket value. The numbers are stored in every value record, so
// they never change.
enum ValueType : uint32_t {
    kNOTSET = 0,
    kDIGEST = 1,
    kANSISTRING = 2,
    kSTRING = 3,
    kBLOB = 4,
    kBOOL = 5,
    kINT8 = 6,
    kUINT8 = 7,
    kINT16 = 8,
    kUINT16 = 9,
    kINT32 = 10,
    kUINT32 = 11,
    kINT64 = 12,
    kUINT64 = 13,
    kFLOAT32 = 14,
    kFLOAT64 = 15,
    kANSISTRINGARRAY = 16,
    kSTRINGARRAY = 17,
    kBOOLARRAY = 18,
    kINT8ARRAY = 19,
    kUINT8ARRAY = 20,
    kINT16ARRAY = 21,
    kUINT16ARRAY = 22,
    kINT32ARRAY = 23,
    kUINT32ARRAY = 24,
    kINT64ARRAY = 25,
    kUINT64ARRAY = 26,
    kFLOAT32ARRAY = 27,
    kFLOAT64ARRAY = 28,
};

constexpr uint32_t kValueTypeCount = 29;

}  // namespace orvane
}  // namespace zq

// The plain kinds, each a scalar and an array of it, in interface order:
// operation name part, C++ type, scalar tag, array tag. The interfaces, the
// implementation and its tables are all generated from this one list.
#define ZQ_ORVANE_PLAIN_KINDS(X)               \
    X(Bool, bool, kBOOL, kBOOLARRAY)           \
    X(Int8, int8_t, kINT8, kINT8ARRAY)         \
    X(UInt8, uint8_t, kUINT8, kUINT8ARRAY)     \
    X(Int16, int16_t, kINT16, kINT16ARRAY)     \
    X(UInt16, uint16_t, kUINT16, kUINT16ARRAY) \
    X(Int32, int32_t, kINT32, kINT32ARRAY)     \
    X(UInt32, uint32_t, kUINT32, kUINT32ARRAY) \
    X(Int64, int64_t, kINT64, kINT64ARRAY)     \
    X(UInt64, uint64_t, kUINT64, kUINT64ARRAY) \
    X(Float32, float, kFLOAT32, kFLOAT32ARRAY) \
    X(Float64, double, kFLOAT64, kFLOAT64ARRAY)

#endif  // ZQ_ORVANE_VALUETYPE_H
