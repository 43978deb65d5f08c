#ifndef ZQ_TESTS_SOURCE_CASETESTSUPPORT_H
#define ZQ_TESTS_SOURCE_CASETESTSUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "source/BucketCase.h"
#include "source/StoreTestSupport.h"
#include "zq/kel/AbsoluteTime.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace test {

using orvane::IBucketCase;

inline uint32_t weightOf(const AutoRef<IBucket>& bucket) {
    return static_cast<orvane::Bucket*>(bucket.get())->getMemUsage();
}

// A bucket that weighs exactly `weight` bytes, with a modification time
// later than that of every bucket made before it.
inline AutoRef<IBucket> sizedBucket(const std::wstring& name, uint32_t weight) {
    AutoRef<IBucket> bucket(new orvane::Bucket(WString(name.c_str())));
    StatusChain status = okStatus();
    const std::vector<unsigned char> none;
    bucket->setBlobValue(WString(L"b"), none.data(), 0, status, true);
    const uint32_t base = weightOf(bucket);
    EXPECT_LE(base, weight);
    const std::vector<unsigned char> bytes(weight - base, 7);
    bucket->setBlobValue(WString(L"b"), bytes.data(), static_cast<uint32_t>(bytes.size()), status,
                         true);
    EXPECT_EQ(weightOf(bucket), weight);
    const kel::AbsoluteTime made = bucket->getModifiedTime();
    while (!(made < kel::AbsoluteTime::now())) {
    }
    return bucket;
}

inline void insert(IBucketCase& target, AutoRef<IBucket> bucket, bool replace = false) {
    StatusChain status = okStatus();
    target.insertBucket(bucket, &replace, status);
    EXPECT_EQ(status.getCode(), 0);
}

// The full names of a whole walk with `handle`.
inline std::vector<std::wstring> walk(IBucketCase& target, int32_t handle = 1) {
    std::vector<std::wstring> names;
    StatusChain status = okStatus();
    for (AutoRef<IBucket> bucket = target.getFirstBucket(&handle); bucket;
         bucket = target.getNextBucket(&handle, status)) {
        names.emplace_back(bucket->getFullName().c_str());
    }
    EXPECT_EQ(status.getCode(), 0);
    return names;
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SOURCE_CASETESTSUPPORT_H
