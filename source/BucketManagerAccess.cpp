// Lookups and changes of the bucket manager: private copies out, pending
// changes in, each child linked from its parent.
#include "zq/orvane/BucketManager.h"

#include <optional>

#include "source/BucketCache.h"
#include "source/BucketName.h"
#include "source/BucketNames.h"
#include "source/BucketUpdateCache.h"
#include "source/FoldedKey.h"
#include "source/Guard.h"
#include "source/IBucketStore.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::Guid;
using kel::StatusChain;
using kel::WString;

constexpr ErrorCodes kManagerCodes{status::kFileSystem, status::kFileSystem, status::kUnexpected};

bool isRoot(const WString& name) { return name.length() == 1 && name[0] == L'/'; }

AutoRef<IBucket> copyOf(const AutoRef<IBucket>& bucket) {
    if (const auto* own = dynamic_cast<const Bucket*>(bucket.get())) {
        return AutoRef<IBucket>(new Bucket(*own));
    }
    // A client's own implementation of the interface: copied value by value.
    AutoRef<IBucket> copy(new Bucket(bucket->getFullName(), bucket->isPersistent()));
    StatusChain status;
    status.clear();
    copy->update(bucket, IBucket::kReplaceAll, status);
    return copy;
}

void setVersion(const AutoRef<IBucket>& bucket, uint32_t version) {
    static_cast<Bucket*>(bucket.get())->setVersion(version);
}

void putPending(BucketUpdateCache& cache, AutoRef<IBucket> bucket, StatusChain& status) {
    bool replace = true;
    cache.insertBucket(bucket, &replace, status);
}

}  // namespace

// ---------------------------------------------------------------- lookups

namespace {

// The read cache first, then the store; what the store had is cached unless
// the view moved on while it was read.
template <class InCache, class InStore>
AutoRef<IBucket> readThrough(BucketCache& cache, const IBucketStore& store, InCache&& inCache,
                             InStore&& inStore, StatusChain& status) {
    AutoRef<IBucket> found = inCache();
    if (!found) {
        const uint64_t version = store.viewVersion();
        found = inStore();
        if (found) {
            cache.insertRead(found, version, status);
        }
    }
    return found;
}

}  // namespace

AutoRef<IBucket> BucketManager::findShared(const WString& fullName, StatusChain& status,
                                           const FoldedKey* key) {
    dropStaleCaches();
    return readThrough(
        *readCache_, *store_,
        [&] {
            return key != nullptr ? readCache_->findHeld(*key) : readCache_->findBucket(fullName);
        },
        [&] { return store_->readBucket(fullName, status); }, status);
}

AutoRef<IBucket> BucketManager::findSharedByDigest(const Digest& digest, StatusChain& status) {
    dropStaleCaches();
    return readThrough(
        *readCache_, *store_, [&] { return readCache_->findBucketByDigest(digest); },
        [&] { return store_->readBucketByDigest(digest, status); }, status);
}

namespace {

// The lookups' common end: a private copy, or the "not found" warning.
AutoRef<IBucket> handOut(const AutoRef<IBucket>& found, StatusChain& status) {
    if (status.isFatal()) {
        return AutoRef<IBucket>();
    }
    if (!found) {
        status.setCode(status::kBucketNotFound);
        return AutoRef<IBucket>();
    }
    return copyOf(found);
}

}  // namespace

// A malformed name names no bucket and never could: it is the caller's
// mistake, so it is an error (kBadBucketName), not the not-found warning.
AutoRef<IBucket> BucketManager::getBucket(const WString& fullName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucket> {
        if (!BucketName::check(fullName, status) || !store_) return AutoRef<IBucket>();
        const FoldedKey key(fullName);
        dropStaleCaches();
        if (AutoRef<IBucket> cached = readCache_->copyHeld(key)) return cached;
        return handOut(findShared(fullName, status, &key), status);
    });
}

AutoRef<IBucket> BucketManager::getBucketByDigest(const Digest& digest, StatusChain& status) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucket> {
        if (!store_) return AutoRef<IBucket>();
        return handOut(findSharedByDigest(digest, status), status);
    });
}

// The cached bucket's own lock guards the lookup, as it guards the copy that
// getBucket makes.
AutoRef<IBucketValue> BucketManager::getBucketValue(const WString& fullName,
                                                    const WString& valueName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucketValue> {
        if (!BucketName::check(fullName, status) || !store_) return AutoRef<IBucketValue>();
        const AutoRef<IBucket> found = findShared(fullName, status);
        if (status.isFatal()) return AutoRef<IBucketValue>();
        if (!found) {
            status.setCode(status::kBucketNotFound);
            return AutoRef<IBucketValue>();
        }
        return found->getValue(valueName, status);
    });
}

bool BucketManager::findBucket(const WString& fullName, AutoRef<IBucket>& bucket,
                               StatusChain& status) {
    bucket = getBucket(fullName, status);
    return static_cast<bool>(bucket);
}

bool BucketManager::findBucketByDigest(const Digest& digest, AutoRef<IBucket>& bucket,
                                       StatusChain& status) {
    bucket = getBucketByDigest(digest, status);
    return static_cast<bool>(bucket);
}

// A name lookup with the same results as findBucket.
bool BucketManager::lookupBucket(const WString& fullName, AutoRef<IBucket>& bucket,
                                 StatusChain& status) {
    return findBucket(fullName, bucket, status);
}

bool BucketManager::bucketExists(const WString& fullName, StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        if (!BucketName::check(fullName, status) || !store_) return false;
        dropStaleCaches();
        return readCache_->containsBucket(fullName) || store_->exists(fullName, status);
    });
}

AutoRef<IBucket> BucketManager::newBucket(StatusChain& status) {
    return guarded(status, kManagerCodes, [] { return AutoRef<IBucket>(new Bucket()); });
}

AutoRef<IBucket> BucketManager::createBucket(const WString& fullName, bool openExisting,
                                             StatusChain& status, bool persistent) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucket> {
        if (!BucketName::check(fullName, status)) return AutoRef<IBucket>();
        const bool exists = bucketExists(fullName, status);
        if (status.isFatal()) return AutoRef<IBucket>();
        if (exists) {
            return openExisting ? getBucket(fullName, status) : AutoRef<IBucket>();
        }
        return AutoRef<IBucket>(new Bucket(fullName, persistent));
    });
}

AutoRef<IBucket> BucketManager::copyBucket(const AutoRef<IBucket>& bucket, StatusChain& status) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucket> {
        return bucket ? copyOf(bucket) : AutoRef<IBucket>();
    });
}

// ---------------------------------------------------------------- changes

// The put path, run with the transaction mutex and the update cache's mutex
// held. A bucket's version grows by one with each commit that writes it.
class BucketManager::PutPath {
  public:
    PutPath(BucketManager& manager, StatusChain& status)
        : manager_(manager), cache_(*manager.updateCache_), status_(status) {}

    // The bucket held under `name`: pending, else committed. Deleted in this
    // transaction counts as absent. A pending bucket missed for lack of
    // memory would have its changes replaced, so that failure throws.
    AutoRef<IBucket> held(const WString& name, bool* pending) {
        return held(name, FoldedKey(name), pending);
    }

    // As held(name), with the fold of `name` at hand.
    AutoRef<IBucket> held(const WString& name, const FoldedKey& key, bool* pending) {
        AutoRef<IBucket> found = cache_.findHeld(key);
        *pending = static_cast<bool>(found);
        if (found || cache_.isDeleted(name)) {
            return found;
        }
        return manager_.findShared(name, status_, &key);
    }

    bool put(const AutoRef<IBucket>& bucket, int32_t mode, bool mustExist) {
        // Our own buckets come with their names folded.
        const auto* own = dynamic_cast<const Bucket*>(bucket.get());
        const std::shared_ptr<const BucketNames> names = own != nullptr ? own->names() : nullptr;
        const WString foreign = own != nullptr ? WString() : bucket->getFullName();
        const WString& name = names ? names->full() : foreign;
        if (!BucketName::check(name, status_)) return false;
        std::optional<FoldedKey> key;
        if (names) {
            key.emplace(names->folded(), names->foldedHash());
        } else {
            key.emplace(name);
        }
        bool pending = false;
        const AutoRef<IBucket> current = held(name, *key, &pending);
        if (status_.isFatal()) return false;
        if (current.get() == bucket.get()) {
            status_.setCode(status::kInternalObject);
            return false;
        }
        if (!current && mustExist) {
            status_.setCode(status::kCannotMerge);
            return false;
        }
        AutoRef<IBucket> next = current ? merged(current, bucket, mode) : copyOf(bucket);
        if (status_.isFatal()) return false;
        if (!pending) {
            setVersion(next, current ? current->getVersion() + 1 : 1);
        }
        // A bucket that existed was linked from its parent when it was made;
        // only a new one needs its parent fetched and linked.
        if (!isRoot(name)) {
            const bool linked = current && !cache_.isParentDeleted(name);
            if (!linked && !linkToParent(next)) return false;
        }
        putPending(cache_, next, status_);
        return status_.isNotFatal();
    }

    // Removes a bucket; true when it existed.
    bool remove(const WString& name) {
        bool pending = false;
        const bool existed = static_cast<bool>(held(name, &pending));
        cache_.eraseBucket(name);
        unlinkFromParent(name);
        return existed;
    }

  private:
    AutoRef<IBucket> merged(const AutoRef<IBucket>& current, const AutoRef<IBucket>& given,
                            int32_t mode) {
        AutoRef<IBucket> next = copyOf(current);
        if (mode == IBucket::kReplaceAll) {
            // Child links are the manager's: they survive a replacement.
            static_cast<Bucket&>(*next).removeDataValuesOrThrow();  // copyOf makes a Bucket
            mode = IBucket::kMergeOverwriting;
        }
        next->update(given, mode, status_);
        return next;
    }

    // Makes sure the parent of `child` records it, putting a changed copy
    // of the parent (linked to its own parent first) when it does not.
    bool linkToParent(const AutoRef<IBucket>& child) {
        const WString childName = child->getFullName();
        const WString parentName = BucketName::parentName(childName);
        bool pending = false;
        const AutoRef<IBucket> parent = held(parentName, &pending);
        if (status_.isFatal()) return false;
        if (!parent) {
            status_.setCode(status::kNoParent);
            return false;
        }
        if (!parent->isPersistent()) {
            status_.setCode(status::kParentNotPersistent);
            return false;
        }
        // A link names a bucket in the store: a transient child gets none.
        if (!child->isPersistent()) return true;
        if (const AutoRef<IBucketValue> held = parent->getValue(childName, status_)) {
            if (BucketName::isLinkTo(childName, *held)) return true;
            // A value of a file older than the rule on "/" names: linked
            // past it or not at all, the child would be lost to every walk.
            refuseTakenLink(parentName, childName);
            return false;
        }
        if (status_.isFatal()) return false;
        AutoRef<IBucket> next = pending ? parent : copyOf(parent);
        if (!pending) {
            setVersion(next, parent->getVersion() + 1);
            if (!isRoot(parentName) && !linkToParent(next)) return false;
        }
        next->addChild(BucketName::shortName(childName), status_, true);
        putPending(cache_, next, status_);
        return status_.isNotFatal();
    }

    void refuseTakenLink(const WString& parentName, const WString& childName) {
        status_.setCode(status::kLinkNameTaken);
        WString message(L"the bucket \"");
        message += parentName;
        message += L"\" holds a value named \"";
        message += childName;
        message += L"\", the name of the link to this child; remove that value first";
        status_.setMessage(message);
    }

    void unlinkFromParent(const WString& childName) {
        if (isRoot(childName)) return;
        bool pending = false;
        const AutoRef<IBucket> parent = held(BucketName::parentName(childName), &pending);
        if (!parent || !parent->hasValue(childName)) return;
        AutoRef<IBucket> next = pending ? parent : copyOf(parent);
        if (!pending) {
            setVersion(next, parent->getVersion() + 1);
        }
        static_cast<Bucket&>(*next).removeValueOrThrow(childName);
        putPending(cache_, next, status_);
    }

    BucketManager& manager_;
    BucketUpdateCache& cache_;
    StatusChain& status_;
};

AutoRef<IBucket> BucketManager::getHeldBucket(const Guid& id, const WString& fullName,
                                              StatusChain& status) {
    return guarded(status, kManagerCodes, [&]() -> AutoRef<IBucket> {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!checkChange(id, status) || !BucketName::check(fullName, status)) {
            return AutoRef<IBucket>();
        }
        std::lock_guard<std::recursive_mutex> cacheHold(updateCache_->mutex());
        bool pending = false;
        return handOut(PutPath(*this, status).held(fullName, &pending), status);
    });
}

bool BucketManager::putLocked(const AutoRef<IBucket>& bucket, int32_t mode, bool mustExist,
                              StatusChain& status) {
    if (!bucket) {
        status.setCode(status::kNullArgument);
        return false;
    }
    std::lock_guard<std::recursive_mutex> hold(updateCache_->mutex());
    return PutPath(*this, status).put(bucket, mode, mustExist);
}

// The size limit is the commit's to apply, the same way in every process:
// a put cannot know what the rest of the transaction will remove.
bool BucketManager::checkPut(const Guid& id, StatusChain& status) const {
    return checkChange(id, status);
}

bool BucketManager::putBucket(const AutoRef<IBucket>& bucket, bool replace, const Guid& id,
                              StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!checkPut(id, status)) return false;
        return putLocked(bucket, replace ? IBucket::kReplaceAll : IBucket::kMergeOverwriting, false,
                         status);
    });
}

// Refused with the merge code when no bucket of that name exists: there is
// nothing to merge into.
bool BucketManager::updateBucket(const AutoRef<IBucket>& bucket, bool overwrite, const Guid& id,
                                 StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!checkPut(id, status)) return false;
        return putLocked(bucket, overwrite ? IBucket::kMergeOverwriting : IBucket::kMergeKeeping,
                         true, status);
    });
}

bool BucketManager::deleteBucket(const WString& fullName, const Guid& id, StatusChain& status) {
    return deleteBuckets(std::vector<WString>{fullName}, id, status);
}

bool BucketManager::deleteBuckets(const std::vector<WString>& fullNames, const Guid& id,
                                  StatusChain& status) {
    return guarded(status, kManagerCodes, [&] {
        std::lock_guard<std::recursive_mutex> hold(transactionMutex_);
        if (!checkChange(id, status)) return false;
        for (const WString& name : fullNames) {
            if (!BucketName::check(name, status)) return false;
            if (isRoot(name)) {
                status.setCode(status::kRootNotDeletable);
                return false;
            }
        }
        std::lock_guard<std::recursive_mutex> cacheHold(updateCache_->mutex());
        PutPath path(*this, status);
        bool existed = false;
        for (const WString& name : fullNames) {
            existed = path.remove(name) || existed;
        }
        return existed;
    });
}

}  // namespace orvane
}  // namespace zq
