// Processes writing and reading one registry for a while, with a file limit
// small enough that some process compacts every few commits.
#include <zq/orvane/Orvane.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/Child.h"
#include "support/FreshStatus.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::Guid;
using kel::StatusChain;
using kel::WString;
using orvane::IBucket;
using orvane::IBucketManager;
using orvane::IBucketValue;
using Clock = std::chrono::steady_clock;

constexpr int kWriters = 4;
constexpr int kReaders = 4;
// Short unless the build asks for more: every preset runs this test.
constexpr int kDefaultSeconds = 10;
// Beyond the run itself: start, the last transactions, the final checks.
constexpr int kGraceSeconds = 60;
constexpr int kMessagesPerChild = 3;

int soakSeconds() {
    const char* text = std::getenv("ORVANE_SOAK_SECONDS");
    const int seconds = text != nullptr ? std::atoi(text) : 0;
    return seconds > 0 ? seconds : kDefaultSeconds;
}

std::wstring writerBucket(int w) { return L"/soak/w" + std::to_wstring(w); }
std::wstring siblingBucket(int w) { return writerBucket(w) + L"b"; }

// What a writer last had acknowledged, kept where the parent sees it even if
// the writer dies.
struct Shared {
    std::atomic<int64_t> acked[kWriters];
};

class ManagerSoakTest : public testing::Test {
  protected:
    void SetUp() override {
        ::mkdir(dir_.file("app").c_str(), 0777);
        ::mkdir(dir_.file("shared").c_str(), 0777);
        ::setenv("ZQPUBAPPDATADIR", dir_.file("app").c_str(), 1);
        ::setenv("ZQKELTMPSHAREDFILEDIR", dir_.file("shared").c_str(), 1);
        dir_.write("Orvane.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=16\n");
        void* memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        shared_ = new (memory) Shared();
    }
    void TearDown() override {
        if (shared_ != nullptr) ::munmap(shared_, sizeof(Shared));
    }

    AutoRef<IBucketManager> open(StatusChain& status) {
        auto* orvane = orvane::publicInterface::GetInterface(2, status);
        if (orvane == nullptr) return AutoRef<IBucketManager>();
        return orvane->createBucketManager(dir_.wide("reg"), dir_.wide("Orvane.ini"), status);
    }

    int writer(int w, Clock::time_point deadline);
    int reader(int r, Clock::time_point deadline);

    TempDir dir_;
    Shared* shared_ = nullptr;
};

// -1 when the bucket is missing, -2 (with `status` fatal) on an error.
int64_t counterOf(IBucketManager& manager, const std::wstring& name, StatusChain& status) {
    AutoRef<IBucket> bucket = manager.getBucket(WString(name.c_str()), status);
    if (status.isFatal()) return -2;
    if (!bucket) return -1;
    AutoRef<IBucketValue> value = bucket->getValue(WString(L"v"), status);
    const int64_t counter = value ? value->getInt64(status) : -1;
    return status.isFatal() ? -2 : counter;
}

AutoRef<IBucket> counterBucket(IBucketManager& manager, const std::wstring& name, int64_t counter,
                               StatusChain& status) {
    // Padding, so that the file outgrows its limit every few commits.
    static const WString padding(std::wstring(700, L'p').c_str());
    AutoRef<IBucket> bucket = manager.createBucket(WString(name.c_str()), true, status);
    if (!bucket) return bucket;
    bucket->setInt64Value(WString(L"v"), counter, status, true);
    bucket->setStringValue(WString(L"pad"), padding, status, true);
    return bucket;
}

// Only this writer writes its two buckets, so each transaction must find
// exactly what it last had acknowledged.
int ManagerSoakTest::writer(int w, Clock::time_point deadline) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    if (!m || status.isFatal()) {
        std::fprintf(stderr, "writer %d: open failed: %d\n", w, status.getCode());
        return 1;
    }
    int64_t acked = 0;
    int faults = 0;
    while (Clock::now() < deadline) {
        status = fresh();
        Guid id;
        if (!m->beginTransaction(id, status)) {
            if (++faults <= kMessagesPerChild) {
                std::fprintf(stderr, "writer %d: begin failed: %d\n", w, status.getCode());
            }
            continue;
        }
        m->beginUpdate(id, status);
        StatusChain look = fresh();
        const int64_t found = std::max<int64_t>(counterOf(*m, writerBucket(w), look), 0);
        if (found != acked && ++faults <= kMessagesPerChild) {
            std::fprintf(stderr,
                         "writer %d: its transaction found %lld, but %lld was acknowledged\n", w,
                         static_cast<long long>(found), static_cast<long long>(acked));
        }
        const int64_t next = acked + 1;
        m->putBucket(counterBucket(*m, writerBucket(w), next, status), true, id, status);
        m->putBucket(counterBucket(*m, siblingBucket(w), next, status), true, id, status);
        m->commit(id, status);
        StatusChain end = fresh();
        m->endTransaction(id, end);
        if (status.isFatal()) {
            if (++faults <= kMessagesPerChild) {
                std::fprintf(stderr, "writer %d: commit of %lld failed: %d\n", w,
                             static_cast<long long>(next), status.getCode());
            }
            continue;
        }
        acked = next;
        shared_->acked[w].store(acked);
    }
    return faults == 0 ? 0 : 2;
}

// The sibling is read after its writer's bucket; both were committed
// together, so it can only be as new or newer.
int ManagerSoakTest::reader(int r, Clock::time_point deadline) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    if (!m || status.isFatal()) {
        std::fprintf(stderr, "reader %d: open failed: %d\n", r, status.getCode());
        return 1;
    }
    std::vector<int64_t> seen(2 * kWriters, 0);
    int faults = 0;
    auto fault = [&](const char* what, int w, int64_t first, int64_t then) {
        if (++faults <= kMessagesPerChild) {
            std::fprintf(stderr, "reader %d, writer %d: %s: %lld, then %lld\n", r, w, what,
                         static_cast<long long>(first), static_cast<long long>(then));
        }
    };
    while (Clock::now() < deadline) {
        for (int w = 0; w < kWriters; ++w) {
            StatusChain look = fresh();
            const int64_t first = counterOf(*m, writerBucket(w), look);
            const int64_t second = counterOf(*m, siblingBucket(w), look);
            if (look.isFatal()) {
                if (++faults <= kMessagesPerChild) {
                    std::fprintf(stderr, "reader %d: lookup failed: %d\n", r, look.getCode());
                }
                continue;
            }
            // A missing bucket reads as 0: one that disappears went back too.
            const int64_t a = std::max<int64_t>(first, 0);
            const int64_t b = std::max<int64_t>(second, 0);
            if (a < seen[2 * w]) fault("its bucket went back", w, seen[2 * w], a);
            if (b < seen[2 * w + 1]) fault("sibling went back", w, seen[2 * w + 1], b);
            if (b < a) fault("the sibling read after its bucket was older", w, a, b);
            seen[2 * w] = std::max(seen[2 * w], a);
            seen[2 * w + 1] = std::max(seen[2 * w + 1], b);
        }
    }
    if (faults > kMessagesPerChild) {
        std::fprintf(stderr, "reader %d: %d faults in all\n", r, faults);
    }
    return faults == 0 ? 0 : 2;
}

TEST_F(ManagerSoakTest, CompactingWritersNeitherLoseNorRewindWhatReadersSaw) {
    const int seconds = soakSeconds();
    const int parent = inChild([this] {
        StatusChain status = fresh();
        AutoRef<IBucketManager> m = open(status);
        if (!m) return 1;
        Guid id;
        m->beginTransaction(id, status);
        m->beginUpdate(id, status);
        m->putBucket(m->createBucket(WString(L"/soak"), true, status), true, id, status);
        m->commit(id, status);
        m->endTransaction(id, status);
        return status.isFatal() ? 2 : 0;
    });
    ASSERT_EQ(parent, 0) << "cannot make /soak";

    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
    std::vector<pid_t> children;
    for (int i = 0; i < kWriters + kReaders; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::alarm(seconds + kGraceSeconds);
            int code = 99;
            try {
                code = i < kWriters ? writer(i, deadline) : reader(i - kWriters, deadline);
            } catch (...) {
            }
            ::_exit(code);
        }
        children.push_back(pid);
    }
    for (int i = 0; i < kWriters + kReaders; ++i) {
        const int code = exitCodeWithin(children[i], seconds + kGraceSeconds + 10);
        EXPECT_EQ(code, 0) << (i < kWriters ? "writer " : "reader ")
                           << (i < kWriters ? i : i - kWriters) << " (see its stderr)";
    }

    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(m);
    ASSERT_FALSE(status.isFatal()) << status.getCode();
    int64_t commits = 0;
    for (int w = 0; w < kWriters; ++w) {
        const int64_t acked = shared_->acked[w].load();
        commits += acked;
        EXPECT_GT(acked, 0) << "writer " << w << " never committed";
        // A commit that failed changed nothing, so no more than acknowledged.
        StatusChain look = fresh();
        EXPECT_EQ(counterOf(*m, writerBucket(w), look), acked) << "writer " << w;
        EXPECT_EQ(counterOf(*m, siblingBucket(w), look), acked) << "writer " << w << ", sibling";
    }
    std::printf("%lld commits in %d s\n", static_cast<long long>(commits), seconds);
}

}  // namespace
}  // namespace test
}  // namespace zq
