// The bucket case: cursors and their invalidation, handles, the replace rule,
// case-insensitive names, weights, the serialised form, concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "source/BucketCase.h"
#include "source/CaseTestSupport.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {
namespace {

using orvane::BucketCase;
using orvane::Digest;
namespace status = orvane::status;

class BucketCaseTest : public testing::Test {
  protected:
    void fill(std::initializer_list<const wchar_t*> names) {
        for (const wchar_t* name : names) {
            insert(*case_, makeBucket(name));
        }
    }
    std::vector<unsigned char> bytesOf(IBucketCase& source) {
        std::vector<unsigned char> bytes(source.serializationSize());
        unsigned char* cursor = bytes.data();
        source.serialize(cursor, bytes.data() + bytes.size());
        EXPECT_EQ(cursor, bytes.data() + bytes.size());
        return bytes;
    }

    AutoRef<BucketCase> case_{new BucketCase()};
};

TEST_F(BucketCaseTest, AWalkVisitsEveryBucketInCaseInsensitiveNameOrder) {
    fill({L"/b", L"/C", L"/a/x", L"/A"});
    EXPECT_EQ(walk(*case_), (std::vector<std::wstring>{L"/A", L"/a/x", L"/b", L"/C"}));
    // Past the end a step yields null without a code, as often as asked.
    const int32_t handle = 1;
    StatusChain status = okStatus();
    EXPECT_FALSE(case_->getNextBucket(&handle, status));
    EXPECT_EQ(status.getCode(), 0);
}

TEST_F(BucketCaseTest, EveryChangeEndsEveryOpenWalkWithTheWarning) {
    const std::vector<std::pair<const char*, std::function<void(BucketCase&)>>> changes = {
        {"insert", [](BucketCase& c) { insert(c, makeBucket(L"/z")); }},
        {"replace", [](BucketCase& c) { insert(c, makeBucket(L"/b"), true); }},
        {"remove", [](BucketCase& c) { EXPECT_TRUE(c.removeBucket(WString(L"/c"))); }},
        {"clear", [](BucketCase& c) { c.clear(); }},
        {"deserialize",
         [](BucketCase& c) {
             BucketCase other;
             insert(other, makeBucket(L"/q"));
             std::vector<unsigned char> bytes(other.serializationSize());
             unsigned char* out = bytes.data();
             other.serialize(out, bytes.data() + bytes.size());
             const unsigned char* in = bytes.data();
             c.deserialize(in, bytes.data() + bytes.size());
         }},
    };
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        case_.reset(new BucketCase());
        fill({L"/a", L"/b", L"/c"});
        const int32_t first = case_->openEnumeration();
        const int32_t second = case_->openEnumeration();
        ASSERT_TRUE(case_->getFirstBucket(&first));
        ASSERT_TRUE(case_->getFirstBucket(&second));
        change(*case_);
        for (const int32_t handle : {first, second, first}) {
            StatusChain status = okStatus();
            EXPECT_FALSE(case_->getNextBucket(&handle, status));
            EXPECT_EQ(status.getCode(), status::kCursorInvalidated);
        }
        // A new walk starts clean.
        if (case_->getBucketCount() != 0) {
            ASSERT_TRUE(case_->getFirstBucket(&first));
            StatusChain status = okStatus();
            case_->getNextBucket(&first, status);
            EXPECT_EQ(status.getCode(), 0);
        }
    }
}

TEST_F(BucketCaseTest, HandlesUnknownZeroAndNew) {
    const int32_t zero = 0;
    const int32_t never = 7;
    StatusChain status = okStatus();
    EXPECT_FALSE(case_->getNextBucket(&zero, status));
    EXPECT_FALSE(case_->getNextBucket(nullptr, status));
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_FALSE(case_->closeEnumeration(never));

    // On an empty case the first step makes no cursor.
    EXPECT_FALSE(case_->getFirstBucket(&never));
    EXPECT_FALSE(case_->getNextBucket(&never, status));
    EXPECT_EQ(status.getCode(), status::kUnknownHandle);

    // A status that already holds an error is left alone.
    EXPECT_FALSE(case_->getNextBucket(&never, status));
    EXPECT_EQ(status.getCode(), status::kUnknownHandle);

    // Any non-zero handle starts a walk on a case that holds something.
    fill({L"/a"});
    EXPECT_FALSE(case_->getFirstBucket(&zero));
    EXPECT_TRUE(case_->getFirstBucket(&never));
    EXPECT_TRUE(case_->closeEnumeration(never));
    EXPECT_FALSE(case_->closeEnumeration(never));

    // Handles are never zero and never one still open.
    EXPECT_EQ(case_->openEnumeration(), 1);
    EXPECT_EQ(case_->openEnumeration(), 2);
    const int32_t taken = 4;  // opened by a first step, not by openEnumeration
    ASSERT_TRUE(case_->getFirstBucket(&taken));
    EXPECT_EQ(case_->openEnumeration(), 3);
    EXPECT_EQ(case_->openEnumeration(), 5);
    EXPECT_TRUE(case_->closeEnumeration(2));
    EXPECT_EQ(case_->openEnumeration(), 6);  // a closed handle may come back only later
}

// A handle has a cursor to step only once getFirstBucket found a bucket:
// opening it, or a first step on an empty case, starts no walk.
TEST_F(BucketCaseTest, AStepWithoutAWalkIsAnUnknownHandle) {
    const std::vector<std::pair<const char*, std::function<int32_t(BucketCase&)>>> noWalks = {
        {"opened only", [](BucketCase& c) { return c.openEnumeration(); }},
        {"opened, first on empty",
         [](BucketCase& c) {
             const int32_t handle = c.openEnumeration();
             EXPECT_FALSE(c.getFirstBucket(&handle));
             return handle;
         }},
        {"walked, emptied, first again",
         [](BucketCase& c) {
             insert(c, makeBucket(L"/a"));
             const int32_t handle = c.openEnumeration();
             EXPECT_TRUE(c.getFirstBucket(&handle));
             c.clear();
             EXPECT_FALSE(c.getFirstBucket(&handle));
             return handle;
         }},
    };
    for (const auto& [what, make] : noWalks) {
        SCOPED_TRACE(what);
        case_.reset(new BucketCase());
        const int32_t handle = make(*case_);
        StatusChain status = okStatus();
        EXPECT_FALSE(case_->getNextBucket(&handle, status));
        EXPECT_EQ(status.getCode(), status::kUnknownHandle);
        // Still open until closed.
        EXPECT_TRUE(case_->closeEnumeration(handle));
        EXPECT_FALSE(case_->closeEnumeration(handle));
    }
}

// Names differing only in case are one entry: a held one is replaced only
// when asked to, and the entry keeps the spelling of whoever put it in.
TEST_F(BucketCaseTest, AHeldNameInAnyCaseIsReplacedOnlyWhenAskedTo) {
    AutoRef<IBucket> first = makeBucket(L"/net/Eth0", 1);
    AutoRef<IBucket> second = makeBucket(L"/Net/ETH0", 2);
    insert(*case_, first);
    const bool no = false;
    for (const bool* flag : {static_cast<const bool*>(nullptr), &no}) {
        StatusChain status = okStatus();
        case_->insertBucket(second, flag, status);
        EXPECT_EQ(status.getCode(), status::kAlreadyPresent);
        EXPECT_EQ(case_->findBucket(WString(L"/net/eth0")).get(), first.get());
        EXPECT_EQ(case_->findBucketByDigest(Digest(WString(L"/net/eth0"))).get(), first.get());
        EXPECT_EQ(case_->usedBytes(), weightOf(first));
    }
    insert(*case_, second, true);
    EXPECT_EQ(case_->getBucketCount(), 1u);
    EXPECT_EQ(case_->findBucket(WString(L"/NET/eth0")).get(), second.get());
    EXPECT_EQ(case_->findBucketByDigest(Digest(WString(L"/net/eth0"))).get(), second.get());
    EXPECT_EQ(walk(*case_), std::vector<std::wstring>{L"/Net/ETH0"});
    EXPECT_TRUE(case_->containsBucket(WString(L"/NET/ETH0")));

    EXPECT_TRUE(case_->removeBucket(WString(L"/net/eth0")));
    EXPECT_FALSE(case_->removeBucket(WString(L"/net/eth0")));
    EXPECT_FALSE(case_->findBucketByDigest(Digest(WString(L"/net/eth0"))));
    EXPECT_EQ(case_->getBucketCount(), 0u);

    StatusChain status = okStatus();
    AutoRef<IBucket> none;
    case_->insertBucket(none, nullptr, status);
    EXPECT_EQ(status.getCode(), status::kNullArgument);
}

TEST_F(BucketCaseTest, UsedBytesFollowTheWeightsTakenOnTheWayIn) {
    AutoRef<IBucket> a = sizedBucket(L"/a", 400);
    insert(*case_, a);
    insert(*case_, sizedBucket(L"/b", 300));
    EXPECT_EQ(case_->usedBytes(), 700u);
    insert(*case_, sizedBucket(L"/a", 900), true);
    EXPECT_EQ(case_->usedBytes(), 1200u);

    // A held bucket that grows later keeps its old weight until put in again.
    AutoRef<IBucket> held = case_->findBucket(WString(L"/b"));
    StatusChain status = okStatus();
    held->setInt32Value(WString(L"more"), 1, status, true);
    case_->recount();
    EXPECT_EQ(case_->usedBytes(), 1200u);

    EXPECT_TRUE(case_->removeBucket(WString(L"/A")));
    EXPECT_EQ(case_->usedBytes(), 300u);
    case_->clear();
    EXPECT_EQ(case_->usedBytes(), 0u);
}

TEST_F(BucketCaseTest, SerialisedFormIsVersionCountAndRecordsInNameOrder) {
    AutoRef<IBucket> b = makeBucket(L"/b", 2);
    AutoRef<IBucket> a = makeBucket(L"/A", 1);
    insert(*case_, b);
    insert(*case_, a);

    std::vector<unsigned char> expected = {1, 0, 0, 0, 2, 0, 0, 0};
    for (const AutoRef<IBucket>& bucket : {a, b}) {
        std::vector<unsigned char> record(bucket->serializationSize());
        unsigned char* cursor = record.data();
        bucket->serialize(cursor, record.data() + record.size());
        expected.insert(expected.end(), record.begin(), record.end());
    }
    EXPECT_EQ(case_->serializationSize(), expected.size());
    EXPECT_EQ(bytesOf(*case_), expected);

    std::vector<unsigned char> empty = bytesOf(*AutoRef<BucketCase>(new BucketCase()));
    EXPECT_EQ(empty, (std::vector<unsigned char>{1, 0, 0, 0, 0, 0, 0, 0}));

    std::vector<unsigned char> shortBuffer(expected.size() - 1);
    unsigned char* cursor = shortBuffer.data();
    EXPECT_THROW(case_->serialize(cursor, shortBuffer.data() + shortBuffer.size()),
                 kel::exception::BufferOverflow);
}

TEST_F(BucketCaseTest, DeserialiseReplacesTheContentAndRejectsShortInput) {
    fill({L"/b", L"/a/b", L"/A"});
    const std::vector<unsigned char> bytes = bytesOf(*case_);

    AutoRef<BucketCase> copy(new BucketCase());
    insert(*copy, makeBucket(L"/old"));
    const unsigned char* cursor = bytes.data();
    copy->deserialize(cursor, bytes.data() + bytes.size());
    EXPECT_EQ(cursor, bytes.data() + bytes.size());
    EXPECT_EQ(walk(*copy), walk(*case_));
    EXPECT_FALSE(copy->containsBucket(WString(L"/old")));
    EXPECT_TRUE(copy->findBucketByDigest(Digest(WString(L"/a/b"))));
    EXPECT_EQ(copy->usedBytes(), case_->usedBytes());
    EXPECT_EQ(bytesOf(*copy), bytes);

    // Cut anywhere, the input is refused and the case keeps what it held.
    for (size_t cut = 0; cut < bytes.size(); cut += 7) {
        const unsigned char* in = bytes.data();
        AutoRef<BucketCase> target(new BucketCase());
        insert(*target, makeBucket(L"/kept"));
        EXPECT_THROW(target->deserialize(in, bytes.data() + cut),
                     kel::exception::DeserializationError);
        EXPECT_EQ(walk(*target), std::vector<std::wstring>{L"/kept"});
    }
}

// Run under the sanitizers: several threads insert, find, walk and remove on
// one case at once.
TEST_F(BucketCaseTest, ConcurrentUseKeepsTheCaseWhole) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::atomic<int> walkFailures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const int32_t handle = case_->openEnumeration();
            for (int i = 0; i < kRounds; ++i) {
                const std::wstring name = L"/t" + std::to_wstring(t) + L"/" + std::to_wstring(i);
                AutoRef<IBucket> bucket = makeBucket(name, i);
                StatusChain status = okStatus();
                case_->insertBucket(bucket, nullptr, status);
                if (case_->findBucket(WString(name.c_str())).get() != bucket.get()) {
                    ++walkFailures;
                }
                StatusChain walkStatus = okStatus();
                for (AutoRef<IBucket> at = case_->getFirstBucket(&handle); at;
                     at = case_->getNextBucket(&handle, walkStatus)) {
                }
                if (walkStatus.getCode() != 0 &&
                    walkStatus.getCode() != status::kCursorInvalidated) {
                    ++walkFailures;
                }
                if (i % 2 == 1) {
                    case_->removeBucket(WString(name.c_str()));
                }
            }
            case_->closeEnumeration(handle);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(walkFailures.load(), 0);
    EXPECT_EQ(case_->getBucketCount(), static_cast<uint32_t>(kThreads * kRounds / 2));
    EXPECT_EQ(walk(*case_).size(), case_->getBucketCount());
}

}  // namespace
}  // namespace test
}  // namespace zq
