// What watching costs: how soon a watcher wakes after a commit returns, and
// how much slower a writer commits while watchers follow every commit.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "zq/orvane/Orvane.h"
#include "zq/orvane/Watch.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;
using zq::orvane::Watch;
using Clock = std::chrono::steady_clock;

using orvane_bench::ok;

// Each call stores a value never stored before, so every commit is a change.
void commitOne(IBucketManager& m, StatusChain& status) {
    static int32_t n = 1000000;
    Guid id;
    m.beginTransaction(id, status);
    m.beginUpdate(id, status);
    AutoRef<IBucket> bucket = m.getBucket(WString(L"/settings/s3"), status);
    bucket->setInt32Value(WString(L"value0"), ++n, status, true);
    m.putBucket(bucket, true, id, status);
    m.commit(id, status);
    m.endTransaction(id, status);
}

// A thread that reads every batch of its own watch until told to stop.
class WatchingThread {
  public:
    // `reading`: reads each batch as it comes; else sleeps, its notices
    // queued in the kernel, which is what the writer itself pays for.
    WatchingThread(IBucketManager& m, const WString& path, bool reading) {
        StatusChain status = ok();
        watch_ = Watch::open(m, path, status);
        if (!watch_) throw std::runtime_error("watch failed");
        thread_ = std::thread([this, reading] { reading ? run() : sleep(); });
    }
    ~WatchingThread() {
        stop_ = true;
        thread_.join();
    }
    uint64_t batches() const { return batches_.load(); }
    size_t memoryUsed() const { return watch_->memoryUsed(); }
    Clock::time_point lastWake() const { return Clock::time_point(Clock::duration(woke_.load())); }

  private:
    void sleep() {
        while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    void run() {
        while (!stop_) {
            StatusChain status = ok();
            zq::orvane::WatchBatch batch;
            if (watch_->wait(20, status) && watch_->read(batch, status)) {
                woke_ = Clock::now().time_since_epoch().count();
                ++batches_;
            }
        }
    }

    std::unique_ptr<Watch> watch_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> batches_{0};
    std::atomic<Clock::duration::rep> woke_{0};
};

// From commit returning to the watcher holding the batch; the median is the
// figure to read, as a descheduled thread stretches the mean.
void BM_WatcherWakeLatency(benchmark::State& state) {
    IBucketManager& m = *orvane_bench::shared().manager;
    WatchingThread watcher(m, WString(L"/settings/s3"), true);
    StatusChain status = ok();
    std::vector<double> latencies;
    for (auto _ : state) {
        const uint64_t before = watcher.batches();
        commitOne(m, status);
        const Clock::time_point committed = Clock::now();
        const Clock::time_point giveUp = committed + std::chrono::seconds(5);
        while (watcher.batches() == before && Clock::now() < giveUp) {
            std::this_thread::yield();
        }
        if (watcher.batches() == before || status.isFatal()) {
            state.SkipWithError(status.isFatal() ? "commit failed" : "the watcher never woke");
            break;
        }
        const double seconds =
            std::chrono::duration<double>(watcher.lastWake() - committed).count();
        latencies.push_back(std::max(0.0, seconds));
        state.SetIterationTime(std::max(1e-9, seconds));
    }
    if (status.isFatal()) state.SkipWithError("commit failed");
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_us"] = latencies.empty() ? 0 : 1e6 * latencies[latencies.size() / 2];
}
BENCHMARK(BM_WatcherWakeLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);

// One commit while N watchers of the whole registry look on: asleep (the
// kernel's notices alone), or reading every batch on the writer's CPUs.
void BM_CommitWhileWatched(benchmark::State& state) {
    IBucketManager& m = *orvane_bench::shared().manager;
    std::vector<std::unique_ptr<WatchingThread>> watchers;
    for (int64_t i = 0; i < state.range(0); ++i) {
        watchers.push_back(std::make_unique<WatchingThread>(m, WString(L"/"), state.range(1) != 0));
    }
    StatusChain status = ok();
    for (auto _ : state) {
        commitOne(m, status);
    }
    if (status.isFatal()) state.SkipWithError("commit failed");
    // What one watcher of the 102 buckets holds.
    if (!watchers.empty()) state.counters["held_bytes"] = watchers[0]->memoryUsed();
}
BENCHMARK(BM_CommitWhileWatched)
    ->ArgNames({"watchers", "reading"})
    ->Args({0, 0})
    ->Args({10, 0})
    ->Args({10, 1})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
