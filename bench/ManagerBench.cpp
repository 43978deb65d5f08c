// The manager's costs as a client sees them. A process may hold one manager,
// so the opening cost is measured in forked children.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "BenchSupport.h"
#include "zq/orvane/Orvane.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;

using orvane_bench::ok;

// A registry directory, with the lock files beside it.
struct BenchRegistry {
    BenchRegistry() : root(dir.path()) {
        ::mkdir((root + "/shared").c_str(), 0777);
        ::setenv("ZQKELTMPSHAREDFILEDIR", (root + "/shared").c_str(), 1);
        ::setenv("ZQPUBAPPDATADIR", root.c_str(), 1);
    }
    WString registry() const { return WString((root + "/reg").c_str()); }
    orvane_bench::BenchDir dir;
    std::string root;
};

AutoRef<IBucketManager> openManager(const WString& directory) {
    StatusChain status = ok();
    auto* orvane = zq::orvane::publicInterface::GetInterface(2, status);
    AutoRef<IBucketManager> manager = orvane->createBucketManager(directory, WString(), status);
    if (!manager || status.isFatal()) throw std::runtime_error("open failed");
    return manager;
}

// 10,000 settings of ten values, written by a child so that this process
// can still open its own manager.
void fillRegistry(const WString& directory, int count) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        AutoRef<IBucketManager> m = openManager(directory);
        StatusChain s = ok();
        Guid id;
        m->beginTransaction(id, s);
        m->beginUpdate(id, s);
        AutoRef<IBucket> parent = m->createBucket(WString(L"/settings"), false, s);
        m->putBucket(parent, true, id, s);
        for (int i = 0; i < count; ++i) {
            const std::wstring name = L"/settings/s" + std::to_wstring(i);
            AutoRef<IBucket> b = m->createBucket(WString(name.c_str()), false, s);
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

// With a second argument of 1, every open is the first since a restart:
// the shared notes of verified files are gone, so the open reads and checks
// the whole file once. With 0 an earlier open's note spares it that.
void BM_ManagerOpenOnTenThousandBuckets(benchmark::State& state) {
    BenchRegistry registry;
    fillRegistry(registry.registry(), static_cast<int>(state.range(0)));
    struct stat info {};
    ::stat((registry.root + "/reg/registry.bin").c_str(), &info);
    state.counters["file bytes"] = static_cast<double>(info.st_size);
    const bool afterRestart = state.range(1) != 0;
    state.SetLabel(afterRestart ? "first open after a restart" : "verified since the restart");
    const std::string notes = registry.root + "/shared/counter/__zq_orvane_BucketManager_lock__";
    for (auto _ : state) {
        if (afterRestart) {
            ::unlink(notes.c_str());
        }
        int pipe[2];
        if (::pipe(pipe) != 0) throw std::runtime_error("pipe");
        const pid_t pid = ::fork();
        if (pid == 0) {
            const auto start = std::chrono::steady_clock::now();
            AutoRef<IBucketManager> m = openManager(registry.registry());
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const bool written = ::write(pipe[1], &seconds, sizeof seconds) == sizeof seconds;
            ::_exit(written ? 0 : 1);
        }
        double seconds = 0;
        if (::read(pipe[0], &seconds, sizeof seconds) != sizeof seconds) {
            state.SkipWithError("child failed");
        }
        ::waitpid(pid, nullptr, 0);
        ::close(pipe[0]);
        ::close(pipe[1]);
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_ManagerOpenOnTenThousandBuckets)
    ->Args({10000, 0})
    ->Args({10000, 1})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace

// The benchmarks of the open manager share it: a process may hold one.
IBucketManager& orvane_bench::sharedManager() {
    struct OpenManager {
        BenchRegistry registry;
        AutoRef<IBucketManager> manager;
        OpenManager() {
            fillRegistry(registry.registry(), 100);
            manager = openManager(registry.registry());
        }
    };
    static OpenManager* instance = new OpenManager();
    return *instance->manager;
}

namespace {

void BM_GetCachedBucket(benchmark::State& state) {
    IBucketManager& m = orvane_bench::sharedManager();
    StatusChain status = ok();
    const WString name(L"/settings/s7");
    m.getBucket(name, status);
    for (auto _ : state) {
        AutoRef<IBucket> bucket = m.getBucket(name, status);
        benchmark::DoNotOptimize(bucket.get());
    }
}
BENCHMARK(BM_GetCachedBucket);

void BM_TransactionChangingOneValue(benchmark::State& state) {
    IBucketManager& m = orvane_bench::sharedManager();
    StatusChain status = ok();
    const WString name(L"/settings/s9");
    int32_t n = 0;
    for (auto _ : state) {
        Guid id;
        m.beginTransaction(id, status);
        m.beginUpdate(id, status);
        AutoRef<IBucket> bucket = m.getBucket(name, status);
        bucket->setInt32Value(WString(L"value0"), ++n, status, true);
        m.putBucket(bucket, false, id, status);
        m.commit(id, status);
        m.endTransaction(id, status);
        if (status.isFatal()) state.SkipWithError("transaction failed");
    }
}
BENCHMARK(BM_TransactionChangingOneValue)->Unit(benchmark::kMicrosecond);

}  // namespace
