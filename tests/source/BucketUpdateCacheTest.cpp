// The update cache: pending puts and deleted names kept disjoint, no
// eviction, and the write-back at commit against a recording store and the
// real one.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/BucketCache.h"
#include "source/BucketUpdateCache.h"
#include "source/CaseTestSupport.h"
#include "source/SingleFileBucketStore.h"

namespace zq {
namespace test {
namespace {

using orvane::BucketCache;
using orvane::BucketUpdateCache;
using orvane::Digest;
using orvane::SingleFileBucketStore;

std::vector<std::wstring> sorted(const IBucketStore::DeletedNames& names) {
    std::vector<std::wstring> out;
    for (const WString& name : names) {
        out.emplace_back(name.c_str());
    }
    return out;
}

// Remembers every commit it is handed; `failWith` makes commits fail.
class RecordingStore : public IBucketStore {
  public:
    struct Commit {
        std::vector<std::wstring> updated;
        std::vector<std::wstring> deleted;
    };

    void open(uint32_t, StatusChain&) override {}
    void close(StatusChain&) override {}
    AutoRef<IBucket> readBucket(const WString&, StatusChain&) override { return {}; }
    AutoRef<IBucket> readBucketByDigest(const Digest&, StatusChain&) override { return {}; }
    void commit(const UpdatedBuckets& updated, const DeletedNames& deleted,
                StatusChain& status) override {
        Commit seen;
        for (const auto& entry : updated) {
            EXPECT_EQ(entry.first, entry.second->getFullName());
            seen.updated.emplace_back(entry.first.c_str());
        }
        seen.deleted = sorted(deleted);
        commits.push_back(seen);
        if (failWith != 0) {
            status.setCode(failWith);
        }
    }
    bool containsBucket(const AutoRef<IBucket>&, StatusChain&) override { return false; }
    bool exists(const WString&, StatusChain&) override { return false; }
    bool wasRepairedOnOpen() override { return false; }
    bool isOverSizeLimit() override { return false; }
    Refresh refresh(StatusChain&) override { return Refresh::kUnchanged; }
    bool catchUp(StatusChain&) override { return false; }
    uint64_t viewVersion() const override { return 0; }

    std::vector<Commit> commits;
    int32_t failWith = 0;
};

class BucketUpdateCacheTest : public testing::Test {
  protected:
    // A store on a simulated disk holding `state`, its buckets also in the
    // read cache.
    std::unique_ptr<SingleFileBucketStore> storeWith(const State& state) {
        fs_.makeDirectory(WString(L"/reg"), 0777);
        auto store = std::make_unique<SingleFileBucketStore>(WString(L"/reg"), nullptr, fs_);
        StatusChain status = okStatus();
        store->open(0, status);
        commitChanges(*store, state, nullptr, status);
        for (const auto& entry : state) {
            insert(*read_, store->readBucket(WString(entry.first.c_str()), status));
        }
        EXPECT_EQ(status.getCode(), 0);
        return store;
    }

    SimulatedFileSystem fs_;
    AutoRef<BucketUpdateCache> pending_{new BucketUpdateCache(104857)};
    AutoRef<BucketCache> read_{new BucketCache(1048576)};
    RecordingStore recording_;
};

TEST_F(BucketUpdateCacheTest, APutAfterADeleteCancelsTheDeletion) {
    pending_->eraseBucket(WString(L"/Net"));
    EXPECT_TRUE(pending_->isDeleted(WString(L"/net")));
    insert(*pending_, makeBucket(L"/net", 4));
    EXPECT_FALSE(pending_->isDeleted(WString(L"/NET")));
    EXPECT_TRUE(pending_->containsBucket(WString(L"/Net")));

    StatusChain status = okStatus();
    pending_->writeBack(*read_, recording_, status);
    ASSERT_EQ(recording_.commits.size(), 1u);
    EXPECT_EQ(recording_.commits[0].updated, std::vector<std::wstring>{L"/net"});
    EXPECT_TRUE(recording_.commits[0].deleted.empty());
}

TEST_F(BucketUpdateCacheTest, ADeleteAfterAPutDropsThePut) {
    insert(*pending_, makeBucket(L"/a", 1));
    insert(*pending_, makeBucket(L"/b", 2));
    const uint32_t weightOfB = weightOf(pending_->findBucket(WString(L"/b")));
    pending_->eraseBucket(WString(L"/A"));
    EXPECT_FALSE(pending_->containsBucket(WString(L"/a")));
    EXPECT_TRUE(pending_->isDeleted(WString(L"/a")));
    EXPECT_EQ(pending_->usedBytes(), weightOfB);

    StatusChain status = okStatus();
    pending_->writeBack(*read_, recording_, status);
    ASSERT_EQ(recording_.commits.size(), 1u);
    EXPECT_EQ(recording_.commits[0].updated, std::vector<std::wstring>{L"/b"});
    EXPECT_EQ(recording_.commits[0].deleted, std::vector<std::wstring>{L"/A"});
}

TEST_F(BucketUpdateCacheTest, HoldsAnyNumberOfBucketsBeyondItsBudget) {
    AutoRef<BucketUpdateCache> small(new BucketUpdateCache(100));
    for (int i = 0; i < 50; ++i) {
        insert(*small, sizedBucket(L"/b" + std::to_wstring(i), 400));
    }
    EXPECT_EQ(small->getBucketCount(), 50u);
    EXPECT_EQ(small->usedBytes(), 20000u);
}

TEST_F(BucketUpdateCacheTest, ClearForgetsPutsAndDeletions) {
    insert(*pending_, makeBucket(L"/a"));
    pending_->eraseBucket(WString(L"/b"));
    pending_->clear();
    EXPECT_EQ(pending_->getBucketCount(), 0u);
    EXPECT_FALSE(pending_->isDeleted(WString(L"/b")));
}

TEST_F(BucketUpdateCacheTest, WriteBackWithNothingPendingStillCommits) {
    StatusChain status = okStatus();
    pending_->writeBack(*read_, recording_, status);
    ASSERT_EQ(recording_.commits.size(), 1u);
    EXPECT_TRUE(recording_.commits[0].updated.empty());
    EXPECT_TRUE(recording_.commits[0].deleted.empty());

    // A status that already holds an error: nothing runs.
    status.setCode(orvane::status::kFileSystem);
    pending_->writeBack(*read_, recording_, status);
    EXPECT_EQ(recording_.commits.size(), 1u);
}

TEST_F(BucketUpdateCacheTest, WriteBackBringsTheReadCacheAndTheStoreToTheNewState) {
    const auto store = storeWith({{L"/old", 1}, {L"/kept", 2}});
    StatusChain status = okStatus();

    pending_->eraseBucket(WString(L"/OLD"));
    insert(*pending_, makeBucket(L"/new", 3));
    insert(*pending_, makeBucket(L"/Kept", 4));
    pending_->writeBack(*read_, *store, status);
    EXPECT_EQ(status.getCode(), 0);

    EXPECT_FALSE(read_->containsBucket(WString(L"/old")));
    EXPECT_EQ(walk(*read_), (std::vector<std::wstring>{L"/Kept", L"/new"}));
    EXPECT_EQ(readState(*store, {L"/old", L"/new", L"/kept"}),
              (State{{L"/new", 3}, {L"/kept", 4}}));
    EXPECT_EQ(pending_->getBucketCount(), 0u);
    EXPECT_FALSE(pending_->isDeleted(WString(L"/old")));
}

// What the store did not commit never reaches the read cache, and what the
// cache held may have been changed by the failed commit: it forgets it all.
TEST_F(BucketUpdateCacheTest, AFailedStoreCommitLeavesNothingOfTheTransaction) {
    const auto store = storeWith({{L"/old", 1}});
    StatusChain status = okStatus();

    pending_->eraseBucket(WString(L"/old"));
    insert(*pending_, makeBucket(L"/new", 3));
    fs_.failCall(SimulatedFileSystem::kSyncCall, 1, EIO);
    pending_->writeBack(*read_, *store, status);
    EXPECT_EQ(status.getCode(), orvane::status::kFileSystem);

    EXPECT_FALSE(read_->containsBucket(WString(L"/new")));
    EXPECT_EQ(pending_->getBucketCount(), 0u);
    EXPECT_FALSE(pending_->isDeleted(WString(L"/old")));
    EXPECT_EQ(readState(*store, {L"/old", L"/new"}), (State{{L"/old", 1}}));

    // The next commit carries only its own change.
    insert(*pending_, makeBucket(L"/next", 4));
    StatusChain next = okStatus();
    pending_->writeBack(*read_, *store, next);
    EXPECT_EQ(next.getCode(), 0);
    EXPECT_EQ(readState(*store, {L"/old", L"/new", L"/next"}),
              (State{{L"/old", 1}, {L"/next", 4}}));
}

}  // namespace
}  // namespace test
}  // namespace zq
