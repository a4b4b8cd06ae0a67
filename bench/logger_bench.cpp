// The logger against spdlog's asynchronous file logger, on the same lines:
//  - caller cost: the time one logging call takes on the caller's thread
//    (median and p99 over bursts of 1,000 calls; the backlog is drained
//    between bursts, untimed, so neither logger is measured while blocked);
//  - throughput: lines per second from the first call until the last line
//    is in the file.
// Our lines take the whole real path: the writing queue, descriptor 2, the
// pipe, the reading queue and the rotating file.
#include "Logger.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace brix;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBurst = 1000;
constexpr int kThroughputLines = 100000;
constexpr int kDistinctMessages = 64;
constexpr size_t kSpdlogQueue = 8192; // spdlog's default for its async loggers

QTemporaryDir &folder() {
    static QTemporaryDir dir;
    return dir;
}

std::vector<std::string> &messages() {
    static std::vector<std::string> m = [] {
        std::vector<std::string> out;
        for (int i = 0; i < kDistinctMessages; ++i)
            out.push_back("OKVA_CanonCamera-propertyChanged..... property 0x" + std::to_string(0x400 + i) +
                          " changed to value " + std::to_string(i * 37) + " (100% sure)");
        return out;
    }();
    return m;
}

std::vector<QString> &qmessages() {
    static std::vector<QString> m = [] {
        std::vector<QString> out;
        for (const auto &s : messages())
            out.push_back(QString::fromStdString(s));
        return out;
    }();
    return m;
}

template <class Log, class Drain> void callerCost(benchmark::State &state, Log log, Drain drain) {
    std::vector<double> samples;
    samples.reserve(size_t(state.max_iterations) * kBurst);
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            const auto t0 = Clock::now();
            log(i % kDistinctMessages);
            const auto t1 = Clock::now();
            samples.push_back(double(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count()));
        }
        state.PauseTiming();
        drain();
        state.ResumeTiming();
    }
    std::sort(samples.begin(), samples.end());
    state.counters["median_ns"] = samples[samples.size() / 2];
    state.counters["p99_ns"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
    state.SetItemsProcessed(state.iterations() * kBurst);
}

void attachOurLog() {
    static bool attached = [] {
        Logger::setLogFile(QUrl::fromLocalFile(folder().path() + "/Brix/logger_bench.log"));
        return true;
    }();
    (void)attached;
}

struct Spdlog {
    std::shared_ptr<spdlog::details::thread_pool> pool;
    std::shared_ptr<spdlog::async_logger> logger;

    explicit Spdlog(const std::string &path) {
        pool = std::make_shared<spdlog::details::thread_pool>(kSpdlogQueue, 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        logger =
            std::make_shared<spdlog::async_logger>("bench", sink, pool, spdlog::async_overflow_policy::block);
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e[Q %t] %v");
    }
    // Returns once every line is written and the file closed.
    void finish() {
        logger.reset();
        pool.reset(); // joins the worker after it has taken everything queued
    }
};

void BM_Brix_CallerCost(benchmark::State &state) {
    attachOurLog();
    callerCost(
        state, [](int i) { Logger::setError(qmessages()[size_t(i)]); }, [] { Logger::flush(); });
}

void BM_Spdlog_CallerCost(benchmark::State &state) {
    Spdlog s(folder().path().toStdString() + "/spdlog_caller.log");
    callerCost(
        state, [&](int i) { s.logger->error(messages()[size_t(i)]); },
        [&] {
            while (s.pool->queue_size() > 0)
                std::this_thread::yield();
        });
    s.finish();
}

void BM_Brix_Throughput(benchmark::State &state) {
    attachOurLog();
    Logger::flush();
    for (auto _ : state) {
        for (int i = 0; i < kThroughputLines; ++i)
            Logger::setError(qmessages()[size_t(i % kDistinctMessages)]);
        Logger::flush();
    }
    state.SetItemsProcessed(state.iterations() * kThroughputLines);
}

void BM_Spdlog_Throughput(benchmark::State &state) {
    const std::string path = folder().path().toStdString() + "/spdlog_throughput.log";
    for (auto _ : state) {
        state.PauseTiming();
        Spdlog s(path);
        state.ResumeTiming();
        for (int i = 0; i < kThroughputLines; ++i)
            s.logger->error(messages()[size_t(i % kDistinctMessages)]);
        s.finish();
    }
    state.SetItemsProcessed(state.iterations() * kThroughputLines);
}

} // namespace

BENCHMARK(BM_Brix_CallerCost)->Iterations(200)->UseRealTime();
BENCHMARK(BM_Spdlog_CallerCost)->Iterations(200)->UseRealTime();
BENCHMARK(BM_Brix_Throughput)->Iterations(10)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Spdlog_Throughput)->Iterations(10)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
