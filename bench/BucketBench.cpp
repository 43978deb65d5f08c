#include <benchmark/benchmark.h>

#include <vector>

#include "BenchSupport.h"
#include "zq/orvane/Bucket.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::NString;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::Bucket;
using zq::orvane::IBucketValue;

StatusChain okStatus() { return orvane_bench::ok(); }

WString nameOf(const wchar_t* prefix, int i) {
    WString name(prefix);
    name += WString::fromInt(i);
    return name;
}

// 20 values of the kinds a controller's settings typically hold.
AutoRef<Bucket> mixedBucket() {
    AutoRef<Bucket> bucket(new Bucket(WString(L"/Devices/Controller7/Network")));
    StatusChain status = okStatus();
    const int32_t ports[] = {80, 443, 8080, 8443};
    const WString hosts[] = {WString(L"alpha.local"), WString(L"beta.local")};
    const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    for (int i = 0; i < 4; ++i) {
        bucket->setInt32Value(nameOf(L"Int", i), i * 1000, status, false);
        bucket->setBoolValue(nameOf(L"Flag", i), i % 2 == 0, status, false);
        bucket->setStringValue(nameOf(L"Label", i), WString(L"Ethernet adapter"), status, false);
        bucket->setFloat64Value(nameOf(L"Gain", i), 0.5 * i, status, false);
    }
    bucket->setAnsiStringValue(WString(L"Mode"), NString("automatic"), status, false);
    bucket->setBlobValue(WString(L"Key"), key, sizeof key, status, false);
    bucket->setInt32ArrayValue(WString(L"Ports"), ports, 4, status, false);
    bucket->setStringArrayValue(WString(L"Hosts"), hosts, 2, status, false);
    return bucket;
}

void BM_BucketSerializeDeserialize20(benchmark::State& state) {
    AutoRef<Bucket> bucket = mixedBucket();
    std::vector<unsigned char> record(bucket->serializationSize());
    AutoRef<Bucket> back(new Bucket());
    for (auto _ : state) {
        unsigned char* out = record.data();
        bucket->serialize(out, record.data() + record.size());
        const unsigned char* in = record.data();
        back->deserialize(in, record.data() + record.size());
        benchmark::DoNotOptimize(back.get());
    }
    state.counters["bytes"] = static_cast<double>(record.size());
}
BENCHMARK(BM_BucketSerializeDeserialize20);

AutoRef<Bucket> hundredValues() {
    AutoRef<Bucket> bucket(new Bucket(WString(L"/Devices/Controller7/Counters")));
    StatusChain status = okStatus();
    for (int i = 0; i < 100; ++i) {
        bucket->setInt32Value(nameOf(L"Counter", i), i, status, false);
    }
    return bucket;
}

void BM_BucketGetValueOf100(benchmark::State& state) {
    AutoRef<Bucket> bucket = hundredValues();
    const WString name(L"COUNTER57");
    StatusChain status = okStatus();
    for (auto _ : state) {
        AutoRef<IBucketValue> value = bucket->getValue(name, status);
        benchmark::DoNotOptimize(value.get());
    }
}
BENCHMARK(BM_BucketGetValueOf100);

void BM_BucketGetMemUsageOf100(benchmark::State& state) {
    AutoRef<Bucket> bucket = hundredValues();
    for (auto _ : state) {
        benchmark::DoNotOptimize(bucket->getMemUsage());
    }
}
BENCHMARK(BM_BucketGetMemUsageOf100);

}  // namespace
