#ifndef ZQ_ORVANE_BUCKETVALUE_H
#define ZQ_ORVANE_BUCKETVALUE_H

#include <cstdint>

#include "zq/kel/RefCounted.h"
#include "zq/orvane/IBucketValue.h"

namespace zq {
namespace orvane {

class RecordReader;
class RecordWriter;

// The one implementation of IBucketValue. It owns its payload: owned objects
// (digest, strings) come from new, blobs and element blocks from the C heap.
// No lock: see IBucketValue.
class ZQ_EXPORT BucketValue
    : public kel::RefCountedImplementation<IBucketValue, kel::RefCountedThreadSafePolicy> {
  public:
    BucketValue();
    // A deep copy; throws std::bad_alloc.
    BucketValue(const BucketValue& other);
    BucketValue& operator=(const BucketValue&) = delete;
    ~BucketValue() override;

    uint32_t getType() const override { return tag_; }
    uint32_t getArraySize() const override { return count_; }
    bool isEqual(const kel::AutoRef<IBucketValue>& a,
                 const kel::AutoRef<IBucketValue>& b) const override;

    bool setDigest(const Digest& value, kel::StatusChain& status) override;
    bool setAnsiString(const kel::NString& value, kel::StatusChain& status) override;
    bool setString(const kel::WString& value, kel::StatusChain& status) override;
    bool setBlob(const unsigned char* bytes, uint32_t size, kel::StatusChain& status) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    bool set##Name(Type value, kel::StatusChain& status) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    bool setAnsiStringArray(const kel::NString* elements, uint32_t count,
                            kel::StatusChain& status) override;
    bool setStringArray(const kel::WString* elements, uint32_t count,
                        kel::StatusChain& status) override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    bool set##Name##Array(const Type* elements, uint32_t count, kel::StatusChain& status) override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    Digest getDigest(kel::StatusChain& status) const override;
    kel::NString getAnsiString(kel::StatusChain& status) const override;
    kel::WString getString(kel::StatusChain& status) const override;
    uint32_t getBlob(unsigned char* buffer, uint32_t size, kel::StatusChain& status) const override;
    uint32_t getBlobSize(kel::StatusChain& status) const override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    Type get##Name(kel::StatusChain& status) const override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    kel::NString getAnsiStringArrayElement(uint32_t index, kel::StatusChain& status) const override;
    kel::WString getStringArrayElement(uint32_t index, kel::StatusChain& status) const override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    Type get##Name##ArrayElement(uint32_t index, kel::StatusChain& status) const override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    uint32_t getAnsiStringArray(kel::NString** out, kel::StatusChain& status) const override;
    uint32_t getStringArray(kel::WString** out, kel::StatusChain& status) const override;
#define ZQ_ORVANE_DECLARE(Name, Type, Tag, ArrayTag) \
    uint32_t get##Name##Array(Type** out, kel::StatusChain& status) const override;
    ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DECLARE)
#undef ZQ_ORVANE_DECLARE

    bool freeAnsiStringArray(kel::NString* elements, kel::StatusChain& status) const override;
    bool freeStringArray(kel::WString* elements, kel::StatusChain& status) const override;

    uint32_t serializationSize() const override;
    void serialize(unsigned char*& cursor, const unsigned char* end) const override;
    void deserialize(const unsigned char*& cursor, const unsigned char* end) override;
    uint32_t getMemUsage() const override;
    kel::WString toString() const override;

    // serialize without its own check of the space: for a caller that has
    // checked it for a whole record of which this value is part.
    void writeRecord(RecordWriter& writer) const;
    // deserialize, except that lack of memory throws std::bad_alloc: for a
    // caller that reports it as such, not as damage.
    void readRecord(const unsigned char*& cursor, const unsigned char* end);

    // The deep comparison behind isEqual.
    bool equals(const BucketValue& other) const;
    // Frees the payload and leaves the value unset; the element count stays.
    void clear() noexcept;

  private:
    struct Blob {
        unsigned char* bytes;
        uint32_t size;
    };
    // Interpreted by the tag: a scalar at the start of `scalar`, the blob, or
    // the owned Digest, NString or WString.
    union Storage {
        unsigned char scalar[8];
        Blob blob;
        void* object;
    };

    template <class T>
    bool setScalar(uint32_t tag, T value, kel::StatusChain& status);
    template <class T>
    T getScalar(uint32_t tag, kel::StatusChain& status) const;
    template <class T>
    bool setObject(uint32_t tag, const T& value, kel::StatusChain& status);
    template <class T>
    T getObject(uint32_t tag, kel::StatusChain& status) const;
    template <class T>
    bool setArray(uint32_t tag, const T* elements, uint32_t count, kel::StatusChain& status);
    template <class T>
    T getElement(uint32_t tag, uint32_t index, kel::StatusChain& status) const;
    template <class T>
    uint32_t copyOut(uint32_t tag, T** out, kel::StatusChain& status) const;
    template <class T>
    bool freeCopy(uint32_t tag, T* elements, kel::StatusChain& status) const;

    template <class T>
    T loadScalar() const;
    template <class T>
    void storeScalar(T value);
    template <class T>
    const T& object() const {
        return *static_cast<const T*>(storage_.object);
    }
    template <class T>
    const T* elements() const {
        return static_cast<const T*>(elements_);
    }
    template <class T>
    void readStrings(RecordReader& reader);

    bool equalPayload(const BucketValue& other) const;
    void copyPayload(const BucketValue& other);
    void readPayload(uint32_t tag, RecordReader& reader);
    kel::WString scalarText() const;

    uint32_t tag_;
    Storage storage_;
    uint32_t count_;
    void* elements_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETVALUE_H
