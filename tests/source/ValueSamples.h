#ifndef ZQ_ORVANE_TESTS_VALUESAMPLES_H
#define ZQ_ORVANE_TESTS_VALUESAMPLES_H

// One hand-built value record per tag, shared by the format and the
// robustness tests.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "zq/kel/AutoRef.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {
namespace test {

inline kel::StatusChain okStatus() {
    kel::StatusChain status;
    status.clear();
    return status;
}

// Little-endian image of a record, written out by hand.
struct Bytes {
    std::vector<unsigned char> data;

    Bytes& u32(uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            data.push_back(static_cast<unsigned char>(value >> (8 * i)));
        }
        return *this;
    }
    Bytes& raw(std::initializer_list<int> bytes) {
        for (int b : bytes) {
            data.push_back(static_cast<unsigned char>(b));
        }
        return *this;
    }
    Bytes& text(const char* chars) {
        for (; *chars != 0; ++chars) {
            data.push_back(static_cast<unsigned char>(*chars));
        }
        return *this;
    }
    Bytes& append(const Bytes& other) {
        data.insert(data.end(), other.data.begin(), other.data.end());
        return *this;
    }
};

inline Bytes valueHeader(uint32_t tag) { return Bytes().u32(1).u32(tag); }

template <class Value>
std::vector<unsigned char> recordOf(Value& value) {
    std::vector<unsigned char> out(value.serializationSize());
    unsigned char* cursor = out.data();
    value.serialize(cursor, out.data() + out.size());
    return out;
}

// A `Target` read from `record`, which the read must use up.
template <class Target>
kel::AutoRef<Target> readRecord(const std::vector<unsigned char>& record) {
    kel::AutoRef<Target> target(new Target());
    const unsigned char* cursor = record.data();
    target->deserialize(cursor, record.data() + record.size());
    EXPECT_EQ(cursor, record.data() + record.size());
    return target;
}

struct ValueSample {
    const char* name;
    std::function<void(BucketValue&, kel::StatusChain&)> set;
    Bytes record;
    const wchar_t* text;  // toString
};

// The digest stored in the kDIGEST sample: bytes 0, 1, ..., 31.
inline Digest countingDigest() {
    unsigned char bytes[Digest::kSize];
    for (uint32_t i = 0; i < Digest::kSize; ++i) {
        bytes[i] = static_cast<unsigned char>(i);
    }
    const unsigned char* cursor = bytes;
    return Digest(cursor, bytes + Digest::kSize);
}

inline std::vector<ValueSample> valueSamples() {
    using kel::NString;
    using kel::WString;
    Bytes digestRecord = valueHeader(kDIGEST);
    for (int i = 0; i < 32; ++i) {
        digestRecord.raw({i});
    }
    static const NString ansi[] = {NString("ab"), NString("")};
    static const WString wide[] = {WString(L"x\u00e9")};
    static const bool bools[] = {true, false};
    static const int8_t i8[] = {-1, 2};
    static const uint8_t u8[] = {200};
    static const int16_t i16[] = {-2};
    static const uint16_t u16[] = {0x1234, 1};
    static const int32_t i32[] = {1, -1, 7};
    static const uint32_t u32[] = {0x12345678};
    static const int64_t i64[] = {-2};
    static const uint64_t u64[] = {0x0102030405060708ull};
    static const float f32[] = {2.0f};
    static const double f64[] = {-2.0};
    const unsigned char blob[] = {1, 2, 3};
    return {
        {"unset", [](BucketValue&, kel::StatusChain&) {}, valueHeader(kNOTSET), L"kNOTSET"},
        {"digest", [](BucketValue& v, kel::StatusChain& s) { v.setDigest(countingDigest(), s); },
         digestRecord, L"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"},
        {"ansi", [](BucketValue& v, kel::StatusChain& s) { v.setAnsiString(NString("hi"), s); },
         valueHeader(kANSISTRING).u32(3).text("hi").raw({0}), L"hi"},
        {"string", [](BucketValue& v, kel::StatusChain& s) { v.setString(WString(L"\u00e9"), s); },
         valueHeader(kSTRING).u32(2).raw({0xC3, 0xA9}), L"\u00e9"},
        {"blob", [blob](BucketValue& v, kel::StatusChain& s) { v.setBlob(blob, 3, s); },
         valueHeader(kBLOB).u32(3).raw({1, 2, 3}), L"<blob data>"},
        {"bool", [](BucketValue& v, kel::StatusChain& s) { v.setBool(true, s); },
         valueHeader(kBOOL).raw({1}), L"true"},
        {"int8", [](BucketValue& v, kel::StatusChain& s) { v.setInt8(-2, s); },
         valueHeader(kINT8).raw({0xFE}), L"-2"},
        {"uint8", [](BucketValue& v, kel::StatusChain& s) { v.setUInt8(200, s); },
         valueHeader(kUINT8).raw({0xC8}), L"200"},
        {"int16", [](BucketValue& v, kel::StatusChain& s) { v.setInt16(-2, s); },
         valueHeader(kINT16).raw({0xFE, 0xFF}), L"-2"},
        {"uint16", [](BucketValue& v, kel::StatusChain& s) { v.setUInt16(65535, s); },
         valueHeader(kUINT16).raw({0xFF, 0xFF}), L"65535"},
        {"int32", [](BucketValue& v, kel::StatusChain& s) { v.setInt32(-1, s); },
         valueHeader(kINT32).raw({0xFF, 0xFF, 0xFF, 0xFF}), L"-1"},
        {"uint32", [](BucketValue& v, kel::StatusChain& s) { v.setUInt32(4294967295u, s); },
         valueHeader(kUINT32).raw({0xFF, 0xFF, 0xFF, 0xFF}), L"-1"},
        {"int64", [](BucketValue& v, kel::StatusChain& s) { v.setInt64(4294967296ll, s); },
         valueHeader(kINT64).raw({0, 0, 0, 0, 1, 0, 0, 0}), L"0"},
        {"uint64",
         [](BucketValue& v, kel::StatusChain& s) { v.setUInt64(0x0102030405060708ull, s); },
         valueHeader(kUINT64).raw({8, 7, 6, 5, 4, 3, 2, 1}), L"84281096"},
        {"float32", [](BucketValue& v, kel::StatusChain& s) { v.setFloat32(1.5f, s); },
         valueHeader(kFLOAT32).raw({0, 0, 0xC0, 0x3F}), L"1.500000"},
        {"float64", [](BucketValue& v, kel::StatusChain& s) { v.setFloat64(-0.25, s); },
         valueHeader(kFLOAT64).raw({0, 0, 0, 0, 0, 0, 0xD0, 0xBF}), L"-0.250000"},
        {"ansiArray", [](BucketValue& v, kel::StatusChain& s) { v.setAnsiStringArray(ansi, 2, s); },
         valueHeader(kANSISTRINGARRAY).u32(2).u32(3).text("ab").raw({0}).u32(1).raw({0}),
         L"<kANSISTRINGARRAY[2]>"},
        {"stringArray", [](BucketValue& v, kel::StatusChain& s) { v.setStringArray(wide, 1, s); },
         valueHeader(kSTRINGARRAY).u32(1).u32(3).raw({'x', 0xC3, 0xA9}), L"<kSTRINGARRAY[1]>"},
        {"boolArray", [](BucketValue& v, kel::StatusChain& s) { v.setBoolArray(bools, 2, s); },
         valueHeader(kBOOLARRAY).u32(2).raw({1, 0}), L"<kBOOLARRAY[2]>"},
        {"int8Array", [](BucketValue& v, kel::StatusChain& s) { v.setInt8Array(i8, 2, s); },
         valueHeader(kINT8ARRAY).u32(2).raw({0xFF, 2}), L"<kINT8ARRAY[2]>"},
        {"uint8Array", [](BucketValue& v, kel::StatusChain& s) { v.setUInt8Array(u8, 1, s); },
         valueHeader(kUINT8ARRAY).u32(1).raw({200}), L"<kUINT8ARRAY[1]>"},
        {"int16Array", [](BucketValue& v, kel::StatusChain& s) { v.setInt16Array(i16, 1, s); },
         valueHeader(kINT16ARRAY).u32(1).raw({0xFE, 0xFF}), L"<kINT16ARRAY[1]>"},
        {"uint16Array", [](BucketValue& v, kel::StatusChain& s) { v.setUInt16Array(u16, 2, s); },
         valueHeader(kUINT16ARRAY).u32(2).raw({0x34, 0x12, 1, 0}), L"<kUINT16ARRAY[2]>"},
        {"int32Array", [](BucketValue& v, kel::StatusChain& s) { v.setInt32Array(i32, 3, s); },
         valueHeader(kINT32ARRAY).u32(3).u32(1).u32(0xFFFFFFFF).u32(7), L"<kINT32ARRAY[3]>"},
        {"uint32Array", [](BucketValue& v, kel::StatusChain& s) { v.setUInt32Array(u32, 1, s); },
         valueHeader(kUINT32ARRAY).u32(1).raw({0x78, 0x56, 0x34, 0x12}), L"<kUINT32ARRAY[1]>"},
        {"int64Array", [](BucketValue& v, kel::StatusChain& s) { v.setInt64Array(i64, 1, s); },
         valueHeader(kINT64ARRAY).u32(1).raw({0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
         L"<kINT64ARRAY[1]>"},
        {"uint64Array", [](BucketValue& v, kel::StatusChain& s) { v.setUInt64Array(u64, 1, s); },
         valueHeader(kUINT64ARRAY).u32(1).raw({8, 7, 6, 5, 4, 3, 2, 1}), L"<kUINT64ARRAY[1]>"},
        {"float32Array", [](BucketValue& v, kel::StatusChain& s) { v.setFloat32Array(f32, 1, s); },
         valueHeader(kFLOAT32ARRAY).u32(1).raw({0, 0, 0, 0x40}), L"<kFLOAT32ARRAY[1]>"},
        {"float64Array", [](BucketValue& v, kel::StatusChain& s) { v.setFloat64Array(f64, 1, s); },
         valueHeader(kFLOAT64ARRAY).u32(1).raw({0, 0, 0, 0, 0, 0, 0, 0xC0}), L"<kFLOAT64ARRAY[1]>"},
    };
}

}  // namespace test
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_TESTS_VALUESAMPLES_H
