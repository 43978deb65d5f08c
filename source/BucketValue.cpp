#include "zq/orvane/BucketValue.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "kel/Memory.h"
#include "kel/Throw.h"
#include "source/Guard.h"
#include "source/RecordReader.h"
#include "source/RecordWriter.h"
#include "source/ValueTraits.h"

namespace zq {
namespace orvane {

using kel::NString;
using kel::StatusChain;
using kel::WString;

namespace {

constexpr uint32_t kValueFormatVersion = 1;
constexpr uint32_t kHeaderSize = 8;     // format version and tag
constexpr uint32_t kCountSize = 4;      // the element count of an array
constexpr uint32_t kValueMemory = 32;   // what the value object weighs
constexpr uint32_t kDigestMemory = 40;  // what an owned digest weighs

// A setter or getter can only run out of memory; a support-library exception
// while copying strings counts as that too.
constexpr ErrorCodes kValueCodes = {status::kUnexpected, status::kOutOfMemory, status::kUnexpected};

template <class T>
void destroyElements(T* elements, uint32_t count) noexcept {
    if constexpr (!std::is_trivially_destructible<T>::value) {
        for (uint32_t i = 0; i < count; ++i) {
            elements[i].~T();
        }
    }
}

// A C-heap block of T being filled: what was built is destroyed and the block
// freed unless it is released, so a throw half way leaks nothing.
template <class T>
class ElementBlock {
  public:
    explicit ElementBlock(uint32_t count)
        : block_(static_cast<T*>(kel::allocateArray(count, sizeof(T)))), built_(0) {}
    ElementBlock(const ElementBlock&) = delete;
    ElementBlock& operator=(const ElementBlock&) = delete;
    ~ElementBlock() {
        if (block_ != nullptr) {
            destroyElements(block_, built_);
            kel::deallocate(block_);
        }
    }

    template <class... Args>
    T& emplace(Args&&... args) {
        T* element = new (block_ + built_) T(std::forward<Args>(args)...);
        ++built_;
        return *element;
    }
    T* data() { return block_; }
    T* release() {
        T* block = block_;
        block_ = nullptr;
        return block;
    }

  private:
    T* block_;
    uint32_t built_;
};

// A new block holding `count` elements converted from `source`.
template <class To, class From>
To* copyBlock(const From* source, uint32_t count) {
    ElementBlock<To> block(count);
    for (uint32_t i = 0; i < count; ++i) {
        block.emplace(static_cast<To>(source[i]));
    }
    return block.release();
}

// Narrow form: u32 characters + 1, the characters, a 0 byte. Wide form: the
// string's own stored form (u32 UTF-8 byte count, the bytes).
uint32_t formSize(const NString& text) { return 4 + static_cast<uint32_t>(text.length()) + 1; }
uint32_t formSize(const WString& text) { return text.serializationSize(); }
constexpr size_t minFormSize(const NString*) { return 5; }
constexpr size_t minFormSize(const WString*) { return 4; }

void writeForm(RecordWriter& writer, const NString& text) {
    const uint32_t counted = static_cast<uint32_t>(text.length()) + 1;
    writer.u32(counted);
    writer.bytes(text.c_str(), counted);  // c_str ends with the 0 byte
}
void writeForm(RecordWriter& writer, const WString& text) { writer.serialized(text); }

// The second argument only picks the form.
NString readForm(RecordReader& reader, const NString*) {
    uint32_t length = 0;
    const unsigned char* text = reader.narrowText(length);
    return NString(reinterpret_cast<const char*>(text), length);
}
WString readForm(RecordReader& reader, const WString*) {
    WString text;
    text.deserialize(reader.cursor(), reader.end());
    return text;
}

uint32_t memoryOf(const NString& text) { return static_cast<uint32_t>(text.capacity()); }
uint32_t memoryOf(const WString& text) { return static_cast<uint32_t>(text.capacity()) * 4; }

template <class T>
T* cloneObject(const void* object) {
    return object == nullptr ? nullptr : new T(*static_cast<const T*>(object));
}

template <class T>
bool sameObject(const void* a, const void* b) {
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return *static_cast<const T*>(a) == *static_cast<const T*>(b);
}

template <class T>
bool sameElements(const void* a, const void* b, uint32_t count) {
    const T* x = static_cast<const T*>(a);
    const T* y = static_cast<const T*>(b);
    for (uint32_t i = 0; i < count; ++i) {
        if (!(x[i] == y[i])) {
            return false;
        }
    }
    return true;
}

template <class T>
uint32_t formsSize(const void* elements, uint32_t count) {
    uint32_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        total += formSize(static_cast<const T*>(elements)[i]);
    }
    return total;
}

template <class T>
uint32_t elementsMemory(const void* elements, uint32_t count) {
    uint32_t total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        total += memoryOf(static_cast<const T*>(elements)[i]);
    }
    return total;
}

// Narrow text is UTF-8 when it came through the string class, but a record may
// hold any bytes; those are shown one character per byte rather than lost.
WString widen(const NString& text) {
    try {
        return WString(text);
    } catch (const kel::exception::Exception&) {
        WString wide;
        for (size_t i = 0; i < text.length(); ++i) {
            wide += static_cast<wchar_t>(static_cast<unsigned char>(text[i]));
        }
        return wide;
    }
}

WString formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
WString formatted(const char* format, ...) {
    // Room for any double in %f (up to 309 integer digits).
    char text[400];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return WString(text);
}

}  // namespace

BucketValue::BucketValue() : tag_(kNOTSET), storage_(), count_(0), elements_(nullptr) {}

BucketValue::BucketValue(const BucketValue& other)
    : RefCountedImplementation(), tag_(kNOTSET), storage_(), count_(0), elements_(nullptr) {
    copyPayload(other);
}

BucketValue::~BucketValue() { clear(); }

void BucketValue::clear() noexcept {
    switch (traitsOf(tag_).shape) {
        case ValueShape::kDigest:
            delete static_cast<Digest*>(storage_.object);
            break;
        case ValueShape::kAnsiString:
            delete static_cast<NString*>(storage_.object);
            break;
        case ValueShape::kString:
            delete static_cast<WString*>(storage_.object);
            break;
        case ValueShape::kBlob:
            kel::deallocate(storage_.blob.bytes);
            break;
        case ValueShape::kAnsiStringArray:
            destroyElements(static_cast<NString*>(elements_), count_);
            kel::deallocate(elements_);
            break;
        case ValueShape::kStringArray:
            destroyElements(static_cast<WString*>(elements_), count_);
            kel::deallocate(elements_);
            break;
        case ValueShape::kPlainArray:
            kel::deallocate(elements_);
            break;
        case ValueShape::kUnset:
        case ValueShape::kScalar:
            break;
    }
    // The count stays: it is only read under an array tag (and by getArraySize).
    tag_ = kNOTSET;
    storage_ = Storage();
    elements_ = nullptr;
}

// Builds the whole payload before taking the tag, so a throw leaves this
// value unset and owning nothing.
void BucketValue::copyPayload(const BucketValue& other) {
    const ValueTraits& traits = traitsOf(other.tag_);
    switch (traits.shape) {
        case ValueShape::kDigest:
            storage_.object = cloneObject<Digest>(other.storage_.object);
            break;
        case ValueShape::kAnsiString:
            storage_.object = cloneObject<NString>(other.storage_.object);
            break;
        case ValueShape::kString:
            storage_.object = cloneObject<WString>(other.storage_.object);
            break;
        case ValueShape::kBlob:
            storage_.blob.bytes =
                copyBlock<unsigned char>(other.storage_.blob.bytes, other.storage_.blob.size);
            storage_.blob.size = other.storage_.blob.size;
            break;
        case ValueShape::kScalar:
            storage_ = other.storage_;
            break;
        case ValueShape::kAnsiStringArray:
            elements_ = copyBlock<NString>(other.elements<NString>(), other.count_);
            break;
        case ValueShape::kStringArray:
            elements_ = copyBlock<WString>(other.elements<WString>(), other.count_);
            break;
        case ValueShape::kPlainArray:
            elements_ = copyBlock<unsigned char>(other.elements<unsigned char>(),
                                                 other.count_ * traits.width);
            break;
        case ValueShape::kUnset:
            break;
    }
    count_ = other.count_;
    tag_ = other.tag_;
}

// ---- the generic paths behind the typed operations

template <class T>
T BucketValue::loadScalar() const {
    typename Stored<T>::type stored;
    std::memcpy(&stored, storage_.scalar, sizeof stored);
    return static_cast<T>(stored);
}

template <class T>
void BucketValue::storeScalar(T value) {
    const auto stored = static_cast<typename Stored<T>::type>(value);
    std::memcpy(storage_.scalar, &stored, sizeof stored);
}

template <class T>
bool BucketValue::setScalar(uint32_t tag, T value, StatusChain& status) {
    return guarded(status, kValueCodes, [&] {
        clear();
        storeScalar(value);
        tag_ = tag;
        return true;
    });
}

template <class T>
T BucketValue::getScalar(uint32_t tag, StatusChain& status) const {
    return guarded(status, kValueCodes, [&] {
        if (tag_ != tag) {
            status.setCode(status::kWrongType);
            return T();
        }
        return loadScalar<T>();
    });
}

template <class T>
bool BucketValue::setObject(uint32_t tag, const T& value, StatusChain& status) {
    return guarded(status, kValueCodes, [&] {
        clear();
        storage_.object = new T(value);
        tag_ = tag;
        return true;
    });
}

template <class T>
T BucketValue::getObject(uint32_t tag, StatusChain& status) const {
    return guarded(status, kValueCodes, [&] {
        if (tag_ != tag) {
            status.setCode(status::kWrongType);
            return T();
        }
        if (storage_.object == nullptr) {
            status.setCode(status::kNoData);
            return T();
        }
        return object<T>();
    });
}

template <class T>
bool BucketValue::setArray(uint32_t tag, const T* elements, uint32_t count, StatusChain& status) {
    return guarded(status, kValueCodes, [&] {
        clear();
        if (elements == nullptr && count != 0) {
            status.setCode(status::kNullArgument);
            return false;
        }
        elements_ = copyBlock<typename Stored<T>::type>(elements, count);
        count_ = count;
        tag_ = tag;
        return true;
    });
}

template <class T>
T BucketValue::getElement(uint32_t tag, uint32_t index, StatusChain& status) const {
    return guarded(status, kValueCodes, [&] {
        if (tag_ != tag) {
            status.setCode(status::kWrongType);
            return T();
        }
        if (index >= count_) {
            status.setCode(status::kIndexOutOfRange);
            return T();
        }
        return static_cast<T>(elements<typename Stored<T>::type>()[index]);
    });
}

template <class T>
uint32_t BucketValue::copyOut(uint32_t tag, T** out, StatusChain& status) const {
    return guarded(status, kValueCodes, [&]() -> uint32_t {
        if (tag_ != tag) {
            status.setCode(status::kWrongType);
            return 0;
        }
        if (out == nullptr) {
            status.setCode(status::kNullArgument);
            return 0;
        }
        if (count_ == 0) {
            status.setCode(status::kNoData);
            return 0;
        }
        *out = copyBlock<T>(elements<typename Stored<T>::type>(), count_);
        return count_;
    });
}

// Destroys as many strings as this value holds now: the block must have come
// from this value while it held the same array.
template <class T>
bool BucketValue::freeCopy(uint32_t tag, T* elements, StatusChain& status) const {
    return guarded(status, kValueCodes, [&] {
        if (tag_ != tag) {
            status.setCode(status::kWrongType);
            return false;
        }
        if (elements == nullptr) {
            status.setCode(status::kNullArgument);
            return false;
        }
        destroyElements(elements, count_);
        kel::deallocate(elements);
        return true;
    });
}

// ---- the typed operations: one line each onto the paths above

bool BucketValue::setDigest(const Digest& value, StatusChain& status) {
    return setObject(kDIGEST, value, status);
}
bool BucketValue::setAnsiString(const NString& value, StatusChain& status) {
    return setObject(kANSISTRING, value, status);
}
bool BucketValue::setString(const WString& value, StatusChain& status) {
    return setObject(kSTRING, value, status);
}
Digest BucketValue::getDigest(StatusChain& status) const {
    return getObject<Digest>(kDIGEST, status);
}
NString BucketValue::getAnsiString(StatusChain& status) const {
    return getObject<NString>(kANSISTRING, status);
}
WString BucketValue::getString(StatusChain& status) const {
    return getObject<WString>(kSTRING, status);
}

bool BucketValue::setAnsiStringArray(const NString* elements, uint32_t count, StatusChain& status) {
    return setArray(kANSISTRINGARRAY, elements, count, status);
}
bool BucketValue::setStringArray(const WString* elements, uint32_t count, StatusChain& status) {
    return setArray(kSTRINGARRAY, elements, count, status);
}
NString BucketValue::getAnsiStringArrayElement(uint32_t index, StatusChain& status) const {
    return getElement<NString>(kANSISTRINGARRAY, index, status);
}
WString BucketValue::getStringArrayElement(uint32_t index, StatusChain& status) const {
    return getElement<WString>(kSTRINGARRAY, index, status);
}
uint32_t BucketValue::getAnsiStringArray(NString** out, StatusChain& status) const {
    return copyOut(kANSISTRINGARRAY, out, status);
}
uint32_t BucketValue::getStringArray(WString** out, StatusChain& status) const {
    return copyOut(kSTRINGARRAY, out, status);
}
bool BucketValue::freeAnsiStringArray(NString* elements, StatusChain& status) const {
    return freeCopy(kANSISTRINGARRAY, elements, status);
}
bool BucketValue::freeStringArray(WString* elements, StatusChain& status) const {
    return freeCopy(kSTRINGARRAY, elements, status);
}

#define ZQ_ORVANE_DEFINE(Name, Type, Tag, ArrayTag)                                        \
    bool BucketValue::set##Name(Type value, StatusChain& status) {                         \
        return setScalar(Tag, value, status);                                              \
    }                                                                                      \
    bool BucketValue::set##Name##Array(const Type* elements, uint32_t count,               \
                                       StatusChain& status) {                              \
        return setArray(ArrayTag, elements, count, status);                                \
    }                                                                                      \
    Type BucketValue::get##Name(StatusChain& status) const {                               \
        return getScalar<Type>(Tag, status);                                               \
    }                                                                                      \
    Type BucketValue::get##Name##ArrayElement(uint32_t index, StatusChain& status) const { \
        return getElement<Type>(ArrayTag, index, status);                                  \
    }                                                                                      \
    uint32_t BucketValue::get##Name##Array(Type** out, StatusChain& status) const {        \
        return copyOut(ArrayTag, out, status);                                             \
    }
ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DEFINE)
#undef ZQ_ORVANE_DEFINE

// ---- blobs

bool BucketValue::setBlob(const unsigned char* bytes, uint32_t size, StatusChain& status) {
    return guarded(status, kValueCodes, [&] {
        clear();
        if (bytes == nullptr && size != 0) {
            status.setCode(status::kNullArgument);
            return false;
        }
        storage_.blob.bytes = copyBlock<unsigned char>(bytes, size);
        storage_.blob.size = size;
        tag_ = kBLOB;
        return true;
    });
}

uint32_t BucketValue::getBlob(unsigned char* buffer, uint32_t size, StatusChain& status) const {
    return guarded(status, kValueCodes, [&]() -> uint32_t {
        if (tag_ != kBLOB) {
            status.setCode(status::kWrongType);
            return 0;
        }
        const Blob& blob = storage_.blob;
        if (blob.bytes == nullptr) {
            status.setCode(status::kNoData);
            return 0;
        }
        if (size == 0) {
            return blob.size;  // how a caller asks for the size
        }
        if (size < blob.size) {
            status.setCode(status::kBufferTooSmall);
            return blob.size;
        }
        if (buffer == nullptr) {
            status.setCode(status::kNullArgument);
            return 0;
        }
        std::memcpy(buffer, blob.bytes, blob.size);
        return blob.size;
    });
}

uint32_t BucketValue::getBlobSize(StatusChain& status) const {
    return guarded(status, kValueCodes, [&]() -> uint32_t {
        if (tag_ != kBLOB) {
            status.setCode(status::kWrongType);
            return 0;
        }
        return storage_.blob.size;
    });
}

// ---- comparison

bool BucketValue::isEqual(const kel::AutoRef<IBucketValue>& a,
                          const kel::AutoRef<IBucketValue>& b) const {
    if (!a || !b) {
        return !a && !b;
    }
    // BucketValue is the only implementation of the interface.
    return static_cast<const BucketValue*>(a.get())->equals(
        *static_cast<const BucketValue*>(b.get()));
}

bool BucketValue::equals(const BucketValue& other) const {
    if (tag_ != other.tag_) {
        return false;
    }
    if (serializationSize() != other.serializationSize()) {
        return false;
    }
    return equalPayload(other);
}

bool BucketValue::equalPayload(const BucketValue& other) const {
    switch (traitsOf(tag_).shape) {
        case ValueShape::kUnset:
            return tag_ == kNOTSET;  // an unknown tag equals nothing
        case ValueShape::kDigest:
            return sameObject<Digest>(storage_.object, other.storage_.object);
        case ValueShape::kAnsiString:
            return sameObject<NString>(storage_.object, other.storage_.object);
        case ValueShape::kString:
            return sameObject<WString>(storage_.object, other.storage_.object);
        case ValueShape::kBlob:
            return std::memcmp(storage_.blob.bytes, other.storage_.blob.bytes,
                               storage_.blob.size) == 0;
        case ValueShape::kScalar:
            // Floating point compares numerically: NaN equals nothing, -0 equals +0.
            return visitPlain(tag_, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                return loadScalar<T>() == other.loadScalar<T>();
            });
        case ValueShape::kAnsiStringArray:
            return count_ == other.count_ &&
                   sameElements<NString>(elements_, other.elements_, count_);
        case ValueShape::kStringArray:
            return count_ == other.count_ &&
                   sameElements<WString>(elements_, other.elements_, count_);
        case ValueShape::kPlainArray:
            if (count_ != other.count_) {
                return false;
            }
            if (tag_ == kINT64ARRAY) {
                // Kept as existing stores expect: count 32-bit words are
                // compared, the first half of the data only.
                return std::memcmp(elements_, other.elements_, count_ * sizeof(uint32_t)) == 0;
            }
            return visitPlain(tag_, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                return sameElements<T>(elements_, other.elements_, count_);
            });
    }
    return false;
}

// ---- the record

uint32_t BucketValue::serializationSize() const {
    const ValueTraits& traits = traitsOf(tag_);
    switch (traits.shape) {
        case ValueShape::kUnset:
            return kHeaderSize;
        case ValueShape::kDigest:
            return kHeaderSize + Digest::kSize;
        case ValueShape::kAnsiString:
            return kHeaderSize + formSize(object<NString>());
        case ValueShape::kString:
            return kHeaderSize + formSize(object<WString>());
        case ValueShape::kBlob:
            return kHeaderSize + 4 + storage_.blob.size;
        case ValueShape::kScalar:
            return kHeaderSize + traits.width;
        case ValueShape::kAnsiStringArray:
            return kHeaderSize + kCountSize + formsSize<NString>(elements_, count_);
        case ValueShape::kStringArray:
            return kHeaderSize + kCountSize + formsSize<WString>(elements_, count_);
        case ValueShape::kPlainArray:
            return kHeaderSize + kCountSize + count_ * traits.width;
    }
    return kHeaderSize;
}

void BucketValue::serialize(unsigned char*& cursor, const unsigned char* end) const {
    RecordWriter writer(cursor, end);
    writer.require(serializationSize());
    writeRecord(writer);
}

void BucketValue::writeRecord(RecordWriter& writer) const {
    writer.u32(kValueFormatVersion);
    writer.u32(tag_);
    switch (traitsOf(tag_).shape) {
        case ValueShape::kUnset:
            break;
        case ValueShape::kDigest:
            writer.bytes(object<Digest>().bytes(), Digest::kSize);
            break;
        case ValueShape::kAnsiString:
            writeForm(writer, object<NString>());
            break;
        case ValueShape::kString:
            writeForm(writer, object<WString>());
            break;
        case ValueShape::kBlob:
            writer.u32(storage_.blob.size);
            writer.bytes(storage_.blob.bytes, storage_.blob.size);
            break;
        case ValueShape::kScalar:
            visitPlain(tag_, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                const T value = loadScalar<T>();
                writer.numbers(&value, 1);
            });
            break;
        case ValueShape::kAnsiStringArray:
            writer.u32(count_);
            for (uint32_t i = 0; i < count_; ++i) {
                writeForm(writer, elements<NString>()[i]);
            }
            break;
        case ValueShape::kStringArray:
            writer.u32(count_);
            for (uint32_t i = 0; i < count_; ++i) {
                writeForm(writer, elements<WString>()[i]);
            }
            break;
        case ValueShape::kPlainArray:
            writer.u32(count_);
            visitPlain(tag_, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                writer.numbers(elements<T>(), count_);
            });
            break;
    }
}

void BucketValue::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    try {
        readRecord(cursor, end);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ZQ_THROW(DeserializationError);
    }
}

void BucketValue::readRecord(const unsigned char*& cursor, const unsigned char* end) {
    clear();
    try {
        RecordReader reader(cursor, end);
        reader.u32();  // the format version: written for the future, never checked
        const uint32_t tag = reader.u32();
        if (!isKnownType(tag)) {
            // Kept with no payload: prints as unset and equals nothing.
            tag_ = tag;
            return;
        }
        readPayload(tag, reader);
    } catch (const kel::exception::DeserializationError&) {
        throw;
    } catch (const kel::exception::Exception&) {
        // Bad UTF-8 in a wide string, a length past what a string can hold.
        ZQ_THROW(DeserializationError);
    }
}

// Every length is checked against the remaining input before anything is
// allocated for it; the tag is set only once the payload is complete.
void BucketValue::readPayload(uint32_t tag, RecordReader& reader) {
    switch (traitsOf(tag).shape) {
        case ValueShape::kDigest: {
            const unsigned char* bytes = reader.take(Digest::kSize);
            storage_.object = new Digest(bytes, bytes + Digest::kSize);
            break;
        }
        case ValueShape::kAnsiString:
            storage_.object = new NString(readForm(reader, static_cast<const NString*>(nullptr)));
            break;
        case ValueShape::kString:
            storage_.object = new WString(readForm(reader, static_cast<const WString*>(nullptr)));
            break;
        case ValueShape::kBlob: {
            const uint32_t size = reader.u32();
            storage_.blob.bytes = copyBlock<unsigned char>(reader.take(size), size);
            storage_.blob.size = size;
            break;
        }
        case ValueShape::kScalar:
            visitPlain(tag, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                T value;
                reader.numbers(&value, 1);
                std::memcpy(storage_.scalar, &value, sizeof value);
            });
            break;
        case ValueShape::kAnsiStringArray:
            readStrings<NString>(reader);
            break;
        case ValueShape::kStringArray:
            readStrings<WString>(reader);
            break;
        case ValueShape::kPlainArray: {
            const uint32_t count = reader.u32();
            visitPlain(tag, [&](auto type) {
                using T = typename Stored<typename decltype(type)::type>::type;
                reader.requireItems(count, sizeof(T));
                ElementBlock<T> block(count);
                reader.numbers(block.data(), count);
                elements_ = block.release();
            });
            count_ = count;
            break;
        }
        case ValueShape::kUnset:
            break;
    }
    tag_ = tag;
}

template <class T>
void BucketValue::readStrings(RecordReader& reader) {
    const uint32_t count = reader.u32();
    reader.requireItems(count, minFormSize(static_cast<const T*>(nullptr)));
    ElementBlock<T> block(count);
    for (uint32_t i = 0; i < count; ++i) {
        block.emplace(readForm(reader, static_cast<const T*>(nullptr)));
    }
    elements_ = block.release();
    count_ = count;
}

// ---- accounting and text

uint32_t BucketValue::getMemUsage() const {
    const ValueTraits& traits = traitsOf(tag_);
    switch (traits.shape) {
        case ValueShape::kDigest:
            return kValueMemory + kDigestMemory;
        case ValueShape::kAnsiString:
            return kValueMemory + memoryOf(object<NString>());
        case ValueShape::kString:
            return kValueMemory + memoryOf(object<WString>());
        case ValueShape::kBlob:
            return kValueMemory + storage_.blob.size;
        case ValueShape::kAnsiStringArray:
            return kValueMemory + elementsMemory<NString>(elements_, count_);
        case ValueShape::kStringArray:
            return kValueMemory + elementsMemory<WString>(elements_, count_);
        case ValueShape::kPlainArray:
            return kValueMemory + count_ * traits.width;
        case ValueShape::kUnset:
        case ValueShape::kScalar:
            break;
    }
    return kValueMemory;
}

WString BucketValue::toString() const {
    const ValueTraits& traits = traitsOf(tag_);
    switch (traits.shape) {
        case ValueShape::kDigest: {
            WString text;
            return object<Digest>().getString(text);
        }
        case ValueShape::kAnsiString:
            return widen(object<NString>());
        case ValueShape::kString:
            return object<WString>();
        case ValueShape::kBlob:
            return WString(L"<blob data>");
        case ValueShape::kScalar:
            return scalarText();
        case ValueShape::kAnsiStringArray:
        case ValueShape::kStringArray:
        case ValueShape::kPlainArray:
            return formatted("<%s[%d]>", traits.name, static_cast<int>(count_));
        case ValueShape::kUnset:
            break;
    }
    return WString(L"kNOTSET");
}

// Every integer width prints through "%d": readers of the dump rely on it, so
// unsigned 32-bit values from 2^31 print negative and 64-bit values print only
// their low 32 bits.
WString BucketValue::scalarText() const {
    if (tag_ == kBOOL) {
        return WString(loadScalar<uint8_t>() != 0 ? L"true" : L"false");
    }
    return visitPlain(tag_, [&](auto type) {
        using T = typename Stored<typename decltype(type)::type>::type;
        const T value = loadScalar<T>();
        if constexpr (std::is_floating_point<T>::value) {
            return formatted("%f", static_cast<double>(value));
        } else {
            return formatted("%d", static_cast<int32_t>(static_cast<uint32_t>(value)));
        }
    });
}

}  // namespace orvane
}  // namespace zq
