#include "source/OrvaneImpl.h"

#include <cerrno>

#include "zq/orvane/BucketManager.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace publicInterface {

namespace {

// The library's own reference on the registry object, taken at load and
// given back at unload.
class Singleton {
  public:
    Singleton() : object_(new OrvaneImpl()) { object_->addRef(); }
    ~Singleton() {
        IOrvane2* object = object_;
        object_ = nullptr;
        object->release();
    }
    IOrvane2* get() const { return object_; }

  private:
    IOrvane2* object_;
};

Singleton singleton;

}  // namespace

OrvaneImpl::~OrvaneImpl() {
    if (manager_ != nullptr) {
        manager_->release();
    }
}

kel::AutoRef<IBucketManager> OrvaneImpl::createBucketManager(const kel::WString& registryDirectory,
                                                             kel::StatusChain& status) {
    const kel::WString noOptionsFile;
    return createBucketManager(registryDirectory, noOptionsFile, status);
}

kel::AutoRef<IBucketManager> OrvaneImpl::createBucketManager(const kel::WString& registryDirectory,
                                                             const kel::WString& optionsFile,
                                                             kel::StatusChain& status) {
    if (status.isFatal()) {
        return kel::AutoRef<IBucketManager>();
    }
    if (manager_ != nullptr) {
        status.setCode(status::kManagerExists);
        return kel::AutoRef<IBucketManager>();
    }
    manager_ = new BucketManager(registryDirectory, optionsFile, status);
    if (manager_ == nullptr) {
        errno = ENOMEM;
        status.setCode(status::kOutOfMemory);
        return kel::AutoRef<IBucketManager>();
    }
    manager_->addRef();
    if (status.isFatal()) {
        // A failed construction leaves room for another attempt.
        IBucketManager* failed = manager_;
        manager_ = nullptr;
        failed->release();
    }
    return kel::AutoRef<IBucketManager>(manager_);
}

IOrvane2* GetInterface(unsigned long version, kel::StatusChain& status) {
    status.beginCall();
    if (version - 1 > 1) {
        status.setCode(status::kVersionNotSupported);
        return nullptr;
    }
    IOrvane2* object = singleton.get();
    if (object == nullptr) {
        status.setCode(status::kNoRegistryObject);
    } else {
        status.clear();
    }
    return object;
}

}  // namespace publicInterface
}  // namespace orvane
}  // namespace zq
