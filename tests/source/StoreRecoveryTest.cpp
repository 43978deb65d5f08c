// What an open makes of every set of files a crash can leave, built from the
// files real commits and compactions write.
#include <gtest/gtest.h>

#include <string>

#include "kel/osdep/FileSystem.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "source/TouchFile.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using orvane::SingleFileBucketStore;

const State kOld = {{L"/", -1}, {L"/a", 1}, {L"/b", 2}};
const State kAfterSecondCommit = {{L"/", -1}, {L"/a", 10}, {L"/c", 3}};

class StoreRecoveryTest : public testing::Test {
  protected:
    // Two commits in `dir`, so that the file has two segments.
    static void writeTwoSegments(const TempDir& dir) {
        SingleFileBucketStore store(dir.wide(), nullptr);
        StatusChain status = okStatus();
        store.open(0, status);
        commitChanges(store, kOld, nullptr, status);
        commitChanges(store, {{L"/a", 10}, {L"/b", -2}, {L"/c", 3}}, nullptr, status);
        ASSERT_EQ(status.getCode(), 0);
    }

    // The files of a compaction of `dir_`: its new "registry.bin" and mark.
    void compactedCopy(std::string* file, std::string* mark) {
        TempDir copy;
        copy.write("registry.bin", dir_.read("registry.bin"));
        copy.write("commitmark.2", dir_.read("commitmark.2"));
        SingleFileBucketStore store(copy.wide(), nullptr);
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0);
        *file = copy.read("registry.bin");
        *mark = copy.read("commitmark.1");
        ASSERT_NE(*file, dir_.read("registry.bin"));
    }

    // The first steps of a compaction's swap: the live file copied to
    // "registry.bin.2", its mark moved to "oldCommitmark".
    void setOldFileAside() {
        dir_.write("registry.bin.2", dir_.read("registry.bin"));
        dir_.write("oldCommitmark", dir_.read("commitmark.2"));
        dir_.remove("commitmark.2");
    }

    State openAndRead(int32_t* code = nullptr) {
        SingleFileBucketStore store(dir_.wide(), nullptr);
        StatusChain status = okStatus();
        store.open(0, status);
        if (code != nullptr) {
            *code = status.getCode();
        } else {
            EXPECT_EQ(status.getCode(), 0);
        }
        repaired_ = store.wasRepairedOnOpen();
        return status.isFatal() ? State() : readState(store, namesOf({kOld, kAfterSecondCommit}));
    }

    TempDir dir_;
    bool repaired_ = false;
};

TEST_F(StoreRecoveryTest, NoFilesGiveANewEmptyStore) {
    EXPECT_EQ(openAndRead(), State());
    EXPECT_TRUE(repaired_);
    EXPECT_EQ(dir_.read("registry.bin"), "");
    EXPECT_EQ(dir_.read("commitmark.1"), "0");
}

TEST_F(StoreRecoveryTest, UnfinishedCompactionBeforeTheSwapIsDiscarded) {
    writeTwoSegments(dir_);
    std::string file, mark;
    compactedCopy(&file, &mark);
    dir_.write("registry.bin.1", file.substr(0, file.size() / 2));
    dir_.write("newCommitmark", mark);
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_FALSE(dir_.exists("registry.bin.1"));
    EXPECT_FALSE(dir_.exists("newCommitmark"));
}

TEST_F(StoreRecoveryTest, SwapDoneButNotCleanedUp) {
    writeTwoSegments(dir_);
    std::string file, mark;
    compactedCopy(&file, &mark);
    setOldFileAside();
    dir_.write("registry.bin", file);
    dir_.write("commitmark.1", mark);
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_FALSE(dir_.exists("registry.bin.2"));
    EXPECT_FALSE(dir_.exists("oldCommitmark"));
}

// The new file has its name but its mark does not yet: finishing the rename
// keeps the data instead of reading the file as empty.
TEST_F(StoreRecoveryTest, NewFileNamedBeforeItsMark) {
    writeTwoSegments(dir_);
    std::string file, mark;
    compactedCopy(&file, &mark);
    setOldFileAside();
    dir_.write("registry.bin", file);
    dir_.write("newCommitmark", mark);
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_EQ(dir_.read("commitmark.1"), mark);
    EXPECT_FALSE(dir_.exists("newCommitmark"));
    EXPECT_FALSE(dir_.exists("registry.bin.2"));
}

// Old file set aside, new file complete with its mark: roll forward. The old
// generation's mark must not describe the new file.
TEST_F(StoreRecoveryTest, SwapInterruptedAfterTheOldFileWasSetAside) {
    writeTwoSegments(dir_);
    std::string file, mark;
    compactedCopy(&file, &mark);
    dir_.write("registry.bin.2", dir_.read("registry.bin"));
    dir_.remove("registry.bin");
    dir_.write("registry.bin.1", file);
    dir_.write("newCommitmark", mark);  // commitmark.2 stays: not yet moved aside
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_EQ(dir_.read("registry.bin"), file);
    EXPECT_EQ(dir_.read("commitmark.1"), mark);
    for (const char* gone : {"commitmark.2", "registry.bin.1", "registry.bin.2", "newCommitmark"}) {
        EXPECT_FALSE(dir_.exists(gone)) << gone;
    }
}

// Without its mark the new file cannot be trusted: the old one comes back,
// with the mark that describes it.
TEST_F(StoreRecoveryTest, SwapInterruptedWithoutTheNewMarkRollsBack) {
    writeTwoSegments(dir_);
    setOldFileAside();
    dir_.remove("registry.bin");
    dir_.write("registry.bin.1", "partial");
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_FALSE(dir_.exists("registry.bin.1"));
    EXPECT_FALSE(dir_.exists("registry.bin.2"));
    EXPECT_FALSE(dir_.exists("oldCommitmark"));
}

TEST_F(StoreRecoveryTest, AStrayNewFileAloneStartsAnEmptyStore) {
    dir_.write("registry.bin.1", "stray");
    EXPECT_EQ(openAndRead(), State());
    EXPECT_TRUE(repaired_);
}

TEST_F(StoreRecoveryTest, TornAppendIsCutBackToTheCommittedLength) {
    writeTwoSegments(dir_);
    const std::string committed = dir_.read("registry.bin");
    const std::string torn = committed + std::string(100, 'x');
    dir_.write("registry.bin", torn);
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_TRUE(repaired_);
}

// A commit of one bucket with a blob of `blobSize` bytes; returns the file size.
size_t commitBlob(const TempDir& dir, size_t blobSize) {
    SingleFileBucketStore store(dir.wide(), nullptr);
    StatusChain status = okStatus();
    store.open(0, status);
    AutoRef<IBucket> bucket = makeBucket(L"/big");
    const std::string blob(blobSize, 'b');
    bucket->setBlobValue(WString(L"blob"), reinterpret_cast<const unsigned char*>(blob.data()),
                         static_cast<uint32_t>(blob.size()), status, true);
    store.commit({{WString(L"/big"), bucket}}, {}, status);
    EXPECT_EQ(status.getCode(), 0);
    return dir.read("registry.bin").size();
}

TEST_F(StoreRecoveryTest, ThousandByteFileWithNineHundredCommitted) {
    TempDir scratch;
    const size_t overhead = commitBlob(scratch, 100) - 100;
    ASSERT_EQ(commitBlob(dir_, 900 - overhead), 900u);
    dir_.write("registry.bin", dir_.read("registry.bin") + std::string(100, 'x'));

    SingleFileBucketStore store(dir_.wide(), nullptr);
    StatusChain status = okStatus();
    store.open(0, status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_TRUE(store.wasRepairedOnOpen());
    EXPECT_EQ(dir_.read("registry.bin").size(), 900u);
    EXPECT_TRUE(store.exists(WString(L"/big"), status));
}

TEST_F(StoreRecoveryTest, NewestMarkWinsAndOlderOnesGoWhateverTheListingOrder) {
    writeTwoSegments(dir_);
    const std::string length = dir_.read("commitmark.2");
    // "commitmark.30" lists before "commitmark.7"; "commitmark.3" before it.
    dir_.write("commitmark.3", "5");
    dir_.write("commitmark.7", length);
    dir_.remove("commitmark.2");
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_FALSE(dir_.exists("commitmark.3"));

    dir_.write("commitmark.30", dir_.read("commitmark.1"));
    dir_.write("commitmark.7", "5");
    dir_.remove("commitmark.1");
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
    EXPECT_FALSE(dir_.exists("commitmark.7"));
}

// Without a usable mark the file is not cut to nothing: the whole segments
// from its start are kept and a fresh mark names them.
TEST_F(StoreRecoveryTest, ALostOrEmptyMarkKeepsEveryWholeSegment) {
    writeTwoSegments(dir_);
    const std::string file = dir_.read("registry.bin");
    for (const bool emptyMark : {false, true}) {
        dir_.write("registry.bin", file + "torn tail of a third segment");
        if (emptyMark) {
            dir_.write("commitmark.2", "");
        } else {
            for (const char* mark : {"commitmark.1", "commitmark.2", "commitmark.3"}) {
                if (dir_.exists(mark)) dir_.remove(mark);
            }
        }
        int32_t code = -1;
        EXPECT_EQ(openAndRead(&code), kAfterSecondCommit) << emptyMark;
        EXPECT_EQ(code, 0);
        EXPECT_TRUE(repaired_);
    }
}

TEST_F(StoreRecoveryTest, SalvageStopsAtTheFirstSegmentThatDoesNotVerify) {
    writeTwoSegments(dir_);
    std::string file = dir_.read("registry.bin");
    const size_t firstEnd =
        static_cast<size_t>(static_cast<unsigned char>(file[file.size() - 24]) |
                            (static_cast<unsigned char>(file[file.size() - 23]) << 8));
    file[firstEnd + 20] = static_cast<char>(file[firstEnd + 20] ^ 0x40);  // in the second's records
    dir_.write("registry.bin", file);
    dir_.remove("commitmark.2");
    int32_t code = -1;
    EXPECT_EQ(openAndRead(&code), kOld);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(dir_.read("registry.bin").size(), firstEnd);
}

TEST_F(StoreRecoveryTest, LeftoverTemporaryMarkFailsTheOpenUntilCleanedUp) {
    writeTwoSegments(dir_);
    dir_.write("commitmark.5.17.tmp", "");
    int32_t code = 0;
    openAndRead(&code);
    EXPECT_EQ(code, orvane::status::kStoreFailed);
    EXPECT_EQ(dir_.read("commitmark.2").empty(), false);

    orvane::removeTemporaryFiles(kel::osdep::FileSystem::processDefault(), dir_.wide());
    EXPECT_FALSE(dir_.exists("commitmark.5.17.tmp"));
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
}

TEST_F(StoreRecoveryTest, DamagedPositionsFailTheOpenAndTouchNothing) {
    writeTwoSegments(dir_);
    const std::string good = dir_.read("registry.bin");
    const size_t end = good.size();
    // The newest segment's start moved past its own end.
    std::string moved = good;
    for (size_t i = 0; i < 8; ++i) {
        moved[end - 24 + i] = static_cast<char>(0x7F);
    }
    dir_.write("registry.bin", moved);
    int32_t code = 0;
    openAndRead(&code);
    EXPECT_EQ(code, orvane::status::kOutsideFile);
    EXPECT_EQ(dir_.read("registry.bin"), moved);

    // The header's index position beyond the segment.
    std::string bad = good;
    const size_t secondStart =
        static_cast<size_t>(static_cast<unsigned char>(good[end - 24]) |
                            (static_cast<unsigned char>(good[end - 23]) << 8));
    bad[secondStart + 8] = static_cast<char>(0xFF);
    bad[secondStart + 9] = static_cast<char>(0xFF);
    dir_.write("registry.bin", bad);
    openAndRead(&code);
    EXPECT_EQ(code, orvane::status::kOutsideFile);
    EXPECT_EQ(dir_.read("registry.bin"), bad);
}

}  // namespace
}  // namespace test
}  // namespace zq
