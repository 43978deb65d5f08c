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

    // Brings the store up to date with what other processes committed or
    // compacted since; true when something changed (cached buckets are then
    // stale). Reads only: safe without the process lock. An unchanged stat
    // of the data file, which ends at the committed length, is nothing new.
    virtual bool refresh(kel::StatusChain& status) = 0;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKETSTORE_H
