// What an open makes of every set of files a crash can leave, built from the
// files real commits and compactions write.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/SimulatedFileSystem.h"
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

    // Every file of the directory with its bytes.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> all;
        DIR* listing = ::opendir(dir_.path().c_str());
        for (dirent* entry; listing != nullptr && (entry = ::readdir(listing)) != nullptr;) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                all[name] = ::access(dir_.file(name).c_str(), R_OK) == 0 ? dir_.read(name) : "?";
            }
        }
        if (listing != nullptr) {
            ::closedir(listing);
        }
        return all;
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

void flipAt(const TempDir& dir, size_t at) {
    std::string bytes = dir.read("registry.bin");
    bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
    dir.write("registry.bin", bytes);
}

// Damaged files, one table. The open serves exactly what it can prove:
// the newest state, or the state of the last commit before what it had to
// drop (with a copy of the file as it was), or - for damage behind newer
// segments, left for an administrator - the newer segments' buckets, the
// others reported as damage and every file left as it was.
TEST_F(StoreRecoveryTest, DamagedFilesServeOnlyWhatTheyProve) {
    enum Outcome { kNewest, kOlder, kNewerOnly };
    struct Files {
        std::string file;       // the two segments
        size_t firstEnd;        // where the first ends
        std::string compacted;  // a compaction's file and mark of the same state
        std::string compactedMark;
    };
    struct Case {
        const char* what;
        void (*arrange)(const TempDir& dir, const Files& files);
        Outcome outcome;
        int32_t code;
        bool copy;  // of "registry.bin" as it was, beside the store
    };
    using D = const TempDir&;
    using F = const Files&;
    const Case cases[] = {
        {"mark at the first segment's end",
         [](D d, F f) { d.write("commitmark.2", std::to_string(f.firstEnd)); }, kNewest, 0, false},
        {"mark inside a segment", [](D d, F) { d.write("commitmark.2", "17"); }, kNewest, 0, false},
        {"mark past the end",
         [](D d, F f) { d.write("commitmark.2", std::to_string(f.file.size() + 100)); }, kNewest,
         orvane::status::kStoreRepaired, false},
        {"mark of 0", [](D d, F) { d.write("commitmark.2", "0"); }, kNewest, 0, false},
        {"mark not a number", [](D d, F) { d.write("commitmark.2", "12ab"); }, kNewest, 0, false},
        {"mark empty", [](D d, F) { d.write("commitmark.2", ""); }, kNewest, 0, false},
        {"file cut at a segment end",
         [](D d, F f) { d.write("registry.bin", f.file.substr(0, f.firstEnd)); }, kOlder,
         orvane::status::kStoreRepaired, false},  // nothing there to copy
        {"file cut inside the newest segment",
         [](D d, F f) { d.write("registry.bin", f.file.substr(0, f.file.size() - 30)); }, kOlder,
         orvane::status::kStoreRepaired, true},
        {"flipped byte in the newest segment's records",
         [](D d, F f) { flipAt(d, f.firstEnd + 30); }, kOlder, orvane::status::kStoreRepaired,
         true},
        {"flipped byte in the newest segment's index",
         [](D d, F f) { flipAt(d, f.file.size() - 64 - 10); }, kOlder,
         orvane::status::kStoreRepaired, true},
        {"flipped byte in the newest segment's checksum",
         [](D d, F f) { flipAt(d, f.file.size() - 40); }, kOlder, orvane::status::kStoreRepaired,
         true},
        {"flipped byte in the newest segment's start word",
         [](D d, F f) { flipAt(d, f.file.size() - 24); }, kOlder, orvane::status::kStoreRepaired,
         true},
        {"flipped byte in the newest segment's header", [](D d, F f) { flipAt(d, f.firstEnd + 9); },
         kOlder, orvane::status::kStoreRepaired, true},
        {"flipped byte in the older segment's records", [](D d, F) { flipAt(d, 30); }, kNewerOnly,
         orvane::status::kStoreDamaged, false},
        {"flipped byte in the older segment's trailer",
         [](D d, F f) { flipAt(d, f.firstEnd - 30); }, kNewerOnly, orvane::status::kStoreDamaged,
         false},
        {"stale newCommitmark", [](D d, F) { d.write("newCommitmark", "123"); }, kNewest, 0, false},
        {"stale oldCommitmark", [](D d, F) { d.write("oldCommitmark", "5"); }, kNewest, 0, false},
        {"stale registry.bin.1 and newCommitmark",
         [](D d, F f) {
             d.write("registry.bin.1", f.compacted);
             d.write("newCommitmark", f.compactedMark);
         },
         kNewest, 0, false},
        {"registry.bin.2 beside a live file its mark does not describe",
         [](D d, F f) { d.write("registry.bin.2", f.file); }, kNewest,
         orvane::status::kStoreRepaired, true},
        {"no live file, a stale newCommitmark beside the two copies",
         [](D d, F f) {
             d.write("registry.bin.2", f.file);
             d.remove("registry.bin");
             d.write("registry.bin.1", f.compacted.substr(0, f.compacted.size() / 2));
             d.write("newCommitmark", f.compactedMark);
         },
         kNewest, 0, false},
    };
    const State older = kOld;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& entry : files()) {
            dir_.remove(entry.first);
        }
        writeTwoSegments();
        Files made;
        made.file = dir_.read("registry.bin");
        made.firstEnd = static_cast<size_t>(
            static_cast<unsigned char>(made.file[made.file.size() - 24]) |
            (static_cast<unsigned char>(made.file[made.file.size() - 23]) << 8));
        compactedCopy(&made.compacted, &made.compactedMark);
        c.arrange(dir_, made);
        const std::map<std::string, std::string> before = files();

        SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
        StatusChain status = okStatus();
        store.open(0, status);
        EXPECT_EQ(status.getCode(), c.code);
        State seen;
        std::set<std::wstring> damaged;
        for (const std::wstring& name : namesOf({kOld, kAfterSecondCommit})) {
            StatusChain read = okStatus();
            AutoRef<IBucket> bucket = store.readBucket(WString(name.c_str()), read);
            if (read.getCode() == orvane::status::kOutsideFile) {
                damaged.insert(name);
            } else if (bucket) {
                seen[name] = readState(store, {name})[name];
            }
        }
        if (c.outcome == kNewest) {
            EXPECT_EQ(seen, kAfterSecondCommit);
        } else if (c.outcome == kOlder) {
            EXPECT_EQ(seen, older);
        } else {
            // What the newest segment settles ("/b" it deleted); the rest is damage.
            EXPECT_EQ(seen, (State{{L"/a", 10}, {L"/c", 3}}));
            EXPECT_EQ(damaged, (std::set<std::wstring>{L"/"}));
            EXPECT_EQ(files(), before);
        }
        if (c.outcome != kNewerOnly) {
            EXPECT_TRUE(damaged.empty());
            EXPECT_TRUE(store.wasRepairedOnOpen() || c.code == 0);
        }
        EXPECT_EQ(dir_.exists("registry.bin.damaged-1"), c.copy);
        if (c.copy && c.outcome == kOlder) {
            EXPECT_EQ(dir_.read("registry.bin.damaged-1"), before.at("registry.bin"));
        }
        // Whatever was repaired is repaired for good.
        if (status.getCode() != orvane::status::kStoreDamaged) {
            SingleFileBucketStore again(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
            StatusChain reopen = okStatus();
            again.open(0, reopen);
            EXPECT_EQ(reopen.getCode(), 0);
            EXPECT_FALSE(again.wasRepairedOnOpen());
        }
    }
}

// A refused open changes no file: a read that fails while the open is still
// deciding what to repair, at every read in turn.
TEST(StoreRefusedOpenTest, ChangesNoFile) {
    const auto world = [] {
        auto fs = std::make_unique<SimulatedFileSystem>();
        fs->makeDirectory(WString(L"/reg"), 0777);
        commitInTurn(WString(L"/reg"), {kOld, {{L"/a", 10}}}, *fs);
        fs->putFile("/reg/commitmark.2", "17");  // to be salvaged
        return fs;
    };
    const auto snapshot = [](SimulatedFileSystem& fs) {
        std::map<std::string, std::string> all;
        for (const WString& name : fs.listDirectory(WString(L"/reg"))) {
            const std::string path = "/reg/" + std::string(kel::NString(name).c_str());
            all[path] = fs.contents(path);
        }
        return all;
    };
    // How many reads come before the first change.
    uint64_t reads = 0;
    {
        auto fs = world();
        fs->clearJournal();
        SingleFileBucketStore store(WString(L"/reg"), nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0);
        ASSERT_TRUE(store.wasRepairedOnOpen());
        for (const std::string& call : fs->journal()) {
            if (call.rfind("read ", 0) == 0) {
                ++reads;
            } else if (call.rfind("stat", 0) != 0 && call.rfind("list", 0) != 0 &&
                       call.rfind("open", 0) != 0 && call.rfind("size", 0) != 0 &&
                       call.rfind("identity", 0) != 0 && call.rfind("close", 0) != 0) {
                break;
            }
        }
        ASSERT_GT(reads, 3u);
    }
    for (uint64_t k = 1; k <= reads; ++k) {
        auto fs = world();
        const auto before = snapshot(*fs);
        fs->failCall(SimulatedFileSystem::kReadCall, k, EIO);
        SingleFileBucketStore store(WString(L"/reg"), nullptr, *fs);
        StatusChain status = okStatus();
        store.open(0, status);
        EXPECT_EQ(status.getCode(), orvane::status::kFileSystem) << "read " << k;
        EXPECT_EQ(snapshot(*fs), before) << "read " << k;
    }
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

}  // namespace
}  // namespace test
}  // namespace zq
