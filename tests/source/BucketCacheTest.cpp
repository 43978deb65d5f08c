// The read cache: the byte budget, the 20-bucket floor, oldest first, the
// root kept, the eviction amount.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "source/BucketCache.h"
#include "source/CaseTestSupport.h"

namespace zq {
namespace test {
namespace {

using orvane::BucketCache;

std::wstring numbered(int i) { return (i < 10 ? L"/b0" : L"/b") + std::to_wstring(i); }

TEST(BucketCacheTest, EvictionAmountIsAQuarterOfTheLimitIn32BitArithmetic) {
    EXPECT_EQ(BucketCache(1024).evictionAmount(), 256u);
    EXPECT_EQ(BucketCache(1048576).evictionAmount(), 262144u);
    EXPECT_EQ(BucketCache(104857).evictionAmount(), 26214u);
    // 25 * 200000000 wraps to 705032704 before the division.
    EXPECT_EQ(BucketCache(200000000).evictionAmount(), 7050327u);
    EXPECT_EQ(BucketCache(1024).limitBytes(), 1024u);
}

TEST(BucketCacheTest, TwentyBucketsStayWhateverTheirSizeAndTheTwentyFirstEvictsTheOldest) {
    AutoRef<BucketCache> cache(new BucketCache(1024));
    for (int i = 0; i < 20; ++i) {
        insert(*cache, sizedBucket(numbered(i), 1000));
    }
    EXPECT_EQ(cache->getBucketCount(), 20u);
    EXPECT_EQ(cache->usedBytes(), 20000u);

    insert(*cache, sizedBucket(L"/new", 1000));
    EXPECT_EQ(cache->getBucketCount(), 20u);  // one bucket frees the 256 bytes
    EXPECT_FALSE(cache->containsBucket(WString(L"/b00")));
    EXPECT_TRUE(cache->containsBucket(WString(L"/b01")));
    EXPECT_TRUE(cache->containsBucket(WString(L"/new")));
    EXPECT_EQ(cache->usedBytes(), 20000u);
}

TEST(BucketCacheTest, EvictsOldestFirstUntilTheAmountIsFreed) {
    AutoRef<BucketCache> cache(new BucketCache(6000));  // frees at least 1500 bytes
    // Made in reverse name order, so oldest first is not name order.
    std::vector<AutoRef<IBucket>> buckets;
    for (int i = 20; i >= 0; --i) {
        buckets.push_back(sizedBucket(numbered(i), 400));
    }
    for (int i = 0; i <= 20; ++i) {
        insert(*cache, buckets[static_cast<size_t>(20 - i)]);  // inserted in name order
    }
    // 21 buckets, 8400 bytes: the four made first go (1600 bytes).
    EXPECT_EQ(cache->getBucketCount(), 17u);
    EXPECT_EQ(cache->usedBytes(), 6800u);
    for (int i = 0; i <= 20; ++i) {
        EXPECT_EQ(cache->containsBucket(WString(numbered(i).c_str())), i < 17) << i;
    }
    // 17 buckets over budget: below the floor of 20, nothing more goes.
    insert(*cache, sizedBucket(L"/more", 400));
    EXPECT_EQ(cache->getBucketCount(), 18u);
}

TEST(BucketCacheTest, TheRootIsNeverEvicted) {
    AutoRef<BucketCache> cache(new BucketCache(1024));
    insert(*cache, sizedBucket(L"/", 1000));  // the oldest of all
    for (int i = 0; i < 40; ++i) {
        insert(*cache, sizedBucket(numbered(i), 1000));
        EXPECT_TRUE(cache->containsBucket(WString(L"/")));
    }
    EXPECT_EQ(cache->getBucketCount(), 20u);
    EXPECT_FALSE(cache->containsBucket(WString(L"/b19")));
    EXPECT_TRUE(cache->containsBucket(WString(L"/b21")));

    // With nothing but the root left to choose, the root still stays.
    AutoRef<BucketCache> rootOnly(new BucketCache(0));
    insert(*rootOnly, sizedBucket(L"/", 500));
    rootOnly->recount();
    EXPECT_TRUE(rootOnly->containsBucket(WString(L"/")));
}

TEST(BucketCacheTest, ReplacingByALargerBucketRaisesUsedByTheDifference) {
    AutoRef<BucketCache> cache(new BucketCache(1024));
    for (int i = 0; i < 20; ++i) {
        insert(*cache, sizedBucket(numbered(i), 400));
    }
    insert(*cache, sizedBucket(L"/b05", 900), true);
    EXPECT_EQ(cache->usedBytes(), 20u * 400u + 500u);
    EXPECT_EQ(cache->getBucketCount(), 20u);
    cache->recount();
    EXPECT_EQ(cache->usedBytes(), 20u * 400u + 500u);
}

TEST(BucketCacheTest, AnEvictionOfAnyBudgetFreesAtLeastOneBucket) {
    AutoRef<BucketCache> cache(new BucketCache(3));  // eviction amount 0
    for (int i = 0; i < 25; ++i) {
        insert(*cache, sizedBucket(numbered(i), 400));
    }
    EXPECT_EQ(cache->getBucketCount(), 20u);
    EXPECT_FALSE(cache->containsBucket(WString(L"/b04")));
}

// Run under the sanitizers: evictions while other threads insert, find and
// walk; the accounting stays the sum of the held weights.
TEST(BucketCacheTest, ConcurrentInsertsEvictConsistently) {
    AutoRef<BucketCache> cache(new BucketCache(8000));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const int32_t handle = t + 1;
            for (int i = 0; i < 100; ++i) {
                const std::wstring name = L"/t" + std::to_wstring(t) + L"/" + std::to_wstring(i);
                insert(*cache, makeBucket(name, i));
                cache->findBucket(WString(name.c_str()));
                StatusChain status = okStatus();
                for (AutoRef<IBucket> at = cache->getFirstBucket(&handle); at;
                     at = cache->getNextBucket(&handle, status)) {
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::lock_guard<std::recursive_mutex> lock(cache->mutex());
    const uint32_t used = cache->usedBytes();
    cache->recount();
    EXPECT_EQ(cache->usedBytes(), used);
    EXPECT_LE(cache->usedBytes(), cache->limitBytes() + weightOf(makeBucket(L"/t0/99", 1)));
    EXPECT_GT(cache->getBucketCount(), BucketCache::kMinBuckets);
}

}  // namespace
}  // namespace test
}  // namespace zq
