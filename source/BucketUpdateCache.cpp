#include "source/BucketUpdateCache.h"

#include "source/BucketCache.h"
#include "source/BucketName.h"
#include "source/Guard.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using Lock = std::lock_guard<std::recursive_mutex>;

namespace {

constexpr ErrorCodes kWriteBackCodes{status::kUnexpected, status::kUnexpected, status::kUnexpected};

}  // namespace

BucketUpdateCache::BucketUpdateCache(uint32_t limitBytes) : limit_(limitBytes) {}

void BucketUpdateCache::clear() {
    Lock lock(mutex());
    BucketCase::clear();
    deleted_.clear();
}

void BucketUpdateCache::eraseBucket(const WString& fullName) {
    const FoldedKey key(fullName);
    Lock lock(mutex());
    const auto found = deleted_.find(key);
    if (found == deleted_.end()) {
        deleted_.emplace(key.toString(), fullName);
    } else {
        found->second = fullName;
    }
    eraseKey(key);
}

bool BucketUpdateCache::isDeleted(const WString& fullName) const {
    Lock lock(mutex());
    if (deleted_.empty()) {
        return false;  // the usual case: no fold needed
    }
    return deleted_.find(FoldedKey(fullName)) != deleted_.end();
}

bool BucketUpdateCache::isParentDeleted(const WString& childName) const {
    Lock lock(mutex());
    return !deleted_.empty() &&
           deleted_.find(FoldedKey(BucketName::parentName(childName))) != deleted_.end();
}

// A put after a delete of the same name: the bucket exists, with the put's
// content.
void BucketUpdateCache::bucketAdded(const WString& key) { deleted_.erase(key); }

void BucketUpdateCache::writeBack(BucketCache& readCache, IBucketStore& store,
                                  StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex());
    guarded(status, kWriteBackCodes, [&] { writeBackLocked(readCache, store, status); });
    clear();
}

void BucketUpdateCache::writeBackLocked(BucketCache& readCache, IBucketStore& store,
                                        StatusChain& status) {
    // Both sets first: running out of memory here changes nothing anywhere.
    IBucketStore::UpdatedBuckets updated;
    IBucketStore::DeletedNames deleted;
    for (const auto& name : deleted_) {
        deleted.insert(name.second);
    }
    for (const auto& entry : entries()) {
        updated.emplace(entry.second.bucket->getFullName(), entry.second.bucket);
    }

    store.commit(updated, deleted, status);
    // Only what the store committed reaches the read cache. When the store
    // failed, its view may or may not hold the commit (a compaction after
    // it can fail too): the cache then forgets everything rather than show
    // a state that is not on disk.
    Lock cacheLock(readCache.mutex());
    readCache.moveTo(store.viewVersion());
    if (status.isFatal()) {
        readCache.clearTo(store.viewVersion());
        return;
    }
    for (const WString& name : deleted) {
        readCache.removeBucket(name);
    }
    const bool replace = true;
    for (const auto& pending : updated) {
        AutoRef<IBucket> bucket = pending.second;
        StatusChain cached;
        cached.clear();
        readCache.insertBucket(bucket, &replace, cached);
        if (cached.isFatal()) {
            // Better absent than stale: a lookup then reads the store.
            readCache.removeBucket(pending.first);
        }
    }
}

}  // namespace orvane
}  // namespace zq
