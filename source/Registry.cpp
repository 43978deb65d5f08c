#include "zq/orvane/Registry.h"

#include <typeinfo>

#include "source/BucketName.h"
#include "source/LayerStatus.h"
#include "source/ManagerOptions.h"
#include "source/RegistryText.h"
#include "source/RegistryValues.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/IOrvane.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

// Runs `body` with a fresh status on an open manager and turns what it
// reports, thrown or not, into `ec`.
template <class Body>
auto reading(IBucketManager* manager, std::error_code& ec, Body&& body) noexcept
    -> decltype(body(*manager, std::declval<StatusChain&>())) {
    StatusChain status = clearedStatus();
    if (manager == nullptr) {
        status.setCode(status::kStoreNotOpen);
    }
    auto result = guarded(status, kLayerCodes, [&] { return body(*manager, status); });
    ec = errorOf(status);
    if (status.isFatal()) {
        return decltype(result)();
    }
    return result;
}

// Calls visit(name, value) for every value of bucket `path`, the links to
// its children included; false when the bucket is missing.
template <class Visit>
bool forEachValue(IBucketManager& manager, std::string_view path, StatusChain& status,
                  Visit&& visit) {
    WString widePath;
    if (!RegistryText::toWide(path, widePath, status)) return false;
    const AutoRef<IBucket> bucket = manager.getBucket(widePath, status);
    if (!bucket) return false;
    RegistryValues::forEach(*bucket, status, visit);
    return true;
}

// The library's own manager copies only the value; another implementation
// of the interface, the whole bucket.
AutoRef<IBucketValue> lookUpValue(IBucketManager& manager, const WString& path, const WString& name,
                                  StatusChain& status) {
    if (typeid(manager) == typeid(BucketManager)) {
        return static_cast<BucketManager&>(manager).getBucketValue(path, name, status);
    }
    const AutoRef<IBucket> bucket = manager.getBucket(path, status);
    return bucket ? bucket->getValue(name, status) : AutoRef<IBucketValue>();
}

// Asked for, the manager reads only; the flag is the one the tool's reading
// commands use, and is put back at once: a process makes one manager.
AutoRef<IBucketManager> createManager(const WString& directory, Access access,
                                      StatusChain& status) {
    publicInterface::IOrvane2* orvane = publicInterface::GetInterface(2, status);
    if (orvane == nullptr) return AutoRef<IBucketManager>();
    const bool wasReading = managersOpenForReading();
    openManagersForReading(wasReading || access == Access::read_only);
    AutoRef<IBucketManager> manager = orvane->createBucketManager(directory, WString(), status);
    openManagersForReading(wasReading);
    return manager;
}

}  // namespace

Registry::Registry(AutoRef<IBucketManager> manager) noexcept : manager_(std::move(manager)) {}

Registry Registry::open(std::string_view directory, Access access, std::error_code& ec) noexcept {
    StatusChain status = clearedStatus();
    AutoRef<IBucketManager> manager = guarded(status, kLayerCodes, [&] {
        WString wide;
        if (!RegistryText::toWide(directory, wide, status)) return AutoRef<IBucketManager>();
        return createManager(wide, access, status);
    });
    ec = errorOf(status);
    return Registry(status.isFatal() ? AutoRef<IBucketManager>() : std::move(manager));
}

Registry Registry::adopt(AutoRef<IBucketManager> manager) noexcept {
    return Registry(std::move(manager));
}

bool Registry::read_only() const noexcept {
    const auto* own = dynamic_cast<const BucketManager*>(manager_.get());
    return own != nullptr && own->isReadOnly();
}

std::optional<Value> Registry::value(std::string_view path, std::string_view name,
                                     std::error_code& ec) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        std::optional<Value> result;
        WString widePath;
        WString wideName;
        if (!RegistryText::toWide(path, widePath, status) ||
            !RegistryText::toWide(name, wideName, status)) {
            return result;
        }
        const AutoRef<IBucketValue> found = lookUpValue(manager, widePath, wideName, status);
        if (found) {
            result = RegistryValues::read(*found, status);
        }
        return result;
    });
}

bool Registry::exists(std::string_view path, std::error_code& ec) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        WString widePath;
        return RegistryText::toWide(path, widePath, status) &&
               manager.bucketExists(widePath, status);
    });
}

std::optional<ValueMap> Registry::bucket(std::string_view path,
                                         std::error_code& ec) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        ValueMap map;
        const bool found = forEachValue(
            manager, path, status, [&](const WString& name, const IBucketValue& value) {
                if (!RegistryValues::isChildLink(name, value)) {
                    map.emplace(RegistryText::toUtf8(name), RegistryValues::read(value, status));
                }
            });
        return found ? std::optional<ValueMap>(std::move(map)) : std::nullopt;
    });
}

std::vector<std::pair<std::string, Value>> Registry::values(std::string_view path,
                                                            std::error_code& ec) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        std::vector<std::pair<std::string, Value>> result;
        forEachValue(manager, path, status, [&](const WString& name, const IBucketValue& value) {
            if (!RegistryValues::isChildLink(name, value)) {
                result.emplace_back(RegistryText::toUtf8(name),
                                    RegistryValues::read(value, status));
            }
        });
        return result;
    });
}

std::vector<std::string> Registry::children(std::string_view path,
                                            std::error_code& ec) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        std::vector<std::string> result;
        forEachValue(manager, path, status, [&](const WString& name, const IBucketValue& value) {
            if (RegistryValues::isChildLink(name, value)) {
                result.push_back(RegistryText::toUtf8(BucketName::shortName(name)));
            }
        });
        return result;
    });
}

std::unique_ptr<Watch> Registry::watch(std::string_view path, std::error_code& ec,
                                       std::string_view since) const noexcept {
    return reading(manager_.get(), ec, [&](IBucketManager& manager, StatusChain& status) {
        WString widePath;
        if (!RegistryText::toWide(path, widePath, status)) return std::unique_ptr<Watch>();
        return Watch::open(manager, widePath, status, std::string(since));
    });
}

}  // namespace orvane
}  // namespace zq
