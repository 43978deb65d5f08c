#ifndef ZQ_KEL_OSDEP_RECURSIVEMUTEX_H
#define ZQ_KEL_OSDEP_RECURSIVEMUTEX_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace zq {
namespace kel {
namespace osdep {

// An in-process lock that the holding thread may take again. On a real-time
// kernel it uses priority inheritance, so a low-priority holder cannot stall
// a high-priority waiter behind a medium-priority thread.
//
// The owner and the count are written only by the holding thread.
class RecursiveMutex {
  public:
    RecursiveMutex();
    ~RecursiveMutex();
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock();  // throws PosixError
    bool tryLock();
    // False, changing nothing, when the calling thread does not hold it.
    bool unlock();
    bool heldByCaller() const;
    // How many times the calling thread holds it; 0 for any other thread.
    int32_t depthOfCaller() const { return heldByCaller() ? count_ : 0; }
    bool priorityInheritance() const { return inherit_; }

    // For a child process after fork: every hold belonged to the parent.
    void resetAfterFork();

    // Whether "/sys/kernel/realtime" starts with '1'; read once per process.
    static bool realtimeKernel();
    // The same test on any file.
    static bool readRealtimeFlag(const char* path);

  private:
    void initialize();
    void recordOwner();

    pthread_mutex_t mutex_;
    std::atomic<pthread_t> owner_;
    int32_t count_;
    bool inherit_;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_RECURSIVEMUTEX_H
