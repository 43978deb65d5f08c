// A typed read through the C++ layer against the same read through the
// interfaces, each as a client writes it: the layer is meant to cost nothing
// a user can measure.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "zq/orvane/Registry.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;

void BM_TypedReadRaw(benchmark::State& state) {
    zq::orvane::IBucketManager& m = *orvane_bench::shared().manager;
    int64_t sum = 0;
    for (auto _ : state) {
        StatusChain status = orvane_bench::ok();
        const AutoRef<zq::orvane::IBucket> bucket = m.getBucket(WString(L"/settings/s7"), status);
        const AutoRef<zq::orvane::IBucketValue> value =
            bucket ? bucket->getValue(WString(L"value3"), status) : nullptr;
        if (value) sum += value->getInt32(status);
    }
    if (sum != 10 * static_cast<int64_t>(state.iterations())) state.SkipWithError("wrong value");
}
BENCHMARK(BM_TypedReadRaw);

void BM_TypedReadRegistry(benchmark::State& state) {
    const zq::orvane::Registry registry =
        zq::orvane::Registry::adopt(orvane_bench::shared().manager);
    int64_t sum = 0;
    for (auto _ : state) {
        std::error_code ec;
        sum += registry.get<int32_t>("/settings/s7", "value3", ec).value_or(0);
    }
    if (sum != 10 * static_cast<int64_t>(state.iterations())) state.SkipWithError("wrong value");
}
BENCHMARK(BM_TypedReadRegistry);

}  // namespace
