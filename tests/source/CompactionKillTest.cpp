// A process that dies in the middle of a compaction while another process
// keeps committing: the next open repairs the files, and nothing the
// committing process was told is durable may be lost by that repair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Mutex.h"
#include "kel/osdep/SharedCounter.h"
#include "source/ManagerTestSupport.h"
#include "source/Options.h"
#include "source/SingleFileBucketStore.h"
#include "source/TouchFile.h"

namespace zq {
namespace test {
namespace {

using kel::osdep::File;
using kel::osdep::FileSystem;
using Clock = std::chrono::steady_clock;

// The manager's names: this test takes the lock and moves the count as any
// manager would, so the committing process cannot tell it from one.
const wchar_t kProcessLockName[] = L"__zq_orvane_BucketManager_lock__";
const wchar_t kCounter[] = L"/kill/b";
constexpr int kDied = 42;
constexpr int kChildSeconds = 60;
// Segments the file holds before each compaction, so that it has work to do.
constexpr uint32_t kSegments = 3;
// How long to wait for those segments before going on regardless.
constexpr int kPatienceSeconds = 3;

// Forwards to the POSIX file system. The calls that change or sync the
// directory are the steps of a compaction's swap: the process ends before
// the chosen one, as a crash there would end it.
class DyingFileSystem : public FileSystem {
  public:
    // From now on counts those calls, and ends the process before call
    // `dieAt` (0: never).
    void arm(uint64_t dieAt) {
        dieAt_ = dieAt;
        calls_ = 0;
        armed_ = true;
    }
    uint64_t calls() const { return calls_; }

    std::unique_ptr<File> open(const kel::WString& path, uint32_t flags,
                               uint32_t permissions) override {
        return posix().open(path, flags, permissions);
    }
    Status stat(const kel::WString& path) override { return posix().stat(path); }
    void rename(const kel::WString& from, const kel::WString& to) override {
        step();
        posix().rename(from, to);
    }
    void unlink(const kel::WString& path) override {
        step();
        posix().unlink(path);
    }
    void makeDirectory(const kel::WString& path, uint32_t permissions) override {
        posix().makeDirectory(path, permissions);
    }
    std::vector<kel::WString> listDirectory(const kel::WString& path) override {
        return posix().listDirectory(path);
    }
    void syncDirectory(const kel::WString& path) override {
        step();
        posix().syncDirectory(path);
    }

  private:
    void step() {
        if (armed_ && ++calls_ == dieAt_) ::_exit(kDied);
    }

    bool armed_ = false;
    uint64_t dieAt_ = 0;
    uint64_t calls_ = 0;
};

struct OpenReport {
    int32_t code = 1;
    int64_t counter = -1;  // -1: missing
};

struct CompactionReport {
    int32_t code = 1;
    uint64_t calls = 0;
    uint32_t segments = 0;
};

int64_t counterIn(orvane::SingleFileBucketStore& store) {
    StatusChain status = fresh();
    AutoRef<IBucket> bucket = store.readBucket(WString(kCounter), status);
    if (!bucket) return -1;
    AutoRef<IBucketValue> value = bucket->getValue(WString(L"v"), status);
    return value ? value->getInt64(status) : -1;
}

bool writeAll(int fd, const void* bytes, size_t size) {
    return ::write(fd, bytes, size) == static_cast<ssize_t>(size);
}

// The store opened and compacted as a manager does both, under the process
// lock and inside a change of the count; the compaction's file calls end the
// process before call `dieAt`. Reports what the open found, then what the
// compaction did if it lived.
int compactor(const WString& directory, uint64_t dieAt, int report) {
    ::alarm(kChildSeconds);
    StatusChain status = fresh();
    const orvane::Options options(orvane::Options::Values{}, status);
    DyingFileSystem fs;
    kel::osdep::Mutex lock{WString(kProcessLockName)};
    kel::osdep::SharedCounter changes{WString(kProcessLockName)};
    orvane::SingleFileBucketStore store(directory, &options, fs);

    OpenReport opened;
    lock.lock();
    {
        kel::osdep::SharedCounter::Change change(changes);
        orvane::removeTemporaryFiles(fs, directory);
        store.open(0, status);
    }
    opened.code = status.getCode();
    if (status.isNotFatal()) opened.counter = counterIn(store);
    lock.unlock();
    if (!writeAll(report, &opened, sizeof opened) || status.isFatal()) return 1;

    // Between its transactions a manager holds no lock: the other process
    // appends segments meanwhile, and the next transaction starts from them.
    const Clock::time_point patience = Clock::now() + std::chrono::seconds(kPatienceSeconds);
    CompactionReport compacted;
    for (;;) {
        lock.lock();
        store.refresh(status);
        compacted.segments = store.facts().segments;
        if (compacted.segments >= kSegments || Clock::now() > patience) break;
        lock.unlock();
        ::usleep(2000);
    }
    {
        kel::osdep::SharedCounter::Change change(changes);
        fs.arm(dieAt);
        store.compactNow(status);
    }
    compacted.code = status.getCode();
    compacted.calls = fs.calls();
    lock.unlock();
    return writeAll(report, &compacted, sizeof compacted) ? 0 : 1;
}

// Everything the committing process reported: acknowledged values, and the
// codes of failed transactions as negative numbers.
struct Acknowledged {
    int64_t last = 0;
    int64_t count = 0;
    std::vector<int64_t> errors;
    std::vector<std::string> anomalies;
};

class CompactionKillTest : public ManagerFixture {
  protected:
    void SetUp() override {
        ManagerFixture::SetUp();
        void* memory = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        stop_ = new (memory) std::atomic<int>(0);
    }
    void TearDown() override {
        if (committer_ > 0) {
            stop_->store(1);
            exitCodeWithin(committer_, kChildSeconds);
        }
        if (acks_ >= 0) ::close(acks_);
        ::munmap(stop_, sizeof(std::atomic<int>));
    }

    // Only this process writes the counter, and each transaction writes one
    // more than it finds: an acknowledged commit that is lost shows as a
    // value acknowledged twice.
    void startCommitter() {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        committer_ = ::fork();
        if (committer_ == 0) {
            ::close(ends[0]);
            ::alarm(kChildSeconds * 10);
            int code = 99;
            try {
                code = commitUntilStopped(ends[1]);
            } catch (...) {
            }
            ::_exit(code);
        }
        ::close(ends[1]);
        acks_ = ends[0];
        ::fcntl(acks_, F_SETFL, ::fcntl(acks_, F_GETFL) | O_NONBLOCK);
    }

    int commitUntilStopped(int report) {
        StatusChain status = fresh();
        AutoRef<IBucketManager> m = open(status);
        if (m) {
            transact(*m, status, [&](const Guid& id) {
                m->putBucket(m->createBucket(WString(L"/kill"), true, status), true, id, status);
            });
        }
        if (!m || status.isFatal()) {
            const int64_t code = status.getCode();
            writeAll(report, &code, sizeof code);
            return 1;
        }
        while (stop_->load() == 0) {
            status = fresh();
            int64_t next = 0;
            transact(*m, status, [&](const Guid& id) {
                AutoRef<IBucket> found = m->getBucket(WString(kCounter), status);
                AutoRef<IBucketValue> value =
                    found ? found->getValue(WString(L"v"), status) : AutoRef<IBucketValue>();
                next = (value ? value->getInt64(status) : 0) + 1;
                AutoRef<IBucket> bucket = m->createBucket(WString(kCounter), true, status);
                if (bucket) bucket->setInt64Value(WString(L"v"), next, status, true);
                m->putBucket(bucket, true, id, status);
            });
            const int64_t outcome = status.isFatal() ? status.getCode() : next;
            if (!writeAll(report, &outcome, sizeof outcome)) return 1;
            ::usleep(status.isFatal() ? 20000 : 500);
        }
        return 0;
    }

    void drain() {
        int64_t outcome = 0;
        while (::read(acks_, &outcome, sizeof outcome) == sizeof outcome) {
            if (outcome < 0) {
                if (acked_.errors.size() < 8) acked_.errors.push_back(outcome);
                continue;
            }
            if (outcome != acked_.last + 1 && acked_.anomalies.size() < 8) {
                std::ostringstream text;
                text << "the committer found " << outcome - 1 << " after " << acked_.last
                     << " was acknowledged (by step " << step_ << ")";
                acked_.anomalies.push_back(text.str());
            }
            acked_.last = outcome;
            ++acked_.count;
        }
    }

    // Where the last compactor stopped.
    std::string crashBefore() const {
        return step_ <= 1 ? std::string("after a whole compaction")
                          : "after a crash before step " + std::to_string(step_ - 1);
    }

    std::string errorsSeen() const {
        std::ostringstream text;
        for (int64_t code : acked_.errors)
            text << " " << code;
        return text.str();
    }

    // Lets the committer acknowledge `more` commits (or fail for a while).
    bool awaitAcks(int64_t more, int seconds) {
        const int64_t target = acked_.count + more;
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
        for (drain(); acked_.count < target && Clock::now() < deadline; drain()) {
            ::usleep(1000);
        }
        return acked_.count >= target;
    }

    // A compactor that ends before call `dieAt`; its exit code, and what it
    // reported.
    int compactIn(uint64_t dieAt, OpenReport& opened, CompactionReport& compacted) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(ends[0]);
            int code = 99;
            try {
                code = compactor(registry(), dieAt, ends[1]);
            } catch (...) {
            }
            ::_exit(code);
        }
        ::close(ends[1]);
        // The child's alarm ends these reads if it hangs.
        if (::read(ends[0], &opened, sizeof opened) != sizeof opened) opened = OpenReport();
        if (::read(ends[0], &compacted, sizeof compacted) != sizeof compacted) {
            compacted = CompactionReport();
        }
        ::close(ends[0]);
        const int code = exitCodeWithin(pid, kChildSeconds + 10);
        // What was acknowledged while the compactor lived precedes its crash.
        drain();
        return code;
    }

    std::atomic<int>* stop_ = nullptr;
    pid_t committer_ = -1;
    int acks_ = -1;
    Acknowledged acked_;
    uint64_t step_ = 0;
};

TEST_F(CompactionKillTest, AnotherProcessKeepsEveryCommitWhenACompactionDiesAtAnyStep) {
    startCommitter();
    ASSERT_TRUE(awaitAcks(kSegments + 2, 30)) << "the committer does not commit: " << errorsSeen();

    OpenReport opened;
    CompactionReport compacted;
    ASSERT_EQ(compactIn(0, opened, compacted), 0);
    ASSERT_EQ(opened.code, 0);
    ASSERT_GE(compacted.segments, kSegments);
    ASSERT_EQ(compacted.code, 0);
    const uint64_t steps = compacted.calls;
    ASSERT_GT(steps, 4u) << "a compaction's swap takes more steps than that";

    for (step_ = 1; step_ <= steps; ++step_) {
        // Commits made after the last crash, into whatever files it left.
        if (!awaitAcks(kSegments, kPatienceSeconds) && !acked_.errors.empty()) {
            ADD_FAILURE() << "the committer stopped committing before step " << step_;
            break;
        }
        const int64_t acknowledged = acked_.last;
        const int code = compactIn(step_, opened, compacted);
        EXPECT_EQ(opened.code, 0) << "the open " << crashBefore();
        EXPECT_GE(opened.counter, acknowledged)
            << "the open " << crashBefore() << " lost acknowledged commits";
        if (opened.code < 0) continue;  // nothing was left to compact
        EXPECT_EQ(code, kDied) << "the compaction did not reach step " << step_ << " of " << steps
                               << " (it had " << compacted.segments << " segments)";
    }
    awaitAcks(kSegments, kPatienceSeconds);
    stop_->store(1);
    EXPECT_EQ(exitCodeWithin(committer_, kChildSeconds), 0);
    committer_ = -1;
    drain();

    // A process that comes later finds every acknowledged commit.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const int reopened = inChild([&] {
        ::alarm(kChildSeconds);
        StatusChain status = fresh();
        AutoRef<IBucketManager> m = open(status);
        OpenReport found;
        found.code = status.getCode();
        AutoRef<IBucket> bucket = m ? m->getBucket(WString(kCounter), status) : AutoRef<IBucket>();
        AutoRef<IBucketValue> value =
            bucket ? bucket->getValue(WString(L"v"), status) : AutoRef<IBucketValue>();
        found.counter = value ? value->getInt64(status) : -1;
        return writeAll(ends[1], &found, sizeof found) ? 0 : 1;
    });
    ::close(ends[1]);
    OpenReport last;
    EXPECT_EQ(::read(ends[0], &last, sizeof last), static_cast<ssize_t>(sizeof last));
    ::close(ends[0]);
    EXPECT_EQ(reopened, 0);
    EXPECT_EQ(last.code, 0);
    EXPECT_GE(last.counter, acked_.last) << "acknowledged commits lost in the end";

    EXPECT_TRUE(acked_.errors.empty()) << "the committer's transactions failed:" << errorsSeen();
    for (const std::string& anomaly : acked_.anomalies)
        ADD_FAILURE() << anomaly;
    std::printf("%lld commits acknowledged over %llu steps\n", static_cast<long long>(acked_.count),
                static_cast<unsigned long long>(steps));
}

}  // namespace
}  // namespace test
}  // namespace zq
