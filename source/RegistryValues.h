#ifndef ZQ_ORVANE_REGISTRYVALUES_H
#define ZQ_ORVANE_REGISTRYVALUES_H

#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/IBucket.h"
#include "zq/orvane/IBucketValue.h"
#include "zq/orvane/RegistryValue.h"

namespace zq {
namespace orvane {

// The C++ layer's Value crossing into the interfaces' typed calls and back:
// one row per type, chosen by the tag that is the variant's index.
class RegistryValues {
  public:
    // What `value` holds; failures of its getters are left in `status`.
    static Value read(const IBucketValue& value, kel::StatusChain& status);
    // Stores `value` under `name` in `bucket`, replacing what was there.
    // An unset Value is refused with status::kNullValue.
    static bool store(IBucket& bucket, const kel::WString& name, const Value& value,
                      kel::StatusChain& status);

    // Calls visit(name, value) for every value of `bucket`, child links
    // included. Meant for a private copy, which no one changes meanwhile.
    template <class Visit>
    static void forEach(IBucket& bucket, kel::StatusChain& status, Visit&& visit) {
        const uint32_t handle = bucket.openEnumeration();
        kel::WString name;
        kel::AutoRef<IBucketValue> value;
        for (bool more = bucket.getFirstValue(handle, name, value); more && status.isNotFatal();
             more = bucket.getNextValue(handle, name, value, status)) {
            visit(name, *value);
        }
        bucket.closeEnumeration(handle);
    }

    // A value under a name only links may take, "/" and the child's name.
    static bool isChildLink(const kel::WString& name, const IBucketValue& value);
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_REGISTRYVALUES_H
