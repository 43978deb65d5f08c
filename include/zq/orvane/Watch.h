#ifndef ZQ_ORVANE_WATCH_H
#define ZQ_ORVANE_WATCH_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zq/kel/AutoRef.h"
#include "zq/kel/Export.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/IBucket.h"

namespace zq {
namespace orvane {

class IBucketManager;

// What happened to one bucket.
struct WatchChange {
    enum Kind : uint32_t { kCreated = 1, kChanged = 2, kDeleted = 3 };

    kel::WString name;  // the full name, spelt as last stored
    Kind kind = kChanged;
    kel::AutoRef<IBucket> bucket;  // the newest content; null when deleted
};

// What read() hands out at once.
struct WatchBatch {
    // The watch could not relate the files to the state it started from
    // (they were compacted or replaced since a saved state): whatever the
    // caller knew of the subtree is stale, re-read it. `changes` is empty.
    bool reset = false;
    std::vector<WatchChange> changes;
    std::string state;  // the state this batch brings the caller to
};

// The changes that any process commits to one subtree of a registry (a
// bucket and every bucket below it), learnt from the registry's files.
//
// - A change is reported once it is durable (the commit that made it has
//   returned), naming each bucket of the subtree that the commit created,
//   changed or deleted. A commit that changed nothing in the subtree, and a
//   bucket stored again with the same values, are never reported; neither
//   is a compaction.
// - Nothing is lost and the order holds: each read() hands out everything
//   committed since the state the last one handed out. When one commit
//   waits, the batch is that commit; when several do (the caller was busy,
//   or opened with an old state), they come as one batch in which each
//   bucket appears once with its newest content, in the order of the newest
//   commit that touched it.
// - No race with the first read: open() reads the subtree's state and
//   reports every change after it; state() names that state. A caller that
//   saved a state passes it back as `since` and learns what changed after
//   it, or gets a reset when the files no longer tell.
// - No thread and no timer: fd() becomes readable when something may have
//   changed (poll, epoll, select, an event loop), read() never blocks, and
//   wait() blocks for callers without a loop. A wake-up may find nothing.
// - Any number of watches, in any number of processes; a process that may
//   only read the registry may watch it. Writers pay nothing for watchers.
//
// One thread at a time per Watch; every call reports through `status`,
// none throws.
class ZQ_EXPORT Watch {
  public:
    // Watches `path` ("/" for the whole registry) of the registry that
    // `manager` serves. `since`: a state() of an earlier watch of the same
    // path to report from, or empty for now. Null on failure.
    static std::unique_ptr<Watch> open(IBucketManager& manager, const kel::WString& path,
                                       kel::StatusChain& status,
                                       const std::string& since = std::string());
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    int fd() const;
    // The changes committed since the last batch, without blocking. False
    // when there are none, or on failure (the status says which).
    bool read(WatchBatch& batch, kel::StatusChain& status);
    // Blocks until read() has a batch or `timeoutMilliseconds` pass
    // (negative: no limit). True when one waits.
    bool wait(int timeoutMilliseconds, kel::StatusChain& status);
    // The state of the subtree the caller has been told of.
    std::string state() const;
    const kel::WString& path() const;
    // Bytes held for the subtree: a name and a digest of each bucket.
    size_t memoryUsed() const;

  private:
    class Impl;
    explicit Watch(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_WATCH_H
