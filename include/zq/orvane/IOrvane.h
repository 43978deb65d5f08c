#ifndef ZQ_ORVANE_IORVANE_H
#define ZQ_ORVANE_IORVANE_H

#include "zq/kel/AutoRef.h"
#include "zq/kel/Export.h"
#include "zq/kel/RefCounted.h"
#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/IBucketManager.h"

namespace zq {
namespace orvane {
namespace publicInterface {

// The registry object of version 1: it makes the process's one bucket
// manager.
class IOrvane : public kel::RefCountedInterface<IOrvane> {
  public:
    // An empty directory selects the default data directory.
    virtual kel::AutoRef<IBucketManager> createBucketManager(const kel::WString& registryDirectory,
                                                             kel::StatusChain& status) = 0;

  protected:
    ~IOrvane() = default;
};

// Version 2 adds the choice of the options file (empty: the default one).
class IOrvane2 : public IOrvane {
  public:
    using IOrvane::createBucketManager;
    virtual kel::AutoRef<IBucketManager> createBucketManager(const kel::WString& registryDirectory,
                                                             const kel::WString& optionsFile,
                                                             kel::StatusChain& status) = 0;

  protected:
    ~IOrvane2() = default;
};

// The process's one registry object, for versions 1 and 2; null with a code
// in `status` otherwise. The pointer is not counted for the caller: do not
// release it.
ZQ_EXPORT IOrvane2* GetInterface(unsigned long version, kel::StatusChain& status);

}  // namespace publicInterface
}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_IORVANE_H
