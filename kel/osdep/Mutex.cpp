#include "kel/osdep/Mutex.h"

#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/RecursiveMutex.h"
#include "kel/osdep/SharedFiles.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

// One per name and process. `users` is guarded by the table's mutex; `holds`
// is changed only under `lock` (atomic so that holdCount() may peek).
struct Mutex::Entry {
    WString path;
    int fd = -1;
    int32_t users = 0;
    std::atomic<int32_t> holds{0};
    RecursiveMutex lock;

    ~Entry() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

namespace {

int flockRetrying(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

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

    static void lockForFork() { instance().mutex_.lock(); }
    static void unlockAfterFork() { instance().mutex_.unlock(); }

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
            entry.holds.store(0, std::memory_order_relaxed);
            entry.lock.resetAfterFork();
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

Mutex::~Mutex() { MutexTable::instance().release(name_); }

void Mutex::lock() {
    entry_->lock.lock();
    // A hold already counted is this thread's own: the file lock is ours.
    if (entry_->holds.load(std::memory_order_relaxed) == 0 &&
        flockRetrying(entry_->fd, LOCK_EX) != 0) {
        const int error = errno;
        entry_->lock.unlock();
        throw PosixError(error, "flock", __LINE__, __FILE__);
    }
    entry_->holds.fetch_add(1, std::memory_order_relaxed);
}

bool Mutex::tryLock() {
    if (!entry_->lock.tryLock()) {
        return false;
    }
    if (entry_->holds.load(std::memory_order_relaxed) == 0 &&
        flockRetrying(entry_->fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        entry_->lock.unlock();
        if (error == EWOULDBLOCK) {
            return false;
        }
        throw PosixError(error, "flock", __LINE__, __FILE__);
    }
    entry_->holds.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool Mutex::unlock() {
    if (!entry_->lock.heldByCaller()) {
        return false;
    }
    if (entry_->holds.fetch_sub(1, std::memory_order_relaxed) == 1) {
        flockRetrying(entry_->fd, LOCK_UN);  // cannot fail on a descriptor that locked
    }
    entry_->lock.unlock();
    return true;
}

int32_t Mutex::holdCount() const { return entry_->holds.load(std::memory_order_relaxed); }

}  // namespace osdep
}  // namespace kel
}  // namespace zq
