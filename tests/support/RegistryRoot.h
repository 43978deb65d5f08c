#ifndef ZQ_TESTS_SUPPORT_REGISTRYROOT_H
#define ZQ_TESTS_SUPPORT_REGISTRYROOT_H

#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "support/TempDir.h"

namespace zq {
namespace test {

// A temporary root as a controller has one: ZQPUBAPPDATADIR points at it,
// the shared lock and counter files live in its "shared" folder, and other
// users may look into it.
class RegistryRoot : public TempDir {
  public:
    RegistryRoot() {
        ::chmod(path().c_str(), 0755);
        ::mkdir(file("shared").c_str(), 0777);
        ::setenv("ZQKELTMPSHAREDFILEDIR", file("shared").c_str(), 1);
        ::setenv("ZQPUBAPPDATADIR", path().c_str(), 1);
    }
};

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SUPPORT_REGISTRYROOT_H
