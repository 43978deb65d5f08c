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
    bool stop = false;
    std::thread thread;

    void serve() {
        std::unique_lock<std::mutex> hold(mutex);
        for (;;) {
            const bool called =
                wake.wait_for(hold, std::chrono::milliseconds(SyncWorker::kIdleMilliseconds),
                              [this] { return job != nullptr || stop; });
            if (!called || stop) {
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
    }

    void hand(const std::function<void()>& there) {
        {
            std::lock_guard<std::mutex> hold(mutex);
            if (!running) {
                start();
            }
            job = &there;
            finished = false;
        }
        wake.notify_one();
    }

    void await() {
        std::unique_lock<std::mutex> hold(mutex);
        done.wait(hold, [this] { return finished; });
    }

    void shutDown() {
        {
            std::lock_guard<std::mutex> hold(mutex);
            stop = true;
            wake.notify_one();
        }
        if (thread.joinable()) {
            thread.join();
        }
    }
};

std::atomic<Worker*> current{nullptr};
std::atomic<bool> closing{false};

// A forked child has no worker thread, and its copy of the state may hold a
// mutex locked by a thread that is not there: it is left alone (a small
// leak) and the child makes its own.
void forgetInChild() { current.store(nullptr); }

Worker* worker() {
    Worker* found = current.load();
    if (found != nullptr) {
        return found;
    }
    static const bool registered = pthread_atfork(nullptr, nullptr, &forgetInChild) == 0;
    if (!registered) {
        return nullptr;
    }
    Worker* made = new Worker;
    if (!current.compare_exchange_strong(found, made)) {
        delete made;
        return found;
    }
    return made;
}

// Runs when the library is unloaded or the process exits: the thread must
// not outlive the code it runs.
struct Reaper {
    ~Reaper() {
        closing.store(true);
        if (Worker* gone = current.exchange(nullptr)) {
            gone->shutDown();
            delete gone;
        }
    }
} reaper;

}  // namespace

bool SyncWorker::runAlongside(const std::function<void()>& there,
                              const std::function<void()>& here) {
    if (closing.load()) {
        return false;
    }
    Worker* const w = worker();
    if (w == nullptr || w->busy.exchange(true)) {
        return false;
    }
    try {
        w->hand(there);
    } catch (...) {
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
