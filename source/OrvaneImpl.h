#ifndef ZQ_ORVANE_ORVANEIMPL_H
#define ZQ_ORVANE_ORVANEIMPL_H

#include "zq/kel/RefCounted.h"
#include "zq/orvane/IOrvane.h"

namespace zq {
namespace orvane {
namespace publicInterface {

// The registry object: it makes the process's one bucket manager and keeps
// a reference on it, so a second one is refused even after every client has
// released the first.
class OrvaneImpl : public kel::RefCountedImplementation<IOrvane2, kel::RefCountedThreadSafePolicy> {
  public:
    OrvaneImpl() = default;
    ~OrvaneImpl() override;

    kel::AutoRef<IBucketManager> createBucketManager(const kel::WString& registryDirectory,
                                                     kel::StatusChain& status) override;
    kel::AutoRef<IBucketManager> createBucketManager(const kel::WString& registryDirectory,
                                                     const kel::WString& optionsFile,
                                                     kel::StatusChain& status) override;

  private:
    IBucketManager* manager_ = nullptr;
};

}  // namespace publicInterface
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_ORVANEIMPL_H
