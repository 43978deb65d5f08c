#include <benchmark/benchmark.h>

#include <vector>

#include "source/Sha256.h"
#include "zq/orvane/Digest.h"

namespace {

using zq::orvane::Digest;
using zq::orvane::Sha256;

void BM_Sha256Throughput(benchmark::State& state) {
    const std::vector<unsigned char> data(static_cast<size_t>(state.range(0)), 0x5A);
    unsigned char out[Sha256::kDigestSize];
    for (auto _ : state) {
        Sha256::hash(data.data(), data.size(), out);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Sha256Throughput)->Arg(64)->Arg(4096)->Arg(1 << 20);

// A typical bucket name: 30 characters.
void BM_DigestOfName(benchmark::State& state) {
    const zq::kel::WString name(L"/Devices/Controller7/Network/0");
    for (auto _ : state) {
        Digest digest(name);
        benchmark::DoNotOptimize(digest.bytes());
    }
}
BENCHMARK(BM_DigestOfName);

void BM_CalculateDigestWithText(benchmark::State& state) {
    const zq::kel::WString name(L"/Devices/Controller7/Network/0");
    Digest digest;
    zq::orvane::DigestString text;
    for (auto _ : state) {
        Digest::calculateDigest(name, digest, text);
        benchmark::DoNotOptimize(text.c_str());
    }
}
BENCHMARK(BM_CalculateDigestWithText);

}  // namespace
