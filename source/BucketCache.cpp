#include "source/BucketCache.h"

#include <algorithm>
#include <new>
#include <vector>

#include "zq/kel/AbsoluteTime.h"

namespace zq {
namespace orvane {

using kel::WString;
using Lock = std::lock_guard<std::recursive_mutex>;

namespace {

bool isRoot(const WString& key) { return key.length() == 1 && key[0] == L'/'; }

// The product wraps for limits above 171798691 bytes; kept as it is.
uint32_t quarterOf(uint32_t limit) {
    const uint32_t product = 25u * limit;
    return product / 100u;
}

}  // namespace

BucketCache::BucketCache(uint32_t limitBytes)
    : limit_(limitBytes), evictionAmount_(quarterOf(limitBytes)) {}

void BucketCache::clear(int32_t /*storeCode*/) { clear(); }

void BucketCache::insertRead(kel::AutoRef<IBucket>& bucket, uint64_t version,
                             kel::StatusChain& status) {
    Lock lock(mutex());
    if (version < version_) {
        return;
    }
    const bool replace = true;
    insertBucket(bucket, &replace, status);
}

void BucketCache::clearTo(uint64_t version) {
    Lock lock(mutex());
    clear();
    version_ = std::max(version_, version);
}

void BucketCache::moveTo(uint64_t version) {
    Lock lock(mutex());
    version_ = std::max(version_, version);
}

void BucketCache::recount() {
    Lock lock(mutex());
    BucketCase::recount();
    evictIfOver();
}

void BucketCache::bucketAdded(const WString&) { evictIfOver(); }

// Oldest modification first; buckets of equal time go in name order (their
// place in the map), so the choice is the same on every run. A heap hands
// out only as many as are needed: an eviction frees a quarter of the budget,
// not every bucket, so sorting them all would be wasted.
// At least one bucket goes even when the eviction amount is 0 (a budget under
// four bytes), so that any budget bounds the cache.
void BucketCache::evictIfOver() {
    if (usedBytes() <= limit_ || entries().size() <= kMinBuckets) {
        return;
    }
    struct Candidate {
        kel::AbsoluteTime time;
        size_t place;
        NameMap::const_iterator at;
    };
    // Heap order: the oldest on top.
    const auto newer = [](const Candidate& a, const Candidate& b) {
        return b.time < a.time || (a.time == b.time && b.place < a.place);
    };
    try {
        std::vector<Candidate> candidates;
        candidates.reserve(entries().size());
        size_t place = 0;
        for (auto at = entries().begin(); at != entries().end(); ++at, ++place) {
            if (!isRoot(at->first)) {
                candidates.push_back(Candidate{at->second.modified, place, at});
            }
        }
        std::make_heap(candidates.begin(), candidates.end(), newer);
        uint32_t freed = 0;
        for (auto end = candidates.end(); end != candidates.begin(); --end) {
            std::pop_heap(candidates.begin(), end, newer);
            const NameMap::const_iterator at = (end - 1)->at;
            freed += at->second.weight;
            eraseEntry(at);
            if (freed >= evictionAmount_) {
                break;
            }
        }
    } catch (const std::bad_alloc&) {
        // Left over budget: the next insert tries again.
    }
}

}  // namespace orvane
}  // namespace zq
