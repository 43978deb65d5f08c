#ifndef ZQ_KEL_OSDEP_MUTEX_H
#define ZQ_KEL_OSDEP_MUTEX_H

#include <cstdint>

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// A lock identified by a name, excluding other processes as well as other
// threads of this process. Threads queue on the name's in-process recursive
// lock, processes on flock of the lock file "<shared directory>/mutex/<name>".
//
// All lock objects of one name in a process share one in-process lock, one
// lock file descriptor and one hold count, so a thread may lock through any
// of them, repeatedly; the file lock is released when the last hold of the
// name in this process ends. A child process starts with every name released.
//
// Lock order: the name's in-process lock, then the file lock. The process-wide
// table of names has its own mutex, never held while waiting for a lock.
class Mutex {
  public:
    // Throws InvalidArgument for an empty name, "." or "..", or a name with
    // "/", and PosixError when the lock file cannot be made.
    explicit Mutex(const WString& name);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock();     // blocks; throws PosixError when the file lock fails
    bool tryLock();  // never blocks
    // Releases one hold of the calling thread; false, changing nothing, when
    // the calling thread holds none.
    bool unlock();

    // Holds of this name in this process, recursion included.
    int32_t holdCount() const;
    const WString& name() const { return name_; }

    struct Entry;  // the per-name state, kept in the process-wide table

  private:
    WString name_;
    Entry* entry_;  // owned by the process-wide table
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_MUTEX_H
