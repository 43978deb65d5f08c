#include "kel/osdep/SyncWorker.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace zq {
namespace kel {
namespace osdep {

namespace {

// One per process. `busy` admits one caller at a time; the rest is guarded
// by `mutex`.
struct Worker {
    std::atomic<bool> busy{false};
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable done;
    const std::function<void()>* job = nullptr;
    bool finished = false;
    bool running = false;
    bool stop = false;    // the thread is to end once it has no job
    bool closed = false;  // a fork is under way, or the library is going
    std::thread thread;

    void serve() {
        std::unique_lock<std::mutex> hold(mutex);
        for (;;) {
            wake.wait_for(hold, std::chrono::milliseconds(SyncWorker::kIdleMilliseconds),
                          [this] { return job != nullptr || stop; });
            if (job == nullptr) {  // idle, or told to stop
                running = false;
                return;
            }
            const std::function<void()>* const mine = job;
            job = nullptr;
            hold.unlock();
            (*mine)();
            hold.lock();
            finished = true;
            // Notified unlocked: the caller wakes to a free mutex.
            hold.unlock();
            done.notify_one();
            hold.lock();
        }
    }

    // Mutex held. The thread starts with every signal blocked.
    void start() {
        if (thread.joinable()) {
            thread.join();  // it ended idle and no longer needs the mutex
        }
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        try {
            thread = std::thread([this] { serve(); });
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &previous, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        running = true;
        stop = false;
    }

    // False when no job can be taken now.
    bool hand(const std::function<void()>& there) {
        {
            std::lock_guard<std::mutex> hold(mutex);
            if (closed) {
                return false;
            }
            if (!running) {
                start();
            }
            job = &there;
            finished = false;
        }
        wake.notify_one();
        return true;
    }

    void await() {
        std::unique_lock<std::mutex> hold(mutex);
        done.wait(hold, [this] { return finished; });
    }

    // Ends the thread once its job, if any, is done; no new one starts
    // while `closed` holds.
    void close() {
        {
            std::lock_guard<std::mutex> hold(mutex);
            closed = true;
            stop = true;
        }
        wake.notify_one();
        if (thread.joinable()) {
            thread.join();
        }
    }
};

std::atomic<Worker*> current{nullptr};
std::once_flag made;

// A fork copies only the forking thread. The worker ends first, so that the
// child starts single-threaded (an emulator such as qemu-user cannot start
// threads in the child of a threaded parent) and makes its own on demand.
void beforeFork() {
    if (Worker* const w = current.load()) {
        w->close();
        w->mutex.lock();  // no job is handed over until the fork is done
    }
}

void afterForkInParent() {
    if (Worker* const w = current.load()) {
        w->closed = false;
        w->mutex.unlock();
    }
}

// The callers that were inside runAlongside are not in the child.
void afterForkInChild() {
    if (Worker* const w = current.load()) {
        w->busy.store(false);
        w->job = nullptr;
        w->closed = false;
        w->mutex.unlock();
    }
}

Worker* worker() {
    std::call_once(made, [] {
        if (pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild) == 0) {
            current.store(new Worker);
        }
    });
    return current.load();
}

// Runs when the library is unloaded or the process exits: the thread must
// not outlive the code it runs.
struct Reaper {
    ~Reaper() {
        if (Worker* const w = current.load()) {
            w->close();
        }
    }
} reaper;

}  // namespace

bool SyncWorker::runAlongside(const std::function<void()>& there,
                              const std::function<void()>& here) {
    Worker* const w = worker();
    if (w == nullptr || w->busy.exchange(true)) {
        return false;
    }
    bool handed = false;
    try {
        handed = w->hand(there);
    } catch (...) {
        // No thread to be had: the caller runs both.
    }
    if (!handed) {
        w->busy.store(false);
        return false;
    }
    here();
    w->await();
    w->busy.store(false);
    return true;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
