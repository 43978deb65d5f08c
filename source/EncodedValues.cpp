#include "source/EncodedValues.h"

#include <cstring>

#include "kel/CaseFold.h"
#include "kel/Endian.h"
#include "kel/Throw.h"
#include "kel/Utf8.h"
#include "source/RecordReader.h"
#include "source/RecordWriter.h"
#include "source/ValueTraits.h"
#include "zq/orvane/Digest.h"

namespace zq {
namespace orvane {

using kel::AutoRef;
using kel::WString;

namespace {

constexpr size_t kLengthField = 4;
// What a value accounts for before its payload, and a digest's payload.
constexpr uint32_t kValueMemory = 32;
constexpr uint32_t kDigestMemory = 40;
constexpr uint32_t kValueFormatVersion = 1;

wchar_t fold(wchar_t ch) { return kel::foldUpper(ch); }

// The characters of a name as a record stores them (UTF-8, already checked).
class StoredName {
  public:
    explicit StoredName(const unsigned char* form)
        : at_(form + kLengthField), end_(at_ + kel::getU32(form)) {}
    bool done() const { return at_ == end_; }
    wchar_t next() {
        if (*at_ < 0x80) {
            return static_cast<wchar_t>(*at_++);
        }
        uint32_t value = 0;
        at_ += kel::utf8::decode(at_, end_, &value);
        return static_cast<wchar_t>(value);
    }

  private:
    const unsigned char* at_;
    const unsigned char* end_;
};

class WideName {
  public:
    explicit WideName(const WString& name) : at_(name.begin()), end_(name.end()) {}
    bool done() const { return at_ == end_; }
    wchar_t next() { return *at_++; }

  private:
    const wchar_t* at_;
    const wchar_t* end_;
};

// The order of FoldedOrder, or with `folding` false the plain spelling.
template <class A, class B>
int compareNames(A a, B b, bool folding) {
    while (!a.done() && !b.done()) {
        wchar_t x = a.next();
        wchar_t y = b.next();
        if (folding) {
            x = fold(x);
            y = fold(y);
        }
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    if (a.done()) {
        return b.done() ? 0 : -1;
    }
    return 1;
}

// Whether a check of the stored form holds; the walks below clear it where a
// decode and a new encode would not give back the same bytes.
struct Form {
    bool kept = true;
};

// One string form as BucketValue reads it, throwing where it would; returns
// its characters (wide) or bytes (narrow), what the decoded string's capacity
// would be. A character in a longer sequence than the encoder writes is not
// in the stored form.
uint32_t skipWide(RecordReader& reader, Form& form) {
    const uint32_t bytes = reader.u32();
    const unsigned char* in = reader.take(bytes);
    const unsigned char* end = in + bytes;
    uint32_t characters = 0;
    while (in != end) {
        if (*in < 0x80) {
            ++in;
        } else {
            uint32_t value = 0;
            const size_t length = kel::utf8::decode(in, end, &value);
            form.kept = form.kept && kel::utf8::encodedLength(value) == length;
            in += length;
        }
        ++characters;
    }
    return characters;
}

uint32_t skipNarrow(RecordReader& reader, Form&) {
    uint32_t length = 0;
    reader.narrowText(length);
    return length;
}

template <class Skip>
uint32_t skipForms(RecordReader& reader, size_t smallest, Skip skip, Form& form) {
    const uint32_t count = reader.u32();
    reader.requireItems(count, smallest);
    uint32_t memory = 0;
    for (uint32_t i = 0; i < count; ++i) {
        memory += skip(reader, form);
    }
    return memory;
}

// Walks one value as BucketValue::deserialize reads it, throwing where it
// would, and returns what the decoded value would account for
// (BucketValue::getMemUsage). An unknown tag has no payload there either.
// The version is never checked, but only the one written is in the stored form.
uint32_t skipValue(RecordReader& reader, Form& form) {
    form.kept = form.kept && reader.u32() == kValueFormatVersion;
    const uint32_t tag = reader.u32();
    if (!isKnownType(tag)) {
        form.kept = false;
        return kValueMemory;
    }
    const ValueTraits& traits = traitsOf(tag);
    switch (traits.shape) {
        case ValueShape::kDigest:
            reader.take(Digest::kSize);
            return kValueMemory + kDigestMemory;
        case ValueShape::kAnsiString:
            return kValueMemory + skipNarrow(reader, form);
        case ValueShape::kString:
            return kValueMemory + 4 * skipWide(reader, form);
        case ValueShape::kBlob: {
            const uint32_t size = reader.u32();
            reader.take(size);
            return kValueMemory + size;
        }
        case ValueShape::kScalar:
            reader.take(traits.width);
            return kValueMemory;
        case ValueShape::kAnsiStringArray:
            return kValueMemory + skipForms(reader, 5, skipNarrow, form);
        case ValueShape::kStringArray:
            return kValueMemory + 4 * skipForms(reader, 4, skipWide, form);
        case ValueShape::kPlainArray: {
            const uint32_t count = reader.u32();
            reader.requireItems(count, traits.width);
            reader.take(static_cast<size_t>(count) * traits.width);
            return kValueMemory + count * traits.width;
        }
        case ValueShape::kUnset:
            break;
    }
    return kValueMemory;
}

uint32_t offsetOf(size_t offset) {
    if (offset > UINT32_MAX) {
        ZQ_THROW(DeserializationError);
    }
    return static_cast<uint32_t>(offset);
}

}  // namespace

EncodedValues::Ptr EncodedValues::read(RecordReader& reader, uint32_t count) {
    const unsigned char* const begin = reader.cursor();
    auto values = std::make_shared<EncodedValues>(Token());
    values->starts_.reserve(static_cast<size_t>(count) + 1);
    const unsigned char* previous = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned char* name = reader.cursor();
        values->starts_.push_back(offsetOf(static_cast<size_t>(name - begin)));
        Form form;
        values->memory_ += 4 * skipWide(reader, form);
        values->memory_ += skipValue(reader, form);
        const bool inOrder =
            previous == nullptr || compareNames(StoredName(previous), StoredName(name), true) < 0;
        if (!form.kept || kel::getU32(name) == 0 || !inOrder) {
            reader.cursor() = begin;
            return nullptr;
        }
        previous = name;
    }
    values->starts_.push_back(offsetOf(static_cast<size_t>(reader.cursor() - begin)));
    values->bytes_.assign(begin, reader.cursor());
    return values;
}

uint32_t EncodedValues::memoryOf(uint32_t index) const {
    const unsigned char* cursor = entry(index);
    RecordReader reader(cursor, entry(index + 1));
    Form form;
    const uint32_t name = 4 * skipWide(reader, form);
    return name + skipValue(reader, form);
}

const unsigned char* EncodedValues::valueOf(uint32_t index) const {
    const unsigned char* form = entry(index);
    return form + kLengthField + kel::getU32(form);
}

bool EncodedValues::find(const WString& name, uint32_t& index) const {
    uint32_t low = 0;
    uint32_t high = count();
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const int order = compareNames(StoredName(entry(middle)), WideName(name), true);
        if (order == 0) {
            index = middle;
            return true;
        }
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    index = low;
    return false;
}

WString EncodedValues::nameAt(uint32_t index) const {
    WString name;
    const unsigned char* cursor = entry(index);
    name.deserialize(cursor, valueOf(index));
    return name;
}

AutoRef<BucketValue> EncodedValues::valueAt(uint32_t index) const {
    AutoRef<BucketValue> value(new BucketValue());
    const unsigned char* cursor = valueOf(index);
    value->readRecord(cursor, entry(index + 1));
    return value;
}

uint32_t EncodedValues::tagAt(uint32_t index) const { return kel::getU32(valueOf(index) + 4); }

EncodedValues::Ptr EncodedValues::with(uint32_t index, bool replacing, const WString& name,
                                       const BucketValue& value) const {
    const uint32_t nameSize = name.serializationSize();
    const uint32_t valueSize = value.serializationSize();
    const uint32_t from = starts_[index];
    const uint32_t to = replacing ? starts_[index + 1] : from;
    const size_t added = static_cast<size_t>(nameSize) + valueSize;
    if (added > UINT32_MAX - (bytes_.size() - (to - from))) {
        return nullptr;
    }
    auto next = std::make_shared<EncodedValues>(Token());
    next->bytes_.resize(bytes_.size() - (to - from) + added);
    unsigned char* out = next->bytes_.data();
    std::memcpy(out, bytes_.data(), from);
    unsigned char* cursor = out + from;
    name.serialize(cursor, cursor + nameSize);
    RecordWriter writer(cursor, cursor + valueSize);
    value.writeRecord(writer);
    std::memcpy(out + from + added, bytes_.data() + to, bytes_.size() - to);

    const uint32_t skipped = replacing ? index + 1 : index;
    // Entries before `index` keep their place; the new one begins at `from`;
    // those after the replaced one move by the change in size.
    next->starts_.reserve(starts_.size() + 1 - (skipped - index));
    next->starts_.assign(starts_.begin(), starts_.begin() + index + 1);
    for (size_t i = skipped; i < starts_.size(); ++i) {
        next->starts_.push_back(static_cast<uint32_t>(starts_[i] - to + from + added));
    }
    if (!next->readsBackAs(index, name, value)) {
        return nullptr;
    }
    next->memory_ = memory_ - (replacing ? memoryOf(index) : 0) + next->memoryOf(index);
    return next;
}

EncodedValues::Ptr EncodedValues::without(uint32_t index) const {
    const uint32_t from = starts_[index];
    const uint32_t to = starts_[index + 1];
    auto next = std::make_shared<EncodedValues>(Token());
    next->bytes_.reserve(bytes_.size() - (to - from));
    next->bytes_.assign(bytes_.begin(), bytes_.begin() + from);
    next->bytes_.insert(next->bytes_.end(), bytes_.begin() + to, bytes_.end());
    next->starts_.reserve(starts_.size() - 1);
    next->starts_.assign(starts_.begin(), starts_.begin() + index);
    for (size_t i = index + 1; i < starts_.size(); ++i) {
        next->starts_.push_back(starts_[i] - (to - from));
    }
    next->memory_ = memory_ - memoryOf(index);
    return next;
}

// A name with a character the stored form cannot hold comes back as "?" or
// not at all; such an entry is kept decoded, as it would be without this form.
bool EncodedValues::readsBackAs(uint32_t index, const WString& name,
                                const BucketValue& value) const {
    try {
        const unsigned char* cursor = entry(index);
        RecordReader reader(cursor, entry(index + 1));
        Form form;
        skipWide(reader, form);
        if (compareNames(StoredName(entry(index)), WideName(name), false) != 0) {
            return false;
        }
        BucketValue stored;
        stored.deserialize(cursor, entry(index + 1));
        return cursor == entry(index + 1) && stored.equals(value);
    } catch (const kel::exception::Exception&) {
        return false;
    }
}

}  // namespace orvane
}  // namespace zq
