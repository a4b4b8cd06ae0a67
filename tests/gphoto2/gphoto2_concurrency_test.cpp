// Many threads at one camera: every libgphoto2 call for it still runs alone
// (the test double flags overlapping calls), while its event loop keeps
// delivering property events and a disconnect ends it all cleanly.
#include "FakeGphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;

namespace {
std::atomic<int> gChanges{0};
std::atomic<int> gShutdowns{0};

EdsError onProperty(EdsPropertyEvent event, EdsPropertyID, EdsUInt32, EdsVoid *) {
    if (event == kEdsPropertyEvent_PropertyChanged)
        ++gChanges;
    return 0;
}
EdsError onState(EdsStateEvent event, EdsUInt32, EdsVoid *) {
    if (event == kEdsStateEvent_Shutdown)
        ++gShutdowns;
    return 0;
}
} // namespace

TEST(Gphoto2Concurrency, CallsFromManyThreadsNeverOverlapOnTheCamera) {
    gChanges = 0;
    gShutdowns = 0;
    auto port = std::make_shared<replay::FakeGphoto2Port>(
        replay::parseListAllConfig(replay::fixture("eos-5d-mark-iii.txt")));
    port->setDetected({{"Canon EOS 5D Mark III", "usb:002,003"}});
    Gphoto2Options o;
    o.hotplug = Gphoto2Options::Hotplug::Off;
    o.eventWaitMs = 1;
    auto sdk = std::make_unique<Gphoto2Sdk>(port, o);
    ASSERT_EQ(sdk->EdsInitializeSDK(), EDS_ERR_OK);
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(sdk->EdsGetCameraList(&list), EDS_ERR_OK);
    EdsCameraRef camera = nullptr;
    ASSERT_EQ(sdk->EdsGetChildAtIndex(list, 0, &camera), EDS_ERR_OK);
    sdk->EdsRelease(list);
    sdk->EdsSetCameraStateEventHandler(camera, kEdsStateEvent_All, onState, nullptr);
    ASSERT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_OK);
    sdk->EdsSetPropertyEventHandler(camera, kEdsPropertyEvent_All, onProperty, nullptr);

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    const EdsPropertyID reads[] = {kEdsPropID_Av, kEdsPropID_ISOSpeed, kEdsPropID_ImageQuality,
                                   kEdsPropID_LensName};
    for (EdsPropertyID id : reads) {
        threads.emplace_back([&, id] {
            for (int i = 0; i < 100; ++i) {
                EdsDataType type = 0;
                EdsUInt32 size = 0;
                char buffer[64];
                if (sdk->EdsGetPropertySize(camera, id, 0, &type, &size) != EDS_ERR_OK ||
                    sdk->EdsGetPropertyData(camera, id, 0, sizeof buffer, buffer) != EDS_ERR_OK)
                    ++failures;
            }
        });
    }
    threads.emplace_back([&] {
        const uint32_t speeds[] = {0x70, 0x78, 0x80};
        for (int i = 0; i < 60; ++i)
            if (sdk->EdsSetPropertyData(camera, kEdsPropID_Tv, 0, 4, &speeds[i % 3]) != EDS_ERR_OK)
                ++failures;
    });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(test::processEventsUntil([] { return gChanges >= 60; }));
    port->unplug();
    EXPECT_TRUE(test::processEventsUntil([] { return gShutdowns == 1; }));
    EXPECT_FALSE(port->overlapped());
    sdk->EdsCloseSession(camera);
    sdk->EdsRelease(camera);
    sdk.reset();
    EXPECT_EQ(gShutdowns, 1);
}
