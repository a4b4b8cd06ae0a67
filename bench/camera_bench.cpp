// Download of a 25 MB shot, from the object event to the photo-data
// notification, against a plain memcpy of 25 MB; and the live-view loop's
// frame rate against a 60 fps simulated source.
//   build/default/bench/camera_bench
#include "Dispatch.h"
#include "ForwardingSdk.h"
#include "MemoryPolicy.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"
#include "SimulatorControl.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

using namespace brix;
using namespace brix::eds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kShotBytes = 25u * 1000u * 1000u;

// Notes when each object event reaches the camera code.
class TimingSdk : public ForwardingSdk {
public:
    using ForwardingSdk::ForwardingSdk;
    EdsError EdsSetObjectEventHandler(EdsCameraRef camera, EdsObjectEvent event,
                                      EdsObjectEventHandler handler, EdsVoid *context) override {
        handler_ = handler;
        context_ = context;
        self = this;
        return ForwardingSdk::EdsSetObjectEventHandler(camera, event, handler ? &trampoline : nullptr,
                                                       handler ? context : nullptr);
    }
    static EdsError trampoline(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
        self->eventAt = Clock::now().time_since_epoch().count();
        return self->handler_(event, ref, context);
    }
    EdsError EdsDownload(EdsDirectoryItemRef item, EdsUInt64 size, EdsStreamRef stream) override {
        const auto t0 = Clock::now();
        const EdsError err = ForwardingSdk::EdsDownload(item, size, stream);
        downloadNs += (Clock::now() - t0).count();
        return err;
    }
    std::atomic<int64_t> downloadNs{0};
    EdsError EdsSetProgressCallback(EdsBaseRef ref, EdsProgressCallback fn, EdsProgressOption option,
                                    EdsVoid *context) override {
        progress_ = fn;
        return ForwardingSdk::EdsSetProgressCallback(ref, &progressTrampoline, option, context);
    }
    static EdsError progressTrampoline(EdsUInt32 percent, EdsVoid *context, EdsBool *cancel) {
        const auto t0 = Clock::now();
        const EdsError err = self->progress_(percent, context, cancel);
        self->progressNs += (Clock::now() - t0).count();
        self->progressCalls += 1;
        return err;
    }
    std::atomic<int64_t> progressNs{0};
    std::atomic<int64_t> progressCalls{0};
    EdsProgressCallback progress_ = nullptr;
    static inline TimingSdk *self = nullptr;
    std::atomic<int64_t> eventAt{0};

private:
    EdsObjectEventHandler handler_ = nullptr;
    EdsVoid *context_ = nullptr;
};

// Runs the main loop until `done` holds (the work posts an empty task to wake it).
void pumpUntil(const std::function<bool()> &done) {
    while (!done())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::AllEvents);
}

// A loaded simulated camera for one benchmark.
struct Station {
    std::shared_ptr<EdsSdk> sim;
    std::shared_ptr<TimingSdk> sdk;
    SimulatorControl *control = nullptr;
    CameraPtr camera;

    Station() {
        qputenv("BRIX_SIM_CAMERAS", "1");
        sim = std::shared_ptr<EdsSdk>(createSimulatorSdk());
        control = simulatorControl(*sim);
        sdk = std::make_shared<TimingSdk>(sim);
        OKVA_CanonCamera::initialize(sdk);
        while (!camera) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
            auto list = OKVA_CanonCamera::cameras();
            if (list && !list->isEmpty())
                camera = list->first();
        }
        camera->load();
    }
    ~Station() {
        camera.reset();
        OKVA_CanonCamera::initialize(nullptr);
    }
};

void BM_Memcpy25MB_WarmBuffer(benchmark::State &state) {
    std::vector<char> src(kShotBytes, 'x');
    std::vector<char> dst(kShotBytes, 0);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kShotBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kShotBytes));
}
BENCHMARK(BM_Memcpy25MB_WarmBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

// The limit for an in-memory transfer: a new buffer of the shot's size, filled once.
void BM_Memcpy25MB_FreshBuffer(benchmark::State &state) {
    std::vector<char> src(kShotBytes, 'x');
    for (auto _ : state) {
        QByteArray dst(qsizetype(kShotBytes), Qt::Uninitialized);
        std::memcpy(dst.data(), src.data(), kShotBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kShotBytes));
}
BENCHMARK(BM_Memcpy25MB_FreshBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DownloadShot25MB(benchmark::State &state) {
    Station station;
    station.control->setShotFormat("JPG", kShotBytes);
    std::atomic<int64_t> postedAt{0};
    std::atomic<qsizetype> size{0};
    auto token = NotificationCenter::defaultCenter().addObserver(
        kOKVA_CanonCameraPhotoDataAvailable, {}, [&](const Notification &n) {
            size = n.userInfo.value(kOKVA_CanonCameraPhotoData).toByteArray().size();
            postedAt = Clock::now().time_since_epoch().count();
            dispatch::mainQueue()->async([] {});
        });
    for (auto _ : state) {
        postedAt = 0;
        station.control->pressShutter();
        pumpUntil([&] { return postedAt.load() != 0; });
        const double seconds = double(postedAt.load() - station.sdk->eventAt.load()) / 1e9;
        state.SetIterationTime(seconds);
    }
    NotificationCenter::defaultCenter().removeObserver(token);
    state.counters["in_progress_ms"] =
        double(station.sdk->progressNs.load()) / 1e6 / double(state.iterations());
    state.counters["progress_calls"] = double(station.sdk->progressCalls.load()) / double(state.iterations());
    state.counters["in_EdsDownload_ms"] =
        double(station.sdk->downloadNs.load()) / 1e6 / double(state.iterations());
    if (size.load() != qsizetype(kShotBytes))
        state.SkipWithError("the shot did not have the asked size");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kShotBytes));
}
BENCHMARK(BM_DownloadShot25MB)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(20);

void BM_LiveViewFrameRate(benchmark::State &state) {
    Station station;
    station.control->setLiveViewRate(60);
    std::atomic<int> frames{0};
    auto token = NotificationCenter::defaultCenter().addObserver(
        kOKVA_CanonCameraLiveViewImageUpdate, {}, [&](const Notification &) { frames.fetch_add(1); });
    station.camera->liveViewBegin();
    pumpUntil([&] { return frames.load() >= 5; }); // warmed up
    for (auto _ : state) {
        const int before = frames.load();
        QElapsedTimer timer;
        timer.start();
        QEventLoop loop; // the main thread sleeps between frames, as in the station
        QTimer::singleShot(3000, &loop, &QEventLoop::quit);
        loop.exec();
        state.counters["fps"] = double(frames.load() - before) * 1000.0 / double(timer.elapsed());
    }
    station.camera->liveViewEnd();
    while (station.camera->isLiveViewRunning()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    NotificationCenter::defaultCenter().removeObserver(token);
    state.counters["source_fps"] = 60;
}
BENCHMARK(BM_LiveViewFrameRate)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    dispatch::setMainThread();
    keepShotBuffersInTheHeap(); // as the station does
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
