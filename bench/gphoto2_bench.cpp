// The gphoto2 backend's own costs, without a camera: reading a setting's label
// back into a camera value, and a download through the backend (1 MiB parts,
// each handed to the camera's device queue) from an adapter that serves the
// file from memory, so what is measured is the backend, not USB. Then a whole
// shot through the real libgphoto2 on the emulated EOS body (when the tests'
// emulated libusb is built): shutter to the downloaded bytes in the handler,
// with the body's bulk transfer held to USB 2 speed or unlimited.
#include "Gphoto2Sdk.h"
#include "Gphoto2Tables.h"
#ifdef BRIX_HAVE_EOSBODY
#include "EosBody.h"
#endif

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

using namespace brix::gphoto2;
using namespace brix::eds;

namespace {

class MemoryPort final : public Gphoto2Port {
public:
    explicit MemoryPort(size_t size) : file_(size, '\x5A') {}
    int driverCount() override { return 1; }
    int autodetect(std::vector<DetectedCamera> *c) override {
        *c = {{"Canon EOS 5D Mark III", "usb:001,002"}};
        return gp::OK;
    }
    int openCamera(const DetectedCamera &, Handle *h) override {
        *h = 1;
        return gp::OK;
    }
    void closeCamera(Handle) override {}
    int listWidgets(Handle, std::vector<Widget> *w) override {
        w->clear();
        return gp::OK;
    }
    int getWidget(Handle, const std::string &, Widget *) override { return gp::BadParameters; }
    int setWidget(Handle, const std::string &, const Widget &) override { return gp::BadParameters; }
    int waitForEvent(Handle, int timeoutMs, Event *e) override {
        if (!announced_.exchange(true)) {
            *e = Event{Event::Type::FileAdded, "", "/store", "IMG_0001.JPG"};
            return gp::OK;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
        *e = Event{};
        return gp::OK;
    }
    int triggerCapture(Handle) override { return gp::NotSupported; }
    int fileInfo(Handle, const std::string &, const std::string &, FileInfo *i) override {
        i->size = file_.size();
        return gp::OK;
    }
    int readFile(Handle, const std::string &, const std::string &, uint64_t offset, char *buffer,
                 uint64_t *size) override {
        const uint64_t n = std::min<uint64_t>(*size, file_.size() - offset);
        std::memcpy(buffer, file_.data() + offset, n);
        *size = n;
        return gp::OK;
    }
    int getFile(Handle, const std::string &, const std::string &, std::string *d) override {
        *d = file_;
        return gp::OK;
    }
    int deleteFile(Handle, const std::string &, const std::string &) override { return gp::OK; }
    int capturePreview(Handle, std::string *) override { return gp::NotSupported; }
    std::string describe(int r, Handle) override { return std::to_string(r); }

private:
    std::string file_;
    std::atomic<bool> announced_{false};
};

std::atomic<EdsBaseRef> gItem{nullptr};
Gphoto2Sdk *gSdk = nullptr;

EdsError keepItem(EdsObjectEvent, EdsBaseRef item, EdsVoid *) {
    gSdk->EdsRetain(item);
    gItem = item;
    return 0;
}

void BM_LabelToValue(benchmark::State &state) {
    const std::vector<std::string> choices = {"1/4",  "1/5",  "1/6",   "1/8",  "1/10", "1/13",
                                              "1/15", "1/20", "1/25",  "1/30", "1/40", "1/50",
                                              "1/60", "1/80", "1/100", "1/125"};
    size_t i = 0;
    for (auto _ : state) {
        auto v = valueForLabel(kEdsPropID_Tv, choices[i++ % choices.size()], choices);
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_LabelToValue)->UseRealTime();

void BM_DownloadThroughBackend(benchmark::State &state) {
    const size_t size = size_t(state.range(0)) * 1024 * 1024;
    Gphoto2Options o;
    o.hotplug = Gphoto2Options::Hotplug::Off;
    Gphoto2Sdk sdk(std::make_shared<MemoryPort>(size), o);
    gSdk = &sdk;
    gItem = nullptr;
    sdk.EdsInitializeSDK();
    EdsCameraListRef list = nullptr;
    sdk.EdsGetCameraList(&list);
    EdsCameraRef camera = nullptr;
    sdk.EdsGetChildAtIndex(list, 0, &camera);
    sdk.EdsRelease(list);
    sdk.EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, keepItem, nullptr);
    sdk.EdsOpenSession(camera);
    while (!gItem)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::string buffer(size, '\0');
    for (auto _ : state) {
        EdsStreamRef stream = nullptr;
        sdk.EdsCreateMemoryStreamFromPointer(buffer.data(), buffer.size(), &stream);
        if (sdk.EdsDownload(gItem, size, stream) != EDS_ERR_OK)
            state.SkipWithError("download failed");
        sdk.EdsRelease(stream);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
    sdk.EdsRelease(gItem);
    sdk.EdsCloseSession(camera);
    sdk.EdsRelease(camera);
}
BENCHMARK(BM_DownloadThroughBackend)->Arg(25)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef BRIX_HAVE_EOSBODY
struct ShotWaiter {
    Gphoto2Sdk *sdk = nullptr;
    std::mutex m;
    std::condition_variable cv;
    int done = 0;
    std::string bytes;
    static EdsError onObject(EdsObjectEvent, EdsBaseRef item, EdsVoid *ctx) {
        auto *w = static_cast<ShotWaiter *>(ctx);
        EdsDirectoryItemInfo info{};
        w->sdk->EdsGetDirectoryItemInfo(item, &info);
        w->bytes.resize(info.size);
        EdsStreamRef stream = nullptr;
        w->sdk->EdsCreateMemoryStreamFromPointer(w->bytes.data(), w->bytes.size(), &stream);
        w->sdk->EdsDownload(item, info.size, stream);
        w->sdk->EdsDownloadComplete(item);
        w->sdk->EdsRelease(stream);
        std::lock_guard lock(w->m);
        ++w->done;
        w->cv.notify_all();
        return 0;
    }
};

// Arguments: shot size in MB, body speed in MB/s (0 = unlimited).
void BM_ShotThroughEmulatedBody(benchmark::State &state) {
    const uint64_t bytes = uint64_t(state.range(0)) * 1000 * 1000;
    const uint64_t speed = uint64_t(state.range(1)) * 1000 * 1000;
    auto &body = brix::eosbody::EosBody::instance();
    body.command("reset");
    body.command("shot-bytes " + std::to_string(bytes));
    body.limitSpeed(speed);
    body.plug();
    Gphoto2Options o;
    o.hotplug = Gphoto2Options::Hotplug::Off;
    Gphoto2Sdk sdk(makeLibGphoto2Port(), o);
    ShotWaiter waiter;
    waiter.sdk = &sdk;
    sdk.EdsInitializeSDK();
    EdsCameraListRef list = nullptr;
    sdk.EdsGetCameraList(&list);
    EdsCameraRef camera = nullptr;
    sdk.EdsGetChildAtIndex(list, 0, &camera);
    sdk.EdsRelease(list);
    sdk.EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, ShotWaiter::onObject, &waiter);
    if (!camera || sdk.EdsOpenSession(camera) != EDS_ERR_OK) {
        state.SkipWithError("the emulated body did not open");
        return;
    }
    std::vector<double> ms;
    for (auto _ : state) {
        const int before = waiter.done;
        const auto start = std::chrono::steady_clock::now();
        if (sdk.EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0) != EDS_ERR_OK) {
            state.SkipWithError("the shot failed");
            break;
        }
        std::unique_lock lock(waiter.m);
        if (!waiter.cv.wait_for(lock, std::chrono::seconds(30), [&] { return waiter.done > before; })) {
            state.SkipWithError("no shot arrived");
            break;
        }
        const double elapsed =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(elapsed / 1000);
        ms.push_back(elapsed);
    }
    if (!ms.empty()) {
        std::sort(ms.begin(), ms.end());
        const double wire = speed ? double(waiter.bytes.size()) * 1000 / double(speed) : 0;
        state.counters["median_ms"] = ms[ms.size() / 2];
        state.counters["p99_ms"] = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
        state.counters["wire_ms"] = wire;
        state.counters["added_median_ms"] = ms[ms.size() / 2] - wire;
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(waiter.bytes.size()));
    sdk.EdsCloseSession(camera);
    sdk.EdsRelease(camera);
    sdk.EdsTerminateSDK();
    body.unplug();
}
BENCHMARK(BM_ShotThroughEmulatedBody)
    ->Args({25, 35})
    ->Args({25, 0})
    ->Args({0, 35})
    ->Iterations(40)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
#endif

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
