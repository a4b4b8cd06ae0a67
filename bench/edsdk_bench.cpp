// What going through Canon's C interface costs: the edsdk backend over
// libEDSDK-sim.so against the same simulated camera called in-process. A call
// hops to the library's queue and back; an event waits for the next
// EdsGetEvent tick and then hops to the event queue; a shot's download is the
// same copy either way.
#include "EdsRef.h"
#include "EdsSdk.h"
#include "EdsdkLibrary.h"
#include "EdsdkSdk.h"
#include "SimulatorControl.h"

#include <QByteArray>
#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>

#include <dlfcn.h>

using namespace brix::eds;

namespace {

enum Which { kSimulator, kEdsdk };

struct Session {
    std::unique_ptr<EdsSdk> sdk;
    SimulatorControl *control = nullptr;
    EdsCameraHandle camera;

    explicit Session(Which which) {
        if (which == kSimulator) {
            sdk = createSimulatorSdk();
            control = simulatorControl(*sdk);
        } else {
#ifdef BRIX_EDSDK_SIM_LIBRARY
            sdk = createEdsdkSdk(EdsdkLibrary::openFile(BRIX_EDSDK_SIM_LIBRARY));
            void *handle = ::dlopen(BRIX_EDSDK_SIM_LIBRARY, RTLD_NOW | RTLD_NODELETE);
            using Fn = SimulatorControl *(*)();
            if (auto fn = handle ? reinterpret_cast<Fn>(::dlsym(handle, "BrixSimulatorControl")) : nullptr)
                control = fn();
#endif
        }
        if (!sdk || !control)
            return;
        sdk->EdsInitializeSDK();
        EdsCameraListHandle list;
        sdk->EdsGetCameraList(list.receive(*sdk));
        sdk->EdsGetChildAtIndex(list.get(), 0, camera.receive(*sdk));
        sdk->EdsOpenSession(camera.get());
    }
    ~Session() {
        if (!sdk || !control)
            return;
        sdk->EdsSetPropertyEventHandler(camera.get(), kEdsPropertyEvent_All, nullptr, nullptr);
        sdk->EdsSetObjectEventHandler(camera.get(), kEdsObjectEvent_All, nullptr, nullptr);
        sdk->EdsCloseSession(camera.get());
        camera.reset();
        sdk->EdsTerminateSDK();
    }
    bool ok(benchmark::State &state) {
        if (sdk && control)
            return true;
        state.SkipWithError("backend not available");
        return false;
    }
    void set(EdsPropertyID id, EdsUInt32 v) {
        sdk->EdsSetPropertyData(camera.get(), id, 0, 4, &v);
    }
};

void BM_PropertyRead(benchmark::State &state) {
    Session s(Which(state.range(0)));
    if (!s.ok(state))
        return;
    for (auto _ : state) {
        EdsUInt32 v = 0;
        if (s.sdk->EdsGetPropertyData(s.camera.get(), kEdsPropID_Tv, 0, sizeof v, &v) != EDS_ERR_OK)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(v);
    }
    state.SetLabel(state.range(0) == kSimulator ? "simulator" : "edsdk");
}
BENCHMARK(BM_PropertyRead)->Arg(kSimulator)->Arg(kEdsdk)->Unit(benchmark::kMicrosecond)->UseRealTime();

struct Waiter {
    std::mutex m;
    std::condition_variable cv;
    int count = 0;
    void bump() {
        std::lock_guard lock(m);
        ++count;
        cv.notify_all();
    }
    void waitFor(int n) {
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return count >= n; });
    }
};

EdsError onProperty(EdsPropertyEvent event, EdsPropertyID id, EdsUInt32, EdsVoid *context) {
    if (event == kEdsPropertyEvent_PropertyChanged && id == kEdsPropID_OwnerName)
        static_cast<Waiter *>(context)->bump();
    return EDS_ERR_OK;
}

// From a change on the camera body to the application's handler.
void BM_PropertyEventLatency(benchmark::State &state) {
    Session s(Which(state.range(0)));
    if (!s.ok(state))
        return;
    Waiter waiter;
    s.sdk->EdsSetPropertyEventHandler(s.camera.get(), kEdsPropertyEvent_All, &onProperty, &waiter);
    int expected = 0;
    for (auto _ : state) {
        s.control->setStringProperty(kEdsPropID_OwnerName, expected % 2 ? "odd" : "even");
        waiter.waitFor(++expected);
    }
    state.SetLabel(state.range(0) == kSimulator ? "simulator" : "edsdk");
}
BENCHMARK(BM_PropertyEventLatency)
    ->Arg(kSimulator)
    ->Arg(kEdsdk)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

struct Catcher : Waiter {
    EdsSdk *sdk = nullptr;
    static EdsError onObject(EdsObjectEvent event, EdsBaseRef item, EdsVoid *context) {
        if (event != kEdsObjectEvent_DirItemRequestTransfer)
            return EDS_ERR_OK;
        auto *c = static_cast<Catcher *>(context);
        EdsDirectoryItemInfo info{};
        c->sdk->EdsGetDirectoryItemInfo(item, &info);
        QByteArray bytes(qsizetype(info.size), '\0');
        EdsStreamHandle stream;
        c->sdk->EdsCreateMemoryStreamFromPointer(bytes.data(), info.size, stream.receive(*c->sdk));
        c->sdk->EdsDownload(item, info.size, stream.get());
        c->sdk->EdsDownloadComplete(item);
        c->bump();
        return EDS_ERR_OK;
    }
};

// A 30 MB shot from the shutter to its last downloaded byte.
void BM_ShotToDownload(benchmark::State &state) {
    Session s(Which(state.range(0)));
    if (!s.ok(state))
        return;
    Catcher catcher;
    catcher.sdk = s.sdk.get();
    s.sdk->EdsSetObjectEventHandler(s.camera.get(), kEdsObjectEvent_All, &Catcher::onObject, &catcher);
    s.set(kEdsPropID_SaveTo, kEdsSaveTo_Host);
    s.sdk->EdsSetCapacity(s.camera.get(), EdsCapacity{0x7FFFFFFF, 512, 1});
    s.control->setShotFormat("JPG", 30u << 20);
    int expected = 0;
    for (auto _ : state) {
        s.control->pressShutter();
        catcher.waitFor(++expected);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * (30 << 20));
    state.SetLabel(state.range(0) == kSimulator ? "simulator" : "edsdk");
}
BENCHMARK(BM_ShotToDownload)->Arg(kSimulator)->Arg(kEdsdk)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
