// The manager's value factories: each makes a detached value holding a copy
// of its argument.
#include "source/Guard.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;

constexpr ErrorCodes kValueCodes{status::kOutOfMemory, status::kOutOfMemory, status::kUnexpected};

// A new value set by `fill`; a payload that cannot be copied leaves the
// setter's code and an empty value, not a null one.
template <class Fill>
AutoRef<IBucketValue> makeValue(StatusChain& status, Fill&& fill) {
    return guarded(status, kValueCodes, [&] {
        AutoRef<IBucketValue> value(new BucketValue());
        fill(*value);
        return value;
    });
}

}  // namespace

AutoRef<IBucketValue> BucketManager::createValue(StatusChain& status) {
    return makeValue(status, [](IBucketValue&) {});
}

AutoRef<IBucketValue> BucketManager::createDigestValue(const Digest& value, StatusChain& status) {
    return makeValue(status, [&](IBucketValue& v) { v.setDigest(value, status); });
}

AutoRef<IBucketValue> BucketManager::createAnsiStringValue(const kel::NString& value,
                                                           StatusChain& status) {
    return makeValue(status, [&](IBucketValue& v) { v.setAnsiString(value, status); });
}

AutoRef<IBucketValue> BucketManager::createStringValue(const kel::WString& value,
                                                       StatusChain& status) {
    return makeValue(status, [&](IBucketValue& v) { v.setString(value, status); });
}

AutoRef<IBucketValue> BucketManager::createBlobValue(const unsigned char* bytes, uint32_t size,
                                                     bool /*flag*/, StatusChain& status) {
    return makeValue(status, [&](IBucketValue& v) { v.setBlob(bytes, size, status); });
}

#define ZQ_ORVANE_DEFINE(Name, Type, Tag, ArrayTag)                                              \
    AutoRef<IBucketValue> BucketManager::create##Name##Value(Type value, StatusChain& status) {  \
        return makeValue(status, [&](IBucketValue& v) { v.set##Name(value, status); });          \
    }                                                                                            \
    AutoRef<IBucketValue> BucketManager::create##Name##ArrayValue(                               \
        const Type* elements, uint32_t count, StatusChain& status) {                             \
        return makeValue(status,                                                                 \
                         [&](IBucketValue& v) { v.set##Name##Array(elements, count, status); }); \
    }
ZQ_ORVANE_PLAIN_KINDS(ZQ_ORVANE_DEFINE)
#undef ZQ_ORVANE_DEFINE

AutoRef<IBucketValue> BucketManager::createAnsiStringArrayValue(const kel::NString* elements,
                                                                uint32_t count,
                                                                StatusChain& status) {
    return makeValue(status,
                     [&](IBucketValue& v) { v.setAnsiStringArray(elements, count, status); });
}

AutoRef<IBucketValue> BucketManager::createStringArrayValue(const kel::WString* elements,
                                                            uint32_t count, StatusChain& status) {
    return makeValue(status, [&](IBucketValue& v) { v.setStringArray(elements, count, status); });
}

AutoRef<IBucketValue> BucketManager::copyValue(const AutoRef<IBucketValue>& value,
                                               StatusChain& status) {
    return guarded(status, kValueCodes, [&]() -> AutoRef<IBucketValue> {
        const auto* own = dynamic_cast<const BucketValue*>(value.get());
        if (own == nullptr) {
            if (!value) status.setCode(status::kNullArgument);
            return AutoRef<IBucketValue>();
        }
        return AutoRef<IBucketValue>(new BucketValue(*own));
    });
}

}  // namespace orvane
}  // namespace zq
