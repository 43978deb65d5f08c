#ifndef ZQ_ORVANE_IBUCKET_H
#define ZQ_ORVANE_IBUCKET_H

#include <cstdint>

#include "zq/kel/AbsoluteTime.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/IBucketValue.h"
#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

// One node of the registry tree: a full path name and named, typed values.
// Value names compare case-insensitively and keep the spelling first stored;
// children are recorded as kDIGEST values named by the child's full name.
// Values go in and come out as copies: a bucket never shares a value with its
// caller. Operations handed a status that already holds an error do nothing.
//
// The order of the declarations below is the order of the virtual slots that
// client programs were compiled against: never reorder or insert.
//
// Safe for concurrent use: every operation takes the bucket's own lock.
class IBucket : public kel::RefCountedInterface<IBucket> {
  public:
    // The modes of update.
    static constexpr int32_t kReplaceAll = 1;
    static constexpr int32_t kMergeOverwriting = 2;
    static constexpr int32_t kMergeKeeping = 3;

    virtual bool isEqual(const kel::AutoRef<IBucket>& a, const kel::AutoRef<IBucket>& b) const = 0;
    // Copies the values of `other`, a bucket of the same name, in one of the
    // modes above; true if at least one value was stored.
    virtual bool update(const kel::AutoRef<IBucket>& other, int32_t mode,
                        kel::StatusChain& status) = 0;

    // The bucket record. serialize throws BufferOverflow, deserialize
    // DeserializationError; a bucket read from a record is unmodified.
    virtual uint32_t serializationSize() const = 0;
    virtual void serialize(unsigned char*& cursor, const unsigned char* end) const = 0;
    virtual void deserialize(const unsigned char*& cursor, const unsigned char* end) = 0;

    // Storing: true when the bucket changed. An identical value changes
    // nothing; a different one needs `replace` (else kValueDiffers) and then
    // warns kValueReplaced.
    virtual bool setBlobValue(const kel::WString& name, const unsigned char* bytes, uint32_t size,
                              kel::StatusChain& status, bool replace) = 0;
    virtual bool setValue(const kel::WString& name, const kel::AutoRef<IBucketValue>& value,
                          kel::StatusChain& status, bool replace) = 0;
    virtual bool setDigestValue(const kel::WString& name, const Digest& value,
                                kel::StatusChain& status, bool replace) = 0;
    virtual bool setAnsiStringValue(const kel::WString& name, const kel::NString& value,
                                    kel::StatusChain& status, bool replace) = 0;
    virtual bool setStringValue(const kel::WString& name, const kel::WString& value,
                                kel::StatusChain& status, bool replace) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag)                                                 \
    virtual bool set##Name##Value(const kel::WString& name, Type value, kel::StatusChain& status, \
                                  bool replace) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT
    virtual bool setAnsiStringArrayValue(const kel::WString& name, const kel::NString* elements,
                                         uint32_t count, kel::StatusChain& status,
                                         bool replace) = 0;
    virtual bool setStringArrayValue(const kel::WString& name, const kel::WString* elements,
                                     uint32_t count, kel::StatusChain& status, bool replace) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag)                                      \
    virtual bool set##Name##ArrayValue(const kel::WString& name, const Type* elements, \
                                       uint32_t count, kel::StatusChain& status,       \
                                       bool replace) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    virtual bool removeValue(const kel::WString& name) = 0;
    virtual bool hasValue(const kel::WString& name) const = 0;
    virtual void removeAllValues() = 0;
    // Removes every value but the child links.
    virtual void removeDataValues() = 0;
    // Links the child of that short name: a kDIGEST value under its full name.
    virtual bool addChild(const kel::WString& childName, kel::StatusChain& status,
                          bool replace) = 0;
    // A copy of the value; empty when there is none of that name.
    virtual kel::AutoRef<IBucketValue> getValue(const kel::WString& name,
                                                kel::StatusChain& status) const = 0;

    virtual kel::WString getFullName() const = 0;
    virtual kel::WString getShortName() const = 0;
    virtual Digest getDigest() const = 0;
    virtual Digest getParentDigest() const = 0;
    virtual kel::WString getFileName() = 0;
    virtual bool isPersistent() const = 0;
    virtual uint32_t getNumKeys() const = 0;
    virtual uint32_t getVersion() const = 0;
    virtual bool isModified() const = 0;
    virtual kel::AbsoluteTime getModifiedTime() const = 0;

    // Enumeration: a handle names a cursor over the values in name order. Any
    // change to the bucket invalidates every cursor; the next step then warns
    // kCursorInvalidated once and the cursor is at the end.
    virtual uint32_t openEnumeration() = 0;
    virtual bool closeEnumeration(uint32_t handle) = 0;
    virtual bool getFirstValue(uint32_t handle, kel::WString& name,
                               kel::AutoRef<IBucketValue>& value) = 0;
    virtual bool getNextValue(uint32_t handle, kel::WString& name,
                              kel::AutoRef<IBucketValue>& value, kel::StatusChain& status) = 0;
    virtual bool getFirstChild(uint32_t handle, Digest& child) = 0;
    virtual bool getNextChild(uint32_t handle, Digest& child, kel::StatusChain& status) = 0;

    // Writes the dump to standard output.
    virtual void print() const = 0;

  protected:
    ~IBucket() = default;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKET_H
