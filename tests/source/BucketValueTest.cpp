#include "zq/orvane/BucketValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/source/ValueSamples.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace {

using kel::AutoRef;
using kel::NString;
using kel::StatusChain;
using kel::WString;
using test::Bytes;
using test::okStatus;
using test::recordOf;
using test::valueHeader;

AutoRef<BucketValue> makeValue() { return AutoRef<BucketValue>(new BucketValue()); }

std::string narrow(const WString& text) { return NString(text).c_str(); }

TEST(BucketValueTest, EveryTagHasItsRecordAndText) {
    uint32_t tag = 0;
    for (const auto& sample : test::valueSamples()) {
        SCOPED_TRACE(sample.name);
        AutoRef<BucketValue> value = makeValue();
        StatusChain status = okStatus();
        sample.set(*value, status);
        EXPECT_EQ(status.getCode(), 0);
        EXPECT_EQ(value->getType(), tag++);
        EXPECT_EQ(recordOf(*value), sample.record.data);
        EXPECT_EQ(value->serializationSize(), sample.record.data.size());
        EXPECT_EQ(narrow(value->toString()), narrow(WString(sample.text)));

        AutoRef<BucketValue> back = test::readRecord<BucketValue>(sample.record.data);
        EXPECT_EQ(back->getType(), value->getType());
        EXPECT_EQ(recordOf(*back), sample.record.data);
        EXPECT_TRUE(value->equals(*back));
    }
    EXPECT_EQ(tag, kValueTypeCount);
}

TEST(BucketValueTest, GettersAreStrictlyTyped) {
    AutoRef<BucketValue> value = makeValue();
    StatusChain status = okStatus();
    value->setInt16(-7, status);
    int wrong = 0;
#define CHECK_GETTER(Name, Type, Tag, ArrayTag)                           \
    {                                                                     \
        StatusChain s = okStatus();                                       \
        const Type got = value->get##Name(s);                             \
        if (Tag == kINT16) {                                              \
            EXPECT_EQ(static_cast<int>(got), -7);                         \
            EXPECT_EQ(s.getCode(), 0);                                    \
        } else {                                                          \
            ++wrong;                                                      \
            EXPECT_EQ(got, Type()) << #Name;                              \
            EXPECT_EQ(s.getCode(), status::kWrongType) << #Name;          \
        }                                                                 \
        StatusChain e = okStatus();                                       \
        EXPECT_EQ(value->get##Name##ArrayElement(0, e), Type()) << #Name; \
        EXPECT_EQ(e.getCode(), status::kWrongType) << #Name;              \
        Type* block = nullptr;                                            \
        StatusChain c = okStatus();                                       \
        EXPECT_EQ(value->get##Name##Array(&block, c), 0u) << #Name;       \
        EXPECT_EQ(c.getCode(), status::kWrongType) << #Name;              \
        EXPECT_EQ(block, nullptr);                                        \
    }
    ZQ_ORVANE_PLAIN_KINDS(CHECK_GETTER)
#undef CHECK_GETTER
    EXPECT_EQ(wrong, 10);
    const std::function<bool(StatusChain&)> others[] = {
        [&](StatusChain& s) { return value->getDigest(s) == Digest(); },
        [&](StatusChain& s) { return value->getAnsiString(s).empty(); },
        [&](StatusChain& s) { return value->getString(s).empty(); },
        [&](StatusChain& s) { return value->getBlobSize(s) == 0u; },
        [&](StatusChain& s) { return value->getStringArrayElement(0, s).empty(); },
    };
    for (const auto& getter : others) {
        StatusChain s = okStatus();
        EXPECT_TRUE(getter(s));
        EXPECT_EQ(s.getCode(), status::kWrongType);
    }
    // A failed read changes nothing.
    StatusChain s = okStatus();
    EXPECT_EQ(value->getInt16(s), -7);
    EXPECT_EQ(value->getType(), kINT16);
}

TEST(BucketValueTest, AnErrorInTheStatusStopsEveryOperation) {
    AutoRef<BucketValue> value = makeValue();
    StatusChain ok = okStatus();
    value->setInt32(5, ok);
    StatusChain failed;
    failed.setCode(status::kFileSystem);
    EXPECT_EQ(value->getInt32(failed), 0);
    EXPECT_EQ(value->getInt8(failed), 0);
    EXPECT_FALSE(value->setInt32(6, failed));
    EXPECT_FALSE(value->setString(WString(L"x"), failed));
    EXPECT_EQ(failed.getCode(), status::kFileSystem);
    EXPECT_EQ(value->getInt32(ok), 5);
    // A fresh status has not completed, which counts as an error too.
    StatusChain fresh;
    EXPECT_EQ(value->getInt32(fresh), 0);
    EXPECT_EQ(fresh.getCode(), StatusChain::kNotCompleted);
}

TEST(BucketValueTest, BlobSizeQueryAndShortBuffers) {
    AutoRef<BucketValue> value = makeValue();
    const unsigned char ten[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    StatusChain status = okStatus();
    ASSERT_TRUE(value->setBlob(ten, 10, status));

    unsigned char buffer[16] = {};
    EXPECT_EQ(value->getBlob(buffer, 0, status), 10u);
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(buffer[1], 0);
    EXPECT_EQ(value->getBlobSize(status), 10u);

    StatusChain small = okStatus();
    EXPECT_EQ(value->getBlob(buffer, 5, small), 10u);
    EXPECT_EQ(small.getCode(), status::kBufferTooSmall);
    EXPECT_EQ(buffer[1], 0);

    EXPECT_EQ(value->getBlob(buffer, 16, status), 10u);
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(std::vector<unsigned char>(buffer, buffer + 10),
              std::vector<unsigned char>(ten, ten + 10));
}

TEST(BucketValueTest, CopiedOutArraysBelongToTheCaller) {
    AutoRef<BucketValue> value = makeValue();
    const int32_t numbers[] = {4, 5, 6};
    StatusChain status = okStatus();
    value->setInt32Array(numbers, 3, status);
    int32_t* copy = nullptr;
    ASSERT_EQ(value->getInt32Array(&copy, status), 3u);
    copy[0] = 99;  // the caller's block, not the value's
    EXPECT_EQ(value->getInt32ArrayElement(0, status), 4);
    std::free(copy);

    const WString words[] = {WString(L"one"), WString(L"two")};
    value->setStringArray(words, 2, status);
    WString* strings = nullptr;
    ASSERT_EQ(value->getStringArray(&strings, status), 2u);
    strings[1] = WString(L"changed");
    EXPECT_EQ(value->getStringArrayElement(1, status), WString(L"two"));
    EXPECT_TRUE(value->freeStringArray(strings, status));
    EXPECT_EQ(status.getCode(), 0);

    StatusChain wrong = okStatus();
    NString* ansi = nullptr;
    EXPECT_EQ(value->getAnsiStringArray(&ansi, wrong), 0u);
    EXPECT_EQ(wrong.getCode(), status::kWrongType);

    StatusChain range = okStatus();
    EXPECT_TRUE(value->getStringArrayElement(2, range).empty());
    EXPECT_EQ(range.getCode(), status::kIndexOutOfRange);

    StatusChain nullOut = okStatus();
    EXPECT_EQ(value->getStringArray(nullptr, nullOut), 0u);
    EXPECT_EQ(nullOut.getCode(), status::kNullArgument);

    value->setInt32Array(numbers, 0, status);
    EXPECT_EQ(value->getType(), kINT32ARRAY);
    StatusChain empty = okStatus();
    EXPECT_EQ(value->getInt32Array(&copy, empty), 0u);
    EXPECT_EQ(empty.getCode(), status::kNoData);
}

TEST(BucketValueTest, BoolsComeOutAsBoolsWhateverByteWasStored) {
    const Bytes record = valueHeader(kBOOLARRAY).u32(2).raw({0, 7});
    AutoRef<BucketValue> value = test::readRecord<BucketValue>(record.data);
    StatusChain status = okStatus();
    EXPECT_TRUE(value->getBoolArrayElement(1, status));
    bool* copy = nullptr;
    ASSERT_EQ(value->getBoolArray(&copy, status), 2u);
    EXPECT_FALSE(copy[0]);
    EXPECT_TRUE(copy[1]);
    std::free(copy);
    EXPECT_EQ(recordOf(*value), record.data);  // the byte itself is kept
}

TEST(BucketValueTest, AFailedSetterLeavesTheValueUnset) {
    AutoRef<BucketValue> value = makeValue();
    StatusChain status = okStatus();
    value->setInt32(1, status);
    EXPECT_FALSE(value->setInt32Array(nullptr, 3, status));
    EXPECT_EQ(status.getCode(), status::kNullArgument);
    EXPECT_EQ(value->getType(), kNOTSET);
}

TEST(BucketValueTest, DeepEquality) {
    auto make = [](auto set) {
        AutoRef<IBucketValue> value(new BucketValue());
        StatusChain status = okStatus();
        set(*value, status);
        return value;
    };
    const int64_t a64[] = {1, 2};
    const int64_t b64[] = {1, 3};
    const uint64_t ua64[] = {1, 2};
    const uint64_t ub64[] = {1, 3};
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        AutoRef<IBucketValue> a;
        AutoRef<IBucketValue> b;
        bool equal;
    };
    const Case cases[] = {
        // The first half of a kINT64ARRAY's data is all that is compared.
        {"int64 arrays differing in the second element",
         make([&](IBucketValue& v, StatusChain& s) { v.setInt64Array(a64, 2, s); }),
         make([&](IBucketValue& v, StatusChain& s) { v.setInt64Array(b64, 2, s); }), true},
        {"uint64 arrays differing in the second element",
         make([&](IBucketValue& v, StatusChain& s) { v.setUInt64Array(ua64, 2, s); }),
         make([&](IBucketValue& v, StatusChain& s) { v.setUInt64Array(ub64, 2, s); }), false},
        {"int64 arrays differing in the first element",
         make([&](IBucketValue& v, StatusChain& s) { v.setInt64Array(b64 + 1, 1, s); }),
         make([&](IBucketValue& v, StatusChain& s) { v.setInt64Array(a64 + 1, 1, s); }), false},
        {"same number, different width",
         make([](IBucketValue& v, StatusChain& s) { v.setInt32(1, s); }),
         make([](IBucketValue& v, StatusChain& s) { v.setUInt32(1, s); }), false},
        {"NaN", make([&](IBucketValue& v, StatusChain& s) { v.setFloat64(nan, s); }),
         make([&](IBucketValue& v, StatusChain& s) { v.setFloat64(nan, s); }), false},
        {"signed zeros", make([](IBucketValue& v, StatusChain& s) { v.setFloat32(0.0f, s); }),
         make([](IBucketValue& v, StatusChain& s) { v.setFloat32(-0.0f, s); }), true},
        {"letter case",
         make([](IBucketValue& v, StatusChain& s) { v.setString(WString(L"a"), s); }),
         make([](IBucketValue& v, StatusChain& s) { v.setString(WString(L"A"), s); }), false},
        {"two unset", make([](IBucketValue&, StatusChain&) {}),
         make([](IBucketValue&, StatusChain&) {}), true},
        {"empty handles", AutoRef<IBucketValue>(), AutoRef<IBucketValue>(), true},
        {"one empty handle", make([](IBucketValue& v, StatusChain& s) { v.setBool(false, s); }),
         AutoRef<IBucketValue>(), false},
    };
    const AutoRef<IBucketValue> judge(new BucketValue());
    for (const Case& c : cases) {
        EXPECT_EQ(judge->isEqual(c.a, c.b), c.equal) << c.name;
    }
}

TEST(BucketValueTest, UnknownTagReadsAsUnsetAndEqualsNothing) {
    const Bytes record = valueHeader(99).raw({1, 2, 3});
    AutoRef<BucketValue> value = makeValue();
    AutoRef<BucketValue> same = makeValue();
    const unsigned char* cursor = record.data.data();
    value->deserialize(cursor, cursor + record.data.size());
    EXPECT_EQ(cursor - record.data.data(), 8);
    cursor = record.data.data();
    same->deserialize(cursor, cursor + record.data.size());
    EXPECT_EQ(value->getType(), 99u);
    EXPECT_EQ(narrow(value->toString()), "kNOTSET");
    EXPECT_EQ(value->serializationSize(), 8u);
    EXPECT_EQ(value->getMemUsage(), 32u);
    EXPECT_FALSE(value->equals(*same));
}

TEST(BucketValueTest, DamagedNarrowStringsAreRejected) {
    const Bytes noTerminator = valueHeader(kANSISTRING).u32(2).text("ab");
    const Bytes zeroLength = valueHeader(kANSISTRING).u32(0);
    // Longer than the input: refused before anything is allocated for it.
    const Bytes huge = valueHeader(kUINT64ARRAY).u32(0x7FFFFFFF).u32(0);
    for (const Bytes* record : {&noTerminator, &zeroLength, &huge}) {
        AutoRef<BucketValue> value = makeValue();
        const unsigned char* cursor = record->data.data();
        EXPECT_THROW(value->deserialize(cursor, cursor + record->data.size()),
                     kel::exception::DeserializationError);
        EXPECT_EQ(value->getType(), kNOTSET);
    }
}

TEST(BucketValueTest, SerializeRefusesAShortBufferBeforeWriting) {
    AutoRef<BucketValue> value = makeValue();
    StatusChain status = okStatus();
    value->setInt32(-1, status);
    unsigned char out[11] = {};
    unsigned char* cursor = out;
    EXPECT_THROW(value->serialize(cursor, out + sizeof out), kel::exception::BufferOverflow);
    EXPECT_EQ(cursor, out);
    EXPECT_EQ(out[0], 0);
}

TEST(BucketValueTest, MemoryUse) {
    AutoRef<BucketValue> value = makeValue();
    StatusChain status = okStatus();
    EXPECT_EQ(value->getMemUsage(), 32u);
    value->setUInt64(1, status);
    EXPECT_EQ(value->getMemUsage(), 32u);
    value->setDigest(Digest(), status);
    EXPECT_EQ(value->getMemUsage(), 72u);
    const WString text(L"abc");
    value->setString(text, status);
    EXPECT_EQ(value->getMemUsage(), 32u + 4 * text.capacity());
    const int16_t shorts[] = {1, 2, 3};
    value->setInt16Array(shorts, 3, status);
    EXPECT_EQ(value->getMemUsage(), 32u + 6);
    const unsigned char bytes[5] = {};
    value->setBlob(bytes, 5, status);
    EXPECT_EQ(value->getMemUsage(), 37u);
}

TEST(BucketValueTest, CopiesAreDeepAndIndependent) {
    AutoRef<BucketValue> value = makeValue();
    const NString words[] = {NString("a"), NString("b")};
    StatusChain status = okStatus();
    value->setAnsiStringArray(words, 2, status);
    AutoRef<BucketValue> copy(new BucketValue(*value));
    EXPECT_TRUE(copy->equals(*value));
    value->setAnsiStringArray(words, 1, status);
    EXPECT_EQ(copy->getArraySize(), 2u);
    EXPECT_EQ(copy->getAnsiStringArrayElement(1, status), NString("b"));
}

}  // namespace
}  // namespace orvane
}  // namespace zq
