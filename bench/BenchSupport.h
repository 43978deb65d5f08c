#ifndef ORVANE_BENCH_BENCHSUPPORT_H
#define ORVANE_BENCH_BENCHSUPPORT_H

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "zq/orvane/Orvane.h"

namespace orvane_bench {

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

// A registry directory, with the lock files beside it.
struct BenchRegistry {
    BenchRegistry() : root(dir.path()) {
        ::mkdir((root + "/shared").c_str(), 0777);
        ::setenv("ZQKELTMPSHAREDFILEDIR", (root + "/shared").c_str(), 1);
        ::setenv("ZQPUBAPPDATADIR", root.c_str(), 1);
    }
    zq::kel::WString registry() const { return zq::kel::WString((root + "/reg").c_str()); }
    BenchDir dir;
    std::string root;
};

inline zq::kel::AutoRef<zq::orvane::IBucketManager> openManager(const zq::kel::WString& directory) {
    zq::kel::StatusChain status = ok();
    auto* orvane = zq::orvane::publicInterface::GetInterface(2, status);
    zq::kel::AutoRef<zq::orvane::IBucketManager> manager =
        orvane->createBucketManager(directory, zq::kel::WString(), status);
    if (!manager || status.isFatal()) throw std::runtime_error("open failed");
    return manager;
}

// `count` settings of ten values under "/settings", written by a child so
// that this process can still open its own manager.
inline void fillRegistry(const zq::kel::WString& directory, int count) {
    using zq::kel::AutoRef;
    using zq::kel::WString;
    const pid_t pid = ::fork();
    if (pid == 0) {
        AutoRef<zq::orvane::IBucketManager> m = openManager(directory);
        zq::kel::StatusChain s = ok();
        zq::kel::Guid id;
        m->beginTransaction(id, s);
        m->beginUpdate(id, s);
        AutoRef<zq::orvane::IBucket> parent = m->createBucket(WString(L"/settings"), false, s);
        m->putBucket(parent, true, id, s);
        for (int i = 0; i < count; ++i) {
            const std::wstring name = L"/settings/s" + std::to_wstring(i);
            AutoRef<zq::orvane::IBucket> b = m->createBucket(WString(name.c_str()), false, s);
            for (int v = 0; v < 10; ++v) {
                b->setInt32Value(WString((L"value" + std::to_wstring(v)).c_str()), i + v, s, true);
            }
            m->putBucket(b, true, id, s);
        }
        m->commit(id, s);
        m->endTransaction(id, s);
        ::_exit(s.isFatal() ? 1 : 0);
    }
    int result = 0;
    ::waitpid(pid, &result, 0);
}

// The process's one manager on 100 settings, shared by every benchmark that
// runs in this process.
struct OpenManager {
    BenchRegistry registry;
    zq::kel::AutoRef<zq::orvane::IBucketManager> manager;
    OpenManager() {
        fillRegistry(registry.registry(), 100);
        manager = openManager(registry.registry());
    }
};

inline OpenManager& shared() {
    static OpenManager* instance = new OpenManager();
    return *instance;
}

}  // namespace orvane_bench

#endif  // ORVANE_BENCH_BENCHSUPPORT_H
