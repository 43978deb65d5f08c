#include "kel/osdep/Mutex.h"

#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/RecursiveMutex.h"
#include "kel/osdep/SharedFiles.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

int flockRetrying(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace

// One per name and process. `users` is guarded by the table's mutex. The
// gate guards `owner`, `ownerHolds` and every change of `holds` (atomic so
// that holdCount() may peek); `freed` is signalled when `owner` clears.
//
// The file lock is taken only by a thread that holds `lock` while no object
// holds the name and `holds` is 0: then nobody else can add a hold or let the
// file lock go, so the wait for it needs no gate. It is let go under the gate,
// so that a new holder never takes it just before an old one drops it.
struct Mutex::Entry {
    WString path;
    int fd = -1;
    int32_t users = 0;
    std::atomic<int32_t> holds{0};
    RecursiveMutex lock;
    std::mutex gate;
    std::condition_variable freed;
    const Mutex* owner = nullptr;  // the object holding the name for itself
    int32_t ownerHolds = 0;

    ~Entry() {
        if (fd >= 0) {
            ::close(fd);
        }
    }

    // Under the gate: one hold fewer, and the file lock goes with the last.
    void dropHolds(int32_t count) {
        if (holds.fetch_sub(count, std::memory_order_relaxed) == count) {
            flockRetrying(fd, LOCK_UN);  // cannot fail on a descriptor that locked
        }
    }

    // In a child after fork, whose only thread is the one that forked: every
    // hold and every waiter belonged to the parent. The gate was locked for
    // the fork by the table; the condition variable may still count the
    // parent's waiters, so it is made anew (its old state is dropped unread).
    void resetAfterFork() {
        holds.store(0, std::memory_order_relaxed);
        owner = nullptr;
        ownerHolds = 0;
        lock.resetAfterFork();
        new (&freed) std::condition_variable;
        gate.unlock();
    }
};

namespace {

// The process-wide table of names. Never destroyed, so that lock objects
// outliving static destruction and fork handlers always find it.
class MutexTable {
  public:
    static MutexTable& instance() {
        static MutexTable* const table = new MutexTable;
        return *table;
    }

    Mutex::Entry* acquire(const WString& name, const WString& path, int fd) {
        std::unique_lock<std::mutex> hold(mutex_);
        std::unique_ptr<Mutex::Entry>& slot = entries_[name];
        if (slot == nullptr) {
            slot.reset(new Mutex::Entry);
            slot->path = path;
            slot->fd = fd;
            fd = -1;
        }
        ++slot->users;
        Mutex::Entry* entry = slot.get();
        hold.unlock();
        if (fd >= 0) {
            ::close(fd);  // the name already had its descriptor
        }
        return entry;
    }

    void release(const WString& name) {
        std::unique_ptr<Mutex::Entry> gone;
        std::lock_guard<std::mutex> hold(mutex_);
        auto found = entries_.find(name);
        if (found != entries_.end() && --found->second->users == 0) {
            gone = std::move(found->second);
            entries_.erase(found);
        }
    }

  private:
    MutexTable() { pthread_atfork(&lockForFork, &unlockAfterFork, &resetInChild); }

    // Gates are taken after the table's mutex, never before it.
    static void lockForFork() {
        MutexTable& table = instance();
        table.mutex_.lock();
        for (auto& named : table.entries_) {
            named.second->gate.lock();
        }
    }
    static void unlockAfterFork() {
        MutexTable& table = instance();
        for (auto& named : table.entries_) {
            named.second->gate.unlock();
        }
        table.mutex_.unlock();
    }

    // The child shares the parent's open file descriptions, and with them the
    // parent's file locks: each name gets a description of its own.
    static void resetInChild() {
        MutexTable& table = instance();
        for (auto& named : table.entries_) {
            Mutex::Entry& entry = *named.second;
            if (entry.fd >= 0) {
                ::close(entry.fd);
            }
            try {
                entry.fd = openSharedFile(entry.path);
            } catch (...) {
                entry.fd = -1;  // lock() reports EBADF
            }
            entry.resetAfterFork();
        }
        table.mutex_.unlock();
    }

    std::mutex mutex_;
    std::map<WString, std::unique_ptr<Mutex::Entry>> entries_;
};

void checkName(const WString& name) {
    if (name.empty() || name == WString(L".") || name == WString(L"..") ||
        name.find(L'/') != WString::npos) {
        ZQ_THROW_DETAIL(InvalidArgument2, "a lock name must be a plain file name");
    }
}

}  // namespace

Mutex::Mutex(const WString& name) : name_(name), entry_(nullptr) {
    checkName(name);
    MutexTable& table = MutexTable::instance();
    const WString path = join(sharedDirectory(WString(L"mutex")), name);
    const int fd = openSharedFile(path);  // opened before the table is locked: it may wait
    entry_ = table.acquire(name, path, fd);
}

Mutex::~Mutex() {
    {
        std::lock_guard<std::mutex> gate(entry_->gate);
        if (entry_->owner == this) {
            entry_->dropHolds(entry_->ownerHolds);
            entry_->owner = nullptr;
            entry_->ownerHolds = 0;
            entry_->freed.notify_all();
        }
    }
    MutexTable::instance().release(name_);
}

void Mutex::lock() {
    Entry& entry = *entry_;
    entry.lock.lock();
    bool needFile;
    {
        std::unique_lock<std::mutex> gate(entry.gate);
        // A thread's first hold also waits for an object's hold to end; a
        // nested one is inside the thread's own hold already.
        if (entry.lock.depthOfCaller() == 1) {
            entry.freed.wait(gate, [&] { return entry.owner == nullptr; });
        }
        needFile = entry.holds.load(std::memory_order_relaxed) == 0;
        if (!needFile) {
            entry.holds.fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (needFile) {
        if (flockRetrying(entry.fd, LOCK_EX) != 0) {
            const int error = errno;
            entry.lock.unlock();
            throw PosixError(error, "flock", __LINE__, __FILE__);
        }
        std::lock_guard<std::mutex> gate(entry.gate);
        entry.holds.fetch_add(1, std::memory_order_relaxed);
    }
}

bool Mutex::tryLock() {
    Entry& entry = *entry_;
    if (!entry.lock.tryLock()) {
        return false;
    }
    {
        std::lock_guard<std::mutex> gate(entry.gate);
        if (entry.lock.depthOfCaller() == 1 && entry.owner != nullptr) {
            entry.lock.unlock();
            return false;
        }
        if (entry.holds.load(std::memory_order_relaxed) != 0) {
            entry.holds.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    if (flockRetrying(entry.fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        entry.lock.unlock();
        if (error == EWOULDBLOCK) {
            return false;
        }
        throw PosixError(error, "flock", __LINE__, __FILE__);
    }
    std::lock_guard<std::mutex> gate(entry.gate);
    entry.holds.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool Mutex::unlock() {
    Entry& entry = *entry_;
    if (!entry.lock.heldByCaller()) {
        return false;
    }
    {
        std::lock_guard<std::mutex> gate(entry.gate);
        entry.dropHolds(1);
    }
    entry.lock.unlock();
    return true;
}

void Mutex::lockForObject() { takeForObject(true); }

bool Mutex::tryLockForObject() { return takeForObject(false); }

bool Mutex::takeForObject(bool wait) {
    Entry& entry = *entry_;
    {
        std::lock_guard<std::mutex> gate(entry.gate);
        if (entry.owner == this) {
            ++entry.ownerHolds;
            entry.holds.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    // The in-process lock is held only while the hold is taken: it queues
    // this taker behind the threads that hold the name, and the hold itself
    // is no thread's.
    if (wait) {
        entry.lock.lock();
    } else if (!entry.lock.tryLock()) {
        return false;
    }
    struct Leave {
        RecursiveMutex& lock;
        ~Leave() { lock.unlock(); }
    } leave{entry.lock};
    {
        std::unique_lock<std::mutex> gate(entry.gate);
        const auto free = [&] { return entry.owner == nullptr || entry.owner == this; };
        if (!wait && !free()) {
            return false;
        }
        entry.freed.wait(gate, free);
        // Held already when another thread took it for this object meanwhile,
        // or when the calling thread holds the name itself: the file is ours.
        if (entry.owner == this || entry.holds.load(std::memory_order_relaxed) != 0) {
            entry.owner = this;
            ++entry.ownerHolds;
            entry.holds.fetch_add(1, std::memory_order_relaxed);
            return true;
        }
    }
    if (flockRetrying(entry.fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (!wait && error == EWOULDBLOCK) {
            return false;
        }
        throw PosixError(error, "flock", __LINE__, __FILE__);
    }
    std::lock_guard<std::mutex> gate(entry.gate);
    entry.owner = this;
    entry.ownerHolds = 1;
    entry.holds.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool Mutex::unlockForObject() {
    Entry& entry = *entry_;
    std::lock_guard<std::mutex> gate(entry.gate);
    if (entry.owner != this) {
        return false;
    }
    entry.dropHolds(1);
    if (--entry.ownerHolds == 0) {
        entry.owner = nullptr;
        entry.freed.notify_all();
    }
    return true;
}

int32_t Mutex::objectHoldCount() const {
    std::lock_guard<std::mutex> gate(entry_->gate);
    return entry_->owner == this ? entry_->ownerHolds : 0;
}

int32_t Mutex::holdCount() const { return entry_->holds.load(std::memory_order_relaxed); }

}  // namespace osdep
}  // namespace kel
}  // namespace zq
