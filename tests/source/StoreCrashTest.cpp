// A store stopped at every file-system call of a commit or a compaction, with
// everything not yet durable lost, must reopen to exactly the old state or
// exactly the new one; a call that fails once must leave the old state and a
// store that commits again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/Options.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"

namespace zq {
namespace test {
namespace {

using orvane::Options;
using orvane::SingleFileBucketStore;

const WString kDir(L"/reg");
const State kFirst = {{L"/", -1}, {L"/a", 1}, {L"/b", 2}, {L"/c", 3}};
const State kSecondChanges = {{L"/a", 11}, {L"/b", -2}, {L"/d", 4}};
const State kChange = {{L"/a", 21}, {L"/c", -2}, {L"/e", 5}};

State applied(State state, const State& changes) {
    for (const auto& [name, value] : changes) {
        if (value == -2) {
            state.erase(name);
        } else {
            state[name] = value;
        }
    }
    return state;
}

// A store directory whose file holds two segments, all durable.
std::unique_ptr<SimulatedFileSystem> twoSegmentWorld() {
    auto fs = std::make_unique<SimulatedFileSystem>();
    fs->makeDirectory(kDir, 0777);
    commitInTurn(kDir, {kFirst, kSecondChanges}, *fs);
    return fs;
}

const std::set<std::wstring> kNames = namesOf({kFirst, kSecondChanges, kChange});

State reopenAndRead(SimulatedFileSystem& fs, const Options* options = nullptr,
                    const std::set<std::wstring>& names = kNames) {
    SingleFileBucketStore store(kDir, options, fs);
    StatusChain status = okStatus();
    store.open(0, status);
    EXPECT_EQ(status.getCode(), 0) << "reopen failed";
    return status.isFatal() ? State{{L"<open failed>", 0}} : readState(store, names);
}

std::unique_ptr<Options> smallLimit() {
    StatusChain status = okStatus();
    return std::make_unique<Options>(
        Options::Values{{Options::kDiskMaxRegistryFileSizeKB, WString(L"1")}}, status);
}

class StoreCrashTest : public testing::Test {
  protected:
    const State before_ = applied(kFirst, kSecondChanges);
    const State after_ = applied(before_, kChange);
};

// Runs `step` on an open store in a fresh world, stopping the world at its
// k-th call, for every k; `check` sees the state after a crash and reopen.
template <class Step>
void crashAtEveryCall(const Options* options, Step&& step, const State& before,
                      const State& after) {
    uint64_t total = 0;
    {
        auto fs = twoSegmentWorld();
        SingleFileBucketStore store(kDir, options, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        const uint64_t start = fs->calls();
        step(store, status);
        ASSERT_EQ(status.getCode(), 0);
        total = fs->calls() - start;
        ASSERT_GT(total, 5u);
    }
    for (uint64_t k = 1; k <= total + 1; ++k) {
        auto fs = twoSegmentWorld();
        StatusChain status = okStatus();
        {
            SingleFileBucketStore store(kDir, options, *fs);
            store.open(0, status);
            ASSERT_EQ(status.getCode(), 0);
            fs->stopAfter(k);
            step(store, status);
        }
        fs->crash();
        const State seen = reopenAndRead(*fs, options, namesOf({before, after}));
        if (status.getCode() == 0) {
            EXPECT_EQ(seen, after) << "an acknowledged commit was lost, stop at call " << k;
        } else {
            EXPECT_TRUE(seen == before || seen == after) << "a third state, stop at call " << k;
        }
    }
}

TEST_F(StoreCrashTest, CommitStoppedAtEveryCall) {
    crashAtEveryCall(
        nullptr,
        [](SingleFileBucketStore& store, StatusChain& status) {
            commitChanges(store, kChange, nullptr, status);
        },
        before_, after_);
}

TEST_F(StoreCrashTest, CommitThatCompactsStoppedAtEveryCall) {
    const std::unique_ptr<Options> options = smallLimit();
    // Enough data to pass 1 KB, so the commit compacts.
    State big = kChange;
    for (int i = 0; i < 40; ++i) {
        big[L"/n" + std::to_wstring(i)] = i;
    }
    crashAtEveryCall(
        options.get(),
        [&big](SingleFileBucketStore& store, StatusChain& status) {
            commitChanges(store, big, nullptr, status);
        },
        before_, applied(before_, big));
}

TEST_F(StoreCrashTest, CompactionOnOpenStoppedAtEveryCall) {
    uint64_t total = 0;
    {
        auto fs = twoSegmentWorld();
        const uint64_t start = fs->calls();
        EXPECT_EQ(reopenAndRead(*fs), before_);
        total = fs->calls() - start;
    }
    for (uint64_t k = 1; k <= total; ++k) {
        auto fs = twoSegmentWorld();
        {
            SingleFileBucketStore store(kDir, nullptr, *fs);
            StatusChain status = okStatus();
            fs->stopAfter(k);
            store.open(0, status);
        }
        fs->crash();
        EXPECT_EQ(reopenAndRead(*fs), before_) << "stop at call " << k;
        // And the store goes on: a commit after the repair lands.
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        commitChanges(store, kChange, nullptr, status);
        EXPECT_EQ(status.getCode(), 0) << "stop at call " << k;
    }
}

// Every call of a commit fails once; the commit either fails cleanly or (when
// the call was a clean-up after the commit was durable) succeeds.
TEST_F(StoreCrashTest, EveryCallFailingOnceLeavesTheOldStateAndTheStoreUsable) {
    uint64_t total = 0;
    {
        auto fs = twoSegmentWorld();
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        const uint64_t start = fs->calls();
        commitChanges(store, kChange, nullptr, status);
        total = fs->calls() - start;
    }
    for (const int error : {EIO, ENOSPC}) {
        for (uint64_t k = 1; k <= total; ++k) {
            auto fs = twoSegmentWorld();
            SingleFileBucketStore store(kDir, nullptr, *fs);
            StatusChain status = okStatus();
            store.open(0, status);
            fs->failCall(SimulatedFileSystem::kAnyCall, k, error, 7);
            commitChanges(store, kChange, nullptr, status);
            const State expected = status.getCode() == 0 ? after_ : before_;
            if (status.getCode() != 0) {
                EXPECT_EQ(status.getCode(), orvane::status::kFileSystem) << "call " << k;
            }
            EXPECT_EQ(readState(store, kNames), expected) << "call " << k;

            StatusChain next = okStatus();
            commitChanges(store, {{L"/f", 6}}, nullptr, next);
            EXPECT_EQ(next.getCode(), 0) << "call " << k;
            const State final = applied(expected, {{L"/f", 6}});
            EXPECT_EQ(reopenAndRead(*fs, nullptr, namesOf({after_, final})), final) << "call " << k;
        }
    }
}

TEST_F(StoreCrashTest, ACommitSyncsAtMostThreeTimesWhateverItsSize) {
    auto fs = twoSegmentWorld();
    SingleFileBucketStore store(kDir, nullptr, *fs);
    StatusChain status = okStatus();
    store.open(0, status);
    const auto syncs = [&fs] {
        return fs->calls(SimulatedFileSystem::kSyncCall) +
               fs->calls(SimulatedFileSystem::kSyncDirCall);
    };
    uint64_t start = syncs();
    commitChanges(store, {{L"/one", 1}}, nullptr, status);
    EXPECT_LE(syncs() - start, 3u);

    State hundred;
    for (int i = 0; i < 100; ++i) {
        hundred[L"/h" + std::to_wstring(i)] = i;
    }
    fs->clearJournal();
    start = syncs();
    commitChanges(store, hundred, nullptr, status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_LE(syncs() - start, 3u);

    // The data is durable before the mark that names it gets its name.
    const std::vector<std::string> journal = fs->journal();
    const auto dataSync = std::find_if(journal.begin(), journal.end(), [](const std::string& line) {
        return line.rfind("sync /reg/registry.bin", 0) == 0;
    });
    const auto markRename =
        std::find_if(journal.begin(), journal.end(), [](const std::string& line) {
            return line.rfind("rename", 0) == 0 && line.find("commitmark.") != std::string::npos;
        });
    ASSERT_NE(dataSync, journal.end());
    ASSERT_NE(markRename, journal.end());
    EXPECT_LT(dataSync - journal.begin(), markRename - journal.begin());
}

}  // namespace
}  // namespace test
}  // namespace zq
