#ifndef ZQ_ORVANE_IBUCKETCASE_H
#define ZQ_ORVANE_IBUCKETCASE_H

#include <cstdint>

#include "zq/kel/AutoRef.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucket.h"

namespace zq {
namespace orvane {

// A set of whole buckets, found by full name or by digest, that can be walked
// with cursors and carried as one serialised block. Full names compare
// case-insensitively: "/Net" and "/net" are the same entry, and the held
// bucket keeps its own spelling.
//
// The buckets handed out are the held objects themselves, not copies.
//
// The order of the declarations below is the order of the virtual slots that
// client programs were compiled against: never reorder or insert.
//
// Safe for concurrent use: every operation holds the case's own lock.
class IBucketCase : public kel::RefCountedInterface<IBucketCase> {
  public:
    // Ends every open enumeration (see getNextBucket) and drops every bucket.
    virtual void clear() = 0;
    // Adds `bucket` under its full name. A name already held is replaced only
    // when `replace` points at true; otherwise the status gets kAlreadyPresent
    // and the held bucket stays.
    virtual void insertBucket(kel::AutoRef<IBucket>& bucket, const bool* replace,
                              kel::StatusChain& status) = 0;
    virtual kel::AutoRef<IBucket> findBucket(const kel::WString& fullName) = 0;
    virtual kel::AutoRef<IBucket> findBucketByDigest(const Digest& digest) = 0;

    // Enumeration in name order. Handles are never 0 and never one that is
    // still open. Any change to the set ends every enumeration: the next step
    // warns kCursorInvalidated and yields null, and so does every step after.
    virtual int32_t openEnumeration() = 0;
    virtual bool closeEnumeration(int32_t handle) = 0;
    virtual kel::AutoRef<IBucket> getFirstBucket(const int32_t* handle) = 0;
    virtual kel::AutoRef<IBucket> getNextBucket(const int32_t* handle,
                                                kel::StatusChain& status) = 0;

    virtual bool removeBucket(const kel::WString& fullName) = 0;
    virtual bool containsBucket(const kel::WString& fullName) = 0;
    virtual uint32_t getBucketCount() = 0;

    // Version 1, the count, then each bucket's record in name order. serialize
    // throws BufferOverflow, deserialize DeserializationError.
    virtual uint32_t serializationSize() = 0;
    virtual void serialize(unsigned char*& cursor, const unsigned char* end) = 0;
    virtual void deserialize(const unsigned char*& cursor, const unsigned char* end) = 0;

  protected:
    ~IBucketCase() = default;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKETCASE_H
