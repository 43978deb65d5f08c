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
    // Two commits, so that the file has two segments.
    void writeTwoSegments() {
        commitInTurn(dir_.wide(), {kOld, {{L"/a", 10}, {L"/b", -2}, {L"/c", 3}}},
                     kel::osdep::FileSystem::posix());
    }

    // The files of a compaction of `dir_`: its new "registry.bin" and mark.
    void compactedCopy(std::string* file, std::string* mark) {
        TempDir copy;
        copy.write("registry.bin", dir_.read("registry.bin"));
        copy.write("commitmark.2", dir_.read("commitmark.2"));
        SingleFileBucketStore store(copy.wide(), nullptr, kel::osdep::FileSystem::posix());
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0);
        *file = copy.read("registry.bin");
        *mark = copy.read("commitmark.1");
        ASSERT_NE(*file, dir_.read("registry.bin"));
    }

    State openAndRead(int32_t* code = nullptr) {
        SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
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

// A compaction stopped at each step of its swap. Before the new file has
// its mark it cannot be trusted and the old one comes back; once it has,
// the swap rolls forward (and the old generation's mark must not describe
// the new file). Either way no temporary file stays behind.
TEST_F(StoreRecoveryTest, CompactionSwapStoppedAtEveryStep) {
    struct Step {
        const char* what;
        void (*arrange)(const TempDir& dir, const std::string& file, const std::string& mark);
        bool rolledForward;
    };
    // The first steps of the swap: the live file copied to "registry.bin.2",
    // its mark moved to "oldCommitmark".
    static const auto setOldFileAside = [](const TempDir& dir) {
        dir.write("registry.bin.2", dir.read("registry.bin"));
        dir.write("oldCommitmark", dir.read("commitmark.2"));
        dir.remove("commitmark.2");
    };
    const Step steps[] = {
        {"new file half written",
         [](const TempDir& dir, const std::string& file, const std::string& mark) {
             dir.write("registry.bin.1", file.substr(0, file.size() / 2));
             dir.write("newCommitmark", mark);
         },
         false},
        {"old file set aside, new one without its mark",
         [](const TempDir& dir, const std::string&, const std::string&) {
             setOldFileAside(dir);
             dir.remove("registry.bin");
             dir.write("registry.bin.1", "partial");
         },
         false},
        {"old file moved, its mark not yet",
         [](const TempDir& dir, const std::string& file, const std::string& mark) {
             dir.write("registry.bin.2", dir.read("registry.bin"));
             dir.remove("registry.bin");
             dir.write("registry.bin.1", file);
             dir.write("newCommitmark", mark);  // commitmark.2 stays
         },
         true},
        {"new file named before its mark",
         [](const TempDir& dir, const std::string& file, const std::string& mark) {
             setOldFileAside(dir);
             dir.write("registry.bin", file);
             dir.write("newCommitmark", mark);
         },
         true},
        {"swap done, not cleaned up",
         [](const TempDir& dir, const std::string& file, const std::string& mark) {
             setOldFileAside(dir);
             dir.write("registry.bin", file);
             dir.write("commitmark.1", mark);
         },
         false},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        for (const char* name : {"registry.bin", "commitmark.1", "commitmark.2"}) {
            if (dir_.exists(name)) dir_.remove(name);
        }
        writeTwoSegments();
        std::string file, mark;
        compactedCopy(&file, &mark);
        step.arrange(dir_, file, mark);
        EXPECT_EQ(openAndRead(), kAfterSecondCommit);
        if (step.rolledForward) {
            EXPECT_EQ(dir_.read("registry.bin"), file);
            EXPECT_EQ(dir_.read("commitmark.1"), mark);
            EXPECT_FALSE(dir_.exists("commitmark.2"));
        }
        for (const char* gone :
             {"registry.bin.1", "registry.bin.2", "newCommitmark", "oldCommitmark"}) {
            EXPECT_FALSE(dir_.exists(gone)) << gone;
        }
    }
}

TEST_F(StoreRecoveryTest, AStrayNewFileAloneStartsAnEmptyStore) {
    dir_.write("registry.bin.1", "stray");
    EXPECT_EQ(openAndRead(), State());
    EXPECT_TRUE(repaired_);
}

// A commit of one bucket with a blob of `blobSize` bytes; returns the file size.
size_t commitBlob(const TempDir& dir, size_t blobSize) {
    SingleFileBucketStore store(dir.wide(), nullptr, kel::osdep::FileSystem::posix());
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

    SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
    StatusChain status = okStatus();
    store.open(0, status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_TRUE(store.wasRepairedOnOpen());
    EXPECT_EQ(dir_.read("registry.bin").size(), 900u);
    EXPECT_TRUE(store.exists(WString(L"/big"), status));
}

TEST_F(StoreRecoveryTest, NewestMarkWinsAndOlderOnesGoWhateverTheListingOrder) {
    writeTwoSegments();
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
    writeTwoSegments();
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
    writeTwoSegments();
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
    writeTwoSegments();
    dir_.write("commitmark.5.17.tmp", "");
    int32_t code = 0;
    openAndRead(&code);
    EXPECT_EQ(code, orvane::status::kStoreFailed);
    EXPECT_EQ(dir_.read("commitmark.2").empty(), false);

    orvane::removeTemporaryFiles(kel::osdep::FileSystem::posix(), dir_.wide());
    EXPECT_FALSE(dir_.exists("commitmark.5.17.tmp"));
    EXPECT_EQ(openAndRead(), kAfterSecondCommit);
}

TEST_F(StoreRecoveryTest, DamagedPositionsFailTheOpenAndTouchNothing) {
    writeTwoSegments();
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
