#include "kel/osdep/RecursiveMutex.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

RecursiveMutex::RecursiveMutex() : owner_(pthread_t()), count_(0), inherit_(realtimeKernel()) {
    initialize();
}

RecursiveMutex::~RecursiveMutex() { pthread_mutex_destroy(&mutex_); }

void RecursiveMutex::initialize() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (inherit_) {
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    }
    const int error = pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error != 0) {
        throw PosixError(error, "pthread_mutex_init", __LINE__, __FILE__);
    }
}

void RecursiveMutex::lock() {
    const int error = pthread_mutex_lock(&mutex_);
    if (error != 0) {
        throw PosixError(error, "pthread_mutex_lock", __LINE__, __FILE__);
    }
    recordOwner();
}

bool RecursiveMutex::tryLock() {
    if (pthread_mutex_trylock(&mutex_) != 0) {
        return false;
    }
    recordOwner();
    return true;
}

bool RecursiveMutex::unlock() {
    if (!heldByCaller()) {
        return false;
    }
    if (--count_ == 0) {
        owner_.store(pthread_t(), std::memory_order_relaxed);
    }
    pthread_mutex_unlock(&mutex_);
    return true;
}

bool RecursiveMutex::heldByCaller() const {
    // Only the owner stores its own id, so a match cannot be stale.
    return pthread_equal(owner_.load(std::memory_order_relaxed), pthread_self()) != 0;
}

void RecursiveMutex::recordOwner() {
    owner_.store(pthread_self(), std::memory_order_relaxed);
    ++count_;
}

void RecursiveMutex::resetAfterFork() {
    owner_.store(pthread_t(), std::memory_order_relaxed);
    count_ = 0;
    initialize();
}

bool RecursiveMutex::readRealtimeFlag(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char first = 0;
    ssize_t got;
    do {
        got = ::read(fd, &first, 1);
    } while (got < 0 && errno == EINTR);
    ::close(fd);
    return got == 1 && first == '1';
}

bool RecursiveMutex::realtimeKernel() {
    static std::once_flag once;
    static bool realtime = false;
    std::call_once(once, [] { realtime = readRealtimeFlag("/sys/kernel/realtime"); });
    return realtime;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
