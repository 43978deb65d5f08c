// The commit's second sync runs on a kept thread: both jobs run, on two
// threads, without a thread per call; a forked child and concurrent callers
// get their jobs done; an idle worker ends.
#include "kel/osdep/SyncWorker.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace zq {
namespace kel {
namespace osdep {
namespace {

int threadsOfThisProcess() {
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = ::readdir(tasks)) {
        count += entry->d_name[0] != '.';
    }
    ::closedir(tasks);
    return count;
}

// The id of the thread that ran the worker's job, or a default id when the
// call was refused.
std::thread::id runOnce() {
    std::thread::id there;
    std::thread::id here;
    const bool ran = SyncWorker::runAlongside([&] { there = std::this_thread::get_id(); },
                                              [&] { here = std::this_thread::get_id(); });
    EXPECT_EQ(ran, here != std::thread::id());
    return there;
}

TEST(SyncWorkerTest, RunsTheJobsOnTwoThreadsAndKeepsItsThreadUntilIdle) {
    const std::thread::id first = runOnce();
    ASSERT_NE(first, std::thread::id());
    EXPECT_NE(first, std::this_thread::get_id());
    // Counted after the first start: a sanitizer may add a thread of its own.
    const int withWorker = threadsOfThisProcess();
    EXPECT_EQ(runOnce(), first);  // no thread per call
    EXPECT_EQ(threadsOfThisProcess(), withWorker);

    std::this_thread::sleep_for(std::chrono::milliseconds(SyncWorker::kIdleMilliseconds + 500));
    EXPECT_EQ(threadsOfThisProcess(), withWorker - 1);
    EXPECT_NE(runOnce(), std::thread::id());  // a new worker starts
}

// The worker ends before the fork: the child starts single-threaded.
TEST(SyncWorkerTest, AForkedChildGetsItsOwnWorker) {
    ASSERT_NE(runOnce(), std::thread::id());  // the parent's worker exists
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::alarm(10);  // a hang fails the test instead of stalling it
        std::atomic<int> ran{0};
        const bool done = SyncWorker::runAlongside([&] { ++ran; }, [&] { ++ran; });
        ::_exit(done && ran == 2 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(runOnce(), std::thread::id());  // and the parent starts a new one
}

TEST(SyncWorkerTest, ConcurrentCallersEitherRunBothJobsOrNeither) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 200;
    std::atomic<int> jobs{0};
    std::atomic<int> accepted{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < kCalls; ++i) {
                accepted += SyncWorker::runAlongside([&] { ++jobs; }, [&] { ++jobs; });
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_GT(accepted.load(), 0);
    EXPECT_EQ(jobs.load(), 2 * accepted.load());
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
