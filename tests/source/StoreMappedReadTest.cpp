// Reads through a map of "registry.bin" say what reads of the file say,
// whatever another process does to the file meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/MappedFile.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using kel::osdep::FileSystem;
using kel::osdep::MappedFile;
using orvane::SingleFileBucketStore;

// The whole default, a limit well inside the file, no map at all.
const int64_t kLimits[] = {MappedFile::kDefaultLimit, 8192, 0};

State numbered(int count, int32_t base) {
    State state{{L"/", -1}};
    for (int i = 0; i < count; ++i) {
        state[L"/s" + std::to_wstring(i)] = base + i;
    }
    return state;
}

class StoreMappedReadTest : public testing::Test {
  protected:
    void SetUp() override {
        commitInTurn(dir_.wide(), {numbered(200, 0), numbered(50, 1000)}, fs_);
        names_ = namesOf({numbered(200, 0)});
    }

    // In another process, as another writer would.
    void inWriter(const std::function<void(SingleFileBucketStore&, StatusChain&)>& change) {
        ASSERT_EQ(0, inChild([&] {
                      SingleFileBucketStore store(dir_.wide(), nullptr, fs_);
                      StatusChain status = okStatus();
                      store.open(0, status);
                      change(store, status);
                      return status.getCode() == 0 ? 0 : 1;
                  }));
    }

    // What each name reads as: its value, or the status code of the read.
    std::vector<std::pair<int32_t, int32_t>> readAll(SingleFileBucketStore& store) {
        std::vector<std::pair<int32_t, int32_t>> seen;
        for (const std::wstring& name : names_) {
            StatusChain status = okStatus();
            AutoRef<IBucket> bucket = store.readBucket(WString(name.c_str()), status);
            int32_t value = -3;
            if (bucket) {
                StatusChain valueStatus = okStatus();
                AutoRef<orvane::IBucketValue> v = bucket->getValue(WString(L"v"), valueStatus);
                value = v ? v->getInt32(valueStatus) : -1;
            }
            seen.emplace_back(value, status.getCode());
        }
        return seen;
    }

    TempDir dir_;
    FileSystem& fs_ = FileSystem::posix();
    std::set<std::wstring> names_;
};

// A reader follows appends past what it mapped and a compaction's swap to a
// new file, under every limit.
TEST_F(StoreMappedReadTest, AReaderFollowsAppendsAndSwapsUnderEveryLimit) {
    State expected = numbered(200, 0);
    for (const auto& entry : numbered(50, 1000)) {
        expected[entry.first] = entry.second;
    }
    for (int64_t limit : kLimits) {
        SCOPED_TRACE(limit);
        SingleFileBucketStore reader(dir_.wide(), nullptr, fs_);
        reader.limitMapping(limit);
        StatusChain status = okStatus();
        reader.openForReading(status);
        ASSERT_EQ(0, status.getCode());
        EXPECT_EQ(expected, readState(reader, names_));

        const State change = numbered(200, 5000 + static_cast<int32_t>(limit % 7));
        inWriter([&](SingleFileBucketStore& w, StatusChain& s) {
            commitChanges(w, change, nullptr, s);
        });
        reader.refresh(status);
        EXPECT_EQ(change, readState(reader, names_));

        inWriter([](SingleFileBucketStore& w, StatusChain& s) { w.compactNow(s); });
        reader.refresh(status);
        EXPECT_EQ(0, status.getCode());
        EXPECT_EQ(change, readState(reader, names_));
        expected = change;
    }
}

// Another process cuts the file under readers: no reader is killed by the
// pages that went, and each read says what a read of the file says.
TEST_F(StoreMappedReadTest, AFileCutByAnotherProcessReadsAsThroughReads) {
    const std::string path = dir_.file("registry.bin");
    // On a page boundary: what is cut from the last page reads as zeros
    // through a map, not as missing bytes.
    const off_t half = static_cast<off_t>(dir_.read("registry.bin").size() / 2 / 4096 * 4096);
    std::vector<std::vector<std::pair<int32_t, int32_t>>> seen;
    for (int64_t limit : kLimits) {
        SingleFileBucketStore reader(dir_.wide(), nullptr, fs_);
        reader.limitMapping(limit);
        StatusChain status = okStatus();
        reader.openForReading(status);
        ASSERT_EQ(0, status.getCode());
        const std::string whole = dir_.read("registry.bin");
        ASSERT_EQ(0, inChild([&] { return ::truncate(path.c_str(), half) == 0 ? 0 : 1; }));
        seen.push_back(readAll(reader));
        dir_.write("registry.bin", whole);
    }
    for (size_t k = 1; k < seen.size(); ++k) {
        EXPECT_EQ(seen.back(), seen[k - 1]) << "limit " << kLimits[k - 1];
    }
    size_t failed = 0;
    for (const auto& read : seen.front()) {
        failed += read.second != 0 ? 1 : 0;
    }
    EXPECT_GT(failed, 0u);
    EXPECT_LT(failed, names_.size());
}

// The same while the reads run: another process cuts the file and puts it
// back, again and again.
TEST_F(StoreMappedReadTest, ReadsRacingCutsByAnotherProcessNeverFault) {
    const std::string path = dir_.file("registry.bin");
    const std::string whole = dir_.read("registry.bin");
    SingleFileBucketStore reader(dir_.wide(), nullptr, fs_);
    StatusChain status = okStatus();
    reader.openForReading(status);
    ASSERT_EQ(0, status.getCode());
    const pid_t cutter = ::fork();
    if (cutter == 0) {
        for (int round = 0; round < 200; ++round) {
            if (::truncate(path.c_str(), static_cast<off_t>(round % 5) * 1000) != 0) ::_exit(1);
            ::usleep(200);
            const int fd = ::open(path.c_str(), O_WRONLY);
            if (fd < 0 || ::pwrite(fd, whole.data(), whole.size(), 0) < 0) ::_exit(2);
            ::close(fd);
        }
        ::_exit(0);
    }
    size_t reads = 0;
    int ended = 0;
    while (::waitpid(cutter, &ended, WNOHANG) == 0) {
        reads += readAll(reader).size();
    }
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 0);
    EXPECT_GT(reads, 0u);
    State expected = numbered(200, 0);
    for (const auto& entry : numbered(50, 1000)) {
        expected[entry.first] = entry.second;
    }
    EXPECT_EQ(expected, readState(reader, names_));
}

}  // namespace
}  // namespace test
}  // namespace zq
