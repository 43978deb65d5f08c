// One manager shared by threads: lookups and enumerations while another
// thread commits and compacts, and transactions handed from thread to
// thread. Meant for the ThreadSanitizer build too.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "source/ManagerOptions.h"
#include "source/ManagerTestSupport.h"
#include "source/Options.h"
#include "zq/orvane/BucketManager.h"

namespace zq {
namespace test {
namespace {

class ManagerThreadsTest : public ManagerFixture {};

constexpr int kBuckets = 40;

std::wstring nameOf(int i) { return L"/t/b" + std::to_wstring(i); }

TEST_F(ManagerThreadsTest, LookupsAndEnumerationsRunBesideCommitsAndCompactions) {
    // A small file limit: commits compact again and again.
    orvane::overrideManagerOptions({{orvane::Options::kDiskMaxRegistryFileSizeKB, WString(L"8")}});
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(m->createBucket(WString(L"/t"), false, status), true, id, status);
        for (int i = 0; i < kBuckets; ++i) {
            m->putBucket(bucketWith(*m, nameOf(i).c_str(), 0, status), true, id, status);
        }
    }));

    std::atomic<bool> done{false};
    std::atomic<int> problems{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&, r] {
            int i = r;
            while (!done) {
                StatusChain s = fresh();
                AutoRef<IBucket> b = m->getBucket(WString(nameOf(i % kBuckets).c_str()), s);
                if (!b || s.isFatal()) ++problems;
                AutoRef<IBucket> parent = m->getBucket(WString(L"/t"), s);
                if (parent) {
                    const uint32_t handle = parent->openEnumeration();
                    orvane::Digest child;
                    int children = 0;
                    for (bool more = parent->getFirstChild(handle, child); more;
                         more = parent->getNextChild(handle, child, s)) {
                        if (m->getBucketByDigest(child, s)) ++children;
                    }
                    parent->closeEnumeration(handle);
                    if (children != kBuckets) ++problems;
                }
                i += 7;
            }
        });
    }
    for (int round = 1; round <= 60; ++round) {
        StatusChain s = fresh();
        transact(*m, s, [&](const Guid& id) {
            for (int i = 0; i < kBuckets; i += 3) {
                m->putBucket(bucketWith(*m, nameOf(i).c_str(), round, s), false, id, s);
            }
        });
        if (s.isFatal()) ++problems;
    }
    done = true;
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(problems.load(), 0);
    EXPECT_EQ(valueOf(*m, nameOf(3).c_str()), 60);
    EXPECT_EQ(valueOf(*m, nameOf(1).c_str()), 0);
}

// Four threads race to begin; the winner's transaction is committed and
// ended by the main thread; then another thread runs one more. A hold left
// with the winner's thread made that last begin wait forever.
TEST_F(ManagerThreadsTest, TransactionEndedByAnotherThreadLeavesNothingHeld) {
    const int code = inChildWithin(30, [this] {
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = open(s);
        if (!m) return 2;
        std::atomic<int> ready{0};
        std::atomic<int> winners{0};
        std::atomic<int> refusedBadly{0};
        Guid won;
        std::vector<std::thread> racers;
        for (int r = 0; r < 4; ++r) {
            racers.emplace_back([&] {
                ++ready;
                while (ready < 4)
                    std::this_thread::yield();
                StatusChain own = fresh();
                Guid id;
                if (m->tryBeginTransaction(id, own)) {
                    ++winners;
                    won = id;
                    m->beginUpdate(id, own);
                    m->putBucket(bucketWith(*m, L"/race", 1, own), true, id, own);
                } else if (own.getCode() != 0) {
                    ++refusedBadly;
                }
            });
        }
        for (std::thread& t : racers)
            t.join();
        if (winners != 1 || refusedBadly != 0) return 3;
        StatusChain main = fresh();
        Guid other;
        if (m->tryBeginTransaction(other, main) || main.getCode() != 0) return 4;
        if (!m->commit(won, main) || !m->endTransaction(won, main) || main.isFatal()) return 5;
        bool again = false;
        std::thread([&] {
            StatusChain own = fresh();
            again = transact(*m, own, [&](const Guid& id) {
                m->putBucket(bucketWith(*m, L"/race", 2, own), true, id, own);
            });
        }).join();
        if (!again) return 6;
        // And the main thread, which never began one, begins the next.
        StatusChain last = fresh();
        Guid id;
        if (!m->tryBeginTransaction(id, last) || !m->endTransaction(id, last)) return 7;
        return valueOf(*m, L"/race") == 2 ? 0 : 8;
    });
    EXPECT_EQ(code, 0);
}

// A pool of 8 threads runs 1,000 transactions; each goes begin, put, commit,
// end, and every step runs on another thread than the step before. Each
// transaction adds 1 to a counter.
TEST_F(ManagerThreadsTest, ThreadPoolPassesTransactionsBetweenThreads) {
    constexpr int kThreads = 8;
    constexpr int kTransactions = 1000;
    const int code = inChildWithin(120, [this] {
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = open(s);
        if (!m) return 2;
        struct Step {
            int stage;  // 0 begin, 1 put, 2 commit, 3 end
            int from;   // the thread that ran the stage before
            Guid id;
        };
        std::mutex queueMutex;
        std::condition_variable queued;
        std::deque<Step> queue{{0, -1, Guid()}};
        int ended = 0;
        std::atomic<int> problems{0};
        std::vector<std::thread> pool;
        for (int t = 0; t < kThreads; ++t) {
            pool.emplace_back([&, t] {
                for (;;) {
                    std::unique_lock<std::mutex> hold(queueMutex);
                    auto mine = queue.end();
                    queued.wait(hold, [&] {
                        mine = std::find_if(queue.begin(), queue.end(),
                                            [&](const Step& step) { return step.from != t; });
                        return ended == kTransactions || mine != queue.end();
                    });
                    if (mine == queue.end()) return;
                    Step step = *mine;
                    queue.erase(mine);
                    hold.unlock();
                    StatusChain own = fresh();
                    bool ok = true;
                    switch (step.stage) {
                        case 0: {
                            ok = m->beginTransaction(step.id, own) && m->beginUpdate(step.id, own);
                            break;
                        }
                        case 1: {
                            // Another thread's begin is refused at once.
                            Guid other;
                            StatusChain refused = fresh();
                            ok = !m->tryBeginTransaction(other, refused) && refused.getCode() == 0;
                            const int32_t count = std::max(valueOf(*m, L"/pool"), 0);
                            ok = ok && m->putBucket(bucketWith(*m, L"/pool", count + 1, own), true,
                                                    step.id, own);
                            break;
                        }
                        case 2:
                            ok = m->commit(step.id, own);
                            break;
                        default:
                            ok = m->endTransaction(step.id, own);
                            break;
                    }
                    if (!ok || own.isFatal()) ++problems;
                    hold.lock();
                    if (step.stage < 3) {
                        queue.push_back({step.stage + 1, t, step.id});
                    } else if (++ended < kTransactions) {
                        queue.push_back({0, t, Guid()});
                    }
                    hold.unlock();
                    queued.notify_all();
                }
            });
        }
        for (std::thread& t : pool)
            t.join();
        if (problems != 0) return 3;
        return valueOf(*m, L"/pool") == kTransactions ? 0 : 4;
    });
    EXPECT_EQ(code, 0);
}

// Whether `fd` becomes readable within `seconds`, and then one byte from it.
bool receive(int fd, int seconds) {
    pollfd ready{fd, POLLIN, 0};
    char byte;
    return ::poll(&ready, 1, seconds * 1000) == 1 && ::read(fd, &byte, 1) == 1;
}

bool send(int fd) { return ::write(fd, "x", 1) == 1; }

// Another process is kept out while a transaction begun on one thread is
// open, and gets in once a second thread ends it.
TEST_F(ManagerThreadsTest, ConcurrentProcessWaitsForATransactionEndedOnAnotherThread) {
    int toHolder[2];
    int fromHolder[2];
    ASSERT_EQ(::pipe(toHolder), 0);
    ASSERT_EQ(::pipe(fromHolder), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        ::alarm(30);
        bool ok = receive(toHolder[0], 25);  // the parent's manager is open
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = open(s);
        Guid id;
        ok = ok && m;
        // The beginning thread lives on, as in a pool: a thread that ended
        // could lend its identity to the next one.
        std::promise<bool> begun;
        std::promise<void> ended;
        std::thread beginner([&] {
            StatusChain own = fresh();
            begun.set_value(m->beginTransaction(id, own) && m->beginUpdate(id, own) &&
                            m->putBucket(bucketWith(*m, L"/held", 7, own), true, id, own));
            ended.get_future().wait();
        });
        ok = ok && begun.get_future().get();
        ok = ok && send(fromHolder[1]) && receive(toHolder[0], 25);
        std::thread([&] {
            StatusChain own = fresh();
            ok = ok && m->commit(id, own) && m->endTransaction(id, own);
        }).join();
        ended.set_value();
        beginner.join();
        // Alive until the parent has looked: the end alone must let it in.
        ok = ok && send(fromHolder[1]) && receive(toHolder[0], 25);
        ::_exit(ok ? 0 : 1);
    }
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(m);
    ASSERT_TRUE(send(toHolder[1]));
    ASSERT_TRUE(receive(fromHolder[0], 25));
    Guid id;
    EXPECT_FALSE(m->tryBeginTransaction(id, status));
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(valueOf(*m, L"/held"), -1);
    ASSERT_TRUE(send(toHolder[1]));
    ASSERT_TRUE(receive(fromHolder[0], 25));
    EXPECT_TRUE(m->tryBeginTransaction(id, status));
    EXPECT_TRUE(m->endTransaction(id, status));
    EXPECT_EQ(valueOf(*m, L"/held"), 7);
    ASSERT_TRUE(send(toHolder[1]));
    EXPECT_EQ(exitCodeWithin(holder, 30), 0);
    for (int fd : {toHolder[0], toHolder[1], fromHolder[0], fromHolder[1]})
        ::close(fd);
}

// purgeStore on a thread while a transaction begun on another is open runs
// inside that transaction instead of waiting for its end.
TEST_F(ManagerThreadsTest, PurgeDuringAnotherThreadsTransactionDoesNotWait) {
    const int code = inChildWithin(30, [this] {
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = open(s);
        if (!m) return 2;
        auto& manager = static_cast<orvane::BucketManager&>(*m);
        Guid id;
        bool ok = true;
        std::thread([&] {
            StatusChain own = fresh();
            ok = m->beginTransaction(id, own) && m->beginUpdate(id, own) &&
                 m->putBucket(bucketWith(*m, L"/gone", 1, own), true, id, own);
        }).join();
        std::thread([&] { manager.purgeStore(); }).join();
        std::thread([&] {
            StatusChain own = fresh();
            // What was pending went with the files; the transaction is still open.
            ok = ok && m->commit(id, own) && m->endTransaction(id, own);
        }).join();
        if (!ok) return 3;
        if (valueOf(*m, L"/gone") != -1) return 4;
        StatusChain next = fresh();
        Guid again;
        if (!m->tryBeginTransaction(again, next) || !m->endTransaction(again, next)) return 5;
        // With no transaction open, the purge takes the lock itself.
        std::thread([&] { manager.purgeStore(); }).join();
        return m->tryBeginTransaction(again, next) && m->endTransaction(again, next) ? 0 : 6;
    });
    EXPECT_EQ(code, 0);
}

}  // namespace
}  // namespace test
}  // namespace zq
