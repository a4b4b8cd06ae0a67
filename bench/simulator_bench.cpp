// How fast the simulated camera produces what the station consumes: live-view
// frames, and 30 MB shots from the shutter to the last downloaded byte.
#include "EdsRef.h"
#include "EdsSdk.h"
#include "SimulatorControl.h"

#include <QByteArray>
#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>

using namespace brix::eds;

namespace {

struct Session {
    std::unique_ptr<EdsSdk> sdk = createSimulatorSdk();
    SimulatorControl *control = simulatorControl(*sdk);
    EdsCameraHandle camera;

    Session() {
        sdk->EdsInitializeSDK();
        EdsCameraListHandle list;
        sdk->EdsGetCameraList(list.receive(*sdk));
        sdk->EdsGetChildAtIndex(list.get(), 0, camera.receive(*sdk));
        sdk->EdsOpenSession(camera.get());
    }
    ~Session() {
        sdk->EdsSetObjectEventHandler(camera.get(), kEdsObjectEvent_All, nullptr, nullptr);
        sdk->EdsCloseSession(camera.get());
    }
    void set(EdsPropertyID id, EdsUInt32 v) { sdk->EdsSetPropertyData(camera.get(), id, 0, 4, &v); }
};

void BM_LiveViewFrame(benchmark::State &state) {
    Session s;
    s.control->setLiveViewRate(1e9); // a new frame on every call
    s.set(kEdsPropID_Evf_OutputDevice, kEdsEvfOutputDevice_PC);
    QByteArray buffer(0x200000, '\0');
    for (auto _ : state) {
        EdsStreamHandle stream;
        EdsEvfImageHandle image;
        s.sdk->EdsCreateMemoryStreamFromPointer(buffer.data(), EdsUInt64(buffer.size()),
                                                stream.receive(*s.sdk));
        s.sdk->EdsCreateEvfImageRef(stream.get(), image.receive(*s.sdk));
        if (s.sdk->EdsDownloadEvfImage(s.camera.get(), image.get()) != EDS_ERR_OK)
            state.SkipWithError("no frame");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LiveViewFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

struct Catcher {
    EdsSdk *sdk;
    std::mutex m;
    std::condition_variable cv;
    int done = 0;
    uint64_t bytes = 0;
    static EdsError onObject(EdsObjectEvent, EdsBaseRef item, EdsVoid *context) {
        auto *c = static_cast<Catcher *>(context);
        EdsDirectoryItemInfo info{};
        c->sdk->EdsGetDirectoryItemInfo(item, &info);
        QByteArray bytes(qsizetype(info.size), '\0');
        EdsStreamHandle stream;
        c->sdk->EdsCreateMemoryStreamFromPointer(bytes.data(), info.size, stream.receive(*c->sdk));
        c->sdk->EdsDownload(item, info.size, stream.get());
        c->sdk->EdsDownloadComplete(item);
        std::lock_guard lock(c->m);
        c->bytes += info.size;
        ++c->done;
        c->cv.notify_all();
        return EDS_ERR_OK;
    }
};

void BM_ShotToDownload(benchmark::State &state) {
    Session s;
    Catcher catcher{s.sdk.get(), {}, {}, 0, 0};
    s.sdk->EdsSetObjectEventHandler(s.camera.get(), kEdsObjectEvent_All, &Catcher::onObject, &catcher);
    s.set(kEdsPropID_SaveTo, kEdsSaveTo_Host);
    s.control->setShotFormat("JPG", uint64_t(state.range(0)));
    int expected = 0;
    for (auto _ : state) {
        s.control->pressShutter();
        ++expected;
        std::unique_lock lock(catcher.m);
        catcher.cv.wait(lock, [&] { return catcher.done == expected; });
    }
    state.SetBytesProcessed(int64_t(catcher.bytes));
}
BENCHMARK(BM_ShotToDownload)->Arg(0)->Arg(30 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
