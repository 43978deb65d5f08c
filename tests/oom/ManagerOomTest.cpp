// Running out of memory in the manager's put, commit and store read: each
// allocation fails in turn; the call reports -314511 or succeeds, and the
// registry, reopened by a fresh manager, holds exactly the old or the new
// state.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "oom/Sweep.h"
#include "source/ManagerTestSupport.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {
namespace {

namespace st = orvane::status;

const wchar_t* const kNames[] = {L"/a", L"/b", L"/c"};

// What a manager sees of the names: 0 all hold `old`, 1 all hold `old` + 1,
// 2 anything else.
int generationSeen(IBucketManager& manager, int32_t old) {
    int seen = -1;
    for (const wchar_t* name : kNames) {
        const int32_t value = valueOf(manager, name);
        const int one = value == old ? 0 : value == old + 1 ? 1 : 2;
        if (seen != -1 && one != seen) return 2;
        seen = one;
    }
    return seen;
}

void putGeneration(IBucketManager& manager, const Guid& id, int32_t generation,
                   StatusChain& status) {
    for (const wchar_t* name : kNames) {
        AutoRef<IBucket> bucket = bucketWith(manager, name, generation, status);
        bucket->setStringValue(WString(L"s"), WString(L"some text to allocate"), status, true);
        manager.putBucket(bucket, true, id, status);
    }
}

// In memory where there is a tmpfs: a sweep commits hundreds of times, and
// the syncs of a disk would take most of its time.
std::string fastBase() {
    struct stat info;
    return ::stat("/dev/shm", &info) == 0 && S_ISDIR(info.st_mode) ? "/dev/shm" : "/tmp";
}

class ManagerOomTest : public ManagerFixture {
  protected:
    AutoRef<IBucketManager> open(StatusChain& status) {
        StatusChain entry = fresh();
        auto* orvane = orvane::publicInterface::GetInterface(2, entry);
        return orvane->createBucketManager(store_.wide("reg"), options_, status);
    }
    // Every commit of a registry past 1 KB compacts it.
    void compactEveryCommit() {
        store_.write("Orvane.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=1\n");
        options_ = store_.wide("Orvane.ini");
    }
    long fileSize() const {
        struct stat info;
        return ::stat(store_.file("reg/registry.bin").c_str(), &info) == 0 ? info.st_size : -1;
    }
    // A transaction that writes `generation` to every name, in a child.
    void commitInChild(int32_t generation) {
        ASSERT_EQ(inChild([&] {
                      StatusChain status = fresh();
                      AutoRef<IBucketManager> manager = open(status);
                      return manager &&
                                     transact(*manager, status,
                                              [&](const Guid& id) {
                                                  putGeneration(*manager, id, generation, status);
                                              })
                                 ? 0
                                 : 1;
                  }),
                  0);
    }

    // What a child that commits reports, bits or-ed together.
    enum Outcome {
        kCommitted = 1,
        kFired = 2,
        kWrongCode = 4,
        kFileChanged = 8,
        kNextCommitFailed = 16,
        kNoManager = 32,
    };

    // Commits the next generation with the k-th allocation failing, then
    // commits once more.
    int commitWithFailure(long k, int32_t generation) {
        StatusChain status = fresh();
        AutoRef<IBucketManager> manager = open(status);
        if (!manager) return kNoManager;
        const long before = fileSize();
        Guid id;
        manager->beginTransaction(id, status);
        manager->beginUpdate(id, status);
        putGeneration(*manager, id, generation + 1, status);
        StatusChain commit = fresh();
        const bool fired = failingAt(k, [&] { manager->commit(id, commit); });
        StatusChain end = fresh();
        manager->endTransaction(id, end);
        // This manager's own view is no test: after a failed store write
        // its read cache shows the new state, by design.
        const int32_t code = commit.getCode();
        int outcome = (fired ? kFired : 0) + (code == 0 ? kCommitted : 0);
        if (code != 0 && code != st::kOutOfMemory) return outcome + kWrongCode;
        if (code != 0 && fileSize() != before) return outcome + kFileChanged;
        StatusChain next = fresh();
        if (!transact(*manager, next, [&](const Guid& nextId) {
                manager->putBucket(bucketWith(*manager, L"/z", k, next), true, nextId, next);
            })) {
            outcome += kNextCommitFailed;
        }
        return outcome;
    }

    // Commits generation after generation, the k-th allocation of the k-th
    // commit failing.
    void sweepCommits(const char* what) {
        commitInChild(0);
        int32_t generation = 0;
        sweep(what, [&](long k) {
            const int outcome =
                inChild([&] { return leakChecked(commitWithFailure(k, generation)); });
            EXPECT_LT(outcome, kWrongCode) << "k=" << k << " outcome " << outcome;
            const int seen = outcome & kCommitted;
            EXPECT_EQ(inChild([&] {
                          StatusChain status = fresh();
                          AutoRef<IBucketManager> manager = open(status);
                          if (!manager) return 1;
                          return generationSeen(*manager, generation) == seen &&
                                         valueOf(*manager, L"/z") == k
                                     ? 0
                                     : 2;
                      }),
                      0)
                << "k=" << k;
            generation += seen;
            return outcome < kNoManager && (outcome & kFired) != 0;
        });
    }

    TempDir store_{fastBase()};
    WString options_;
};

TEST_F(ManagerOomTest, APutThatCannotAllocateChangesNothing) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status);
    ASSERT_TRUE(manager);
    // A new bucket, then one that replaces a stored one.
    for (const wchar_t* name : {L"/new", L"/new"}) {
        const int32_t stored = valueOf(*manager, name);
        int32_t now = stored;
        sweep("put", [&](long k) {
            StatusChain put = fresh();
            bool fired = false;
            EXPECT_TRUE(transact(*manager, status, [&](const Guid& id) {
                AutoRef<IBucket> bucket = bucketWith(*manager, name, stored + 1 + k, status);
                fired = failingAt(k, [&] { manager->putBucket(bucket, true, id, put); });
            })) << status.getCode();
            const int32_t code = put.getCode();
            EXPECT_TRUE(code == 0 || code == st::kOutOfMemory) << "k=" << k << " code " << code;
            if (code == 0) now = stored + 1 + k;
            EXPECT_EQ(valueOf(*manager, name), now) << "k=" << k;
            return fired;
        });
    }
}

// The second put of a transaction merges onto the first one's bucket, which
// only the update cache holds: a lookup there that runs out of memory must
// not read as "nothing pending".
TEST_F(ManagerOomTest, APutThatMergesOntoAPendingOneKeepsItOrFails) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status);
    ASSERT_TRUE(manager);
    const WString first(L"first");
    sweep("merging put", [&](long k) {
        const std::wstring name = L"/m" + std::to_wstring(k);
        StatusChain put = fresh();
        bool fired = false;
        EXPECT_TRUE(transact(*manager, status, [&](const Guid& id) {
            AutoRef<IBucket> pending = manager->createBucket(WString(name.c_str()), false, status);
            pending->setInt32Value(first, 1, status, true);
            manager->putBucket(pending, true, id, status);
            AutoRef<IBucket> merged = bucketWith(*manager, name.c_str(), 2, status);
            fired = failingAt(k, [&] { manager->putBucket(merged, false, id, put); });
        })) << status.getCode();
        const int32_t code = put.getCode();
        EXPECT_TRUE(code == 0 || code == st::kOutOfMemory) << "k=" << k << " code " << code;
        StatusChain read = fresh();
        AutoRef<IBucket> stored = manager->getBucket(WString(name.c_str()), read);
        EXPECT_TRUE(stored && stored->getValue(first, read)) << "k=" << k;
        EXPECT_EQ(valueOf(*manager, name.c_str()), code == 0 ? 2 : -1) << "k=" << k;
        return fired;
    });
}

// Each attempt runs in two children: one commits with the k-th allocation
// failing and then commits once more; a fresh one reopens the registry and
// finds the new state only if the commit reported success.
TEST_F(ManagerOomTest, ACommitThatCannotAllocateLeavesTheOldStateAndTheNextOneSucceeds) {
    sweepCommits("commit");
}

TEST_F(ManagerOomTest, ACommitThatCompactsAndCannotAllocateLeavesOneStateOrTheOther) {
    compactEveryCommit();
    sweepCommits("commit with compaction");
}

TEST_F(ManagerOomTest, AStoreReadThatCannotAllocateReportsIt) {
    commitInChild(7);
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status);
    ASSERT_TRUE(manager);
    const WString name(L"/c");
    sweep("store read", [&](long k) {
        StatusChain read = fresh();
        AutoRef<IBucket> bucket;
        const bool fired = failingAt(k, [&] { bucket = manager->getBucket(name, read); });
        EXPECT_TRUE(read.getCode() == 0 || read.getCode() == st::kOutOfMemory)
            << "k=" << k << " code " << read.getCode();
        EXPECT_EQ(static_cast<bool>(bucket), read.getCode() == 0) << "k=" << k;
        return fired;
    });
    EXPECT_EQ(valueOf(*manager, L"/c"), 7);
}

}  // namespace
}  // namespace test
}  // namespace zq
