// Every truncation and every single-byte change of valid records either reads
// or throws DeserializationError: never a crash, a leak or a huge allocation
// (the sanitizer build checks the last two).

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

#include "tests/source/ValueSamples.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace orvane {
namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using test::okStatus;

template <class Target>
void readDamaged(const std::vector<unsigned char>& record, int& accepted, int& rejected) {
    AutoRef<Target> target(new Target());
    const unsigned char* cursor = record.data();
    try {
        target->deserialize(cursor, record.data() + record.size());
        ++accepted;
        // Whatever was read must write out again.
        const std::vector<unsigned char> out = test::recordOf(*target);
        const uint32_t weight = target->getMemUsage();
        if constexpr (std::is_same<Target, Bucket>::value) {
            // Values kept in their stored form decode to the same bytes and weight.
            target->closeEnumeration(target->openEnumeration());
            EXPECT_EQ(test::recordOf(*target), out);
            EXPECT_EQ(target->getMemUsage(), weight);
        }
        target->toString();
    } catch (const kel::exception::DeserializationError&) {
        ++rejected;
    }
}

// Truncations at every length and three changes of every byte.
template <class Target>
void damageEveryWay(const std::vector<unsigned char>& record, int& accepted, int& rejected) {
    for (size_t length = 0; length < record.size(); ++length) {
        readDamaged<Target>(std::vector<unsigned char>(record.begin(), record.begin() + length),
                            accepted, rejected);
    }
    for (size_t at = 0; at < record.size(); ++at) {
        for (unsigned char change : {0x01, 0x80, 0xFF}) {
            std::vector<unsigned char> damaged = record;
            damaged[at] = static_cast<unsigned char>(damaged[at] ^ change);
            readDamaged<Target>(damaged, accepted, rejected);
        }
    }
}

TEST(RecordRobustnessTest, DamagedValueRecords) {
    int accepted = 0;
    int rejected = 0;
    for (const auto& sample : test::valueSamples()) {
        SCOPED_TRACE(sample.name);
        damageEveryWay<BucketValue>(sample.record.data, accepted, rejected);
    }
    // Every truncation of a non-empty payload fails; many changes still read.
    EXPECT_GT(rejected, 200);
    EXPECT_GT(accepted, 200);
}

TEST(RecordRobustnessTest, DamagedBucketRecords) {
    AutoRef<Bucket> bucket(new Bucket(WString(L"/Robust/\u00e9")));
    for (const auto& sample : test::valueSamples()) {
        AutoRef<BucketValue> value(new BucketValue());
        StatusChain status = okStatus();
        sample.set(*value, status);
        bucket->setValue(WString(kel::NString(sample.name)), AutoRef<IBucketValue>(value), status,
                         false);
    }
    StatusChain status = okStatus();
    bucket->addChild(WString(L"kid"), status, false);
    int accepted = 0;
    int rejected = 0;
    damageEveryWay<Bucket>(test::recordOf(*bucket), accepted, rejected);
    EXPECT_GT(rejected, 0);
    EXPECT_GT(accepted, 0);
}

TEST(RecordRobustnessTest, NullInputIsRejected) {
    AutoRef<Bucket> bucket(new Bucket());
    const unsigned char* cursor = nullptr;
    EXPECT_THROW(bucket->deserialize(cursor, nullptr), kel::exception::DeserializationError);
    AutoRef<BucketValue> value(new BucketValue());
    EXPECT_THROW(value->deserialize(cursor, nullptr), kel::exception::DeserializationError);
}

}  // namespace
}  // namespace orvane
}  // namespace zq
