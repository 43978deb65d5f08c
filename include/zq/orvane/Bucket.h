#ifndef ZQ_ORVANE_BUCKET_H
#define ZQ_ORVANE_BUCKET_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "zq/kel/Export.h"
#include "zq/kel/RefCounted.h"
#include "zq/orvane/BucketValue.h"
#include "zq/orvane/IBucket.h"

namespace zq {
namespace orvane {

class BucketContents;
class BucketNames;
class RecordWriter;

// The one implementation of IBucket. A client reaches it only to weigh a
// bucket: static_cast<Bucket*>(bucket.get())->getMemUsage().
//
// Thread safety: mutex_ guards every field below it, including the values and
// the enumeration cursors in the contents. No operation holds mutex_ while it
// calls into another bucket, except the comparison, which takes both locks
// together (std::scoped_lock), so two buckets never deadlock.
class ZQ_EXPORT Bucket
    : public kel::RefCountedImplementation<IBucket, kel::RefCountedThreadSafePolicy> {
  public:
    Bucket();
    explicit Bucket(const kel::WString& fullName, bool persistent = true);
    // Same name, flags, version and values; no cursors. Throws std::bad_alloc.
    Bucket(const Bucket& other);
    Bucket& operator=(const Bucket&) = delete;
    ~Bucket() override;

    bool isEqual(const kel::AutoRef<IBucket>& a, const kel::AutoRef<IBucket>& b) const override;
    bool update(const kel::AutoRef<IBucket>& other, int32_t mode,
                kel::StatusChain& status) override;

    uint32_t serializationSize() const override;
    void serialize(unsigned char*& cursor, const unsigned char* end) const override;
    void deserialize(const unsigned char*& cursor, const unsigned char* end) override;
    // serialize, for a store that writes the record out in pieces.
    void writeRecord(RecordWriter& writer) const;
    // deserialize, for the store's record found by `name`, whose digest is
    // `digest`: a record that spells the name the same way is not hashed
    // again, and lack of memory throws std::bad_alloc, not damage.
    void deserializeFound(const unsigned char*& cursor, const unsigned char* end,
                          const kel::WString& name, const Digest& digest);

    bool setBlobValue(const kel::WString& name, const unsigned char* bytes, uint32_t size,
                      kel::StatusChain& status, bool replace) override;
    bool setValue(const kel::WString& name, const kel::AutoRef<IBucketValue>& value,
                  kel::StatusChain& status, bool replace) override;
    bool setDigestValue(const kel::WString& name, const Digest& value, kel::StatusChain& status,
                        bool replace) override;
    bool setAnsiStringValue(const kel::WString& name, const kel::NString& value,
                            kel::StatusChain& status, bool replace) override;
    bool setStringValue(const kel::WString& name, const kel::WString& value,
                        kel::StatusChain& status, bool replace) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag)                                      \
    bool set##Name##Value(const kel::WString& name, Type value, kel::StatusChain& status, \
                          bool replace) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE
    bool setAnsiStringArrayValue(const kel::WString& name, const kel::NString* elements,
                                 uint32_t count, kel::StatusChain& status, bool replace) override;
    bool setStringArrayValue(const kel::WString& name, const kel::WString* elements, uint32_t count,
                             kel::StatusChain& status, bool replace) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag)                                           \
    bool set##Name##ArrayValue(const kel::WString& name, const Type* elements, uint32_t count, \
                               kel::StatusChain& status, bool replace) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    bool removeValue(const kel::WString& name) override;
    bool hasValue(const kel::WString& name) const override;
    void removeAllValues() override;
    void removeDataValues() override;
    bool addChild(const kel::WString& childName, kel::StatusChain& status, bool replace) override;
    kel::AutoRef<IBucketValue> getValue(const kel::WString& name,
                                        kel::StatusChain& status) const override;

    kel::WString getFullName() const override;
    kel::WString getShortName() const override;
    Digest getDigest() const override;
    Digest getParentDigest() const override;
    kel::WString getFileName() override;
    bool isPersistent() const override;
    uint32_t getNumKeys() const override;
    uint32_t getVersion() const override;
    bool isModified() const override;
    kel::AbsoluteTime getModifiedTime() const override;

    uint32_t openEnumeration() override;
    bool closeEnumeration(uint32_t handle) override;
    bool getFirstValue(uint32_t handle, kel::WString& name,
                       kel::AutoRef<IBucketValue>& value) override;
    bool getNextValue(uint32_t handle, kel::WString& name, kel::AutoRef<IBucketValue>& value,
                      kel::StatusChain& status) override;
    bool getFirstChild(uint32_t handle, Digest& child) override;
    bool getNextChild(uint32_t handle, Digest& child, kel::StatusChain& status) override;

    void print() const override;

    // The comparison behind isEqual: same name (case-insensitively) and equal
    // values; version and flags take no part.
    virtual bool isEqualTo(const Bucket& other) const;

    // Bytes this bucket weighs in the caches' memory budget.
    ZQ_EXPORT uint32_t getMemUsage() const;

    // The dump as a wide string.
    kel::WString toString() const;
    void setVersion(uint32_t version);
    // The names as they are now, for a cache: shared, never changed.
    std::shared_ptr<const BucketNames> names() const;
    // What a cache records of this bucket, under one lock.
    struct CacheFacts {
        uint32_t weight;  // getMemUsage
        std::shared_ptr<const BucketNames> names;
        kel::AbsoluteTime modified;
    };
    CacheFacts cacheFacts() const;
    // removeValue and removeDataValues for the manager, which reports lack of
    // memory: it throws std::bad_alloc, the bucket left as it was, where the
    // public calls leave the values and say nothing.
    bool removeValueOrThrow(const kel::WString& name);
    void removeDataValuesOrThrow();

  private:
    template <class Fill>
    bool storeNew(const kel::WString& name, kel::StatusChain& status, bool replace, Fill&& fill);
    bool storeValue(const kel::WString& name, const kel::AutoRef<BucketValue>& value,
                    kel::StatusChain& status, bool replace);
    bool mayTakeLinkName(const kel::WString& name, const BucketValue& value) const;
    bool step(uint32_t handle, bool first, bool childrenOnly, kel::WString* name,
              kel::AutoRef<BucketValue>& value, kel::StatusChain* status);
    bool stepValue(uint32_t handle, bool first, kel::WString& name,
                   kel::AutoRef<IBucketValue>& value, kel::StatusChain& status);
    // The values as they are now, sharing this bucket's map.
    std::unique_ptr<BucketContents> snapshotValues() const;
    bool adoptFrom(const Bucket& given);
    BucketContents* contents() const;  // the object in contentsStorage_
    // The copy, made while `held` holds other.mutex_.
    Bucket(const Bucket& other, const std::lock_guard<std::mutex>& held);
    template <class Take>
    void mergeWalk(IBucket& other, Take& take, kel::StatusChain& status);
    bool sameNameAs(const IBucket& other) const;    // case-insensitively
    uint32_t recordSize() const;                    // mutex_ held
    void writeFields(RecordWriter& writer) const;   // mutex_ held
    uint32_t memUsageLocked() const;                // mutex_ held
    bool sameContentAs(const Bucket& other) const;  // isEqualTo; lack of memory throws
    // Lets std::bad_alloc through.
    void readRecord(const unsigned char*& cursor, const unsigned char* end,
                    const kel::WString* name, const Digest* digest);
    // `digest`, when given, is the digest of `fullName`.
    void setNames(kel::WString fullName, const Digest* digest = nullptr);  // mutex_ held
    Digest parentDigest() const;                                           // mutex_ held
    void touch();                                                          // mutex_ held

    mutable std::mutex mutex_;
    std::shared_ptr<const BucketNames> names_;  // shared with copies
    kel::WString fileName_;                     // computed on first request
    // The contents live inside the bucket, so that a lookup's copy costs one
    // allocation, not two. Bucket.cpp checks that they fit. Mutable as the
    // contents' own lazy state is: contents() hands them out from const members.
    alignas(std::max_align_t) mutable unsigned char contentsStorage_[12 * sizeof(void*) + 8];
    bool persistentFlag_;
    uint32_t version_;
    bool modified_;
    kel::AbsoluteTime modifiedTime_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKET_H
