// Serial queue against QThreadPool: submit-to-run latency and throughput; the
// main queue's throughput.
//   build/default/bench/dispatch_bench
#include "Dispatch.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QThreadPool>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

using namespace brix;
using Clock = std::chrono::steady_clock;

namespace {

// A little work per task so that the comparison is not of empty calls only.
inline void work(std::atomic<uint64_t> &sink, uint64_t i) {
    uint64_t x = i * 2654435761u;
    x ^= x >> 13;
    sink.fetch_add(x, std::memory_order_relaxed);
}

struct Done {
    std::mutex m;
    std::condition_variable cv;
    int64_t remaining = 0;
    void arm(int64_t n) {
        std::lock_guard lk(m);
        remaining = n;
    }
    void one() {
        std::lock_guard lk(m);
        if (--remaining == 0)
            cv.notify_all();
    }
    void wait() {
        std::unique_lock lk(m);
        cv.wait(lk, [&] { return remaining == 0; });
    }
};

constexpr int64_t kBatch = 10000;

void BM_SerialQueueThroughput(benchmark::State &state) {
    auto queue = dispatch::makeSerialQueue("bench.serial");
    std::atomic<uint64_t> sink{0};
    Done done;
    for (auto _ : state) {
        done.arm(kBatch);
        for (int64_t i = 0; i < kBatch; ++i)
            queue->async([&, i] {
                work(sink, uint64_t(i));
                done.one();
            });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_QThreadPoolThroughput(benchmark::State &state) {
    QThreadPool pool;
    pool.setMaxThreadCount(int(state.range(0)));
    std::atomic<uint64_t> sink{0};
    Done done;
    for (auto _ : state) {
        done.arm(kBatch);
        for (int64_t i = 0; i < kBatch; ++i)
            pool.start([&, i] {
                work(sink, uint64_t(i));
                done.one();
            });
        done.wait();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// Ping-pong: each task is submitted only after the previous one ran, so every
// measurement includes a wake-up of an idle worker.
template <class Submit> void latency(benchmark::State &state, Submit submit) {
    std::vector<double> samples;
    samples.reserve(size_t(state.max_iterations));
    std::atomic<bool> ran{false};
    for (auto _ : state) {
        ran = false;
        auto t0 = Clock::now();
        std::atomic<int64_t> t1{0};
        submit([&] {
            t1 = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
            ran.store(true, std::memory_order_release);
        });
        while (!ran.load(std::memory_order_acquire))
            ;
        samples.push_back(double(t1.load()) / 1000.0);
    }
    std::sort(samples.begin(), samples.end());
    state.counters["median_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
}

void BM_SerialQueueLatency(benchmark::State &state) {
    auto queue = dispatch::makeSerialQueue("bench.latency");
    latency(state, [&](auto f) { queue->async(f); });
}

void BM_QThreadPoolLatency(benchmark::State &state) {
    QThreadPool pool;
    pool.setMaxThreadCount(1);
    latency(state, [&](auto f) { pool.start(f); });
}

// Tasks posted to the main queue in a burst and run by its event loop, one at
// a time, as a modal loop inside one of them needs.
void BM_MainQueueThroughput(benchmark::State &state) {
    auto main = dispatch::mainQueue();
    std::atomic<uint64_t> sink{0};
    for (auto _ : state) {
        int64_t left = kBatch;
        for (int64_t i = 0; i < kBatch; ++i)
            main->async([&, i] {
                work(sink, uint64_t(i));
                --left;
            });
        while (left > 0)
            QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    state.counters["tasks_per_s"] =
        benchmark::Counter(double(state.iterations() * kBatch), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_MainQueueThroughput)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SerialQueueThroughput)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QThreadPoolThroughput)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SerialQueueLatency)->Iterations(20000)->UseRealTime();
BENCHMARK(BM_QThreadPoolLatency)->Iterations(20000)->UseRealTime();

int main(int argc, char **argv) {
    dispatch::setMainThread();
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
