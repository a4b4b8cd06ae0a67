// The simulator ended on the main thread while its event thread waits for
// that thread. Run under ThreadSanitizer; the simulator under load from many
// threads is run through the camera object (tests/camera).
#include "EdsRef.h"
#include "SimulatorControl.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace brix;
using namespace brix::eds;

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
