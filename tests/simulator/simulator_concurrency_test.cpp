// Many threads on one simulator at once, as the station does it: commands from
// their own threads, list updates, property reads, downloads on the event
// thread, and bodies plugged and unplugged meanwhile. Run under ThreadSanitizer.
#include "ContractSupport.h"
#include "EdsRef.h"
#include "SimulatorControl.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace brix;
using namespace brix::eds;

namespace {

struct Downloader {
    EdsSdk *sdk = nullptr;
    std::atomic<int> downloaded{0};
    std::atomic<int> failures{0};

    // Downloads on the delivering thread, as the camera object does.
    static EdsError onObject(EdsObjectEvent event, EdsBaseRef item, EdsVoid *context) {
        auto *d = static_cast<Downloader *>(context);
        if (event != kEdsObjectEvent_DirItemRequestTransfer)
            return EDS_ERR_OK;
        EdsDirectoryItemInfo info{};
        d->sdk->EdsGetDirectoryItemInfo(item, &info);
        QByteArray bytes(qsizetype(info.size), '\0');
        EdsStreamHandle stream;
        if (d->sdk->EdsCreateMemoryStreamFromPointer(bytes.data(), info.size, stream.receive(*d->sdk)) ||
            d->sdk->EdsDownload(item, info.size, stream.get()) || d->sdk->EdsDownloadComplete(item) ||
            bytes.right(2) != QByteArray("\xFF\xD9"))
            ++d->failures;
        ++d->downloaded;
        return EDS_ERR_OK;
    }
};

} // namespace

TEST(SimulatorConcurrency, CommandsListsPropertiesDownloadsAndPlugsAtOnce) {
    auto sdk = createSimulatorSdk();
    SimulatorControl *control = simulatorControl(*sdk);
    ASSERT_EQ(sdk->EdsInitializeSDK(), EDS_ERR_OK);
    std::atomic<int> added{0};
    sdk->EdsSetCameraAddedHandler(
        [](EdsVoid *c) -> EdsError {
            ++*static_cast<std::atomic<int> *>(c);
            return EDS_ERR_OK;
        },
        &added);

    EdsCameraHandle camera;
    {
        EdsCameraListHandle list;
        ASSERT_EQ(sdk->EdsGetCameraList(list.receive(*sdk)), EDS_ERR_OK);
        ASSERT_EQ(sdk->EdsGetChildAtIndex(list.get(), 0, camera.receive(*sdk)), EDS_ERR_OK);
    }
    ASSERT_EQ(sdk->EdsOpenSession(camera.get()), EDS_ERR_OK);
    Downloader downloader;
    downloader.sdk = sdk.get();
    contract::EventLog log;
    log.sdk = sdk.get();
    sdk->EdsSetObjectEventHandler(camera.get(), kEdsObjectEvent_All, &Downloader::onObject, &downloader);
    sdk->EdsSetPropertyEventHandler(camera.get(), kEdsPropertyEvent_All, &contract::EventLog::onProperty,
                                    &log);
    EdsUInt32 host = kEdsSaveTo_Host;
    ASSERT_EQ(sdk->EdsSetPropertyData(camera.get(), kEdsPropID_SaveTo, 0, 4, &host), EDS_ERR_OK);

    constexpr int kShots = 12;
    std::vector<std::thread> threads;
    threads.emplace_back([&] { // commands, each from the same sending thread here
        for (int i = 0; i < kShots / 2; ++i)
            EXPECT_EQ(sdk->EdsSendCommand(camera.get(), kEdsCameraCommand_TakePicture, 0), EDS_ERR_OK);
    });
    threads.emplace_back([&] { // the body's own button
        for (int i = 0; i < kShots / 2; ++i)
            EXPECT_TRUE(control->pressShutter());
    });
    threads.emplace_back([&] { // property traffic both ways
        for (int i = 0; i < 200; ++i) {
            EdsUInt32 v = (i % 2) ? 0x48 : 0x50;
            EXPECT_EQ(sdk->EdsSetPropertyData(camera.get(), kEdsPropID_ISOSpeed, 0, 4, &v), EDS_ERR_OK);
            EdsUInt32 back = 0;
            EXPECT_EQ(sdk->EdsGetPropertyData(camera.get(), kEdsPropID_Tv, 0, 4, &back), EDS_ERR_OK);
            control->setProperty(kEdsPropID_BatteryLevel, EdsUInt32(100 - i % 50));
            (void)control->property(kEdsPropID_BatteryLevel);
        }
    });
    threads.emplace_back([&] { // camera-list updates while bodies come and go
        for (int i = 0; i < 100; ++i) {
            EdsCameraListHandle list;
            if (sdk->EdsGetCameraList(list.receive(*sdk)) != EDS_ERR_OK)
                continue;
            EdsUInt32 n = 0;
            sdk->EdsGetChildCount(list.get(), &n);
            for (EdsUInt32 k = 0; k < n; ++k) {
                EdsCameraHandle c;
                if (sdk->EdsGetChildAtIndex(list.get(), EdsInt32(k), c.receive(*sdk)) == EDS_ERR_OK) {
                    EdsDeviceInfo info{};
                    sdk->EdsGetDeviceInfo(c.get(), &info);
                }
            }
        }
    });
    threads.emplace_back([&] { // a second body plugged and pulled repeatedly
        for (int i = 0; i < 20; ++i) {
            control->plug("Canon EOS R6", -1);
            control->unplug();
        }
    });
    for (auto &t : threads)
        t.join();

    ASSERT_TRUE(
        test::processEventsUntil([&] { return downloader.downloaded == kShots; }, std::chrono::seconds(60)));
    EXPECT_EQ(downloader.failures, 0);
    EXPECT_EQ(control->shotCount(), unsigned(kShots));
    EXPECT_TRUE(test::processEventsUntil([&] { return added == 20; }));
    EXPECT_EQ(control->attachedCount(), 1);

    sdk->EdsSetObjectEventHandler(camera.get(), kEdsObjectEvent_All, nullptr, nullptr);
    sdk->EdsSetPropertyEventHandler(camera.get(), kEdsPropertyEvent_All, nullptr, nullptr);
    EXPECT_EQ(sdk->EdsCloseSession(camera.get()), EDS_ERR_OK);
    camera.reset();
    EXPECT_EQ(control->callerReferenceCount(), 0);
    EXPECT_EQ(control->liveObjectCount(), 1); // the attached body
    // A delivery may still be under way on the event queue: the SDK goes first,
    // so it ends before the log and the downloader it calls do.
    sdk.reset();
}

TEST(SimulatorShutdown, DestroyingOnTheMainThreadWhileAHandlerWaitsForItDoesNotHang) {
    auto sdk = createSimulatorSdk();
    ASSERT_EQ(sdk->EdsInitializeSDK(), EDS_ERR_OK);
    EdsCameraHandle camera;
    {
        EdsCameraListHandle list;
        ASSERT_EQ(sdk->EdsGetCameraList(list.receive(*sdk)), EDS_ERR_OK);
        ASSERT_EQ(sdk->EdsGetChildAtIndex(list.get(), 0, camera.receive(*sdk)), EDS_ERR_OK);
    }
    ASSERT_EQ(sdk->EdsOpenSession(camera.get()), EDS_ERR_OK);
    struct Waiter {
        std::atomic<bool> entered{false};
        std::atomic<bool> mainRan{false};
    } waiter;
    // As the camera object does: hand the change to the main thread and wait.
    sdk->EdsSetPropertyEventHandler(
        camera.get(), kEdsPropertyEvent_All,
        [](EdsPropertyEvent, EdsPropertyID, EdsUInt32, EdsVoid *context) -> EdsError {
            auto *w = static_cast<Waiter *>(context);
            w->entered = true;
            dispatch::mainQueue()->sync([w] { w->mainRan = true; });
            return EDS_ERR_OK;
        },
        &waiter);
    EdsUInt32 iso = 0x50;
    ASSERT_EQ(sdk->EdsSetPropertyData(camera.get(), kEdsPropID_ISOSpeed, 0, 4, &iso), EDS_ERR_OK);
    // Wait (without running the main queue) until the handler blocks on it.
    for (int i = 0; i < 2000 && !waiter.entered; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(waiter.entered);
    sdk->EdsCloseSession(camera.get());
    camera.reset();
    sdk.reset(); // would dead-lock if it blocked the main thread
    EXPECT_TRUE(waiter.mainRan);
}
