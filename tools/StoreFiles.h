#ifndef ORVANE_TOOLS_STOREFILES_H
#define ORVANE_TOOLS_STOREFILES_H

#include <cstdint>
#include <memory>
#include <string>

#include "Tool.h"
#include "kel/osdep/SharedCounter.h"
#include "source/Options.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreCheck.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace kel {
namespace osdep {
class Mutex;
}
}  // namespace kel
}  // namespace zq

namespace orvane_tool {

// The library's default registry directory.
std::string defaultDataDirectory();

// The name of the registry's process lock and of its change counter.
extern const wchar_t kProcessLockName[];

// Holds the registry's process lock for the scope, as a transaction does:
// no other process commits, compacts or recovers meanwhile.
class ProcessLock {
  public:
    ProcessLock();
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

  private:
    std::unique_ptr<zq::kel::osdep::Mutex> mutex_;
};

// The registry's files checked offline through the library's own reader,
// without opening the store (which would repair and compact) and without
// the process lock. Throws ToolError (not found) when the directory holds
// no registry.
zq::orvane::StoreCheck checkStore(const std::string& directory);
// The same, and every live record decoded as a bucket, every child link
// naming a bucket, every bucket but the root linked from its parent.
zq::orvane::StoreCheck checkRegistry(const std::string& directory);

// The store itself for compact and repair, as a writer's manager has it:
// the process lock is held for the object's life, the change count moved
// (running managers look at the files again), and open() runs the open's
// own repairs of what a crash left.
class LockedStore {
  public:
    LockedStore(const Globals& globals, const std::string& directory);
    ~LockedStore();
    LockedStore(const LockedStore&) = delete;
    LockedStore& operator=(const LockedStore&) = delete;

    // Throws ToolError unless the open succeeds; a warning it reported
    // (a repair of its own) stays in `status`.
    zq::orvane::SingleFileBucketStore& open(zq::kel::StatusChain& status);
    void close();

  private:
    ProcessLock lock_;
    std::unique_ptr<zq::kel::osdep::SharedCounter> changes_;
    std::unique_ptr<zq::kel::osdep::SharedCounter::Change> change_;
    std::unique_ptr<zq::orvane::Options> options_;
    std::unique_ptr<zq::orvane::SingleFileBucketStore> store_;
    const Globals& globals_;
    std::string directory_;
};

// The committed buckets as the files hold them, read under the process lock
// without opening the store. Commands check what they are about to change
// here first, so a refused change leaves every file as it was: the library's
// open alone may compact the file.
class OfflineView {
  public:
    explicit OfflineView(const std::string& directory);
    // The root counts as present: the library makes it on first open.
    bool exists(const zq::kel::WString& path) const;
    // Null when absent (or, for the root, not made yet).
    zq::kel::AutoRef<zq::orvane::IBucket> find(const zq::kel::WString& path) const;

  private:
    std::unique_ptr<zq::orvane::StoreCheck> check_;
};

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_STOREFILES_H
