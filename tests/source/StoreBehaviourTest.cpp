// The store as its callers use it: reads after deletes, the size limit, other
// processes' commits, files it creates, and damaged files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/SimulatedFileSystem.h"
#include "source/Options.h"
#include "source/SegmentFormat.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "source/TouchFile.h"
#include "support/TempDir.h"
#include "zq/kel/Exception.h"

namespace zq {
namespace test {
namespace {

using orvane::Options;
using orvane::SingleFileBucketStore;
using Refresh = orvane::IBucketStore::Refresh;

std::unique_ptr<Options> optionsWith(const Options::Values& values) {
    StatusChain status = okStatus();
    return std::make_unique<Options>(values, status);
}

class StoreBehaviourTest : public testing::Test {
  protected:
    void SetUp() override {
        fs_.makeDirectory(dir_, 0777);
        store_ = std::make_unique<SingleFileBucketStore>(dir_, nullptr, fs_);
        store_->open(0, status_);
        ASSERT_EQ(status_.getCode(), 0);
    }

    SimulatedFileSystem fs_;
    const WString dir_{L"/reg"};
    StatusChain status_ = okStatus();
    std::unique_ptr<SingleFileBucketStore> store_;
};

TEST_F(StoreBehaviourTest, ADeletedBucketIsAbsentWithoutReadingTheFile) {
    commitChanges(*store_, {{L"/a", 1}}, nullptr, status_);
    commitChanges(*store_, {{L"/a", -2}}, nullptr, status_);
    ASSERT_EQ(status_.getCode(), 0);
    const uint64_t reads = fs_.calls(SimulatedFileSystem::kReadCall);
    EXPECT_FALSE(store_->readBucket(WString(L"/a"), status_));
    EXPECT_FALSE(store_->exists(WString(L"/A"), status_));
    EXPECT_EQ(fs_.calls(SimulatedFileSystem::kReadCall), reads);
    EXPECT_EQ(status_.getCode(), 0);

    // Written again later, it exists: the newest event wins.
    commitChanges(*store_, {{L"/a", 3}}, nullptr, status_);
    EXPECT_EQ(readState(*store_, {L"/a"}), (State{{L"/a", 3}}));
    SingleFileBucketStore reopened(dir_, nullptr, fs_);
    reopened.open(0, status_);
    EXPECT_EQ(readState(reopened, {L"/a"}), (State{{L"/a", 3}}));
}

TEST_F(StoreBehaviourTest, NamesAreCaseInsensitiveAndTheStoredSpellingComesBack) {
    commitChanges(*store_, {{L"/Net/Eth0", 5}}, nullptr, status_);
    AutoRef<IBucket> bucket = store_->readBucket(WString(L"/NET/ETH0"), status_);
    ASSERT_TRUE(bucket);
    EXPECT_EQ(bucket->getFullName(), WString(L"/Net/Eth0"));
    EXPECT_TRUE(store_->containsBucket(bucket, status_));
}

// A compacted index is read a block at a time; a block once read stays, so
// a second lookup in it reads only the record.
TEST_F(StoreBehaviourTest, ABlockOfTheIndexIsReadOnce) {
    State many;
    for (int i = 0; i < 100; ++i) {
        many[L"/k" + std::to_wstring(i)] = i;
    }
    commitChanges(*store_, many, nullptr, status_);
    commitChanges(*store_, {{L"/k0", 0}}, nullptr, status_);
    store_->close(status_);
    store_->open(0, status_);  // compacts
    ASSERT_EQ(store_->facts().segments, 1u);
    const auto readsFor = [&](const wchar_t* name) {
        const uint64_t before = fs_.calls(SimulatedFileSystem::kReadCall);
        EXPECT_TRUE(store_->readBucket(WString(name), status_)) << name;
        return fs_.calls(SimulatedFileSystem::kReadCall) - before;
    };
    EXPECT_EQ(readsFor(L"/k7"), 2u);
    EXPECT_EQ(readsFor(L"/k7"), 1u);
    EXPECT_EQ(status_.getCode(), 0);
}

// A record of up to about a kilobyte comes in one read with its length; a
// longer one needs a second read for the rest. Either way every byte is its own.
TEST_F(StoreBehaviourTest, RecordsOfEverySizeReadBackWhole) {
    const size_t sizes[] = {0, 900, 1100, 5000};
    for (size_t size : sizes) {
        const std::wstring name = L"/b" + std::to_wstring(size);
        AutoRef<IBucket> bucket = makeBucket(name);
        std::vector<unsigned char> blob(size);
        for (size_t i = 0; i < size; ++i) {
            blob[i] = static_cast<unsigned char>(i * 7 + size);
        }
        bucket->setBlobValue(WString(L"blob"), blob.data(), static_cast<uint32_t>(size), status_,
                             true);
        store_->commit({{WString(name.c_str()), bucket}}, {}, status_);
        ASSERT_EQ(status_.getCode(), 0);

        const uint64_t reads = fs_.calls(SimulatedFileSystem::kReadCall);
        AutoRef<IBucket> read = store_->readBucket(WString(name.c_str()), status_);
        ASSERT_TRUE(read);
        EXPECT_EQ(fs_.calls(SimulatedFileSystem::kReadCall) - reads, size < 1000 ? 1u : 2u);
        std::vector<unsigned char> back(size + 1);
        EXPECT_EQ(read->getValue(WString(L"blob"), status_)->getBlob(back.data(), size, status_),
                  size);
        back.resize(size);
        EXPECT_EQ(back, blob);
    }
}

// A first segment in name order is indexed as it is; a compacted one, in
// digest order, is sampled and searched block by block. Either way newer
// segments' updates and deletions win: after a commit, an open and a
// refresh. Compacted sizes: under one block of 32, exactly two (75 less the
// 11 deleted), and many blocks with a partial last one; every name is looked
// up, first and last included.
TEST_F(StoreBehaviourTest, LookupsAgreeWhateverTheOrderOfTheFirstSegment) {
    // 9000 entries are more blocks than stay cached: some share a place.
    for (const int size : {5, 75, 3001, 9000}) {
        SCOPED_TRACE(size);
        const std::wstring dir = L"/s" + std::to_wstring(size);
        fs_.makeDirectory(WString(dir.c_str()), 0777);
        store_ = std::make_unique<SingleFileBucketStore>(WString(dir.c_str()), nullptr, fs_);
        store_->open(0, status_);
        State state;
        State first;
        State newer;
        std::set<std::wstring> names{L"/c"};
        for (int i = 0; i < 20; ++i) {
            names.insert(L"/missing" + std::to_wstring(i));
        }
        for (int i = 0; i < size; ++i) {
            const std::wstring name = L"/b" + std::to_wstring(i);
            first[name] = i;
            names.insert(name);
            if (i % 7 == 3 || i % 11 == 5) {
                newer[name] = i % 7 == 3 ? -2 : 1000 + i;
            }
        }
        const auto check = [&](const char* when) {
            SCOPED_TRACE(when);
            EXPECT_EQ(readState(*store_, names), state);
            EXPECT_EQ(store_->facts().liveBuckets, state.size());
        };
        // Lookups before facts(): a reopened verified index is read as they need it.
        const auto reopen = [&] {
            store_->close(status_);
            store_->open(0, status_);
        };
        commitChanges(*store_, first, &state, status_);
        reopen();
        check("one segment in name order");
        ASSERT_EQ(store_->facts().segments, 1u);
        commitChanges(*store_, newer, &state, status_);
        check("a newer segment on top");
        reopen();
        check("compacted");
        ASSERT_EQ(store_->facts().segments, 1u);
        EXPECT_TRUE(size != 75 || state.size() == 64u);
        commitChanges(*store_, {{L"/b4", 104}, {L"/b0", -2}, {L"/c", 7}}, &state, status_);
        check("newer segments on a compacted one");
        store_->compactNow(status_);
        ASSERT_EQ(store_->facts().segments, 1u);
        check("compacted by this store");

        reopen();
        SingleFileBucketStore other(WString(dir.c_str()), nullptr, fs_);
        other.open(0, status_);
        commitChanges(other, {{L"/b3", 3}, {L"/b1", -2}}, &state, status_);
        commitChanges(other, {{L"/b4", -2}, {L"/b2", 107}}, &state, status_);
        EXPECT_EQ(store_->refresh(status_), Refresh::kChanged);
        check("another store's segments on a compacted one");
        EXPECT_EQ(status_.getCode(), 0);
    }
}

// Only a sample of a compacted index is kept: the entries a lookup reads
// later are checked again, and a change to them is damage, never a wrong
// bucket or a bucket said to be missing. A block once read and checked is
// kept, so each change is made before anything is read.
TEST_F(StoreBehaviourTest, AnIndexChangedAfterTheOpenIsDamage) {
    constexpr size_t kEntry = orvane::segment::kUpdateEntrySize;
    State many;
    std::map<orvane::DigestKey, std::wstring> byDigest;
    for (int i = 0; i <= 100; ++i) {
        const std::wstring name = L"/m" + std::to_wstring(i);
        many[name] = i;
        byDigest[orvane::keyOf(orvane::Digest(WString(name.c_str())))] = name;
    }
    commitChanges(*store_, many, nullptr, status_);
    commitChanges(*store_, {{L"/m0", 0}}, nullptr, status_);
    store_->close(status_);
    store_->open(0, status_);  // compacts
    ASSERT_EQ(store_->facts().segments, 1u);
    std::vector<std::wstring> sorted;
    for (const auto& entry : byDigest) {
        sorted.push_back(entry.second);
    }
    const std::string good = fs_.contents("/reg/registry.bin");
    const auto entryAt = [&](size_t k) {
        uint64_t index = 0;
        for (int i = 7; i >= 0; --i) {
            index = index << 8 | static_cast<unsigned char>(good[8 + i]);
        }
        return static_cast<size_t>(index) + 16 + k * kEntry;
    };
    const auto swap = [&](std::string& bytes, size_t j, size_t k) {
        std::swap_ranges(bytes.begin() + entryAt(j), bytes.begin() + entryAt(j) + kEntry,
                         bytes.begin() + entryAt(k));
    };
    struct Case {
        const char* what;
        std::function<void(std::string&)> change;
        std::vector<size_t> hit;  // entries whose lookup meets the change
    };
    const std::vector<Case> cases{
        {"two entries of a block swapped", [&](std::string& b) { swap(b, 1, 2); }, {1, 2, 5}},
        {"two entries across blocks swapped", [&](std::string& b) { swap(b, 31, 32); }, {31, 32}},
        {"a record position out of range",
         [&](std::string& b) { b[entryAt(40) + 39] = 1; },
         {40, 63}},
        {"a block cut off", [&](std::string& b) { b.resize(entryAt(97)); }, {96, 100}},
    };
    std::unique_ptr<kel::osdep::File> file =
        fs_.open(WString(L"/reg/registry.bin"), kel::osdep::FileSystem::kReadWrite);
    for (const Case& change : cases) {
        SCOPED_TRACE(change.what);
        store_->close(status_);
        store_->open(0, status_);
        ASSERT_EQ(status_.getCode(), 0);
        std::string bad = good;
        change.change(bad);
        file->truncate(static_cast<int64_t>(bad.size()));
        file->writeAt(0, bad.data(), bad.size());
        for (const size_t k : change.hit) {
            StatusChain read = okStatus();
            EXPECT_FALSE(store_->readBucket(WString(sorted[k].c_str()), read)) << k;
            EXPECT_EQ(read.getCode(), orvane::status::kOutsideFile) << k;
        }
        file->writeAt(0, good.data(), good.size());
        EXPECT_EQ(readState(*store_, {sorted[0], sorted[2], sorted[40], sorted[100]}).size(), 4u);
    }
}

TEST_F(StoreBehaviourTest, OperationsOnAClosedStoreReportIt) {
    store_->close(status_);
    const std::function<void(StatusChain&)> operations[] = {
        [&](StatusChain& s) { EXPECT_FALSE(store_->readBucket(WString(L"/a"), s)); },
        [&](StatusChain& s) { store_->exists(WString(L"/a"), s); },
        [&](StatusChain& s) {
            commitChanges(*store_, {{L"/a", 1}}, nullptr, s);
        },
        [&](StatusChain& s) { store_->compactNow(s); },
    };
    for (const auto& operation : operations) {
        StatusChain status = okStatus();
        operation(status);
        EXPECT_EQ(status.getCode(), orvane::status::kStoreNotOpen);
    }
}

// Ten buckets of about 85 bytes each: written twice, the file passes 1 KB
// while what is live stays under it.
State tenBuckets(int32_t base) {
    State state;
    for (int i = 0; i < 10; ++i) {
        state[L"/m" + std::to_wstring(i)] = base + i;
    }
    return state;
}

TEST_F(StoreBehaviourTest, ACommitThatPassesTheLimitCompacts) {
    const auto options = optionsWith({{Options::kDiskMaxRegistryFileSizeKB, WString(L"1")}});
    SingleFileBucketStore store(dir_, options.get(), fs_);
    store_.reset();
    store.open(0, status_);
    commitChanges(store, tenBuckets(0), nullptr, status_);
    EXPECT_EQ(store.facts().segments, 1u);
    commitChanges(store, tenBuckets(100), nullptr, status_);
    ASSERT_EQ(status_.getCode(), 0);
    EXPECT_EQ(store.facts().segments, 1u);
    EXPECT_EQ(store.facts().generation, 1);
    EXPECT_LE(store.facts().committedLength, 1024);
    EXPECT_FALSE(store.isOverSizeLimit());
    EXPECT_TRUE(fs_.exists("/reg/commitmark.1"));
    EXPECT_EQ(readState(store, {L"/m0", L"/m9"}), (State{{L"/m0", 100}, {L"/m9", 109}}));
}

// One rule in every process: a commit after which the live data would be
// over the limit is refused before a byte is written, and one that brings
// it back under the limit is not.
TEST_F(StoreBehaviourTest, ACommitThatWouldLeaveTooMuchIsRefusedBeforeAnythingIsWritten) {
    const auto options = optionsWith({{Options::kDiskMaxRegistryFileSizeKB, WString(L"1")}});
    SingleFileBucketStore store(dir_, options.get(), fs_);
    store_.reset();
    store.open(0, status_);
    commitChanges(store, tenBuckets(0), nullptr, status_);
    ASSERT_EQ(status_.getCode(), 0);
    const std::string before = fs_.contents("/reg/registry.bin");

    State more = tenBuckets(100);
    more[L"/extra"] = 1;
    for (int i = 0; i < 5; ++i) {
        more[L"/x" + std::to_wstring(i)] = i;
    }
    commitChanges(store, more, nullptr, status_);
    EXPECT_EQ(status_.getCode(), orvane::status::kOverSizeLimit);
    EXPECT_EQ(fs_.contents("/reg/registry.bin"), before);
    status_ = okStatus();
    EXPECT_EQ(readState(store, {L"/m0", L"/extra"}), (State{{L"/m0", 0}}));

    // Deleting half makes room for the rest.
    State swap;
    for (int i = 0; i < 5; ++i) {
        swap[L"/m" + std::to_wstring(i)] = -2;
        swap[L"/x" + std::to_wstring(i)] = i;
    }
    commitChanges(store, swap, nullptr, status_);
    EXPECT_EQ(status_.getCode(), 0);
}

TEST_F(StoreBehaviourTest, TheLimitIsComputedInThirtyTwoBits) {
    // 4194304 KB shifted by 10 wraps to 0: nothing fits.
    const auto options = optionsWith({{Options::kDiskMaxRegistryFileSizeKB, WString(L"4194304")}});
    SingleFileBucketStore store(dir_, options.get(), fs_);
    store_.reset();
    store.open(0, status_);
    commitChanges(store, {{L"/a", 1}}, nullptr, status_);
    EXPECT_EQ(status_.getCode(), orvane::status::kOverSizeLimit);
    EXPECT_EQ(fs_.contents("/reg/registry.bin"), "");
}

// Another process's commits and compactions, seen through refresh().
TEST_F(StoreBehaviourTest, RefreshSeesWhatAnotherStoreCommittedAndCompacted) {
    SingleFileBucketStore other(dir_, nullptr, fs_);
    other.open(0, status_);
    EXPECT_EQ(store_->refresh(status_), Refresh::kUnchanged);

    commitChanges(other, {{L"/a", 1}}, nullptr, status_);
    EXPECT_FALSE(store_->exists(WString(L"/a"), status_));
    EXPECT_EQ(store_->refresh(status_), Refresh::kChanged);
    EXPECT_EQ(readState(*store_, {L"/a"}), (State{{L"/a", 1}}));
    EXPECT_EQ(store_->refresh(status_), Refresh::kUnchanged);

    commitChanges(other, {{L"/b", 2}}, nullptr, status_);
    other.compactNow(status_);
    ASSERT_EQ(other.facts().segments, 1u);
    EXPECT_EQ(store_->refresh(status_), Refresh::kChanged);
    EXPECT_EQ(readState(*store_, {L"/a", L"/b"}), (State{{L"/a", 1}, {L"/b", 2}}));

    // A reader's look opens the new file for reading only; a writer catches
    // up under the lock, and its commit then lands after the other's.
    EXPECT_TRUE(store_->catchUp(status_));
    commitChanges(*store_, {{L"/c", 3}}, nullptr, status_);
    EXPECT_EQ(other.refresh(status_), Refresh::kChanged);
    EXPECT_EQ(readState(other, {L"/a", L"/b", L"/c"}), (State{{L"/a", 1}, {L"/b", 2}, {L"/c", 3}}));
    EXPECT_EQ(status_.getCode(), 0);
}

// A flipped bit anywhere in the file: the open serves the newest state, or
// drops the damaged newest segment (keeping a copy) and serves the state
// before it, or reports the buckets it cannot prove as damage and changes
// nothing. Never a wrong value, never a crash.
TEST_F(StoreBehaviourTest, EveryFlippedBitIsCaughtOrHarmless) {
    commitChanges(*store_, {{L"/", -1}, {L"/a", 1}}, nullptr, status_);
    commitChanges(*store_, {{L"/b", 2}, {L"/a", -2}}, nullptr, status_);
    store_.reset();
    const State newest = {{L"/", -1}, {L"/b", 2}};
    const State older = {{L"/", -1}, {L"/a", 1}};
    const std::string good = fs_.contents("/reg/registry.bin");
    const std::string mark = fs_.contents("/reg/commitmark.2");
    ASSERT_FALSE(mark.empty());
    for (size_t at = 0; at < good.size(); ++at) {
        for (const unsigned char flip : {0x01, 0x80}) {
            std::string bad = good;
            bad[at] = static_cast<char>(bad[at] ^ flip);
            for (const WString& name : fs_.listDirectory(dir_)) {
                fs_.unlink(kel::osdep::join(dir_, name));
            }
            fs_.putFile("/reg/commitmark.2", mark);
            fs_.putFile("/reg/registry.bin", bad);
            SingleFileBucketStore store(dir_, nullptr, fs_);
            StatusChain status = okStatus();
            store.open(0, status);
            const int32_t code = status.getCode();
            ASSERT_TRUE(code == 0 || code == orvane::status::kStoreRepaired ||
                        code == orvane::status::kStoreDamaged)
                << at << ": " << code;
            for (const wchar_t* name : {L"/", L"/a", L"/b"}) {
                StatusChain read = okStatus();
                AutoRef<IBucket> bucket = store.readBucket(WString(name), read);
                if (read.getCode() == orvane::status::kOutsideFile) {
                    EXPECT_EQ(code, orvane::status::kStoreDamaged) << at;
                    continue;
                }
                const State seen = bucket ? readState(store, {name}) : State();
                const auto valueIn = [&](const State& state) {
                    const auto found = state.find(name);
                    return found == state.end() ? State() : State{*found};
                };
                EXPECT_TRUE(seen == valueIn(newest) ||
                            (code == orvane::status::kStoreRepaired && seen == valueIn(older)))
                    << "a wrong value, flip at " << at;
            }
            if (code == orvane::status::kStoreDamaged) {
                EXPECT_EQ(fs_.contents("/reg/registry.bin"), bad) << at;
            }
            if (code == orvane::status::kStoreRepaired) {
                EXPECT_EQ(fs_.contents("/reg/registry.bin.damaged-1"), bad) << at;
            }
        }
    }
}

// A record length past anything a store writes, in a sparse file of more
// than 4 GiB: damage, reported, never wrapped into a 32-bit size_t or the
// compacted record's 32-bit length and a buffer overrun. The segment's
// checksum cannot hold, so the open drops it, keeping a copy.
TEST(StoreLengthTest, ARecordPastFourGigabytesIsDamage) {
    TempDir dir;
    commitInTurn(dir.wide(), {{{L"/a", 1}}}, kel::osdep::FileSystem::posix());
    // A second segment after the first: one record "/b" of 4 GiB + 64 bytes.
    const auto start = static_cast<int64_t>(dir.read("registry.bin").size());
    const int64_t record = start + 16;
    const int64_t index = record + 8 + (int64_t{1} << 32) + 64;
    const int64_t trailer = index + 16 + 40;
    const int64_t end = trailer + 64;
    const orvane::DigestKey b = orvane::keyOf(orvane::Digest(WString(L"/b")));
    const int fd = ::open(dir.file("registry.bin").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const auto put = [fd](int64_t at, std::initializer_list<int64_t> words,
                          const std::string& tail = std::string()) {
        std::string bytes;
        for (const int64_t word : words) {
            for (int i = 0; i < 8; ++i) {
                bytes += static_cast<char>(static_cast<uint64_t>(word) >> (8 * i));
            }
        }
        bytes += tail;
        ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
    };
    put(start, {trailer, index});
    put(record, {index - record - 8});
    put(index, {0, 1}, std::string(b.begin(), b.end()));  // one update, no deletion
    put(index + 16 + 32, {record});
    put(trailer, {index, 0, 0, 0, 0, start}, "@@@@SFBSMARK@@@@");
    ::close(fd);
    for (int generation = 1; generation < 4; ++generation) {
        ::unlink(dir.file("commitmark." + std::to_string(generation)).c_str());
    }
    dir.write("commitmark.9", std::to_string(end));

    SingleFileBucketStore store(dir.wide(), nullptr, kel::osdep::FileSystem::posix());
    StatusChain status = okStatus();
    store.open(0, status);
    EXPECT_EQ(status.getCode(), orvane::status::kStoreRepaired);
    EXPECT_EQ(readState(store, {L"/a", L"/b"}), (State{{L"/a", 1}}));
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("registry.bin").c_str(), &info), 0);
    EXPECT_EQ(info.st_size, start);
    // The copy holds what a store can hold, as sparse as the file was.
    ASSERT_EQ(::stat(dir.file("registry.bin.damaged-1").c_str(), &info), 0);
    EXPECT_EQ(info.st_size, INT32_MAX);
    EXPECT_LT(info.st_blocks, 8 * 1024);
}

TEST(TouchFileTest, CreatedFilesGetTheConfiguredOwnerAndModeBeforeTheirName) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "changing owners needs root";
    }
    TempDir dir;
    const auto options = optionsWith({{Options::kDBOwner, WString(L"daemon")},
                                      {Options::kDBGroup, WString(L"daemon")},
                                      {Options::kDBMode, WString(L"0640")}});
    kel::osdep::FileSystem& fs = kel::osdep::FileSystem::posix();
    orvane::touchFile(fs, dir.wide("made"), options.get());
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("made").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    EXPECT_EQ(info.st_uid, static_cast<uid_t>(options->number(Options::kDBOwner)));
    EXPECT_NE(info.st_uid, 0u);

    // An existing file keeps its content, owner and mode.
    dir.write("kept", "content");
    ::chmod(dir.file("kept").c_str(), 0600);
    orvane::touchFile(fs, dir.wide("kept"), options.get());
    ASSERT_EQ(::stat(dir.file("kept").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(dir.read("kept"), "content");

    // An owner without a group changes no ownership; the mode still applies.
    const auto ownerOnly = optionsWith(
        {{Options::kDBOwner, WString(L"daemon")}, {Options::kDBMode, WString(L"0604")}});
    orvane::writeFileAtomically(fs, dir.wide("mark"), "12", ownerOnly.get());
    ASSERT_EQ(::stat(dir.file("mark").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_mode & 0777, 0604u);
    EXPECT_EQ(dir.read("mark"), "12");
}

TEST(TouchFileTest, CleanUpRemovesTemporaryFilesOnly) {
    TempDir dir;
    dir.write("registry.bin.17.tmp", "");
    dir.write("commitmark.5.3.tmp", "");
    dir.write("registry.bin", "keep");
    kel::osdep::FileSystem& fs = kel::osdep::FileSystem::posix();
    orvane::removeTemporaryFiles(fs, dir.wide());
    EXPECT_FALSE(dir.exists("registry.bin.17.tmp"));
    EXPECT_FALSE(dir.exists("commitmark.5.3.tmp"));
    EXPECT_TRUE(dir.exists("registry.bin"));
    EXPECT_THROW(orvane::removeTemporaryFiles(fs, dir.wide("registry.bin")),
                 kel::exception::InvalidArgument);
}

}  // namespace
}  // namespace test
}  // namespace zq
