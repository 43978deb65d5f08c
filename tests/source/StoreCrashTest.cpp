// A store stopped at every file-system call of a commit or a compaction, with
// everything not yet durable lost, must reopen to exactly the old state or
// exactly the new one, and to the new one once the commit returned, though
// its mark is never synced; a call that fails once must leave the old state
// and a store that commits again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/CommitMarks.h"
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
// kChange's two updates padded by this much make a segment of three pieces.
constexpr uint32_t kPiecesPadding = 1300 * 1024;

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

// A store directory whose file holds two segments, both durable; their
// marks are not, so a reopen after a crash rolls forward over them.
std::unique_ptr<SimulatedFileSystem> twoSegmentWorld(uint32_t padding = 0) {
    auto fs = std::make_unique<SimulatedFileSystem>();
    fs->makeDirectory(kDir, 0777);
    commitInTurn(kDir, {kFirst, kSecondChanges}, *fs, padding);
    return fs;
}

const std::set<std::wstring> kNames = namesOf({kFirst, kSecondChanges, kChange});

const std::string kLive = "/reg/registry.bin";

// What the newest mark says, as another process would read it.
int64_t newestMarkLength(SimulatedFileSystem& fs) {
    return orvane::CommitMarks(fs, kDir, nullptr).peekNewest().committedLength;
}

State reopenAndRead(SimulatedFileSystem& fs, const Options* options = nullptr,
                    const std::set<std::wstring>& names = kNames) {
    SingleFileBucketStore store(kDir, options, fs);
    StatusChain status = okStatus();
    store.open(0, status);
    EXPECT_EQ(status.getCode(), 0) << "reopen failed";
    return status.isFatal() ? State{{L"<open failed>", 0}} : readState(store, names);
}

std::unique_ptr<Options> limitOfKB(const wchar_t* kilobytes) {
    StatusChain status = okStatus();
    return std::make_unique<Options>(
        Options::Values{{Options::kDiskMaxRegistryFileSizeKB, WString(kilobytes)}}, status);
}

class StoreCrashTest : public testing::Test {
  protected:
    const State before_ = applied(kFirst, kSecondChanges);
    const State after_ = applied(before_, kChange);
};

// Runs `step` on an open store in a fresh world, stopping the world at its
// k-th call, for every k; `check` sees the state after a crash and reopen.
template <class Step>
void crashAtEveryCall(const Options* options, Step&& step, const State& before, const State& after,
                      uint32_t worldPadding = 0) {
    uint64_t total = 0;
    {
        auto fs = twoSegmentWorld(worldPadding);
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
        auto fs = twoSegmentWorld(worldPadding);
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

// Stops after the first piece, between pieces, after the last one and at
// the sync: the reopen sees the commit wholly or not at all.
TEST_F(StoreCrashTest, CommitInPiecesStoppedAtEveryCall) {
    crashAtEveryCall(
        nullptr,
        [](SingleFileBucketStore& store, StatusChain& status) {
            commitChanges(store, kChange, nullptr, status, kPiecesPadding);
        },
        before_, after_);
}

// Records larger than a piece are copied through the bounded buffer. The
// open compacted the world already: a commit gives it a second segment.
TEST_F(StoreCrashTest, CompactionOfLargeRecordsStoppedAtEveryCall) {
    crashAtEveryCall(
        nullptr,
        [](SingleFileBucketStore& store, StatusChain& status) {
            commitChanges(store, kChange, nullptr, status);
            store.compactNow(status);
        },
        before_, after_, kPiecesPadding);
}

TEST_F(StoreCrashTest, CommitThatCompactsStoppedAtEveryCall) {
    // Enough data to pass 4 KB, so the commit compacts, and few enough dead
    // records that what stays fits (3,800 bytes of 4,388).
    const std::unique_ptr<Options> options = limitOfKB(L"4");
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

// A compaction that fails before its swap takes away what it wrote: on a
// nearly full disk a "registry.bin.1" left behind would fail every commit.
TEST_F(StoreCrashTest, ACompactionFailingBeforeItsSwapLeavesOnlyTheLiveFileAndMark) {
    // The open compacts the two segments into one; the commit adds a second.
    const auto twoSegments = [](SingleFileBucketStore& store) {
        StatusChain status = okStatus();
        store.open(0, status);
        commitChanges(store, kChange, nullptr, status);
        ASSERT_EQ(status.getCode(), 0);
        ASSERT_EQ(store.facts().segments, 2u);
    };
    uint64_t beforeSwap = 0;
    {
        auto fs = twoSegmentWorld();
        SingleFileBucketStore store(kDir, nullptr, *fs);
        twoSegments(store);
        fs->clearJournal();
        StatusChain status = okStatus();
        store.compactNow(status);
        ASSERT_EQ(status.getCode(), 0);
        const std::vector<std::string> journal = fs->journal();
        const auto swap =
            std::find(journal.begin(), journal.end(), "rename " + kLive + " /reg/registry.bin.2");
        ASSERT_NE(swap, journal.end());
        beforeSwap = static_cast<uint64_t>(swap - journal.begin());
        // Else the sweep would not reach the new mark.
        ASSERT_TRUE(std::any_of(journal.begin(), swap, [](const std::string& line) {
            return line.find("newCommitmark") != std::string::npos;
        }));
    }
    const std::vector<WString> left = {WString(L"commitmark.2"), WString(L"registry.bin")};
    for (const int error : {ENOSPC, EIO}) {
        for (uint64_t k = 1; k <= beforeSwap; ++k) {
            auto fs = twoSegmentWorld();
            SingleFileBucketStore store(kDir, nullptr, *fs);
            twoSegments(store);
            const std::string old = fs->contents(kLive);
            fs->failCall(SimulatedFileSystem::kAnyCall, k, error);
            StatusChain status = okStatus();
            store.compactNow(status);
            EXPECT_EQ(status.getCode(), orvane::status::kFileSystem) << "call " << k;
            EXPECT_EQ(fs->listDirectory(kDir), left) << "call " << k;
            EXPECT_EQ(fs->contents(kLive), old) << "call " << k;
            EXPECT_EQ(newestMarkLength(*fs), static_cast<int64_t>(old.size())) << "call " << k;
            EXPECT_EQ(readState(store, kNames), after_) << "call " << k;

            StatusChain next = okStatus();
            commitChanges(store, {{L"/f", 6}}, nullptr, next);
            store.compactNow(next);
            EXPECT_EQ(next.getCode(), 0) << "call " << k;
            EXPECT_EQ(store.facts().segments, 1u) << "call " << k;
            fs->crash();
            const State final = applied(after_, {{L"/f", 6}});
            EXPECT_EQ(reopenAndRead(*fs, nullptr, namesOf({after_, final})), final) << "call " << k;
        }
    }
}

State numbered(const std::wstring& prefix, int count) {
    State state;
    for (int i = 0; i < count; ++i) {
        state[prefix + std::to_wstring(i)] = i;
    }
    return state;
}

// One data sync of the store's file, before the mark is renamed into place,
// and no other sync at all: no sync of the mark, none of the directory.
TEST_F(StoreCrashTest, ACommitSyncsItsDataOnceWhateverItsSize) {
    const struct {
        int count;
        uint32_t padding;
        size_t writes;  // of the data file: a segment up to 1 MiB is one
    } cases[] = {{1, 0, 1}, {500, 0, 1}, {2, kPiecesPadding, 3}};
    for (const auto& [count, padding, writes] : cases) {
        auto fs = twoSegmentWorld();
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        const uint64_t syncs = fs->calls(SimulatedFileSystem::kSyncCall);
        const uint64_t directorySyncs = fs->calls(SimulatedFileSystem::kSyncDirCall);
        fs->clearJournal();
        commitChanges(store, numbered(L"/h", count), nullptr, status, padding);
        ASSERT_EQ(status.getCode(), 0) << count;
        EXPECT_EQ(fs->calls(SimulatedFileSystem::kSyncCall) - syncs, 1u) << count;
        EXPECT_EQ(fs->calls(SimulatedFileSystem::kSyncDirCall) - directorySyncs, 0u) << count;

        const std::vector<std::string> journal = fs->journal();
        // The live file may be the one a compaction on open wrote, and still
        // journalled by its first name.
        const auto dataSync = std::find_if(
            journal.begin(), journal.end(),
            [](const std::string& line) { return line.rfind("sync " + kLive, 0) == 0; });
        const auto markRename =
            std::find_if(journal.begin(), journal.end(), [](const std::string& line) {
                return line.rfind("rename", 0) == 0 && line.find("commitmark.") != line.npos;
            });
        const auto dataWrites = std::count_if(
            journal.begin(), journal.end(),
            [](const std::string& line) { return line.rfind("write " + kLive, 0) == 0; });
        EXPECT_EQ(static_cast<size_t>(dataWrites), writes) << count;
        ASSERT_NE(dataSync, journal.end()) << count;
        ASSERT_NE(markRename, journal.end()) << count;
        EXPECT_LT(dataSync, markRename) << count;
        // Other processes see the commit at once.
        EXPECT_EQ(newestMarkLength(*fs), static_cast<int64_t>(fs->contents(kLive).size()));
    }
}

// The crash loses the marks of returned commits, never the commits: the open
// finds them past the newest mark, and makes that durable before serving.
TEST_F(StoreCrashTest, ReturnedCommitsSurviveTheLossOfTheirMarks) {
    auto fs = twoSegmentWorld();
    fs->crash();
    EXPECT_EQ(reopenAndRead(*fs), before_);
    State state = before_;
    {
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        commitChanges(store, kChange, &state, status);
        commitChanges(store, {{L"/f", 6}}, &state, status);
        ASSERT_EQ(status.getCode(), 0);
    }
    const std::string bytes = fs->contents(kLive);
    fs->crash();
    ASSERT_EQ(fs->contents(kLive), bytes);
    ASSERT_LT(newestMarkLength(*fs), static_cast<int64_t>(bytes.size())) << "the marks survived";

    const std::set<std::wstring> names = namesOf({before_, after_, {{L"/f", 0}}});
    for (const bool repairs : {true, false}) {
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0);
        EXPECT_EQ(store.wasRepairedOnOpen(), repairs);
        EXPECT_EQ(readState(store, names), state);
        EXPECT_EQ(newestMarkLength(*fs), static_cast<int64_t>(fs->contents(kLive).size()));
        fs->crash();  // the repair was durable: the next open has none to make
    }
}

// Past the newest mark the open accepts whole segments that verify, in
// order, and cuts the file at the first thing that is not one. (The open
// then compacts what it accepted into one segment.)
TEST_F(StoreCrashTest, TheOpenRollsForwardOnlyOverWholeVerifiedSegments) {
    auto fs = twoSegmentWorld();
    fs->crash();
    EXPECT_EQ(reopenAndRead(*fs), before_);  // leaves a durable mark
    const std::string base = fs->contents(kLive);
    const State middle = applied(before_, kChange);
    const State last = applied(middle, {{L"/f", 6}});
    size_t firstEnd = 0;  // of the first segment past the mark
    {
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        commitChanges(store, kChange, nullptr, status);
        firstEnd = fs->contents(kLive).size();
        commitChanges(store, {{L"/f", 6}}, nullptr, status);
        ASSERT_EQ(status.getCode(), 0);
    }
    const std::string full = fs->contents(kLive);
    fs->crash();
    ASSERT_EQ(newestMarkLength(*fs), static_cast<int64_t>(base.size()));
    const auto flipped = [&full](size_t at) {
        std::string bytes = full;
        bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
        return bytes;
    };
    const struct {
        const char* what;
        std::string file;
        State state;
    } cases[] = {
        {"two whole segments", full, last},
        {"a torn second segment", full.substr(0, full.size() - 9), middle},
        {"garbage after both", full + std::string(100, 'x'), last},
        {"a damaged record in the first", flipped(base.size() + 12), before_},
        {"a damaged record in the second", flipped(firstEnd + 12), middle},
    };
    const std::set<std::wstring> names = namesOf({before_, after_, {{L"/f", 0}}});
    for (const auto& c : cases) {
        fs->putFile(kLive, c.file);
        SingleFileBucketStore store(kDir, nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0) << c.what;
        EXPECT_TRUE(store.wasRepairedOnOpen()) << c.what;
        EXPECT_EQ(readState(store, names), c.state) << c.what;
        const int64_t size = static_cast<int64_t>(fs->contents(kLive).size());
        EXPECT_EQ(newestMarkLength(*fs), size) << c.what;
        fs->crash();  // nothing of the repair may be lost
        EXPECT_EQ(reopenAndRead(*fs, nullptr, names), c.state) << c.what;
        // Back to the mark of `base` for the next case.
        store.close(status);
        fs->putFile(kLive, base);
        orvane::CommitMarks(*fs, kDir, nullptr)
            .write(100, static_cast<int64_t>(base.size()), orvane::CommitMarks::kDurable);
    }
}

// A commit whose write, sync or mark fails has changed nothing: the file is
// back at its old bytes, durably, the status says so, and the next commit
// lands. A padded commit goes out in three pieces, then the mark is written.
TEST_F(StoreCrashTest, AFailedWriteSyncOrMarkLeavesTheFileAsItWas) {
    const struct {
        const char* what;
        SimulatedFileSystem::Op op;
        uint64_t nth;
        int error;
        size_t torn;
        uint32_t padding;
    } cases[] = {
        {"segment written, torn", SimulatedFileSystem::kWriteCall, 1, ENOSPC, 100, 0},
        {"data sync, EIO", SimulatedFileSystem::kSyncCall, 1, EIO, 0, 0},
        {"data sync, ENOSPC", SimulatedFileSystem::kSyncCall, 1, ENOSPC, 0, 0},
        {"mark created", SimulatedFileSystem::kOpenCall, 1, ENOSPC, 0, 0},
        {"mark written", SimulatedFileSystem::kWriteCall, 2, ENOSPC, 0, 0},
        {"mark renamed", SimulatedFileSystem::kRenameCall, 1, EIO, 0, 0},
        {"first piece", SimulatedFileSystem::kWriteCall, 1, EIO, 0, kPiecesPadding},
        {"middle piece, torn", SimulatedFileSystem::kWriteCall, 2, ENOSPC, 4096, kPiecesPadding},
        {"last piece", SimulatedFileSystem::kWriteCall, 3, ENOSPC, 0, kPiecesPadding},
        {"sync after the pieces", SimulatedFileSystem::kSyncCall, 1, EIO, 0, kPiecesPadding},
        {"mark after the pieces", SimulatedFileSystem::kWriteCall, 4, ENOSPC, 0, kPiecesPadding},
    };
    for (const auto& c : cases) {
        for (const bool crash : {true, false}) {
            auto fs = twoSegmentWorld();
            SingleFileBucketStore store(kDir, nullptr, *fs);
            StatusChain status = okStatus();
            store.open(0, status);
            const std::string old = fs->contents(kLive);
            const int64_t oldMark = newestMarkLength(*fs);
            fs->failCall(c.op, c.nth, c.error, c.torn);
            commitChanges(store, kChange, nullptr, status, c.padding);
            EXPECT_EQ(status.getCode(), orvane::status::kFileSystem) << c.what;
            EXPECT_EQ(fs->contents(kLive), old) << c.what;
            EXPECT_EQ(newestMarkLength(*fs), oldMark) << c.what;
            EXPECT_EQ(readState(store, kNames), before_) << c.what;
            if (crash) {
                // The cut was durable: no open rolls forward over the failure.
                fs->crash();
                EXPECT_EQ(reopenAndRead(*fs), before_) << c.what;
                continue;
            }
            StatusChain next = okStatus();
            commitChanges(store, {{L"/f", 6}}, nullptr, next);
            EXPECT_EQ(next.getCode(), 0) << c.what;
            EXPECT_EQ(newestMarkLength(*fs), static_cast<int64_t>(fs->contents(kLive).size()));
            fs->crash();
            const State final = applied(before_, {{L"/f", 6}});
            EXPECT_EQ(reopenAndRead(*fs, nullptr, namesOf({after_, final})), final) << c.what;
        }
    }
}

}  // namespace
}  // namespace test
}  // namespace zq
