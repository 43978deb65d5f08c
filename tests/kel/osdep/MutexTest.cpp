#include "kel/osdep/Mutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kel/osdep/RecursiveMutex.h"
#include "kel/osdep/SharedFiles.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "zq/kel/Exception.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {
namespace {

const WString kName(L"__zq_orvane_BucketManager_lock__");

// Runs `body` in a forked child; whether it returned true.
bool inChild(const std::function<bool()>& body) {
    return test::inChild([&] { return body() ? 0 : 1; }) == 0;
}

// Whether another process can take the lock now; it lets go at once.
bool otherProcessCanLock(const WString& name) {
    return inChild([&] {
        Mutex other(name);
        const bool got = other.tryLock();
        return got && other.unlock();
    });
}

class MutexTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("ZQKELTMPSHAREDFILEDIR", dir_.path().c_str(), 1); }
    void TearDown() override { unsetenv("ZQKELTMPSHAREDFILEDIR"); }

    test::TempDir dir_;
};

TEST_F(MutexTest, LockFileLiesInTheSharedDirectory) {
    Mutex mutex(kName);
    struct stat info;
    ASSERT_EQ(stat(dir_.file("mutex").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0777u);
    ASSERT_EQ(stat((dir_.file("mutex/") + NString(kName).c_str()).c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0666u);

    // A directory left narrower is opened up again.
    ASSERT_EQ(chmod(dir_.file("mutex").c_str(), 0700), 0);
    Mutex again(kName);
    ASSERT_EQ(stat(dir_.file("mutex").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0777u);
}

TEST_F(MutexTest, OtherProcessWaitsForTheLastUnlock) {
    Mutex mutex(kName);
    EXPECT_TRUE(otherProcessCanLock(kName));
    mutex.lock();
    EXPECT_FALSE(otherProcessCanLock(kName));
    mutex.lock();
    mutex.unlock();
    EXPECT_EQ(mutex.holdCount(), 1);
    EXPECT_FALSE(otherProcessCanLock(kName));
    mutex.unlock();
    EXPECT_EQ(mutex.holdCount(), 0);
    EXPECT_TRUE(otherProcessCanLock(kName));
    // The child reuses the parent's object: it must not inherit the hold.
    mutex.lock();
    EXPECT_FALSE(inChild([&] { return mutex.tryLock(); }));
    mutex.unlock();
}

// A child forked before the parent locks must not share the parent's lock
// file description, or flock would let both hold the lock.
TEST_F(MutexTest, ChildForkedBeforeTheLockIsStillExcluded) {
    Mutex mutex(kName);
    int toChild[2];
    ASSERT_EQ(pipe(toChild), 0);
    const pid_t child = fork();
    if (child == 0) {
        char go;
        const bool ok = read(toChild[0], &go, 1) == 1 && !mutex.tryLock();
        _exit(ok ? 0 : 1);
    }
    mutex.lock();
    ASSERT_EQ(write(toChild[1], "g", 1), 1);
    EXPECT_EQ(test::exitCodeOf(child), 0);
    mutex.unlock();
    close(toChild[0]);
    close(toChild[1]);
}

TEST_F(MutexTest, ObjectsOfOneNameShareTheHoldCount) {
    Mutex first(kName);
    Mutex second(kName);
    EXPECT_FALSE(first.unlock());  // held by nobody: nothing changes
    first.lock();
    std::thread([&] { EXPECT_FALSE(first.unlock()); }).join();  // nor by a thread that holds none
    EXPECT_EQ(first.holdCount(), 1);
    second.lock();  // the same thread, through the other object: no self-deadlock
    EXPECT_EQ(first.holdCount(), 2);
    EXPECT_TRUE(first.unlock());
    EXPECT_EQ(second.holdCount(), 1);
    EXPECT_FALSE(otherProcessCanLock(kName));
    std::thread([&] { EXPECT_FALSE(second.tryLock()); }).join();
    EXPECT_TRUE(second.unlock());
    EXPECT_TRUE(otherProcessCanLock(kName));
    std::thread([&] {
        EXPECT_TRUE(second.tryLock());
        EXPECT_TRUE(first.unlock());  // any object of the name releases the hold
    }).join();
    EXPECT_EQ(first.holdCount(), 0);
}

TEST_F(MutexTest, BadNamesAreRefused) {
    for (const wchar_t* name : {L"", L".", L"..", L"a/b"}) {
        EXPECT_THROW(Mutex{WString(name)}, exception::InvalidArgument);
    }
}

TEST_F(MutexTest, SharedDirectoryInTheWayOfAFile) {
    dir_.write("mutex", "");
    try {
        Mutex mutex(kName);
        ADD_FAILURE() << "no error";
    } catch (const PosixError& error) {
        EXPECT_EQ(error.osErrorCode(), ENOTDIR);
    }
}

// 4 processes x 2 threads add 1 to a counter in a file, 2,000 times in all;
// without the lock, increments are lost between the read and the write.
TEST_F(MutexTest, ProcessesAndThreadsNeverLoseAnIncrement) {
    const std::string counter = dir_.file("counter");
    dir_.write("counter", std::string(8, '\0'));
    constexpr int kProcesses = 4;
    constexpr int kThreads = 2;
    constexpr int kEach = 2000 / (kProcesses * kThreads);
    auto work = [&] {
        const int fd = open(counter.c_str(), O_RDWR);
        std::atomic<bool> ok{fd >= 0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&] {
                Mutex mutex(kName);  // one object per thread, one name
                for (int i = 0; i < kEach; ++i) {
                    mutex.lock();
                    uint64_t value = 0;
                    ok = ok && pread(fd, &value, sizeof value, 0) == sizeof value;
                    std::this_thread::yield();
                    ++value;
                    ok = ok && pwrite(fd, &value, sizeof value, 0) == sizeof value;
                    mutex.unlock();
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        close(fd);
        return ok.load();
    };
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(work() ? 0 : 1);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        EXPECT_EQ(test::exitCodeOf(child), 0);
    }
    const std::string bytes = dir_.read("counter");
    uint64_t value = 0;
    memcpy(&value, bytes.data(), sizeof value);
    EXPECT_EQ(value, 2000u);
}

// A hold taken for the object on one thread and released on another leaves
// nothing held: the threads that come next, and other processes, get in.
TEST_F(MutexTest, ObjectHoldTakenOnOneThreadEndsOnAnother) {
    const int code = test::inChildWithin(20, [&] {
        Mutex mutex(kName);
        Mutex other(kName);
        bool ok = true;
        std::thread([&] { ok = mutex.tryLockForObject(); }).join();
        ok = ok && mutex.objectHoldCount() == 1 && other.objectHoldCount() == 0;
        ok = ok && !otherProcessCanLock(kName);
        // Another thread's own hold, and another object's, are kept out.
        std::thread([&] {
            ok = ok && !mutex.tryLock() && !other.tryLockForObject() && !other.unlockForObject();
            ok = ok && !mutex.unlock();
            // The object's hold nests, from any thread.
            ok = ok && mutex.tryLockForObject() && mutex.holdCount() == 2;
        }).join();
        std::thread([&] { ok = ok && mutex.unlockForObject(); }).join();
        ok = ok && !otherProcessCanLock(kName);
        std::thread([&] { ok = ok && mutex.unlockForObject() && !mutex.unlockForObject(); }).join();
        ok = ok && mutex.holdCount() == 0 && otherProcessCanLock(kName);
        std::thread([&] {
            mutex.lock();  // hangs when a hold was left behind
            ok = ok && other.tryLock();
            ok = ok && mutex.unlock() && other.unlock();
        }).join();
        other.lockForObject();
        ok = ok && !otherProcessCanLock(kName);
        ok = ok && other.unlockForObject() && otherProcessCanLock(kName);
        return ok ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

// A thread's lock() waits for an object's hold, which another thread ends.
TEST_F(MutexTest, ThreadWaitsForAnObjectHoldUntilAnotherThreadEndsIt) {
    const int code = test::inChildWithin(20, [&] {
        Mutex mutex(kName);
        mutex.lockForObject();
        std::atomic<bool> got{false};
        std::thread waiter([&] {
            Mutex own(kName);
            own.lock();
            got = true;
            own.unlock();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const bool keptOut = !got;
        std::thread([&] { mutex.unlockForObject(); }).join();
        waiter.join();
        return keptOut && got && mutex.holdCount() == 0 ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

// An object's taker waits for a thread's hold; the thread's own nested hold
// does not wait for the object's hold it let in.
TEST_F(MutexTest, ObjectHoldWaitsForAThreadHold) {
    const int code = test::inChildWithin(20, [&] {
        Mutex mutex(kName);
        Mutex object(kName);
        mutex.lock();
        std::atomic<bool> got{false};
        std::thread taker([&] {
            object.lockForObject();
            got = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        bool ok = !got;
        mutex.unlock();
        taker.join();
        ok = ok && got && !otherProcessCanLock(kName) && !mutex.tryLock();
        std::thread([&] { ok = ok && object.unlockForObject(); }).join();
        // The same thread holding both kinds at once: the file lock stays
        // until the last of them ends.
        mutex.lock();
        ok = ok && object.tryLockForObject() && mutex.unlock();
        ok = ok && !otherProcessCanLock(kName);
        ok = ok && object.unlockForObject() && otherProcessCanLock(kName);
        return ok ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

TEST_F(MutexTest, ObjectHoldsGoWithTheObjectAndNotIntoAChild) {
    auto* mutex = new Mutex(kName);
    mutex->lockForObject();
    mutex->lockForObject();
    EXPECT_TRUE(inChild([&] {
        return mutex->objectHoldCount() == 0 && mutex->holdCount() == 0 &&
               !mutex->tryLockForObject() && !mutex->tryLock();
    }));
    delete mutex;
    EXPECT_TRUE(otherProcessCanLock(kName));
    Mutex again(kName);
    EXPECT_EQ(again.holdCount(), 0);
    EXPECT_TRUE(again.tryLock());
    EXPECT_TRUE(again.unlock());
}

// 3 processes, each with a thread taking thread holds and a pair of threads
// passing object holds from one to the other, add 1 to a counter in a file.
TEST_F(MutexTest, ConcurrentObjectAndThreadHoldsNeverLoseAnIncrement) {
    const std::string counter = dir_.file("counter");
    dir_.write("counter", std::string(8, '\0'));
    constexpr int kProcesses = 3;
    constexpr int kEach = 300;  // per kind of hold and process
    auto add = [](int fd) {
        uint64_t value = 0;
        bool ok = pread(fd, &value, sizeof value, 0) == sizeof value;
        std::this_thread::yield();
        ++value;
        return ok && pwrite(fd, &value, sizeof value, 0) == sizeof value;
    };
    auto work = [&] {
        const int fd = open(counter.c_str(), O_RDWR);
        std::atomic<bool> ok{fd >= 0};
        Mutex shared(kName);
        std::mutex handMutex;
        std::condition_variable handed;
        int inHand = 0;  // object holds taken by the first thread, not yet ended
        std::thread own([&] {
            Mutex mutex(kName);
            for (int i = 0; i < kEach; ++i) {
                mutex.lock();
                ok = add(fd) && ok;
                mutex.unlock();
            }
        });
        std::thread taker([&] {
            for (int i = 0; i < kEach; ++i) {
                std::unique_lock<std::mutex> hand(handMutex);
                handed.wait(hand, [&] { return inHand == 0; });
                hand.unlock();
                shared.lockForObject();
                ok = add(fd) && ok;
                hand.lock();
                inHand = 1;
                handed.notify_all();
            }
        });
        std::thread ender([&] {
            for (int i = 0; i < kEach; ++i) {
                std::unique_lock<std::mutex> hand(handMutex);
                handed.wait(hand, [&] { return inHand == 1; });
                hand.unlock();
                ok = add(fd) && ok;  // still under the taker's hold
                ok = shared.unlockForObject() && ok;
                hand.lock();
                inHand = 0;
                handed.notify_all();
            }
        });
        own.join();
        taker.join();
        ender.join();
        close(fd);
        return ok.load() ? 0 : 1;
    };
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            _exit(work());
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        EXPECT_EQ(test::exitCodeWithin(child, 70), 0);
    }
    const std::string bytes = dir_.read("counter");
    uint64_t value = 0;
    memcpy(&value, bytes.data(), sizeof value);
    EXPECT_EQ(value, uint64_t{kProcesses} * kEach * 3);
}

TEST(RecursiveMutexTest, PriorityInheritanceExactlyOnARealtimeKernel) {
    test::TempDir dir;
    dir.write("one", "1\n");
    dir.write("zero", "0\n");
    dir.write("empty", "");
    EXPECT_TRUE(RecursiveMutex::readRealtimeFlag(dir.file("one").c_str()));
    EXPECT_FALSE(RecursiveMutex::readRealtimeFlag(dir.file("zero").c_str()));
    EXPECT_FALSE(RecursiveMutex::readRealtimeFlag(dir.file("empty").c_str()));
    EXPECT_FALSE(RecursiveMutex::readRealtimeFlag(dir.file("missing").c_str()));
    const bool realtime = RecursiveMutex::readRealtimeFlag("/sys/kernel/realtime");
    EXPECT_EQ(RecursiveMutex::realtimeKernel(), realtime);
    RecursiveMutex mutex;
    EXPECT_EQ(mutex.priorityInheritance(), realtime);
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    std::thread([&] { EXPECT_FALSE(mutex.tryLock()); }).join();
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_FALSE(mutex.unlock());
}

// Root passes every permission check, so the checks run as "nobody".
TEST(SharedFilesTest, OtherUsersFilesAndDirectories) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    test::TempDir dir;
    chmod(dir.path().c_str(), 0755);
    setenv("ZQKELTMPSHAREDFILEDIR", dir.path().c_str(), 1);
    const WString shared = sharedDirectory(WString(L"mutex"));
    const std::string locked = dir.file("mutex/locked");
    const std::string open = dir.file("mutex/open");
    close(::open(locked.c_str(), O_CREAT | O_RDWR, 0600));
    close(openSharedFile(WString(open.c_str())));
    EXPECT_TRUE(inChild([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return false;
        }
        sharedDirectory(WString(L"mutex"));  // root's directory: chmod EPERM is accepted
        const int fd = openSharedFile(WString(open.c_str()));  // root's file: fchmod EPERM too
        close(fd);
        const auto start = std::chrono::steady_clock::now();
        try {
            openSharedFile(WString(locked.c_str()));
            return false;
        } catch (const PosixError& error) {
            const auto waited = std::chrono::steady_clock::now() - start;
            return error.osErrorCode() == EACCES && waited >= std::chrono::milliseconds(2);
        }
    }));
    unsetenv("ZQKELTMPSHAREDFILEDIR");
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
