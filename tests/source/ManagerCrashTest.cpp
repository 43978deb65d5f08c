// A manager stopped at every file-system call of one of its own steps, with
// everything not yet durable lost, must open again and show the old state or
// the new one; a step it reported done must show the new one.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/IBucketStore.h"
#include "source/ManagerOptions.h"
#include "source/ManagerTestSupport.h"
#include "source/Options.h"
#include "zq/orvane/BucketManager.h"

namespace zq {
namespace test {
namespace {

using orvane::BucketManager;
using orvane::Options;
using State = std::map<std::wstring, int32_t>;  // bucket -> "v", -1 without one

const WString kDir(L"/reg");
const State kRootOnly = {{L"/", -1}};
const State kOld = {{L"/", -1}, {L"/a", 1}, {L"/b", 2}};

AutoRef<BucketManager> construct(StatusChain& status) {
    return AutoRef<BucketManager>(new BucketManager(kDir, WString(), status));
}

bool commit(BucketManager& manager, const State& changes) {
    StatusChain status = fresh();
    return transact(manager, status, [&](const Guid& id) {
        for (const auto& [name, value] : changes) {
            manager.putBucket(bucketWith(manager, name.c_str(), value, status), true, id, status);
        }
    });
}

// Forty buckets, all rewritten by bigChange(): the commit passes the 7 KB
// limit and the compaction that follows drops as much as it wrote.
State manyBuckets(int32_t base) {
    State changes = {{L"/a", base + 1}};
    for (int i = 0; i < 40; ++i) {
        changes[L"/n" + std::to_wstring(i)] = base + i;
    }
    return changes;
}
State bigChange() { return manyBuckets(100); }

State applied(State state, const State& changes) {
    for (const auto& [name, value] : changes) {
        state[name] = value;
    }
    return state;
}

State readState(BucketManager& manager, const State& names) {
    State state;
    for (const auto& entry : names) {
        StatusChain status = fresh();
        AutoRef<IBucket> bucket;
        if (manager.findBucket(WString(entry.first.c_str()), bucket, status) && bucket) {
            state[entry.first] = valueOf(manager, entry.first.c_str());
        }
    }
    return state;
}

struct Sweep {
    const char* name;
    Options::Values options;
    // The durable world the step starts from.
    State world;
    // The step opens the manager itself rather than being given one.
    bool opens;
    // True when the step reported success.
    std::function<bool(AutoRef<BucketManager>&)> step;
    State after;
};

const std::vector<Sweep>& sweeps() {
    static const std::vector<Sweep> table = {
        {"first open of an empty directory",
         {},
         {},
         true,
         [](AutoRef<BucketManager>& manager) {
             StatusChain status = fresh();
             manager = construct(status);
             return status.isNotFatal();
         },
         kRootOnly},
        {"commit that compacts",
         {{Options::kDiskMaxRegistryFileSizeKB, WString(L"7")}},
         applied(kOld, manyBuckets(0)),
         false,
         [](AutoRef<BucketManager>& manager) { return commit(*manager, bigChange()); },
         applied(applied(kOld, manyBuckets(0)), bigChange())},
        {"purge",
         {},
         kOld,
         false,
         [](AutoRef<BucketManager>& manager) {
             try {
                 manager->purgeStore();
                 return true;
             } catch (...) {
                 return false;
             }
         },
         kRootOnly},
    };
    return table;
}

class ManagerCrashTest : public ManagerFixture, public testing::WithParamInterface<size_t> {
  protected:
    void SetUp() override {
        ManagerFixture::SetUp();
        orvane::overrideManagerOptions(sweep().options);
    }
    void TearDown() override {
        orvane::clearManagerFileSystemOverride();
        orvane::clearManagerOptionsOverride();
    }

    const Sweep& sweep() const { return sweeps()[GetParam()]; }

    // A fresh disk holding the sweep's world, all of it durable.
    std::unique_ptr<SimulatedFileSystem> world() {
        auto fs = std::make_unique<SimulatedFileSystem>();
        fs->makeDirectory(kDir, 0777);
        orvane::overrideManagerFileSystem(fs.get());
        if (!sweep().world.empty()) {
            StatusChain status = fresh();
            AutoRef<BucketManager> manager = construct(status);
            EXPECT_EQ(status.getCode(), 0);
            EXPECT_TRUE(commit(*manager, sweep().world));
        }
        fs->crash();
        return fs;
    }

    // Runs the step on a fresh world, the world stopped at its k-th call
    // (0: never); the calls the step made.
    uint64_t runStep(SimulatedFileSystem& fs, uint64_t k, bool& reported) {
        AutoRef<BucketManager> manager;
        if (!sweep().opens) {
            StatusChain status = fresh();
            manager = construct(status);
            EXPECT_EQ(status.getCode(), 0);
        }
        const uint64_t start = fs.calls();
        if (k > 0) fs.stopAfter(k);
        reported = sweep().step(manager);
        return fs.calls() - start;
    }
};

TEST_P(ManagerCrashTest, StoppedAtEveryCallReopensToTheOldOrTheNewState) {
    const Sweep& s = sweep();
    const State names = applied(applied(s.world, s.after), kRootOnly);
    uint64_t total = 0;
    {
        auto fs = world();
        bool reported = false;
        total = runStep(*fs, 0, reported);
        ASSERT_TRUE(reported);
        ASSERT_GT(total, 5u);
        if (GetParam() == 1) {
            // Else this sweep would not reach a compaction's steps.
            const std::vector<std::string> journal = fs->journal();
            EXPECT_TRUE(std::any_of(journal.begin(), journal.end(), [](const std::string& line) {
                return line.find("registry.bin.1") != std::string::npos;
            }));
        }
    }
    // A world without a root reads as the root only: a reopen creates it.
    const State before = applied(s.world, kRootOnly);
    for (uint64_t k = 1; k <= total + 1; ++k) {
        auto fs = world();
        bool reported = false;
        runStep(*fs, k, reported);
        fs->crash();
        StatusChain status = fresh();
        AutoRef<BucketManager> reopened = construct(status);
        ASSERT_TRUE(status.isNotFatal())
            << s.name << ": reopen failed with " << status.getCode() << ", stop at call " << k;
        const State seen = readState(*reopened, names);
        if (reported) {
            EXPECT_EQ(seen, s.after) << s.name << ": done but lost, stop at call " << k;
        } else {
            EXPECT_TRUE(seen == before || seen == s.after)
                << s.name << ": a third state, stop at call " << k;
        }
        // And the registry goes on taking commits, unless it is full.
        if (!reopened->store()->isOverSizeLimit()) {
            EXPECT_TRUE(commit(*reopened, {{L"/z", 9}})) << s.name << ", stop at call " << k;
        }
    }
}

std::string stepName(const testing::TestParamInfo<size_t>& info) {
    static const char* const kNames[] = {"FirstOpen", "CompactingCommit", "Purge"};
    return kNames[info.param];
}

INSTANTIATE_TEST_SUITE_P(Steps, ManagerCrashTest, testing::Range<size_t>(0, 3), stepName);

}  // namespace
}  // namespace test
}  // namespace zq
