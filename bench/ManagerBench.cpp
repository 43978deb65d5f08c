// The manager's costs as a client sees them. A process may hold one manager,
// so the opening cost and the commits on a registry of its own are measured
// in forked children.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

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
using orvane_bench::secondsInChild;
using orvane_bench::secondsSince;
using orvane_bench::shared;

// With a second argument of 1, every open is the first since a restart:
// the shared notes of verified files are gone, so the open reads and checks
// the whole file once. With 0 an earlier open's note spares it that.
void BM_ManagerOpenOnTenThousandBuckets(benchmark::State& state) {
    BenchRegistry registry;
    fillRegistry(registry.registry(), static_cast<int>(state.range(0)), registry.options());
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
        const std::vector<double> seconds = secondsInChild([&] {
            const auto start = std::chrono::steady_clock::now();
            AutoRef<IBucketManager> m = openManager(registry.registry(), registry.options());
            return std::vector<double>{secondsSince(start)};
        });
        state.SetIterationTime(seconds.at(0));
    }
}
BENCHMARK(BM_ManagerOpenOnTenThousandBuckets)
    ->Args({10000, 0})
    ->Args({10000, 1})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// 100 distinct settings of `total`, a new draw each time.
std::vector<int> hundredOf(int total, std::mt19937& random) {
    std::vector<int> all(static_cast<size_t>(total));
    std::iota(all.begin(), all.end(), 0);
    std::shuffle(all.begin(), all.end(), random);
    all.resize(100);
    return all;
}

void changeAndCommit(IBucketManager& m, const std::vector<int>& settings, int32_t value) {
    StatusChain status = ok();
    Guid id;
    m.beginTransaction(id, status);
    m.beginUpdate(id, status);
    for (int i : settings) {
        const std::wstring name = L"/settings/s" + std::to_wstring(i);
        AutoRef<IBucket> bucket = m.getBucket(WString(name.c_str()), status);
        if (!bucket) throw std::runtime_error("missing setting");
        bucket->setInt32Value(WString(L"value0"), value, status, true);
        m.putBucket(bucket, true, id, status);  // as the comparison puts it
    }
    m.commit(id, status);
    m.endTransaction(id, status);
    if (status.isFatal()) throw std::runtime_error("commit failed");
}

// One commit of 100 existing settings drawn at random from 10,000, one
// value changed in each: orvane-compare's second workload, here so that a
// slowdown shows without the peers. The commits run in a child, which opens
// the registry once as a client would, so it must run before any benchmark
// that opens this process's own manager: a fork keeps it.
void BM_CommitHundredOfTenThousandSettings(benchmark::State& state) {
    BenchRegistry registry;
    fillRegistry(registry.registry(), 10000, registry.options());
    const auto commits = static_cast<size_t>(state.max_iterations);
    const std::vector<double> seconds = secondsInChild([&] {
        AutoRef<IBucketManager> m = openManager(registry.registry(), registry.options());
        std::mt19937 random(2);
        std::vector<double> times;
        for (size_t i = 0; i < commits + 3; ++i) {
            const std::vector<int> settings = hundredOf(10000, random);
            const auto start = std::chrono::steady_clock::now();
            changeAndCommit(*m, settings, static_cast<int32_t>(i) + 1);
            if (i >= 3) times.push_back(secondsSince(start));  // after a warm-up
        }
        return times;
    });
    size_t i = 0;
    for (auto _ : state) {
        state.SetIterationTime(seconds.at(i++));
    }
}
BENCHMARK(BM_CommitHundredOfTenThousandSettings)
    ->Iterations(100)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// Many children put under one parent in one transaction: each put weighs
// the parent again, which must not walk every link it already has. The
// complexity shows whether the time per child stays flat.
void BM_PutChildrenUnderOneParent(benchmark::State& state) {
    const auto children = static_cast<int>(state.range(0));
    BenchRegistry registry;
    for (auto _ : state) {
        const std::vector<double> seconds = secondsInChild([&] {
            AutoRef<IBucketManager> m = openManager(registry.registry(), registry.options());
            StatusChain status = ok();
            Guid id;
            m->beginTransaction(id, status);
            m->beginUpdate(id, status);
            m->putBucket(m->createBucket(WString(L"/parent"), false, status), true, id, status);
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < children; ++i) {
                const std::wstring name = L"/parent/c" + std::to_wstring(i);
                AutoRef<IBucket> child = m->createBucket(WString(name.c_str()), false, status);
                child->setInt32Value(WString(L"value"), i, status, true);
                m->putBucket(child, true, id, status);
            }
            const double took = secondsSince(start);
            m->endTransaction(id, status);
            if (status.isFatal()) throw std::runtime_error("putting the children failed");
            return std::vector<double>{took};
        });
        state.SetIterationTime(seconds.at(0));
    }
    state.SetComplexityN(children);
}
BENCHMARK(BM_PutChildrenUnderOneParent)
    ->Arg(5000)
    ->Arg(20000)
    ->Iterations(3)
    ->UseManualTime()
    ->Complexity(benchmark::oN)
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
