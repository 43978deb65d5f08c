// The store's costs on the machine's real disk, beside what the disk itself
// costs: a commit is measured against three fdatasync calls after small
// appends, the least any durable commit with a separate mark can do.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "source/SingleFileBucketStore.h"
#include "zq/orvane/Bucket.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::Bucket;
using zq::orvane::IBucket;
using zq::orvane::IBucketStore;
using zq::orvane::SingleFileBucketStore;

using orvane_bench::BenchDir;
using orvane_bench::ok;

// A setting: a bucket of ten values of mixed types, about 200 bytes.
AutoRef<IBucket> makeSetting(const std::wstring& name, int32_t seed) {
    AutoRef<IBucket> bucket(new Bucket(WString(name.c_str())));
    StatusChain s = ok();
    bucket->setInt32Value(WString(L"speed"), seed, s, true);
    bucket->setUInt16Value(WString(L"port"), static_cast<uint16_t>(seed), s, true);
    bucket->setBoolValue(WString(L"enabled"), (seed & 1) != 0, s, true);
    bucket->setFloat64Value(WString(L"gain"), seed * 0.5, s, true);
    bucket->setStringValue(WString(L"label"), WString(L"controller output"), s, true);
    bucket->setAnsiStringValue(WString(L"host"), zq::kel::NString("plc-07.local"), s, true);
    bucket->setInt64Value(WString(L"serial"), int64_t{seed} << 20, s, true);
    bucket->setUInt8Value(WString(L"mode"), 3, s, true);
    bucket->setFloat32Value(WString(L"limit"), 12.5f, s, true);
    const int32_t points[] = {1, 2, 3, seed};
    bucket->setInt32ArrayValue(WString(L"points"), points, 4, s, true);
    return bucket;
}

std::wstring settingName(int i) { return L"/settings/s" + std::to_wstring(i); }

IBucketStore::UpdatedBuckets makeSettings(int first, int count, int32_t seed) {
    IBucketStore::UpdatedBuckets updated;
    for (int i = first; i < first + count; ++i) {
        updated[WString(settingName(i).c_str())] = makeSetting(settingName(i), seed + i);
    }
    return updated;
}

void commit(IBucketStore& store, const IBucketStore::UpdatedBuckets& updated) {
    StatusChain status = ok();
    store.commit(updated, {}, status);
    if (status.isFatal()) {
        throw std::runtime_error("commit failed");
    }
}

void commitSettings(IBucketStore& store, int first, int count, int32_t seed) {
    commit(store, makeSettings(first, count, seed));
}

// The floor of a commit: one append of about a small segment's size, synced.
void BM_FdatasyncAfterSmallAppend(benchmark::State& state) {
    BenchDir dir;
    const std::string path = dir.path() + "/baseline";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    const std::string bytes(400, 'x');
    off_t end = 0;
    for (auto _ : state) {
        if (::pwrite(fd, bytes.data(), bytes.size(), end) != 400 || ::fdatasync(fd) != 0) {
            state.SkipWithError("write failed");
        }
        end += 400;
    }
    ::close(fd);
}
BENCHMARK(BM_FdatasyncAfterSmallAppend)->Unit(benchmark::kMicrosecond);

void BM_CommitSettings(benchmark::State& state) {
    BenchDir dir;
    SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
    StatusChain status = ok();
    store.open(0, status);
    // The buckets are made once: what is measured is the store's work.
    const IBucketStore::UpdatedBuckets updated =
        makeSettings(0, static_cast<int>(state.range(0)), 1);
    for (auto _ : state) {
        commit(store, updated);
    }
    state.counters["bytes/commit"] = static_cast<double>(store.facts().committedLength) /
                                     static_cast<double>(state.iterations() + 1);
}
BENCHMARK(BM_CommitSettings)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond);

// A single-segment store of `count` settings.
void fillStore(const BenchDir& dir, int count) {
    SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
    StatusChain status = ok();
    store.open(0, status);
    commitSettings(store, 0, count, 1);
}

void BM_OpenSingleSegmentStore(benchmark::State& state) {
    BenchDir dir;
    fillStore(dir, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
        StatusChain status = ok();
        store.open(0, status);
        benchmark::DoNotOptimize(store.isOpen());
    }
}
BENCHMARK(BM_OpenSingleSegmentStore)->Arg(10000)->Unit(benchmark::kMillisecond);

// 10,000 settings written by 50 commits, then an open that compacts them.
void BM_CompactFiftySegments(benchmark::State& state) {
    constexpr int kSegments = 50;
    const int perSegment = static_cast<int>(state.range(0)) / kSegments;
    std::unique_ptr<BenchDir> dir;
    for (auto _ : state) {
        state.PauseTiming();
        dir = std::make_unique<BenchDir>();
        {
            SingleFileBucketStore store(dir->wide(), nullptr, zq::kel::osdep::FileSystem::posix());
            StatusChain status = ok();
            store.open(0, status);
            for (int s = 0; s < kSegments; ++s) {
                commitSettings(store, s * perSegment, perSegment, s);
            }
        }
        state.ResumeTiming();
        SingleFileBucketStore store(dir->wide(), nullptr, zq::kel::osdep::FileSystem::posix());
        StatusChain status = ok();
        store.open(0, status);
        if (store.facts().segments != 1) {
            state.SkipWithError("not compacted");
        }
    }
}
BENCHMARK(BM_CompactFiftySegments)->Arg(10000)->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_ReadByDigest(benchmark::State& state) {
    BenchDir dir;
    constexpr int kCount = 10000;
    fillStore(dir, kCount);
    SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
    StatusChain status = ok();
    store.open(0, status);
    std::vector<zq::orvane::Digest> digests;
    for (int i = 0; i < kCount; i += 97) {
        digests.emplace_back(WString(settingName(i).c_str()));
    }
    size_t next = 0;
    for (auto _ : state) {
        AutoRef<IBucket> bucket =
            store.readBucketByDigest(digests[next++ % digests.size()], status);
        benchmark::DoNotOptimize(bucket.get());
    }
}
BENCHMARK(BM_ReadByDigest)->Unit(benchmark::kMicrosecond);

// Seconds that `body` reports, run in a fresh child: nothing of the store
// is in its memory or its page tables yet.
double timedInChild(const std::function<double()>& body) {
    int pipe[2];
    if (::pipe(pipe) != 0) throw std::runtime_error("pipe");
    const pid_t pid = ::fork();
    if (pid == 0) {
        const double seconds = body();
        ::_exit(::write(pipe[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    ::close(pipe[1]);
    double seconds = -1;
    if (::read(pipe[0], &seconds, sizeof seconds) != sizeof seconds) seconds = -1;
    ::close(pipe[0]);
    ::waitpid(pid, nullptr, 0);
    return seconds;
}

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A fresh process opens 10,000 settings and reads one; with 0 as the second
// argument the file is read, not mapped. No notes are shared, so the open
// checks the checksum of every byte, as the first after a restart does:
// what it reads in bulk goes through the map.
void BM_OpenTenThousandAndReadOne(benchmark::State& state) {
    BenchDir dir;
    fillStore(dir, static_cast<int>(state.range(0)));
    state.SetLabel(state.range(1) != 0 ? "mapped" : "read");
    unsigned seed = 1;
    for (auto _ : state) {
        const int index = static_cast<int>(::rand_r(&seed) % state.range(0));
        const double seconds = timedInChild([&] {
            const auto start = std::chrono::steady_clock::now();
            SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
            store.limitMapping(state.range(1) != 0 ? zq::kel::osdep::MappedFile::kDefaultLimit : 0);
            StatusChain status = ok();
            store.open(0, status);
            AutoRef<IBucket> bucket = store.readBucket(WString(settingName(index).c_str()), status);
            return bucket ? since(start) : -1;
        });
        if (seconds < 0) state.SkipWithError("open or read failed");
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_OpenTenThousandAndReadOne)
    ->Args({10000, 1})
    ->Args({10000, 0})
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);

// The first reads of a fresh process: 100 random settings of 10,000, each
// reading its record for the first time; the time is per read.
void BM_ColdRead(benchmark::State& state) {
    BenchDir dir;
    fillStore(dir, 10000);
    state.SetLabel(state.range(0) != 0 ? "mapped" : "read");
    unsigned seed = 1;
    for (auto _ : state) {
        unsigned local = seed++;
        const double seconds = timedInChild([&] {
            SingleFileBucketStore store(dir.wide(), nullptr, zq::kel::osdep::FileSystem::posix());
            store.limitMapping(state.range(0) != 0 ? zq::kel::osdep::MappedFile::kDefaultLimit : 0);
            StatusChain status = ok();
            store.open(0, status);
            double total = 0;
            for (int i = 0; i < 100; ++i) {
                const WString name(settingName(static_cast<int>(::rand_r(&local) % 10000)).c_str());
                const auto start = std::chrono::steady_clock::now();
                AutoRef<IBucket> bucket = store.readBucket(name, status);
                total += since(start);
                if (!bucket) return -1.0;
            }
            return total / 100;
        });
        if (seconds < 0) state.SkipWithError("read failed");
        state.SetIterationTime(seconds);
    }
}
BENCHMARK(BM_ColdRead)
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
