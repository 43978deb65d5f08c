#include "zq/orvane/Transaction.h"

#include <vector>

#include "source/BucketName.h"
#include "source/LayerStatus.h"
#include "source/RegistryText.h"
#include "source/RegistryValues.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/Registry.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::Guid;
using kel::StatusChain;
using kel::WString;

bool toPath(std::string_view path, WString& out, StatusChain& status) {
    return RegistryText::toWide(path, out, status) && BucketName::check(out, status);
}

// Pending changes included: the layer's edits build on each other.
AutoRef<IBucket> held(IBucketManager& manager, const Guid& id, const WString& name,
                      StatusChain& status) {
    auto* own = dynamic_cast<BucketManager*>(&manager);
    if (own == nullptr) {
        status.setCode(status::kNotImplemented);
        return AutoRef<IBucket>();
    }
    return own->getHeldBucket(id, name, status);
}

// `name` and every bucket below it, each parent before its children.
void collectSubtree(IBucketManager& manager, const Guid& id, const WString& name,
                    std::vector<WString>& out, StatusChain& status) {
    const AutoRef<IBucket> bucket = held(manager, id, name, status);
    if (!bucket) return;
    out.push_back(name);
    std::vector<WString> children;
    RegistryValues::forEach(*bucket, status, [&](const WString& link, const IBucketValue& value) {
        if (RegistryValues::isChildLink(link, value)) children.push_back(link);
    });
    for (const WString& child : children) {
        collectSubtree(manager, id, child, out, status);
    }
}

}  // namespace

Transaction::Transaction(Registry& registry) noexcept : manager_(registry.manager()) {
    StatusChain status = clearedStatus();
    if (!manager_) {
        status.setCode(status::kStoreNotOpen);
    }
    guarded(status, kLayerCodes, [&] {
        if (!manager_->beginTransaction(id_, status)) {
            // Refused without a code: another thread's transaction is open.
            if (status.isNotFatal()) status.setCode(status::kAlreadyUpdating);
            return false;
        }
        open_ = true;
        return manager_->beginUpdate(id_, status);
    });
    error_ = errorOf(status);
}

Transaction::Transaction(Transaction&& other) noexcept
    : manager_(std::move(other.manager_)),
      id_(other.id_),
      error_(other.error_),
      open_(other.open_) {
    other.open_ = false;
}

Transaction::~Transaction() { end(); }

void Transaction::end() noexcept {
    if (!open_) return;
    open_ = false;
    StatusChain status = clearedStatus();
    manager_->endTransaction(id_, status);
}

template <class Body>
bool Transaction::change(Body&& body) noexcept {
    if (error_) return false;
    StatusChain status = clearedStatus();
    if (!open_) {
        status.setCode(status::kNotUpdating);
    }
    const bool done = guarded(status, kLayerCodes, [&] { return body(status); });
    error_ = errorOf(status);
    return done && !error_;
}

// A missing parent (pending changes included) is made empty, its own
// parents the same way, and the put tried again.
bool Transaction::put(const AutoRef<IBucket>& bucket, bool replace, Parents parents,
                      StatusChain& status) {
    if (manager_->putBucket(bucket, replace, id_, status)) return true;
    if (parents != Parents::create || status.getCode() != status::kNoParent) return false;
    status.clear();
    const AutoRef<IBucket> parent(new Bucket(BucketName::parentName(bucket->getFullName())));
    return put(parent, false, parents, status) && manager_->putBucket(bucket, replace, id_, status);
}

bool Transaction::set(std::string_view path, std::string_view name, Value value,
                      Parents parents) noexcept {
    return change([&](StatusChain& status) {
        WString widePath;
        WString wideName;
        if (!toPath(path, widePath, status) || !RegistryText::toWide(name, wideName, status)) {
            return false;
        }
        // Holding only this value: the put merges it over the bucket's others.
        const AutoRef<IBucket> bucket(new Bucket(widePath));
        return RegistryValues::store(*bucket, wideName, value, status) &&
               put(bucket, false, parents, status);
    });
}

bool Transaction::create(std::string_view path, Parents parents) noexcept {
    return change([&](StatusChain& status) {
        WString widePath;
        if (!toPath(path, widePath, status)) return false;
        if (held(*manager_, id_, widePath, status) || status.isFatal()) {
            return status.isNotFatal();
        }
        return put(AutoRef<IBucket>(new Bucket(widePath)), false, parents, status);
    });
}

bool Transaction::remove(std::string_view path) noexcept {
    return change([&](StatusChain& status) {
        WString widePath;
        if (!toPath(path, widePath, status)) return false;
        if (widePath == WString(L"/")) {
            status.setCode(status::kRootNotDeletable);
            return false;
        }
        std::vector<WString> doomed;
        collectSubtree(*manager_, id_, widePath, doomed, status);
        return !doomed.empty() && status.isNotFatal() &&
               manager_->deleteBuckets(doomed, id_, status);
    });
}

bool Transaction::remove(std::string_view path, std::string_view name) noexcept {
    return change([&](StatusChain& status) {
        WString widePath;
        WString wideName;
        if (!toPath(path, widePath, status) || !RegistryText::toWide(name, wideName, status)) {
            return false;
        }
        // A link goes with its child bucket, never on its own.
        if (BucketName::isLinkName(wideName)) {
            status.setCode(status::kEmptyName);
            return false;
        }
        const AutoRef<IBucket> bucket = held(*manager_, id_, widePath, status);
        return bucket && bucket->removeValue(wideName) &&
               put(bucket, true, Parents::must_exist, status);
    });
}

void Transaction::commit(std::error_code& ec) noexcept {
    if (!error_) {
        StatusChain status = clearedStatus();
        if (open_) {
            manager_->commit(id_, status);
        } else {
            status.setCode(status::kNotUpdating);
        }
        error_ = errorOf(status);
    }
    end();
    ec = error_;
}

}  // namespace orvane
}  // namespace zq
