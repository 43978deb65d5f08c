#ifndef ORVANE_BENCH_BENCHSUPPORT_H
#define ORVANE_BENCH_BENCHSUPPORT_H

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

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

// A registry directory, with the lock files beside it, and options that let
// the file grow to 64 MiB (the default 1 MiB is below 10,000 settings).
struct BenchRegistry {
    BenchRegistry() : root(dir.path()) {
        ::mkdir((root + "/shared").c_str(), 0777);
        ::setenv("ZQKELTMPSHAREDFILEDIR", (root + "/shared").c_str(), 1);
        ::setenv("ZQPUBAPPDATADIR", root.c_str(), 1);
        std::ofstream(root + "/Orvane.ini") << "[Orvane]\nDiskMaxRegistryFileSizeKB=65536\n";
    }
    zq::kel::WString registry() const { return zq::kel::WString((root + "/reg").c_str()); }
    zq::kel::WString options() const { return zq::kel::WString((root + "/Orvane.ini").c_str()); }
    BenchDir dir;
    std::string root;
};

inline zq::kel::AutoRef<zq::orvane::IBucketManager> openManager(
    const zq::kel::WString& directory, const zq::kel::WString& options = zq::kel::WString()) {
    zq::kel::StatusChain status = ok();
    auto* orvane = zq::orvane::publicInterface::GetInterface(2, status);
    zq::kel::AutoRef<zq::orvane::IBucketManager> manager =
        orvane->createBucketManager(directory, options, status);
    if (!manager || status.isFatal()) throw std::runtime_error("open failed");
    return manager;
}

// Runs `work` in a forked child, as a process may hold one manager, and
// returns the seconds it measured. Throws when the child fails.
inline std::vector<double> secondsInChild(const std::function<std::vector<double>()>& work) {
    int pipe[2];
    if (::pipe(pipe) != 0) throw std::runtime_error("pipe");
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Nothing may unwind into the benchmark's own loop in the child.
        try {
            ::close(pipe[0]);
            const std::vector<double> seconds = work();
            const ssize_t size = static_cast<ssize_t>(seconds.size() * sizeof(double));
            ::_exit(::write(pipe[1], seconds.data(), static_cast<size_t>(size)) == size ? 0 : 1);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
            ::_exit(1);
        }
    }
    ::close(pipe[1]);
    std::string bytes;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, static_cast<size_t>(n));
    ::close(pipe[0]);
    std::vector<double> seconds(bytes.size() / sizeof(double));
    std::memcpy(seconds.data(), bytes.data(), seconds.size() * sizeof(double));
    int result = 0;
    ::waitpid(pid, &result, 0);
    if (!WIFEXITED(result) || WEXITSTATUS(result) != 0) throw std::runtime_error("child failed");
    return seconds;
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// `count` settings of ten values under "/settings", written by a child so
// that this process can still open its own manager. Throws when the commit
// fails.
inline void fillRegistry(const zq::kel::WString& directory, int count,
                         const zq::kel::WString& options = zq::kel::WString()) {
    using zq::kel::AutoRef;
    using zq::kel::WString;
    secondsInChild([&] {
        AutoRef<zq::orvane::IBucketManager> m = openManager(directory, options);
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
        if (s.isFatal()) throw std::runtime_error("fill failed");
        return std::vector<double>();
    });
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
