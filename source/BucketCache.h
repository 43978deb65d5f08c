#ifndef ZQ_ORVANE_BUCKETCACHE_H
#define ZQ_ORVANE_BUCKETCACHE_H

#include <cstdint>

#include "source/BucketCase.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// The read cache: buckets read recently, within a byte budget. After an
// insert or a recount that leaves it over budget while it holds more than
// kMinBuckets buckets, it drops the buckets changed longest ago (never the
// root "/") until at least evictionAmount bytes are free. The floor keeps a
// few very large buckets from emptying the cache.
//
// Thread safety: as BucketCase; the eviction runs inside the insert, under
// the same mutex. The update cache's mutex, when held, was taken first.
class BucketCache : public BucketCase {
  public:
    static constexpr uint32_t kMinBuckets = 20;

    explicit BucketCache(uint32_t limitBytes);

    using BucketCase::clear;
    // Empties the cache when the manager reloads from the store. `storeCode`
    // is the status of the store's open that caused it; whatever it is,
    // nothing cached before can be trusted, so the cache just empties.
    void clear(int32_t storeCode);
    void recount() override;

    // The cache follows the store's view version (IBucketStore::viewVersion)
    // so that a bucket read from an older view never lands after a newer
    // one: a lookup that read the store just before another thread's commit
    // or reload would otherwise cache, and later hand out, a value that
    // goes back. Reads are tagged with the version seen before they began.
    //
    // Inserts `bucket`, read from the store at `version`, unless the cache
    // has since moved to a newer view.
    void insertRead(kel::AutoRef<IBucket>& bucket, uint64_t version, kel::StatusChain& status);
    // Empties the cache and refuses reads older than `version`.
    void clearTo(uint64_t version);
    // Refuses reads older than `version`; the caller holds mutex() while it
    // brings the cached buckets to that view itself.
    void moveTo(uint64_t version);

    uint32_t limitBytes() const { return limit_; }
    // 25 % of the limit, taken in 32-bit arithmetic as the product wraps.
    uint32_t evictionAmount() const { return evictionAmount_; }

  protected:
    void bucketAdded(const kel::WString& key) override;

  private:
    void evictIfOver();  // mutex held

    const uint32_t limit_;
    const uint32_t evictionAmount_;
    uint64_t version_ = 0;  // guarded by mutex()
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETCACHE_H
