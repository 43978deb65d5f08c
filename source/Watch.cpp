#include "zq/orvane/Watch.h"

#include "source/BucketName.h"
#include "source/ManagerOptions.h"
#include "source/StoreOperation.h"
#include "source/Watcher.h"
#include "zq/orvane/IBucketManager.h"

namespace zq {
namespace orvane {

class Watch::Impl : public Watcher {
  public:
    using Watcher::Watcher;
};

Watch::Watch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Watch::~Watch() = default;

std::unique_ptr<Watch> Watch::open(IBucketManager& manager, const kel::WString& path,
                                   kel::StatusChain& status, const std::string& since) {
    return store::storeOperation(status, [&]() -> std::unique_ptr<Watch> {
        if (!BucketName::check(path, status)) {
            return nullptr;
        }
        kel::WString directory;
        manager.getDataDirectory(directory, status);
        if (status.isFatal()) {
            return nullptr;
        }
        auto impl = std::make_unique<Impl>(directory, path, managerFileSystem());
        if (!impl->start(since, status)) {
            return nullptr;
        }
        return std::unique_ptr<Watch>(new Watch(std::move(impl)));
    });
}

int Watch::fd() const { return impl_->fd(); }

bool Watch::read(WatchBatch& batch, kel::StatusChain& status) {
    return store::storeOperation(status, [&] { return impl_->read(batch, status); });
}

bool Watch::wait(int timeoutMilliseconds, kel::StatusChain& status) {
    return store::storeOperation(status, [&] { return impl_->wait(timeoutMilliseconds, status); });
}

std::string Watch::state() const { return impl_->state(); }

const kel::WString& Watch::path() const { return impl_->path(); }

size_t Watch::memoryUsed() const { return impl_->memoryUsed(); }

}  // namespace orvane
}  // namespace zq
