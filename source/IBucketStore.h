#ifndef ZQ_ORVANE_IBUCKETSTORE_H
#define ZQ_ORVANE_IBUCKETSTORE_H

#include <cstdint>
#include <map>
#include <set>

#include "zq/kel/AutoRef.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucket.h"

namespace zq {
namespace orvane {

// Persistent storage behind the bucket manager. Every operation reports
// through the status passed last and none throws. The slot order up to
// isOverSizeLimit is fixed.
class IBucketStore {
  public:
    using UpdatedBuckets = std::map<kel::WString, kel::AutoRef<IBucket>>;
    using DeletedNames = std::set<kel::WString>;

    virtual ~IBucketStore() = default;

    virtual void open(uint32_t value, kel::StatusChain& status) = 0;
    virtual void close(kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> readBucket(const kel::WString& name,
                                             kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> readBucketByDigest(const Digest& digest,
                                                     kel::StatusChain& status) = 0;
    virtual void commit(const UpdatedBuckets& updated, const DeletedNames& deleted,
                        kel::StatusChain& status) = 0;
    virtual bool containsBucket(const kel::AutoRef<IBucket>& bucket, kel::StatusChain& status) = 0;
    virtual bool exists(const kel::WString& name, kel::StatusChain& status) = 0;
    virtual bool wasRepairedOnOpen() = 0;
    virtual bool isOverSizeLimit() = 0;

    // What a look at other processes' changes found.
    enum class Refresh {
        kUnchanged,  // the view is the newest committed state
        kChanged,    // a newer state was loaded: cached buckets are stale
        kUnsettled,  // files kept changing under the look: the old view stays
    };
    // Brings the store up to date with what other processes committed or
    // compacted since. Reads only: safe without the process lock.
    virtual Refresh refresh(kel::StatusChain& status) = 0;
    // The same for a process that holds the process lock and is about to
    // write: whatever a dead process left half done is finished first, and
    // a data file no longer named "registry.bin" is never written again.
    // True when the view changed.
    virtual bool catchUp(kel::StatusChain& status) = 0;
    // Moves whenever the view changes (a commit, a reload, a compaction):
    // a bucket read while it had an older value may be stale.
    virtual uint64_t viewVersion() const = 0;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKETSTORE_H
