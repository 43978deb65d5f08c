// A process that follows another's commits and compactions without the
// process lock: whatever the other does between any two of its file calls,
// the state it loads is never older than the one it had.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <set>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/CommitMarks.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"

namespace zq {
namespace test {
namespace {

using kel::osdep::File;
using kel::osdep::FileSystem;
using orvane::SingleFileBucketStore;
using Refresh = orvane::IBucketStore::Refresh;

const WString kDir(L"/reg");

// Forwards to `inner` and, once armed, runs `hook` just before its `at`-th
// call from then on.
class HookedFileSystem : public FileSystem {
  public:
    HookedFileSystem(FileSystem& inner, uint64_t at, std::function<void()> hook)
        : inner_(inner), at_(at), hook_(std::move(hook)) {}

    std::unique_ptr<File> open(const WString& path, uint32_t flags, uint32_t permissions) override {
        step();
        return std::make_unique<HookedFile>(*this, inner_.open(path, flags, permissions));
    }
    Status stat(const WString& path) override {
        step();
        return inner_.stat(path);
    }
    void rename(const WString& from, const WString& to) override {
        step();
        inner_.rename(from, to);
    }
    void unlink(const WString& path) override {
        step();
        inner_.unlink(path);
    }
    void makeDirectory(const WString& path, uint32_t permissions) override {
        step();
        inner_.makeDirectory(path, permissions);
    }
    std::vector<WString> listDirectory(const WString& path) override {
        step();
        return inner_.listDirectory(path);
    }
    void syncDirectory(const WString& path) override {
        step();
        inner_.syncDirectory(path);
    }

    void arm() {
        armed_ = true;
        calls_ = 0;
    }
    uint64_t calls() const { return calls_; }

  private:
    // A read is a step too: a mark may be rewritten between its open and its read.
    class HookedFile : public File {
      public:
        HookedFile(HookedFileSystem& fs, std::unique_ptr<File> inner)
            : fs_(fs), inner_(std::move(inner)) {}
        size_t readAt(int64_t offset, void* buffer, size_t count) override {
            fs_.step();
            return inner_->readAt(offset, buffer, count);
        }
        void writeAt(int64_t offset, const void* buffer, size_t count) override {
            inner_->writeAt(offset, buffer, count);
        }
        void sync() override { inner_->sync(); }
        void truncate(int64_t length) override { inner_->truncate(length); }
        int64_t size() override { return inner_->size(); }
        Identity identity() override { return inner_->identity(); }
        void changeOwner(uint32_t user, uint32_t group) override {
            inner_->changeOwner(user, group);
        }
        void changeMode(uint32_t permissions) override { inner_->changeMode(permissions); }
        void close() override { inner_->close(); }

      private:
        HookedFileSystem& fs_;
        std::unique_ptr<File> inner_;
    };

    void step() {
        if (armed_ && ++calls_ == at_) {
            hook_();
        }
    }

    FileSystem& inner_;
    uint64_t at_;
    std::function<void()> hook_;
    uint64_t calls_ = 0;
    bool armed_ = false;
};

int32_t valueOfX(SingleFileBucketStore& store) {
    const State state = readState(store, {L"/x"});
    const auto found = state.find(L"/x");
    return found == state.end() ? -1 : found->second;
}

void commitX(SingleFileBucketStore& store, int32_t value) {
    StatusChain status = okStatus();
    commitChanges(store, {{L"/x", value}}, nullptr, status);
    ASSERT_EQ(status.getCode(), 0);
}

// A store directory on a simulated disk, and a writer on it.
struct World {
    World() {
        fs.makeDirectory(kDir, 0777);
        writer.open(0, status);
    }
    SimulatedFileSystem fs;
    SingleFileBucketStore writer{kDir, nullptr, fs};
    StatusChain status = okStatus();
};

// Runs `scenario` in a fresh world with its hook at every call in turn, up
// to one past the number of calls the first run reported.
template <class Scenario>
void atEveryCall(Scenario&& scenario) {
    uint64_t calls = 0;
    for (uint64_t at = 1; at == 1 || at <= calls + 1; ++at) {
        World world;
        const uint64_t made = scenario(world, at);
        if (at == 1) {
            calls = made;
        }
        ASSERT_EQ(world.status.getCode(), 0);
    }
    EXPECT_GT(calls, 2u);
}

// Every segment of these files has the same size, so a compacted file
// reaches the very generation and length that an older prefix of the file
// it replaced had: only the file's identity tells the two apart.
TEST(StoreRefreshTest, AnotherProcessCompactingAtAnyStepNeverTakesTheViewBack) {
    atEveryCall([](World& w, uint64_t at) {
        commitX(w.writer, 0);
        commitX(w.writer, 1);
        w.writer.compactNow(w.status);  // one segment: /x = 1, generation 1

        HookedFileSystem hooked(w.fs, at, [&] {
            w.writer.compactNow(w.status);  // generation 1 again, /x = 4
            commitX(w.writer, 5);           // generation 2, the length /x = 2 had
        });
        SingleFileBucketStore reader(kDir, nullptr, hooked);
        StatusChain read = okStatus();
        reader.open(0, read);
        commitX(w.writer, 2);
        commitX(w.writer, 3);
        while (reader.refresh(read) == Refresh::kUnsettled) {
        }
        EXPECT_EQ(valueOfX(reader), 3);
        commitX(w.writer, 4);

        hooked.arm();
        while (reader.refresh(read) == Refresh::kUnsettled) {
        }
        EXPECT_EQ(read.getCode(), 0) << "hook at call " << at;
        EXPECT_GE(valueOfX(reader), 4) << "the view went back, hook at call " << at;
        return hooked.calls();
    });
}

// A commit writes its mark into the file of the mark before last: a reader
// that opened that file as the older mark and reads it after the rewrite
// must not take the new length for the old generation.
TEST(StoreRefreshTest, AMarkRewrittenWhileReadIsReadAgain) {
    atEveryCall([](World& w, uint64_t at) {
        std::map<int64_t, int64_t> lengths;  // generation: committed length
        auto commit = [&](int32_t value) {
            commitX(w.writer, value);
            const SingleFileBucketStore::Facts facts = w.writer.facts();
            lengths[facts.generation] = facts.committedLength;
        };
        for (int32_t value = 0; value < 4; ++value) {
            commit(value);
        }
        HookedFileSystem hooked(w.fs, at, [&] {
            commit(10);
            commit(11);
        });
        orvane::CommitMarks reader(hooked, kDir, nullptr);
        hooked.arm();
        const orvane::CommitMarks::Mark mark = reader.peekNewest();
        // No mark settled: the caller looks again.
        if (mark.generation != 0) {
            EXPECT_EQ(lengths.count(mark.generation), 1u) << "hook at call " << at;
            EXPECT_EQ(mark.committedLength, lengths[mark.generation]) << "hook at call " << at;
        }
        return hooked.calls();
    });
}

// Consecutive commits move marks instead of creating and removing files.
TEST(StoreRefreshTest, ConsecutiveCommitsReuseTheMarkBeforeLast) {
    World w;
    SimulatedFileSystem& fs = w.fs;
    SingleFileBucketStore& writer = w.writer;
    commitX(writer, 1);
    commitX(writer, 2);
    orvane::CommitMarks marks(fs, kDir, nullptr);
    const FileSystem::Status spare = fs.stat(marks.spareMarkPath());
    ASSERT_TRUE(spare.exists);
    commitX(writer, 3);
    ASSERT_EQ(w.status.getCode(), 0);
    const FileSystem::Status mark = fs.stat(marks.pathOf(writer.facts().generation));
    EXPECT_EQ(mark.inode, spare.inode);
    EXPECT_EQ(marks.peekNewest().committedLength, writer.facts().committedLength);
}

// The writer keeps the mark and the spare open between commits; a spare that
// another file replaced under its name is never written through the old one.
TEST(StoreRefreshTest, ASpareReplacedUnderItsNameIsNotWrittenThroughTheOldFile) {
    World w;
    SimulatedFileSystem& fs = w.fs;
    SingleFileBucketStore& writer = w.writer;
    for (int i = 1; i <= 4; ++i) {
        commitX(writer, i);
    }
    orvane::CommitMarks marks(fs, kDir, nullptr);
    const std::string stranger = "123456789012";
    fs.removeFile(marks.spareMarkPath(), FileSystem::kRemoveMustExist);
    fs.open(marks.spareMarkPath(), FileSystem::kReadWrite | FileSystem::kCreate)
        ->writeAt(0, stranger.data(), stranger.size());
    for (int i = 5; i <= 7; ++i) {
        commitX(writer, i);
        ASSERT_EQ(w.status.getCode(), 0);
        const orvane::CommitMarks::Mark newest = marks.peekNewest();
        EXPECT_EQ(newest.generation, writer.facts().generation);
        EXPECT_EQ(newest.committedLength, writer.facts().committedLength) << "commit " << i;
    }
}

// A writer that finds the data file renamed away by a compaction that died
// half way finishes that compaction before it writes, and its commit lands
// in the file named "registry.bin".
TEST(StoreRefreshTest, AWriterNeverAppendsToAFileRenamedAway) {
    World w;
    SimulatedFileSystem& fs = w.fs;
    SingleFileBucketStore& writer = w.writer;
    StatusChain& status = w.status;
    commitX(writer, 1);
    commitX(writer, 2);

    // Another process's compaction stopped right after its first rename.
    SingleFileBucketStore dying(kDir, nullptr, fs);
    dying.open(0, status);
    commitX(dying, 3);
    commitX(dying, 4);
    // Its renames: the new file's and mark's into place, the live file's, the
    // current mark's.
    fs.failCall(SimulatedFileSystem::kRenameCall, 4, EIO);
    dying.compactNow(status);
    ASSERT_TRUE(status.isFatal());
    ASSERT_TRUE(fs.exists("/reg/registry.bin.2"));
    ASSERT_FALSE(fs.exists("/reg/registry.bin"));

    StatusChain write = okStatus();
    EXPECT_TRUE(writer.catchUp(write));
    commitX(writer, 5);
    EXPECT_EQ(write.getCode(), 0);
    SingleFileBucketStore reopened(kDir, nullptr, fs);
    StatusChain reopen = okStatus();
    reopened.open(0, reopen);
    EXPECT_EQ(reopen.getCode(), 0);
    EXPECT_EQ(valueOfX(reopened), 5);
}

// A reader that follows a writer's appends reads what they added, not the
// whole file again, and sees what a reader opened afresh sees; a new segment
// that does not verify is never taken in.
TEST(StoreRefreshTest, ARefreshReadsOnlyWhatWasAppendedAndChecksIt) {
    World w;
    State expected;
    std::set<std::wstring> names{L"/x"};
    for (int32_t v = 0; v < 200; ++v) {
        const std::wstring name = L"/n" + std::to_wstring(v % 20);
        names.insert(name);
        commitChanges(w.writer, {{name, v}}, &expected, w.status);
    }
    HookedFileSystem counting(w.fs, 0, [] {});
    SingleFileBucketStore reader(kDir, nullptr, counting);
    StatusChain read = okStatus();
    reader.openForReading(read);
    commitChanges(w.writer, {{L"/x", 7}, {L"/n3", -2}}, &expected, w.status);
    counting.arm();
    EXPECT_EQ(reader.refresh(read), Refresh::kChanged);
    EXPECT_LT(counting.calls(), 40u) << "a full load reads each of the 201 segments";
    EXPECT_EQ(readState(reader, names), expected);
    SingleFileBucketStore fresh(kDir, nullptr, w.fs);
    StatusChain freshStatus = okStatus();
    fresh.openForReading(freshStatus);
    EXPECT_EQ(readState(fresh, names), expected);

    const int64_t end = w.writer.facts().committedLength;
    commitX(w.writer, 8);
    std::unique_ptr<File> file =
        w.fs.open(WString(L"/reg/registry.bin"), FileSystem::kReadWrite, 0);
    unsigned char byte = 0;
    ASSERT_EQ(file->readAt(end + 40, &byte, 1), 1u);
    byte ^= 0x10;
    file->writeAt(end + 40, &byte, 1);
    reader.refresh(read);
    StatusChain lookup = okStatus();
    reader.readBucket(WString(L"/x"), lookup);
    EXPECT_EQ(lookup.getCode(), orvane::status::kOutsideFile) << "damage is never served";
    EXPECT_EQ(read.getCode(), 0);
}

}  // namespace
}  // namespace test
}  // namespace zq
