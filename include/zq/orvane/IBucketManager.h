#ifndef ZQ_ORVANE_IBUCKETMANAGER_H
#define ZQ_ORVANE_IBUCKETMANAGER_H

#include <cstdint>
#include <vector>

#include "zq/kel/AutoRef.h"
#include "zq/kel/Guid.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucket.h"
#include "zq/orvane/IBucketCase.h"
#include "zq/orvane/IBucketValue.h"
#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

// The registry's working interface: transactions, bucket lookups that hand
// out private copies, changes gathered per transaction and written by one
// commit, and factories for values. Every operation reports through the
// status passed last and does nothing when that status already holds an
// error. The declaration order is the order of the virtual slots.
//
// A full name is "/" or "/" followed by non-empty names separated by single
// "/", with no "/" at the end. Every operation that takes one (createBucket,
// createDigest, the lookups, bucketExists, the puts and the deletes) refuses
// any other with status::kBadBucketName and its empty result: a lookup gives
// null or false with that error, not the kBucketNotFound warning, and
// deleteBuckets deletes nothing when one of its names is refused.
class IBucketManager : public kel::RefCountedInterface<IBucketManager> {
  public:
    // Transactions: the process lock is held from begin to end; changes are
    // accepted only in update mode, between beginUpdate and commit.
    virtual bool tryBeginTransaction(kel::Guid& id, kel::StatusChain& status) = 0;
    virtual bool beginTransaction(kel::Guid& id, kel::StatusChain& status) = 0;
    virtual bool endTransaction(const kel::Guid& id, kel::StatusChain& status) = 0;
    virtual bool getTransactionId(kel::Guid& id, kel::StatusChain& status) = 0;
    virtual bool beginUpdate(const kel::Guid& id, kel::StatusChain& status) = 0;
    virtual bool commit(const kel::Guid& id, kel::StatusChain& status) = 0;

    virtual kel::AutoRef<IBucket> newBucket(kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> createBucket(const kel::WString& fullName, bool openExisting,
                                               kel::StatusChain& status,
                                               bool persistent = true) = 0;
    virtual kel::AutoRef<IBucket> copyBucket(const kel::AutoRef<IBucket>& bucket,
                                             kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucketCase> createBucketCase(kel::StatusChain& status) = 0;
    virtual Digest createDigest(const kel::WString& fullName, kel::StatusChain& status) = 0;

    virtual bool findBucket(const kel::WString& fullName, kel::AutoRef<IBucket>& bucket,
                            kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> getBucket(const kel::WString& fullName,
                                            kel::StatusChain& status) = 0;
    virtual bool findBucketByDigest(const Digest& digest, kel::AutoRef<IBucket>& bucket,
                                    kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> getBucketByDigest(const Digest& digest,
                                                    kel::StatusChain& status) = 0;
    virtual bool lookupBucket(const kel::WString& fullName, kel::AutoRef<IBucket>& bucket,
                              kel::StatusChain& status) = 0;

    // `replace`: the stored bucket's data values become exactly the given
    // ones; otherwise the given values are merged over the stored ones.
    virtual bool putBucket(const kel::AutoRef<IBucket>& bucket, bool replace, const kel::Guid& id,
                           kel::StatusChain& status) = 0;
    virtual bool deleteBucket(const kel::WString& fullName, const kel::Guid& id,
                              kel::StatusChain& status) = 0;
    virtual bool deleteBuckets(const std::vector<kel::WString>& fullNames, const kel::Guid& id,
                               kel::StatusChain& status) = 0;
    virtual bool bucketExists(const kel::WString& fullName, kel::StatusChain& status) = 0;
    // Merges into an existing bucket: `overwrite` lets the given values
    // replace different stored ones, otherwise stored values are kept.
    virtual bool updateBucket(const kel::AutoRef<IBucket>& bucket, bool overwrite,
                              const kel::Guid& id, kel::StatusChain& status) = 0;

    virtual void getDataDirectory(kel::WString& directory, kel::StatusChain& status) = 0;
    virtual kel::WString getDefaultDataDirectory(kel::StatusChain& status) = 0;
    virtual kel::WString getParentName(const kel::WString& fullName, kel::StatusChain& status) = 0;
    virtual kel::WString getShortName(const kel::WString& fullName, kel::StatusChain& status) = 0;
    virtual void reloadCaches(int32_t code, kel::StatusChain& status) = 0;

    // Value factories: detached values that a client stores in a bucket.
    virtual kel::AutoRef<IBucketValue> createValue(kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucketValue> createDigestValue(const Digest& value,
                                                         kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucketValue> createAnsiStringValue(const kel::NString& value,
                                                             kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucketValue> createStringValue(const kel::WString& value,
                                                         kel::StatusChain& status) = 0;
    // `flag` is accepted and has no effect.
    virtual kel::AutoRef<IBucketValue> createBlobValue(const unsigned char* bytes, uint32_t size,
                                                       bool flag, kel::StatusChain& status) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag)                      \
    virtual kel::AutoRef<IBucketValue> create##Name##Value(Type value, \
                                                           kel::StatusChain& status) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT
    virtual kel::AutoRef<IBucketValue> createAnsiStringArrayValue(const kel::NString* elements,
                                                                  uint32_t count,
                                                                  kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucketValue> createStringArrayValue(const kel::WString* elements,
                                                              uint32_t count,
                                                              kel::StatusChain& status) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag)                \
    virtual kel::AutoRef<IBucketValue> create##Name##ArrayValue( \
        const Type* elements, uint32_t count, kel::StatusChain& status) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT
    virtual kel::AutoRef<IBucketValue> copyValue(const kel::AutoRef<IBucketValue>& value,
                                                 kel::StatusChain& status) = 0;

  protected:
    ~IBucketManager() = default;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKETMANAGER_H
