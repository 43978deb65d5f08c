// What a client linking only the shared library sees of values and buckets.
#include <zq/orvane/Orvane.h>

#include <gtest/gtest.h>

namespace {

TEST(BucketClientTest, TagsAndTheExportedMemoryUse) {
    EXPECT_EQ(zq::orvane::kINT32, 10u);
    EXPECT_EQ(zq::orvane::kFLOAT64ARRAY, 28u);
    // Resolved against the shared library: the link fails if it is not exported.
    uint32_t (zq::orvane::Bucket::*weigh)() const = &zq::orvane::Bucket::getMemUsage;
    EXPECT_NE(weigh, nullptr);
    EXPECT_EQ(zq::orvane::IBucket::kMergeKeeping, 3);
}

}  // namespace
