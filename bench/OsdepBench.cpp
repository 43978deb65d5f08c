#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <string>

#include "ini/IniReader.h"
#include "kel/osdep/Mutex.h"
#include "support/TempDir.h"

namespace {

using zq::kel::WString;

// The lock a transaction takes, when no other thread or process wants it.
void BM_NamedLockUncontended(benchmark::State& state) {
    zq::test::TempDir dir;
    setenv("ZQKELTMPSHAREDFILEDIR", dir.path().c_str(), 1);
    zq::kel::osdep::Mutex mutex(WString(L"__zq_orvane_BucketManager_lock__"));
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
    unsetenv("ZQKELTMPSHAREDFILEDIR");
}
BENCHMARK(BM_NamedLockUncontended);

// Create, parse, look up every key, discard: what loading options costs.
void BM_IniParse200Keys(benchmark::State& state) {
    zq::test::TempDir dir;
    std::string text = "; generated\n";
    for (int section = 0; section < 4; ++section) {
        text += "[Section" + std::to_string(section) + "]\n";
        for (int key = 0; key < 50; ++key) {
            text += "Key" + std::to_string(key) + " = value number " + std::to_string(key) + "\n";
        }
    }
    dir.write("bench.ini", text);
    const std::string path = dir.file("bench.ini");
    for (auto _ : state) {
        zq::ini::IniReader* reader = zq::ini::iniCreate(0);
        benchmark::DoNotOptimize(zq::ini::iniParseFile(reader, path.c_str()));
        zq::ini::iniDiscard(reader);
    }
}
BENCHMARK(BM_IniParse200Keys);

}  // namespace
