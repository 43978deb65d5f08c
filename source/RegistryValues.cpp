#include "source/RegistryValues.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

#include "source/BucketName.h"
#include "source/RegistryText.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

using kel::NString;
using kel::StatusChain;
using kel::WString;

// The interfaces count elements in 32 bits; a longer array would be cut.
template <class Size>
bool fitsCount(Size count, StatusChain& status) {
    if constexpr (sizeof(Size) > sizeof(uint32_t)) {
        if (count > UINT32_MAX) {
            status.setCode(status::kOverSizeLimit);
            return false;
        }
    }
    return true;
}

// The typed calls of one plain kind.
template <class T>
struct Plain;
#define ZQ_ORVANE_PLAIN(Name, Type, Tag, ArrayTag)                        \
    template <>                                                           \
    struct Plain<Type> {                                                  \
        static constexpr auto get = &IBucketValue::get##Name;             \
        static constexpr auto getArray = &IBucketValue::get##Name##Array; \
        static constexpr auto set = &IBucket::set##Name##Value;           \
        static constexpr auto setArray = &IBucket::set##Name##ArrayValue; \
    };
ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_PLAIN)
#undef ZQ_ORVANE_PLAIN

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

// A std::vector<bool> keeps bits, the interface wants bools.
template <class T>
const T* elementsOf(const std::vector<T>& values, std::unique_ptr<T[]>&) {
    return values.data();
}
const bool* elementsOf(const std::vector<bool>& values, std::unique_ptr<bool[]>& copy) {
    copy.reset(new bool[values.size()]);
    std::copy(values.begin(), values.end(), copy.get());
    return copy.get();
}

// read(value, status) and store(bucket, name, value, status) of one type of
// Value, by shape.
template <class T, class = void>
struct Codec;

template <>
struct Codec<std::monostate> {
    static std::monostate read(const IBucketValue&, StatusChain&) { return {}; }
    static bool store(IBucket&, const WString&, std::monostate, StatusChain& status) {
        status.setCode(status::kNullValue);
        return false;
    }
};

template <>
struct Codec<Digest> {
    static Digest read(const IBucketValue& value, StatusChain& status) {
        return value.getDigest(status);
    }
    static bool store(IBucket& bucket, const WString& name, const Digest& digest,
                      StatusChain& status) {
        return bucket.setDigestValue(name, digest, status, true);
    }
};

template <>
struct Codec<AnsiString> {
    static AnsiString read(const IBucketValue& value, StatusChain& status) {
        return fromNarrow(value.getAnsiString(status));
    }
    static bool store(IBucket& bucket, const WString& name, const AnsiString& text,
                      StatusChain& status) {
        return bucket.setAnsiStringValue(name, toNarrow(text), status, true);
    }
    static AnsiString fromNarrow(const NString& text) {
        return AnsiString{std::string(text.c_str(), text.length())};
    }
    static NString toNarrow(const AnsiString& text) {
        return NString(text.bytes.data(), text.bytes.size());
    }
};

template <>
struct Codec<std::string> {
    static std::string read(const IBucketValue& value, StatusChain& status) {
        return RegistryText::toUtf8(value.getString(status));
    }
    static bool store(IBucket& bucket, const WString& name, const std::string& text,
                      StatusChain& status) {
        WString wide;
        return RegistryText::toWide(text, wide, status) &&
               bucket.setStringValue(name, wide, status, true);
    }
};

template <>
struct Codec<Blob> {
    static Blob read(const IBucketValue& value, StatusChain& status) {
        Blob bytes(value.getBlobSize(status));
        if (!bytes.empty()) {  // a size of 0 would only ask for the size
            value.getBlob(reinterpret_cast<unsigned char*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()), status);
        }
        return bytes;
    }
    static bool store(IBucket& bucket, const WString& name, const Blob& bytes,
                      StatusChain& status) {
        return fitsCount(bytes.size(), status) &&
               bucket.setBlobValue(name, reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<uint32_t>(bytes.size()), status, true);
    }
};

template <class T>
struct Codec<T, std::enable_if_t<std::is_arithmetic_v<T>>> {
    static T read(const IBucketValue& value, StatusChain& status) {
        return (value.*Plain<T>::get)(status);
    }
    static bool store(IBucket& bucket, const WString& name, T value, StatusChain& status) {
        return (bucket.*Plain<T>::set)(name, value, status, true);
    }
};

template <class T>
struct Codec<std::vector<T>, std::enable_if_t<std::is_arithmetic_v<T>>> {
    static std::vector<T> read(const IBucketValue& value, StatusChain& status) {
        if (value.getArraySize() == 0) {
            return std::vector<T>();  // the copy-out calls an empty array no data
        }
        T* block = nullptr;
        const uint32_t count = (value.*Plain<T>::getArray)(&block, status);
        const std::unique_ptr<T, FreeBlock> owned(block);
        return block != nullptr ? std::vector<T>(block, block + count) : std::vector<T>();
    }
    static bool store(IBucket& bucket, const WString& name, const std::vector<T>& values,
                      StatusChain& status) {
        std::unique_ptr<T[]> copy;
        return fitsCount(values.size(), status) &&
               (bucket.*Plain<T>::setArray)(name, elementsOf(values, copy),
                                            static_cast<uint32_t>(values.size()), status, true);
    }
};

// The string arrays, element by element: their copy-out must be handed back
// to the value that made it.
template <class Element, class Stored>
struct TextArrayCodec {
    using Get = Stored (IBucketValue::*)(uint32_t, StatusChain&) const;
    using Set = bool (IBucket::*)(const WString&, const Stored*, uint32_t, StatusChain&, bool);

    template <class FromStored>
    static std::vector<Element> read(const IBucketValue& value, Get get, FromStored&& convert,
                                     StatusChain& status) {
        std::vector<Element> out;
        const uint32_t count = value.getArraySize();
        out.reserve(count);
        for (uint32_t i = 0; i < count && status.isNotFatal(); ++i) {
            out.push_back(convert((value.*get)(i, status)));
        }
        return out;
    }
    template <class ToStored>
    static bool store(IBucket& bucket, const WString& name, const std::vector<Element>& values,
                      Set set, ToStored&& convert, StatusChain& status) {
        if (!fitsCount(values.size(), status)) return false;
        std::vector<Stored> stored(values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            if (!convert(values[i], stored[i], status)) return false;
        }
        return (bucket.*set)(name, stored.data(), static_cast<uint32_t>(stored.size()), status,
                             true);
    }
};

template <>
struct Codec<std::vector<std::string>> {
    using Array = TextArrayCodec<std::string, WString>;
    static std::vector<std::string> read(const IBucketValue& value, StatusChain& status) {
        return Array::read(value, &IBucketValue::getStringArrayElement, &RegistryText::toUtf8,
                           status);
    }
    static bool store(IBucket& bucket, const WString& name, const std::vector<std::string>& values,
                      StatusChain& status) {
        return Array::store(bucket, name, values, &IBucket::setStringArrayValue,
                            &RegistryText::toWide, status);
    }
};

template <>
struct Codec<std::vector<AnsiString>> {
    using Array = TextArrayCodec<AnsiString, NString>;
    static std::vector<AnsiString> read(const IBucketValue& value, StatusChain& status) {
        return Array::read(value, &IBucketValue::getAnsiStringArrayElement,
                           &Codec<AnsiString>::fromNarrow, status);
    }
    static bool store(IBucket& bucket, const WString& name, const std::vector<AnsiString>& values,
                      StatusChain& status) {
        return Array::store(
            bucket, name, values, &IBucket::setAnsiStringArrayValue,
            [](const AnsiString& text, NString& out, StatusChain&) {
                out = Codec<AnsiString>::toNarrow(text);
                return true;
            },
            status);
    }
};

using Reader = Value (*)(const IBucketValue&, StatusChain&);

template <size_t Tag>
Value readAs(const IBucketValue& value, StatusChain& status) {
    return Value(std::in_place_index<Tag>,
                 Codec<std::variant_alternative_t<Tag, Value>>::read(value, status));
}

template <size_t... Tags>
constexpr std::array<Reader, sizeof...(Tags)> readers(std::index_sequence<Tags...>) {
    return {{&readAs<Tags>...}};
}

// Indexed by tag, which is the index of the alternative.
constexpr std::array<Reader, kValueTypeCount> kReaders =
    readers(std::make_index_sequence<kValueTypeCount>());

}  // namespace

Value RegistryValues::read(const IBucketValue& value, StatusChain& status) {
    const uint32_t tag = value.getType();
    return tag < kReaders.size() ? kReaders[tag](value, status) : Value();
}

bool RegistryValues::store(IBucket& bucket, const WString& name, const Value& value,
                           StatusChain& status) {
    return std::visit(
        [&](const auto& typed) {
            return Codec<std::decay_t<decltype(typed)>>::store(bucket, name, typed, status);
        },
        value);
}

bool RegistryValues::isChildLink(const WString& name, const IBucketValue& value) {
    return BucketName::isLinkName(name) && value.getType() == kDIGEST;
}

}  // namespace orvane
}  // namespace zq
