#ifndef ZQ_KEL_OSDEP_MUTEX_H
#define ZQ_KEL_OSDEP_MUTEX_H

#include <cstdint>

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// A lock identified by a name, excluding other processes as well as other
// threads of this process. Processes queue on flock of the lock file
// "<shared directory>/mutex/<name>".
//
// Two kinds of hold, which exclude each other:
// - lock/tryLock/unlock: held by the calling thread, recursive per thread.
//   Threads queue on the name's in-process recursive lock (with priority
//   inheritance on a real-time kernel).
// - lockForObject/tryLockForObject/unlockForObject: held by this lock object,
//   not by a thread, recursive per object. Any thread may take or release it,
//   so work begun on one thread can end on another (a transaction handed
//   around a thread pool). Threads that wait for it wait on a condition
//   variable: no thread owns the hold, so none can be boosted.
//
// All lock objects of one name in a process share one in-process lock, one
// lock file descriptor and one hold count; a thread may take thread holds
// through any of them. The file lock is released when the last hold of the
// name in this process ends, of either kind. A child process starts with
// every name released.
//
// Safe for concurrent use without outside synchronization. Lock order: the
// name's in-process lock, then the file lock; the name's gate (guarding the
// object owner and the counts) is taken last, only briefly, and never while
// waiting for another process. The process-wide table of names has its own
// mutex, never held while waiting for a lock.
class Mutex {
  public:
    // Throws InvalidArgument for an empty name, "." or "..", or a name with
    // "/", and PosixError when the lock file cannot be made.
    explicit Mutex(const WString& name);
    // Gives back any holds this object still has for itself.
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();     // blocks; throws PosixError when the file lock fails
    bool tryLock();  // never blocks
    // Releases one hold of the calling thread; false, changing nothing, when
    // the calling thread holds none.
    bool unlock();

    void lockForObject();     // blocks; throws PosixError when the file lock fails
    bool tryLockForObject();  // never blocks
    // Releases one hold of this object, from any thread; false, changing
    // nothing, when the object holds none.
    bool unlockForObject();
    // Holds of this object, from any thread.
    int32_t objectHoldCount() const;

    // Holds of this name in this process, of both kinds, recursion included.
    int32_t holdCount() const;
    const WString& name() const { return name_; }

    struct Entry;  // the per-name state, kept in the process-wide table

  private:
    bool takeForObject(bool wait);

    WString name_;
    Entry* entry_;  // owned by the process-wide table
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_MUTEX_H
