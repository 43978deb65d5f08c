#ifndef ZQ_ORVANE_IBUCKETVALUE_H
#define ZQ_ORVANE_IBUCKETVALUE_H

#include <cstdint>

#include "zq/kel/AutoRef.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"
#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

// One strictly typed datum stored under a name in a bucket. A getter succeeds
// only for exactly the type the value holds; a setter first discards what the
// value held. Operations handed a status that already holds an error do
// nothing and return an empty result.
//
// The order of the declarations below is the order of the virtual slots that
// client programs were compiled against: never reorder or insert.
//
// A value has no lock of its own; callers serialise access to it.
class IBucketValue : public kel::RefCountedInterface<IBucketValue> {
  public:
    virtual uint32_t getType() const = 0;
    // The stored element count, whatever the type.
    virtual uint32_t getArraySize() const = 0;
    // Deep comparison of a and b; the value it is called on takes no part.
    virtual bool isEqual(const kel::AutoRef<IBucketValue>& a,
                         const kel::AutoRef<IBucketValue>& b) const = 0;

    virtual bool setDigest(const Digest& value, kel::StatusChain& status) = 0;
    virtual bool setAnsiString(const kel::NString& value, kel::StatusChain& status) = 0;
    virtual bool setString(const kel::WString& value, kel::StatusChain& status) = 0;
    virtual bool setBlob(const unsigned char* bytes, uint32_t size, kel::StatusChain& status) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag) \
    virtual bool set##Name(Type value, kel::StatusChain& status) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    virtual bool setAnsiStringArray(const kel::NString* elements, uint32_t count,
                                    kel::StatusChain& status) = 0;
    virtual bool setStringArray(const kel::WString* elements, uint32_t count,
                                kel::StatusChain& status) = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag)                       \
    virtual bool set##Name##Array(const Type* elements, uint32_t count, \
                                  kel::StatusChain& status) = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    virtual Digest getDigest(kel::StatusChain& status) const = 0;
    virtual kel::NString getAnsiString(kel::StatusChain& status) const = 0;
    virtual kel::WString getString(kel::StatusChain& status) const = 0;
    // Copies the blob when `size` is large enough; a size of 0 only asks for
    // the blob's size. Returns the blob's size.
    virtual uint32_t getBlob(unsigned char* buffer, uint32_t size,
                             kel::StatusChain& status) const = 0;
    virtual uint32_t getBlobSize(kel::StatusChain& status) const = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag) \
    virtual Type get##Name(kel::StatusChain& status) const = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    virtual kel::NString getAnsiStringArrayElement(uint32_t index,
                                                   kel::StatusChain& status) const = 0;
    virtual kel::WString getStringArrayElement(uint32_t index, kel::StatusChain& status) const = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag) \
    virtual Type get##Name##ArrayElement(uint32_t index, kel::StatusChain& status) const = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    // Copy-out: stores a new block of the elements through `out` and returns
    // the count. Plain blocks are released with free(); string blocks must be
    // handed back to the matching free operation of this same, unchanged value.
    virtual uint32_t getAnsiStringArray(kel::NString** out, kel::StatusChain& status) const = 0;
    virtual uint32_t getStringArray(kel::WString** out, kel::StatusChain& status) const = 0;
#define ZQ_ORVANE_SLOT(Name, Type, Tag, ArrayTag) \
    virtual uint32_t get##Name##Array(Type** out, kel::StatusChain& status) const = 0;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_SLOT)
#undef ZQ_ORVANE_SLOT

    virtual bool freeAnsiStringArray(kel::NString* elements, kel::StatusChain& status) const = 0;
    virtual bool freeStringArray(kel::WString* elements, kel::StatusChain& status) const = 0;

    // The value record: u32 format version 1, u32 tag, payload. serialize
    // throws BufferOverflow, deserialize DeserializationError.
    virtual uint32_t serializationSize() const = 0;
    virtual void serialize(unsigned char*& cursor, const unsigned char* end) const = 0;
    virtual void deserialize(const unsigned char*& cursor, const unsigned char* end) = 0;

    // Bytes this value weighs in the caches' memory budget.
    virtual uint32_t getMemUsage() const = 0;
    virtual kel::WString toString() const = 0;

  protected:
    ~IBucketValue() = default;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IBUCKETVALUE_H
