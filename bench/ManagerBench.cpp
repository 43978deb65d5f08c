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

using orvane_bench::BenchRegistry;
using orvane_bench::fillRegistry;
using orvane_bench::ok;
using orvane_bench::openManager;
using orvane_bench::shared;

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

void BM_GetCachedBucket(benchmark::State& state) {
    IBucketManager& m = *shared().manager;
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
    IBucketManager& m = *shared().manager;
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
