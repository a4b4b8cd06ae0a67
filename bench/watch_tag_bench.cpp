// Folder watching: how soon the first change after a quiet period reaches the
// handler, and what a burst of 1,000 writes costs in deliveries and delay.
// Image tagging: writing the private XMP tag into a 25 MB JPEG against copying
// the same file.
//   build/default/bench/watch_tag_bench
#include "AtomicFile.h"
#include "ImageFile.h"
#include "OKVA_FileEvent.h"
#include "SimulatorImages.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

using namespace brix;
using Clock = std::chrono::steady_clock;

namespace {

struct Inbox {
    std::mutex m;
    std::condition_variable cv;
    std::vector<std::pair<QStringList, Clock::time_point>> got;
    OKVA_FileEvent::EventBlock block() {
        return [this](const QStringList &paths, const OKVA_FileEvent::EventFlags &) {
            std::lock_guard lock(m);
            got.push_back({paths, Clock::now()});
            cv.notify_all();
        };
    }
    size_t size() {
        std::lock_guard lock(m);
        return got.size();
    }
    Clock::time_point timeOf(size_t i) {
        std::lock_guard lock(m);
        return got[i].second;
    }
    void waitCount(size_t n) {
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return got.size() >= n; });
    }
};

void touch(const QString &path) {
    QFile f(path);
    f.open(QIODevice::WriteOnly | QIODevice::Truncate);
    f.write("x");
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(double(v.size()) * p))];
}

// Write one file after a quiet period longer than the latency; time until the
// handler runs.
void BM_FirstChangeLatency(benchmark::State &state) {
    QTemporaryDir dir;
    Inbox inbox;
    constexpr double kLatency = 0.05;
    OKVA_FileEvent watcher(QStringList{dir.path()}, kLatency);
    watcher.setEventBlock(inbox.block());
    watcher.setRun(true);
    inbox.waitCount(1);
    std::vector<double> samples;
    int n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::this_thread::sleep_for(std::chrono::duration<double>(kLatency * 2));
        const size_t before = inbox.size();
        state.ResumeTiming();
        const auto start = Clock::now();
        touch(dir.path() + QStringLiteral("/f%1").arg(n++));
        inbox.waitCount(before + 1);
        samples.push_back(std::chrono::duration<double, std::micro>(inbox.timeOf(before) - start).count());
    }
    state.counters["median_us"] = percentile(samples, 0.5);
    state.counters["p99_us"] = percentile(samples, 0.99);
}
BENCHMARK(BM_FirstChangeLatency)->Iterations(300)->UseRealTime()->Unit(benchmark::kMicrosecond);

// 1,000 writes over ten folders with the default latency: deliveries needed
// and the delay from the last write to the delivery that completes the set.
void BM_CoalescedBurst(benchmark::State &state) {
    QTemporaryDir dir;
    QStringList dirs;
    for (int i = 0; i < 10; ++i) {
        dirs << dir.path() + QStringLiteral("/d%1").arg(i);
        QDir().mkpath(dirs.last());
    }
    Inbox inbox;
    OKVA_FileEvent watcher(QStringList{dir.path()});
    watcher.setEventBlock(inbox.block());
    watcher.setRun(true);
    inbox.waitCount(1);
    std::vector<double> deliveries, delays;
    for (auto _ : state) {
        state.PauseTiming();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const size_t before = inbox.size();
        state.ResumeTiming();
        for (int i = 0; i < 1000; ++i)
            touch(dirs[i % 10] + QStringLiteral("/f%1").arg(i));
        const auto last = Clock::now();
        std::unique_lock lock(inbox.m);
        inbox.cv.wait(lock, [&] {
            QSet<QString> seen;
            for (size_t i = before; i < inbox.got.size(); ++i)
                for (const QString &p : inbox.got[i].first)
                    seen.insert(p);
            return std::all_of(dirs.begin(), dirs.end(), [&](const QString &d) { return seen.contains(d); });
        });
        deliveries.push_back(double(inbox.got.size() - before));
        delays.push_back(std::chrono::duration<double, std::milli>(inbox.got.back().second - last).count());
    }
    state.counters["deliveries"] = percentile(deliveries, 0.5);
    state.counters["last_write_to_delivery_ms"] = percentile(delays, 0.5);
}
BENCHMARK(BM_CoalescedBurst)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

QByteArray bigShot() {
    static const QByteArray shot = eds::sim::padJpeg(
        eds::sim::renderShotJpeg(7, QDateTime::currentDateTime(), QStringLiteral("Canon EOS 5D Mark IV"),
                                 QStringLiteral("IMG_0007.JPG")),
        25u << 20);
    return shot;
}

void BM_TagInto25MBJpeg(benchmark::State &state) {
    QTemporaryDir dir;
    const QString path = dir.path() + "/shot.jpg";
    AtomicFile::write(path, bigShot());
    int n = 0;
    for (auto _ : state)
        if (!ImageFile::setBrixXMP(QUrl::fromLocalFile(path), {{QStringLiteral("shot"), n++}}))
            state.SkipWithError("tagging failed");
}
BENCHMARK(BM_TagInto25MBJpeg)->UseRealTime()->Unit(benchmark::kMillisecond);

// A plain copy, and a copy as durable as the rewrite (flushed, then renamed).
void BM_Copy25MBJpeg(benchmark::State &state) {
    QTemporaryDir dir;
    const QString path = dir.path() + "/shot.jpg";
    AtomicFile::write(path, bigShot());
    const bool durable = state.range(0) != 0;
    for (auto _ : state) {
        QFile::remove(path + ".copy");
        if (durable) {
            QFile in(path);
            in.open(QIODevice::ReadOnly);
            AtomicFile::write(path + ".copy", in.readAll());
        } else {
            QFile::copy(path, path + ".copy");
        }
    }
}
BENCHMARK(BM_Copy25MBJpeg)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
