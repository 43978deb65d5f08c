#ifndef ZQ_ORVANE_BUCKETUPDATECACHE_H
#define ZQ_ORVANE_BUCKETUPDATECACHE_H

#include <cstdint>
#include <map>

#include "source/BucketCase.h"
#include "source/IBucketStore.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

class BucketCache;

// The pending changes of the open transaction: buckets put (the held set)
// and names deleted, until the commit writes them back. The two are kept
// disjoint, so a commit can never hand the store one name as both written and
// deleted: putting a bucket cancels a deletion of its name, and deleting a
// name drops a pending put of it. Its budget is recorded but it never evicts:
// a pending change stays until commit or the end of the transaction.
//
// Thread safety: as BucketCase; mutex() also guards the deleted names. The
// write-back takes the read cache's mutex inside this one, never the other
// way round.
class BucketUpdateCache : public BucketCase {
  public:
    explicit BucketUpdateCache(uint32_t limitBytes);

    // Also forgets the deleted names.
    void clear() override;

    uint32_t limitBytes() const { return limit_; }

    // Records `fullName` as deleted and drops a pending put of it. Throws
    // std::bad_alloc, leaving the cache as it was.
    void eraseBucket(const kel::WString& fullName);
    // Throws std::bad_alloc.
    bool isDeleted(const kel::WString& fullName) const;
    // isDeleted of the parent of `childName`; the parent's name is made only
    // when some name is deleted.
    bool isParentDeleted(const kel::WString& childName) const;

    // The commit: hands the store both sets in one commit and, once the
    // store has committed them, removes every deleted name from the read
    // cache and puts every pending bucket into it (replacing); then empties
    // itself, whatever the store reported. A failed commit leaves nothing of
    // the transaction anywhere.
    void writeBack(BucketCache& readCache, IBucketStore& store, kel::StatusChain& status);

  protected:
    void bucketAdded(const kel::WString& key) override;

  private:
    void writeBackLocked(BucketCache& readCache, IBucketStore& store, kel::StatusChain& status);

    const uint32_t limit_;
    // Folded name -> the spelling it was deleted under.
    std::map<kel::WString, kel::WString, KeyOrder> deleted_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETUPDATECACHE_H
