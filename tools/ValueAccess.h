#ifndef ORVANE_TOOLS_VALUEACCESS_H
#define ORVANE_TOOLS_VALUEACCESS_H

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Session.h"
#include "zq/orvane/Orvane.h"

namespace orvane_tool {

// A value checked and ready to be made: parsing happens before the registry
// is opened, so a bad value leaves every file as it was.
using ValueMaker =
    std::function<zq::kel::AutoRef<zq::orvane::IBucketValue>(zq::orvane::IBucketManager&)>;
using RawValueMaker = std::function<zq::kel::AutoRef<zq::orvane::IBucketValue>(
    zq::orvane::IBucketManager&, zq::kel::StatusChain&)>;

// The maker with the library's status turned into a ToolError.
inline ValueMaker checkedMaker(RawValueMaker raw) {
    return [raw = std::move(raw)](zq::orvane::IBucketManager& manager) {
        zq::kel::StatusChain status;
        status.clear();
        zq::kel::AutoRef<zq::orvane::IBucketValue> value = raw(manager, status);
        checkStatus(status, "making a value");
        return value;
    };
}

// The eleven plain kinds as types, so one template serves each operation:
// Kind<int32_t>::get(value, status), Kind<int32_t>::tag, ...
template <class T>
struct Kind;

#define ORVANE_TOOL_KIND(Name, Type, Tag, ArrayTag)                                                \
    template <>                                                                                    \
    struct Kind<Type> {                                                                            \
        using type = Type;                                                                         \
        static constexpr uint32_t tag = zq::orvane::Tag;                                           \
        static constexpr uint32_t arrayTag = zq::orvane::ArrayTag;                                 \
        static Type get(const zq::orvane::IBucketValue& v, zq::kel::StatusChain& s) {              \
            return v.get##Name(s);                                                                 \
        }                                                                                          \
        static uint32_t getArray(const zq::orvane::IBucketValue& v, Type** out,                    \
                                 zq::kel::StatusChain& s) {                                        \
            return v.get##Name##Array(out, s);                                                     \
        }                                                                                          \
        static zq::kel::AutoRef<zq::orvane::IBucketValue> make(zq::orvane::IBucketManager& m,      \
                                                               Type x, zq::kel::StatusChain& s) {  \
            return m.create##Name##Value(x, s);                                                    \
        }                                                                                          \
        static zq::kel::AutoRef<zq::orvane::IBucketValue> makeArray(zq::orvane::IBucketManager& m, \
                                                                    const Type* x, uint32_t n,     \
                                                                    zq::kel::StatusChain& s) {     \
            return m.create##Name##ArrayValue(x, n, s);                                            \
        }                                                                                          \
    };
ZQ_ORVANE_PLAIN_KINDS(ORVANE_TOOL_KIND)
#undef ORVANE_TOOL_KIND

// Calls visit(Kind<T>{}, isArray) for a plain tag; false for any other tag.
template <class Visit>
bool visitPlainKind(uint32_t tag, Visit&& visit) {
#define ORVANE_TOOL_CASE(Name, Type, Tag, ArrayTag) \
    case zq::orvane::Tag:                           \
        visit(Kind<Type>{}, false);                 \
        return true;                                \
    case zq::orvane::ArrayTag:                      \
        visit(Kind<Type>{}, true);                  \
        return true;
    switch (tag) {
        ZQ_ORVANE_PLAIN_KINDS(ORVANE_TOOL_CASE)
        default:
            return false;
    }
#undef ORVANE_TOOL_CASE
}

// The elements of a plain array value.
template <class K>
std::vector<typename K::type> arrayElements(const zq::orvane::IBucketValue& value,
                                            zq::kel::StatusChain& status) {
    using T = typename K::type;
    if (value.getArraySize() == 0) return {};  // copy-out reports an empty array as no data
    T* block = nullptr;
    const uint32_t count = K::getArray(value, &block, status);
    std::vector<T> elements(block, block + (block != nullptr ? count : 0));
    std::free(block);
    return elements;
}

template <class K>
zq::kel::AutoRef<zq::orvane::IBucketValue> makeArrayValue(
    zq::orvane::IBucketManager& manager, const std::vector<typename K::type>& elements,
    zq::kel::StatusChain& status) {
    using T = typename K::type;
    const auto count = static_cast<uint32_t>(elements.size());
    // vector<bool> has no contiguous block to hand over.
    std::unique_ptr<T[]> block(new T[elements.empty() ? 1 : elements.size()]);
    for (size_t i = 0; i < elements.size(); ++i)
        block[i] = elements[i];
    return K::makeArray(manager, block.get(), count, status);
}

// The bytes of a blob value.
inline std::vector<unsigned char> blobOf(const zq::orvane::IBucketValue& value,
                                         zq::kel::StatusChain& status) {
    std::vector<unsigned char> bytes(value.getBlobSize(status));
    if (!bytes.empty()) {
        value.getBlob(bytes.data(), static_cast<uint32_t>(bytes.size()), status);
    }
    return bytes;
}

// Where the parts of a value come from: command-line words or a JSON
// element. Index kWhole is the value itself (a scalar), others are array
// elements. A source checks each part as it hands it out.
constexpr size_t kWhole = static_cast<size_t>(-1);

// One builder for every tag, given a source with digest(), blob(),
// narrow(i), wide(i), element<T>(i) and count().
template <class Source>
RawValueMaker makerFor(uint32_t tag, Source& source) {
    using zq::kel::NString;
    using zq::kel::StatusChain;
    using zq::kel::WString;
    using zq::orvane::IBucketManager;
    switch (tag) {
        case zq::orvane::kDIGEST: {
            const zq::orvane::Digest digest = source.digest();
            return [digest](IBucketManager& m, StatusChain& s) {
                return m.createDigestValue(digest, s);
            };
        }
        case zq::orvane::kANSISTRING: {
            const NString text = source.narrow(kWhole);
            return [text](IBucketManager& m, StatusChain& s) {
                return m.createAnsiStringValue(text, s);
            };
        }
        case zq::orvane::kSTRING: {
            const WString text = source.wide(kWhole);
            return
                [text](IBucketManager& m, StatusChain& s) { return m.createStringValue(text, s); };
        }
        case zq::orvane::kBLOB: {
            // Moved, not copied: a blob may be most of what the process holds.
            return [bytes = source.blob()](IBucketManager& m, StatusChain& s) {
                return m.createBlobValue(bytes.data(), static_cast<uint32_t>(bytes.size()), false,
                                         s);
            };
        }
        case zq::orvane::kANSISTRINGARRAY: {
            std::vector<NString> elements;
            for (size_t i = 0; i < source.count(); ++i)
                elements.push_back(source.narrow(i));
            return [elements](IBucketManager& m, StatusChain& s) {
                return m.createAnsiStringArrayValue(elements.data(),
                                                    static_cast<uint32_t>(elements.size()), s);
            };
        }
        case zq::orvane::kSTRINGARRAY: {
            std::vector<WString> elements;
            for (size_t i = 0; i < source.count(); ++i)
                elements.push_back(source.wide(i));
            return [elements](IBucketManager& m, StatusChain& s) {
                return m.createStringArrayValue(elements.data(),
                                                static_cast<uint32_t>(elements.size()), s);
            };
        }
        default:
            break;
    }
    RawValueMaker maker;
    visitPlainKind(tag, [&](auto kind, bool isArray) {
        using K = decltype(kind);
        using T = typename K::type;
        if (!isArray) {
            const T scalar = source.template element<T>(kWhole);
            maker = [scalar](IBucketManager& m, StatusChain& s) { return K::make(m, scalar, s); };
            return;
        }
        std::vector<T> elements;
        for (size_t i = 0; i < source.count(); ++i) {
            elements.push_back(source.template element<T>(i));
        }
        maker = [elements](IBucketManager& m, StatusChain& s) {
            return makeArrayValue<K>(m, elements, s);
        };
    });
    return maker;
}

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_VALUEACCESS_H
