#ifndef ORVANE_BENCH_BENCHSUPPORT_H
#define ORVANE_BENCH_BENCHSUPPORT_H

#include <ftw.h>
#include <stdlib.h>

#include <stdexcept>
#include <string>

#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {
class IBucketManager;
}
}  // namespace zq

namespace orvane_bench {

// The process's one manager, on a registry of 100 settings "/settings/sN"
// of ten int32 values "value0".."value9".
zq::orvane::IBucketManager& sharedManager();

// A status ready for a first call (a new one holds "not completed").
inline zq::kel::StatusChain ok() {
    zq::kel::StatusChain status;
    status.clear();
    return status;
}

// A fresh directory under /tmp (a real file system here, so syncs cost what
// they cost), removed with everything in it.
class BenchDir {
  public:
    BenchDir() {
        char pattern[] = "/tmp/orvane_bench_XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
        path_ = pattern;
    }
    ~BenchDir() {
        nftw(
            path_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); },
            16, FTW_DEPTH | FTW_PHYS);
    }
    BenchDir(const BenchDir&) = delete;
    BenchDir& operator=(const BenchDir&) = delete;

    zq::kel::WString wide() const { return zq::kel::WString(path_.c_str()); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace orvane_bench

#endif  // ORVANE_BENCH_BENCHSUPPORT_H
