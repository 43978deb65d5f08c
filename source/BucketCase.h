#ifndef ZQ_ORVANE_BUCKETCASE_H
#define ZQ_ORVANE_BUCKETCASE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "source/DigestKey.h"
#include "source/FoldedKey.h"
#include "source/OrvaneAtomicInt.h"
#include "zq/kel/AbsoluteTime.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucket.h"
#include "zq/orvane/IBucketCase.h"

namespace zq {
namespace orvane {

class BucketNames;

// A set of whole buckets by full name and by digest, weighed by
// Bucket::getMemUsage when they go in. The base of the manager's two caches
// and the case that createBucketCase hands to clients.
//
// Names are keyed by their fold (each character through kel::foldLower, exactly as
// the digest folds them), so "/Net" and "/net" are one entry, as they are one
// bucket in the store; the held bucket keeps its own spelling. Enumeration and
// the serialised form follow the code-unit order of the folded names.
//
// Thread safety: mutex_ guards every field below it and is held for the whole
// of every operation, including the hooks that derived classes override. It is
// recursive so that a caller can hold it across several operations (the
// manager's put path does, through mutex()). While holding it the case calls
// into held buckets, whose own locks therefore come after it; a bucket never
// calls into a case. Between the manager's two caches, the update cache's
// mutex is always taken before the read cache's, never the other way round.
class BucketCase
    : public kel::RefCountedImplementation<IBucketCase, kel::RefCountedThreadSafePolicy> {
  public:
    BucketCase();
    BucketCase(const BucketCase&) = delete;
    BucketCase& operator=(const BucketCase&) = delete;
    ~BucketCase() override;

    void clear() override;
    void insertBucket(kel::AutoRef<IBucket>& bucket, const bool* replace,
                      kel::StatusChain& status) override;
    kel::AutoRef<IBucket> findBucket(const kel::WString& fullName) override;
    kel::AutoRef<IBucket> findBucketByDigest(const Digest& digest) override;
    // 0 only when the handle cannot be recorded for lack of memory.
    int32_t openEnumeration() override;
    bool closeEnumeration(int32_t handle) override;
    kel::AutoRef<IBucket> getFirstBucket(const int32_t* handle) override;
    kel::AutoRef<IBucket> getNextBucket(const int32_t* handle, kel::StatusChain& status) override;
    bool removeBucket(const kel::WString& fullName) override;
    bool containsBucket(const kel::WString& fullName) override;
    uint32_t getBucketCount() override;
    uint32_t serializationSize() override;
    void serialize(unsigned char*& cursor, const unsigned char* end) override;
    void deserialize(const unsigned char*& cursor, const unsigned char* end) override;

    std::recursive_mutex& mutex() const { return mutex_; }

    // As findBucket, but lack of memory throws instead of reading as "not
    // there", for a caller to whom the difference matters.
    kel::AutoRef<IBucket> findHeld(const kel::WString& fullName);
    kel::AutoRef<IBucket> findHeld(const FoldedKey& key);
    // A private copy of the bucket held under `key`, or null. Made under the
    // case's lock, so the held bucket's count never moves: a cached lookup
    // spends its time copying, not on shared atomics.
    kel::AutoRef<IBucket> copyHeld(const FoldedKey& key);

    // The sum of the weights of the held buckets.
    uint32_t usedBytes() const;
    // Recomputes usedBytes from the weights recorded in the entries.
    virtual void recount();

  protected:
    struct Entry {
        kel::AutoRef<IBucket> bucket;
        uint32_t weight;
        // Kept so that removal never depends on a held bucket keeping its
        // name (a client may deserialize another record into it).
        DigestKey digest;  // bytes, not a Digest: no atomic to construct
        // The bucket's modification time when it went in: the manager never
        // changes a bucket it has put in a cache.
        kel::AbsoluteTime modified;
    };
    using NameMap = std::map<kel::WString, Entry, KeyOrder>;  // by folded name
    using DigestMap = std::unordered_map<DigestKey, kel::AutoRef<IBucket>, DigestKeyHash>;
    // The name map's entries by the hash of their key: a lookup or a
    // replacement needs no walk down the ordered map.
    using HashIndex = std::unordered_multimap<uint64_t, NameMap::iterator>;

    // Runs with mutex_ held after a bucket went in under `key`, new or
    // replacing; it must not throw.
    virtual void bucketAdded(const kel::WString& key);

    // For derived classes, with mutex_ held.
    const NameMap& entries() const { return maps_.names; }
    void eraseEntry(NameMap::const_iterator at);
    bool eraseKey(const FoldedKey& key);
    void markCursorsChanged();

  private:
    struct Cursor {
        NameMap::const_iterator position;  // meaningless once changed is set
        bool changed;
        // False for a handle opened (or last started on an empty case)
        // without a walk: it is open, yet there is no cursor to step.
        bool placed;
    };
    struct Maps {
        NameMap names;
        DigestMap digests;
        HashIndex byHash;

        NameMap::iterator find(const FoldedKey& key);
        // The entry placed, or names.end() when the name is held and not
        // replaced. On a throw the maps stay as they were.
        NameMap::iterator place(uint32_t& used, const Entry& entry, const FoldedKey& key,
                                bool replace);
        void erase(NameMap::const_iterator at);
        void clear();
        void swap(Maps& other);
    };

    // The entry of a bucket about to go in, and its names: taken outside
    // mutex_, as it takes the bucket's own lock. Bucket is the only
    // implementation of the interface.
    static Entry entryFor(const kel::AutoRef<IBucket>& bucket,
                          std::shared_ptr<const BucketNames>& names);
    void insertLocked(const Entry& entry, const FoldedKey& key, bool replace,
                      kel::StatusChain& status);
    int32_t drawHandle();

    mutable std::recursive_mutex mutex_;
    Maps maps_;
    OrvaneAtomicInt handleCounter_;
    std::map<int32_t, Cursor> cursors_;
    uint32_t used_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETCASE_H
