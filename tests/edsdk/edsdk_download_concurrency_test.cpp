// A download through the edsdk backend whose progress callback waits for the
// main thread, while the main thread itself keeps calling the library: the
// library's queue must go on serving the main thread, or both wait forever.
// Also: progress runs on the thread that called EdsDownload, the bytes arrive
// whole, and every reference is given back.
#include "SimLibrary.h"
#include "TestSupport.h"

#ifdef BRIX_EDSDK_SIM_LIBRARY

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <utility>
#include <vector>

using namespace brix;
using namespace brix::eds;
using brix::test::SimLibrary;

namespace {

struct Download {
    EdsSdk *sdk = nullptr;
    std::thread::id handlerThread;
    std::atomic<bool> progressOnHandlerThread{true};
    std::atomic<unsigned> lastPercent{0};
    std::atomic<int> progressCalls{0};
    EdsDirectoryItemInfo info{};
    std::vector<unsigned char> bytes;
    EdsError result = EDS_ERR_INTERNAL_ERROR;
    std::string label;
    std::atomic<bool> done{false};
};

EdsError onProgress(EdsUInt32 percent, EdsVoid *context, EdsBool *outCancel) {
    auto *d = static_cast<Download *>(context);
    if (std::this_thread::get_id() != d->handlerThread)
        d->progressOnHandlerThread = false;
    d->lastPercent = percent;
    ++d->progressCalls;
    // As the camera object does: hand the progress to the main thread and wait.
    dispatch::mainQueue()->sync([] {});
    if (outCancel)
        *outCancel = 0;
    return EDS_ERR_OK;
}

EdsError onObject(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
    auto *d = static_cast<Download *>(context);
    if (event != kEdsObjectEvent_DirItemRequestTransfer || d->done)
        return EDS_ERR_OK;
    d->handlerThread = std::this_thread::get_id();
    d->label = dispatch::currentQueueLabel();
    EdsSdk &sdk = *d->sdk;
    sdk.EdsGetDirectoryItemInfo(ref, &d->info);
    d->bytes.assign(size_t(d->info.size), 0);
    EdsStreamRef stream = nullptr;
    d->result = sdk.EdsCreateMemoryStreamFromPointer(d->bytes.data(), d->bytes.size(), &stream);
    if (d->result == EDS_ERR_OK) {
        sdk.EdsSetProgressCallback(stream, &onProgress, kEdsProgressOption_Periodically, d);
        d->result = sdk.EdsDownload(ref, d->info.size, stream);
        if (d->result == EDS_ERR_OK)
            d->result = sdk.EdsDownloadComplete(ref);
        sdk.EdsRelease(stream);
    }
    d->done = true;
    return EDS_ERR_OK;
}

} // namespace

TEST(EdsdkBackendConcurrency, ProgressWaitingForTheMainThreadDoesNotBlockTheMainThreadsCalls) {
    // The main queue makes its Qt helper object on first use; make it here, as
    // the station does, and not on the library's thread: Qt is not built for
    // the thread sanitizer, which cannot see how Qt hands that object over.
    bool warmed = false;
    dispatch::mainQueue()->async([&] { warmed = true; });
    ASSERT_TRUE(test::processEventsUntil([&] { return warmed; }));

    SimLibrary::Session session;
    ASSERT_TRUE(session.open());
    EdsSdk *sdk = session.sdk.get();
    SimulatorControl *control = session.control;
    EdsCameraRef camera = session.camera;
    ASSERT_TRUE(control->setShotFormat("JPG", 12u << 20));
    Download d;
    d.sdk = sdk;
    ASSERT_EQ(sdk->EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, &onObject, &d), EDS_ERR_OK);

    const EdsUInt32 toHost = kEdsSaveTo_Host;
    ASSERT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_SaveTo, 0, sizeof toHost, &toHost), EDS_ERR_OK);
    ASSERT_EQ(sdk->EdsSetCapacity(camera, EdsCapacity{0x7FFFFFFF, 512, 1}), EDS_ERR_OK);
    ASSERT_TRUE(control->pressShutter());
    // The main thread calls the library between turns of its event loop, as
    // a window refreshing its controls would.
    int mainCalls = 0;
    const bool finished = test::processEventsUntil(
        [&] {
            EdsUInt32 mode = 0;
            EXPECT_EQ(sdk->EdsGetPropertyData(camera, kEdsPropID_AEMode, 0, sizeof mode, &mode), EDS_ERR_OK);
            ++mainCalls;
            return d.done.load();
        },
        std::chrono::seconds(60));
    ASSERT_TRUE(finished);

    EXPECT_EQ(d.result, EDS_ERR_OK);
    EXPECT_EQ(d.label, kEdsdkEventQueueLabel);
    EXPECT_TRUE(d.progressOnHandlerThread.load());
    EXPECT_GT(d.progressCalls.load(), 1);
    EXPECT_EQ(d.lastPercent.load(), 100u);
    ASSERT_GE(d.bytes.size(), size_t(12u << 20));
    // A whole JPEG: starts with SOI, ends with EOI.
    EXPECT_EQ(d.bytes[0], 0xFF);
    EXPECT_EQ(d.bytes[1], 0xD8);
    EXPECT_EQ(d.bytes[d.bytes.size() - 2], 0xFF);
    EXPECT_EQ(d.bytes[d.bytes.size() - 1], 0xD9);
    EXPECT_GT(mainCalls, 1);

    EXPECT_EQ(sdk->EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, nullptr, nullptr), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsCloseSession(camera), EDS_ERR_OK);
    sdk->EdsRelease(std::exchange(session.camera, nullptr));
    sdk->EdsRelease(std::exchange(session.list, nullptr));
    // The backend's own hold on the shot is given back after its handler returns.
    EXPECT_TRUE(test::processEventsUntil([&] { return control->callerReferenceCount() == 0; }))
        << control->callerReferenceCount();
}

namespace {

struct Waiting {
    std::atomic<bool> entered{false};
    std::promise<void> enteredOnce;
    std::atomic<bool> finished{false};
};

EdsError onPropertyWaitingForMain(EdsPropertyEvent, EdsPropertyID, EdsUInt32, EdsVoid *context) {
    auto *w = static_cast<Waiting *>(context);
    if (w->entered.exchange(true))
        return EDS_ERR_OK;
    w->enteredOnce.set_value();
    // As the camera object does with property changes: hand them to the main thread and wait.
    dispatch::mainQueue()->sync([] {});
    w->finished = true;
    return EDS_ERR_OK;
}

} // namespace

TEST(EdsdkBackendConcurrency, DestroyingOnTheMainThreadWhileAHandlerWaitsForItDoesNotHang) {
    bool warmed = false;
    dispatch::mainQueue()->async([&] { warmed = true; });
    ASSERT_TRUE(test::processEventsUntil([&] { return warmed; }));

    SimLibrary::Session session;
    ASSERT_TRUE(session.open());
    SimulatorControl *control = session.control;
    Waiting waiting;
    ASSERT_EQ(session.sdk->EdsSetPropertyEventHandler(session.camera, kEdsPropertyEvent_All,
                                                      &onPropertyWaitingForMain, &waiting),
              EDS_ERR_OK);
    session.sdk->EdsRelease(std::exchange(session.camera, nullptr));
    session.sdk->EdsRelease(std::exchange(session.list, nullptr));

    EXPECT_EQ(control->setStringProperty(kEdsPropID_OwnerName, "waiting"), EDS_ERR_OK);
    // Without turning the event loop: the handler is now blocked on the main thread.
    ASSERT_EQ(waiting.enteredOnce.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    session.sdk.reset(); // terminates the SDK and waits for the handler, which needs this thread
    EXPECT_TRUE(waiting.finished.load());
}

#endif
