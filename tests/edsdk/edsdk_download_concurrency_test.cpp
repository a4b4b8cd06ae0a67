// A download through the edsdk backend whose progress callback waits for the
// main thread, while the main thread itself keeps calling the library: the
// library's queue must go on serving the main thread, or both wait forever.
// And the backend ended on the main thread while a handler waits for that
// thread. The bytes, threads and references of a download are the contract's
// (EdsContract over this library).
#include "SimLibrary.h"

#ifdef BRIX_EDSDK_SIM_LIBRARY

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

using namespace brix;
using namespace brix::eds;
using brix::test::SimLibrary;

namespace {

class EdsdkBackendConcurrency : public test::SimLibrarySession {
protected:
    void SetUp() override {
        // The main queue makes its Qt helper object on first use; make it here,
        // as the station does, and not on the library's thread: Qt is not built
        // for the thread sanitizer, which cannot see how Qt hands that object over.
        bool warmed = false;
        dispatch::mainQueue()->async([&] { warmed = true; });
        ASSERT_TRUE(test::processEventsUntil([&] { return warmed; }));
        SimLibrarySession::SetUp();
        openFirstCamera();
    }
};

struct Download {
    EdsSdk *sdk = nullptr;
    std::atomic<int> progressCalls{0};
    EdsError result = EDS_ERR_INTERNAL_ERROR;
    std::atomic<bool> done{false};
};

// Never cancels: the caller's answer starts as "go on".
EdsError onProgress(EdsUInt32, EdsVoid *context, EdsBool *) {
    ++static_cast<Download *>(context)->progressCalls;
    // As the camera object does: hand the progress to the main thread and wait.
    dispatch::mainQueue()->sync([] {});
    return EDS_ERR_OK;
}

EdsError onObject(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
    auto *d = static_cast<Download *>(context);
    if (event != kEdsObjectEvent_DirItemRequestTransfer || d->done)
        return EDS_ERR_OK;
    EdsSdk &sdk = *d->sdk;
    EdsDirectoryItemInfo info{};
    sdk.EdsGetDirectoryItemInfo(ref, &info);
    std::vector<unsigned char> bytes(size_t(info.size));
    EdsStreamHandle stream;
    d->result = sdk.EdsCreateMemoryStreamFromPointer(bytes.data(), bytes.size(), stream.receive(sdk));
    if (d->result == EDS_ERR_OK) {
        sdk.EdsSetProgressCallback(stream.get(), &onProgress, kEdsProgressOption_Periodically, d);
        d->result = sdk.EdsDownload(ref, info.size, stream.get());
        if (d->result == EDS_ERR_OK)
            d->result = sdk.EdsDownloadComplete(ref);
    }
    d->done = true;
    return EDS_ERR_OK;
}

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

TEST_F(EdsdkBackendConcurrency, ProgressWaitingForTheMainThreadDoesNotBlockTheMainThreadsCalls) {
    SimulatorControl *control = SimLibrary::control();
    ASSERT_TRUE(control->setShotFormat("JPG", 12u << 20));
    Download d;
    d.sdk = sdk_.get();
    ASSERT_EQ(sdk_->EdsSetObjectEventHandler(camera_.get(), kEdsObjectEvent_All, &onObject, &d), EDS_ERR_OK);
    ASSERT_EQ(setUInt32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
    ASSERT_EQ(sdk_->EdsSetCapacity(camera_.get(), EdsCapacity{0x7FFFFFFF, 512, 1}), EDS_ERR_OK);
    ASSERT_TRUE(control->pressShutter());
    // The main thread calls the library between turns of its event loop, as
    // a window refreshing its controls would.
    int mainCalls = 0;
    ASSERT_TRUE(test::processEventsUntil(
        [&] {
            getUInt32(kEdsPropID_AEMode);
            ++mainCalls;
            return d.done.load();
        },
        std::chrono::seconds(60)));
    EXPECT_EQ(d.result, EDS_ERR_OK);
    EXPECT_GT(d.progressCalls.load(), 1);
    EXPECT_GT(mainCalls, 1);
    // The backend's own hold on the shot is given back after its handler
    // returns, which leaves the camera's.
    EXPECT_TRUE(test::processEventsUntil([&] { return control->callerReferenceCount() == 1; }))
        << control->callerReferenceCount();
}

TEST_F(EdsdkBackendConcurrency, DestroyingOnTheMainThreadWhileAHandlerWaitsForItDoesNotHang) {
    Waiting waiting;
    ASSERT_EQ(sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All,
                                               &onPropertyWaitingForMain, &waiting),
              EDS_ERR_OK);
    camera_.reset();
    EXPECT_EQ(SimLibrary::control()->setStringProperty(kEdsPropID_OwnerName, "waiting"), EDS_ERR_OK);
    // Without turning the event loop: the handler is now blocked on the main thread.
    ASSERT_EQ(waiting.enteredOnce.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    // Terminates the SDK and waits for the handler, which needs this thread.
    sdk_.reset();
    EXPECT_TRUE(waiting.finished.load());
}

#endif
