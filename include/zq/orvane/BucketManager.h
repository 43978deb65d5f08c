#ifndef ZQ_ORVANE_BUCKETMANAGER_H
#define ZQ_ORVANE_BUCKETMANAGER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zq/kel/Export.h"
#include "zq/kel/Guid.h"
#include "zq/kel/RefCounted.h"
#include "zq/orvane/IBucketManager.h"

namespace zq {
namespace kel {
namespace osdep {
class FileSystem;
class Mutex;
class SharedCounter;
class SharedLibrary;
}  // namespace osdep
}  // namespace kel

namespace orvane {

class BucketCache;
class BucketUpdateCache;
class FoldedKey;
class IBucketStore;
class Options;

// The one bucket manager of a process. Declared here so that clients reach
// its exported member: static_cast<BucketManager*>(manager.get())->purgeStore().
//
// Safe for concurrent use by the threads of a process. Locks, always in this
// order: the process lock (held from begin to end of a transaction, and
// around every change of files), the transaction mutex (guards
// transactionId_, updateMode_, beginning_ and the update cache's contents
// between operations; never held while waiting for another process), the
// update cache's mutex, the read cache's mutex, the store's lock. Lookups
// take only the caches' and the store's own locks.
//
// Every hold of the process lock is the manager's, not a thread's
// (Mutex::lockForObject): a transaction may be begun, continued, committed
// and ended on different threads, and the scoped holds around file changes
// (purgeStore, the root's creation) nest in an open transaction's hold
// whatever thread began it. Such holds keep each other out through the
// transaction mutex, which each takes next (the open at construction excepted:
// no other thread sees the manager yet).
class ZQ_EXPORT BucketManager
    : public kel::RefCountedImplementation<IBucketManager, kel::RefCountedThreadSafePolicy> {
  public:
    // Never throws: failures are codes in `status`, and the manager then has
    // no store and does nothing.
    BucketManager(const kel::WString& dataDirectory, const kel::WString& optionsFile,
                  kel::StatusChain& status);
    ~BucketManager() override;

    bool tryBeginTransaction(kel::Guid& id, kel::StatusChain& status) override;
    bool beginTransaction(kel::Guid& id, kel::StatusChain& status) override;
    bool endTransaction(const kel::Guid& id, kel::StatusChain& status) override;
    bool getTransactionId(kel::Guid& id, kel::StatusChain& status) override;
    bool beginUpdate(const kel::Guid& id, kel::StatusChain& status) override;
    bool commit(const kel::Guid& id, kel::StatusChain& status) override;

    kel::AutoRef<IBucket> newBucket(kel::StatusChain& status) override;
    kel::AutoRef<IBucket> createBucket(const kel::WString& fullName, bool openExisting,
                                       kel::StatusChain& status, bool persistent = true) override;
    kel::AutoRef<IBucket> copyBucket(const kel::AutoRef<IBucket>& bucket,
                                     kel::StatusChain& status) override;
    kel::AutoRef<IBucketCase> createBucketCase(kel::StatusChain& status) override;
    Digest createDigest(const kel::WString& fullName, kel::StatusChain& status) override;

    bool findBucket(const kel::WString& fullName, kel::AutoRef<IBucket>& bucket,
                    kel::StatusChain& status) override;
    kel::AutoRef<IBucket> getBucket(const kel::WString& fullName,
                                    kel::StatusChain& status) override;
    bool findBucketByDigest(const Digest& digest, kel::AutoRef<IBucket>& bucket,
                            kel::StatusChain& status) override;
    kel::AutoRef<IBucket> getBucketByDigest(const Digest& digest,
                                            kel::StatusChain& status) override;
    bool lookupBucket(const kel::WString& fullName, kel::AutoRef<IBucket>& bucket,
                      kel::StatusChain& status) override;

    bool putBucket(const kel::AutoRef<IBucket>& bucket, bool replace, const kel::Guid& id,
                   kel::StatusChain& status) override;
    bool deleteBucket(const kel::WString& fullName, const kel::Guid& id,
                      kel::StatusChain& status) override;
    bool deleteBuckets(const std::vector<kel::WString>& fullNames, const kel::Guid& id,
                       kel::StatusChain& status) override;
    bool bucketExists(const kel::WString& fullName, kel::StatusChain& status) override;
    bool updateBucket(const kel::AutoRef<IBucket>& bucket, bool overwrite, const kel::Guid& id,
                      kel::StatusChain& status) override;

    void getDataDirectory(kel::WString& directory, kel::StatusChain& status) override;
    kel::WString getDefaultDataDirectory(kel::StatusChain& status) override;
    kel::WString getParentName(const kel::WString& fullName, kel::StatusChain& status) override;
    kel::WString getShortName(const kel::WString& fullName, kel::StatusChain& status) override;
    void reloadCaches(int32_t code, kel::StatusChain& status) override;

    kel::AutoRef<IBucketValue> createValue(kel::StatusChain& status) override;
    kel::AutoRef<IBucketValue> createDigestValue(const Digest& value,
                                                 kel::StatusChain& status) override;
    kel::AutoRef<IBucketValue> createAnsiStringValue(const kel::NString& value,
                                                     kel::StatusChain& status) override;
    kel::AutoRef<IBucketValue> createStringValue(const kel::WString& value,
                                                 kel::StatusChain& status) override;
    kel::AutoRef<IBucketValue> createBlobValue(const unsigned char* bytes, uint32_t size, bool flag,
                                               kel::StatusChain& status) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    kel::AutoRef<IBucketValue> create##Name##Value(Type value, kel::StatusChain& status) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE
    kel::AutoRef<IBucketValue> createAnsiStringArrayValue(const kel::NString* elements,
                                                          uint32_t count,
                                                          kel::StatusChain& status) override;
    kel::AutoRef<IBucketValue> createStringArrayValue(const kel::WString* elements, uint32_t count,
                                                      kel::StatusChain& status) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag)                                          \
    kel::AutoRef<IBucketValue> create##Name##ArrayValue(const Type* elements, uint32_t count, \
                                                        kel::StatusChain& status) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE
    kel::AutoRef<IBucketValue> copyValue(const kel::AutoRef<IBucketValue>& value,
                                         kel::StatusChain& status) override;

    // Empties the data directory but for the debug files and reopens an
    // empty store. Only file-layer exceptions reach the caller. Called while
    // a transaction of this manager is open (on any thread), it runs inside
    // that transaction, which stays open and loses what it had pending.
    ZQ_EXPORT void purgeStore();

    // The bucket as the open transaction `id` sees it: its pending change,
    // else what is committed; a private copy, or null with the
    // kBucketNotFound warning. The C++ layer's edits start from it.
    kel::AutoRef<IBucket> getHeldBucket(const kel::Guid& id, const kel::WString& fullName,
                                        kel::StatusChain& status);

    // The value `valueName` of bucket `fullName`, read from the cached
    // bucket without copying the rest of it: null when the value is missing,
    // with the kBucketNotFound warning when the bucket is. The C++ layer's
    // typed reads.
    kel::AutoRef<IBucketValue> getBucketValue(const kel::WString& fullName,
                                              const kel::WString& valueName,
                                              kel::StatusChain& status);

    // Whether the registry was opened for reading only (asked for, or no
    // right to write): transactions are refused with status::kReadOnly.
    bool isReadOnly() const { return readOnly_; }

    // The store, for the offline tools; null when construction stopped early.
    IBucketStore* store() const { return store_.get(); }

  private:
    struct Callbacks;
    class PutPath;

    void construct(const kel::WString& optionsFile, kel::StatusChain& status);
    void settleDataDirectory(kel::StatusChain& status);
    void decideReadOnly(const kel::StatusChain& status);
    // The options or the tool ask for reading only.
    bool askedToOnlyRead() const;
    void loadCallbacks(kel::StatusChain& status);
    void openStore(kel::StatusChain& status);
    void runDebugComparison();

    bool beginTransaction(bool wait, kel::Guid& id, kel::StatusChain& status);
    // The id matches the open transaction and update mode is on.
    bool checkChange(const kel::Guid& id, kel::StatusChain& status) const;
    // checkChange, and the store is not over its size limit.
    bool checkPut(const kel::Guid& id, kel::StatusChain& status) const;
    // Lookups: the read cache and the store follow other processes' changes.
    void dropStaleCaches();
    // Under the process lock: the same, repairing what a dead process left.
    void catchUp(kel::StatusChain& status);
    bool putLocked(const kel::AutoRef<IBucket>& bucket, int32_t mode, bool mustExist,
                   kel::StatusChain& status);
    // `key`, when given, is the fold of `fullName`.
    kel::AutoRef<IBucket> findShared(const kel::WString& fullName, kel::StatusChain& status,
                                     const FoldedKey* key = nullptr);
    kel::AutoRef<IBucket> findSharedByDigest(const Digest& digest, kel::StatusChain& status);
    void commitPending(kel::StatusChain& status);
    kel::osdep::SharedCounter& changeCounter();

    // Every file step of this manager and its store goes through this one;
    // set at construction (the POSIX layer unless a test gave another).
    kel::osdep::FileSystem& fs_;
    kel::WString dataDirectory_;
    std::unique_ptr<IBucketStore> store_;
    kel::AutoRef<BucketCache> readCache_;
    kel::AutoRef<BucketUpdateCache> updateCache_;
    // Its holds are this manager's (the open transaction's and the scoped
    // ones); set once at construction.
    std::unique_ptr<kel::osdep::Mutex> processLock_;
    // Moves with every change of the files by any process; set once, under
    // the process lock after construction, null while it could not be mapped.
    std::atomic<kel::osdep::SharedCounter*> changes_{nullptr};
    std::atomic<uint32_t> validated_{1};  // the even count last looked at; odd: none
    // The even count at which this process last changed the files or found
    // them as it left them, under the process lock; odd: none. Guarded by
    // the process lock.
    uint32_t leftAt_ = 1;
    kel::Guid transactionId_;
    mutable std::recursive_mutex transactionMutex_;
    bool updateMode_ = false;
    bool readOnly_ = false;   // set once at construction
    bool beginning_ = false;  // a thread is waiting for the process lock
    std::unique_ptr<Options> options_;
    uint32_t storeOpenWord_ = 0;
    std::unique_ptr<Callbacks> callbacks_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETMANAGER_H
