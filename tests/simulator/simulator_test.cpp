// What the simulated body does beyond the common backend contract: AE-mode
// dependent settings, shot files and names, refusals, plugging, and reference
// bookkeeping; and the contract itself, run against the simulated camera on a
// manual clock so that live-view frames come when the test says.
#include "ContractSuite.h"
#include "EdsRef.h"
#include "SimulatorControl.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QImage>

#include <gtest/gtest.h>

#include <cstring>

using namespace brix;
using namespace brix::eds;

namespace {

dispatch::ManualClock &simulatorClock() {
    static dispatch::ManualClock clock;
    return clock;
}

contract::Backend simulatorBackend() {
    contract::Backend b;
    b.name = "Simulator";
    b.make = [] {
        dispatch::setClock(&simulatorClock());
        return createSimulatorSdk();
    };
    b.unplug = [](EdsSdk &sdk) { return simulatorControl(sdk)->unplug(); };
    b.injectError = [](EdsSdk &sdk, const std::string &op, EdsError code, unsigned count) {
        return simulatorControl(sdk)->injectError(op, code, count);
    };
    b.callerReferences = [](EdsSdk &sdk) { return simulatorControl(sdk)->callerReferenceCount(); };
    b.nextFrame = [] { simulatorClock().advanceSeconds(0.1); };
    b.done = [] { dispatch::setClock(nullptr); };
    return b;
}

class Simulator : public contract::SdkSession {
protected:
    const contract::Backend &backend() const override {
        static const contract::Backend simulator = simulatorBackend();
        return simulator;
    }
    void SetUp() override {
        SdkSession::SetUp();
        control_ = simulatorControl(*sdk_);
        ASSERT_NE(control_, nullptr);
    }
    std::vector<EdsInt32> desc(EdsPropertyID id) {
        EdsPropertyDesc d{};
        EXPECT_EQ(sdk_->EdsGetPropertyDesc(camera_.get(), id, &d), EDS_ERR_OK);
        return {d.propDesc, d.propDesc + d.numElements};
    }

    SimulatorControl *control_ = nullptr;
};

bool contains(const std::vector<EdsInt32> &v, EdsInt32 x) {
    return std::find(v.begin(), v.end(), x) != v.end();
}

} // namespace

namespace brix::eds::contract {
INSTANTIATE_TEST_SUITE_P(Simulator, EdsContract, ::testing::Values(simulatorBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });
} // namespace brix::eds::contract

TEST_F(Simulator, TheAEModeDecidesWhichExposureSettingsTheHostMayChange) {
    openFirstCamera();
    // Manual: everything is the host's.
    EXPECT_EQ(getUInt32(kEdsPropID_AEMode), 3u);
    EXPECT_TRUE(contains(desc(kEdsPropID_Av), 0x30));
    EXPECT_TRUE(contains(desc(kEdsPropID_Tv), 0xA0));
    EXPECT_FALSE(contains(desc(kEdsPropID_Tv), 0x0C));

    // Program AE: the body picks aperture and speed.
    ASSERT_EQ(setUInt32(kEdsPropID_AEMode, 0), EDS_ERR_OK);
    EXPECT_TRUE(desc(kEdsPropID_Av).empty());
    EXPECT_TRUE(desc(kEdsPropID_Tv).empty());
    EXPECT_EQ(setUInt32(kEdsPropID_Av, 0x30), EDS_ERR_INVALID_PARAMETER);
    ASSERT_TRUE(test::processEventsUntil([&] {
        return log_.count('p', kEdsPropertyEvent_PropertyDescChanged, kEdsPropID_Av) == 1 &&
               log_.count('p', kEdsPropertyEvent_PropertyDescChanged, kEdsPropID_Tv) == 1;
    }));
    EXPECT_EQ(log_.count('p', kEdsPropertyEvent_PropertyDescChanged, kEdsPropID_ISOSpeed), 0u);

    // Bulb: the speed is bulb and nothing else.
    ASSERT_EQ(setUInt32(kEdsPropID_AEMode, 4), EDS_ERR_OK);
    EXPECT_EQ(desc(kEdsPropID_Tv), std::vector<EdsInt32>{0x0C});
    EXPECT_EQ(getUInt32(kEdsPropID_Tv), 0x0Cu);
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return log_.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_Tv) == 1; }));

    // Back to manual: the speed leaves bulb for an allowed one.
    ASSERT_EQ(setUInt32(kEdsPropID_AEMode, 3), EDS_ERR_OK);
    EXPECT_NE(getUInt32(kEdsPropID_Tv), 0x0Cu);
    EXPECT_TRUE(contains(desc(kEdsPropID_Tv), EdsInt32(getUInt32(kEdsPropID_Tv))));

    // The dial turned on the body to full auto takes ISO and colour away too.
    ASSERT_EQ(control_->setProperty(kEdsPropID_AEMode, 9), EDS_ERR_OK);
    EXPECT_TRUE(desc(kEdsPropID_ISOSpeed).empty());
    EXPECT_TRUE(desc(kEdsPropID_WhiteBalance).empty());
    EXPECT_FALSE(desc(kEdsPropID_ImageQuality).empty());
    EXPECT_EQ(control_->property(kEdsPropID_AEMode).toUInt(), 9u);
    EXPECT_EQ(setUInt32(kEdsPropID_AEMode, 7), EDS_ERR_INVALID_PARAMETER); // not on this dial

    // Values set from outside replace a description and say so.
    ASSERT_EQ(control_->setSupportedValues(kEdsPropID_DriveMode, {0, 0x11}), EDS_ERR_OK);
    EXPECT_EQ(desc(kEdsPropID_DriveMode), (std::vector<EdsInt32>{0, 0x11}));
    EXPECT_TRUE(test::processEventsUntil(
        [&] { return log_.count('p', kEdsPropertyEvent_PropertyDescChanged, kEdsPropID_DriveMode) == 1; }));
    // Read-only values are the body's.
    EXPECT_EQ(setUInt32(kEdsPropID_BatteryLevel, 10), EDS_ERR_NOT_SUPPORTED);
    ASSERT_EQ(control_->setProperty(kEdsPropID_BatteryLevel, 0xFFFFFFFF), EDS_ERR_OK);
    EXPECT_EQ(getUInt32(kEdsPropID_BatteryLevel), 0xFFFFFFFFu);
}

TEST_F(Simulator, ShotsAreRealFilesNamedInOrderAndSizedAsAsked) {
    openFirstCamera();
    constexpr uint64_t k30MB = 30ull * 1024 * 1024;
    ASSERT_TRUE(control_->setShotFormat("jpg", k30MB));
    EdsDirectoryItemInfo info{};
    QByteArray jpeg = download(shootToHost(), &info);
    EXPECT_STREQ(info.szFileName, "IMG_0001.JPG");
    ASSERT_EQ(uint64_t(jpeg.size()), k30MB);
    EXPECT_EQ(jpeg.right(2), QByteArray("\xFF\xD9"));
    const QImage picture = QImage::fromData(jpeg, "JPEG");
    EXPECT_EQ(picture.size(), QSize(1620, 1080));
    jpeg.clear();

    ASSERT_TRUE(control_->setShotFormat("CR2", 3'000'000));
    ASSERT_TRUE(control_->pressShutter()); // the body's own button
    ASSERT_TRUE(waitForItems(2));
    const QByteArray raw = download(log_.items[1], &info);
    EXPECT_STREQ(info.szFileName, "IMG_0002.CR2");
    EXPECT_EQ(raw.size(), 3'000'000);
    EXPECT_TRUE(raw.startsWith(QByteArray("II*\0", 4)));
    EXPECT_EQ(raw.mid(8, 2), QByteArray("CR"));
    EXPECT_NE(raw.right(2), QByteArray("\xFF\xD9"));
    EXPECT_FALSE(control_->setShotFormat("NEF", 0));

    // Saved to the card only: counted, but the host is not offered it.
    ASSERT_TRUE(control_->setShotFormat("JPG", 0));
    ASSERT_EQ(setUInt32(kEdsPropID_SaveTo, kEdsSaveTo_Camera), EDS_ERR_OK);
    ASSERT_EQ(send(kEdsCameraCommand_TakePicture), EDS_ERR_OK);
    const QByteArray third = download(shootToHost(), &info);
    EXPECT_EQ(control_->shotCount(), 4u);
    EXPECT_EQ(items(), 3u);
    EXPECT_EQ(third.size(), qsizetype(info.size));
    EXPECT_STREQ(info.szFileName, "IMG_0004.JPG"); // the card's counter went on
}

TEST_F(Simulator, StampedShotsShareOnePictureAndAreToldApartByTheirNumber) {
    openFirstCamera();
    ASSERT_EQ(setUInt32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
    control_->setStampedShots(true);
    ASSERT_TRUE(control_->setShotFormat("JPG", 2'000'000));
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(control_->pressShutter());
    ASSERT_TRUE(waitForItems(3));
    const SimulatorControl::ShotBuffer waiting = control_->shotBuffer();
    EXPECT_EQ(waiting.shots, 3u);
    EXPECT_EQ(waiting.bytes, 2'000'000u); // one file held, not three

    control_->setTransferRate(20e6);
    std::vector<QByteArray> shots;
    EdsDirectoryItemInfo info{};
    QElapsedTimer transfer;
    transfer.start();
    for (int i = 0; i < 3; ++i)
        shots.push_back(download(log_.items[size_t(i)], &info));
    EXPECT_GE(transfer.elapsed(), 280); // 6 MB at 20 MB/s
    EXPECT_EQ(control_->shotBuffer().shots, 0u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(shots[size_t(i)].size(), 2'000'000);
        EXPECT_TRUE(shots[size_t(i)].endsWith("\xFF\xD9"));
        EXPECT_TRUE(shots[size_t(i)].contains(QByteArray("BRIX SHOT 000000000") + char('1' + i)));
        EXPECT_EQ(QImage::fromData(shots[size_t(i)], "JPEG").size(), QSize(1620, 1080));
    }
    EXPECT_NE(shots[0], shots[1]);

    // A raw shot carries its number in the sensor data, past the preview.
    control_->setTransferRate(0);
    ASSERT_TRUE(control_->setShotFormat("CR2", 3'000'000));
    ASSERT_TRUE(control_->pressShutter());
    ASSERT_TRUE(waitForItems(4));
    const QByteArray raw = download(log_.items[3], &info);
    EXPECT_TRUE(raw.startsWith(QByteArray("II*\0", 4)));
    EXPECT_GT(raw.indexOf("BRIX SHOT 0000000004"), raw.indexOf("\xFF\xD9"));
}

TEST_F(Simulator, ShutterButtonBulbAndInjectedRefusals) {
    openFirstCamera();
    ASSERT_EQ(setUInt32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
    EXPECT_EQ(send(kEdsCameraCommand_BulbStart), 0xA005u); // manual, not bulb
    EXPECT_EQ(send(kEdsCameraCommand_PressShutterButton, 2), EDS_ERR_INVALID_PARAMETER);

    // Fully pressed: one shot; a take-picture meanwhile is refused as busy.
    ASSERT_EQ(send(kEdsCameraCommand_PressShutterButton, kEdsCameraCommand_ShutterButton_Halfway),
              EDS_ERR_OK);
    ASSERT_EQ(send(kEdsCameraCommand_PressShutterButton, kEdsCameraCommand_ShutterButton_Completely_NonAF),
              EDS_ERR_OK);
    EXPECT_EQ(send(kEdsCameraCommand_TakePicture), EDS_ERR_DEVICE_BUSY);
    ASSERT_EQ(send(kEdsCameraCommand_PressShutterButton, kEdsCameraCommand_ShutterButton_OFF), EDS_ERR_OK);
    EXPECT_EQ(control_->shotCount(), 1u);

    // Bulb: the exposure is one shot, made when it ends.
    ASSERT_EQ(setUInt32(kEdsPropID_AEMode, 4), EDS_ERR_OK);
    ASSERT_EQ(send(kEdsCameraCommand_BulbStart), EDS_ERR_OK);
    EXPECT_EQ(send(kEdsCameraCommand_BulbStart), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(control_->shotCount(), 1u);
    simulatorClock().advanceSeconds(30);
    ASSERT_EQ(send(kEdsCameraCommand_BulbEnd), EDS_ERR_OK);
    EXPECT_EQ(control_->shotCount(), 2u);
    EXPECT_TRUE(
        test::processEventsUntil([&] { return log_.count('s', kEdsStateEvent_BulbExposureTime, 30) == 1; }));
    // The half press focused (AF on) once, and reported it.
    EXPECT_EQ(log_.count('s', kEdsStateEvent_AfResult), 1u);
    EXPECT_EQ(send(kEdsCameraCommand_BulbEnd), 0xA005u);

    // A refusal aimed at one command leaves the others alone.
    ASSERT_TRUE(control_->injectError("TakePicture", EDS_ERR_TAKE_PICTURE_AF_NG, 1));
    EXPECT_EQ(send(kEdsCameraCommand_ExtendShutDownTimer), EDS_ERR_OK);
    EXPECT_EQ(send(kEdsCameraCommand_TakePicture), EDS_ERR_TAKE_PICTURE_AF_NG);
    EXPECT_EQ(control_->shotCount(), 2u);
    // The prefix may be left out; a count of 0 withdraws an injection.
    ASSERT_TRUE(control_->injectError("OpenSession", EDS_ERR_DEVICE_BUSY, 5));
    ASSERT_TRUE(control_->injectError("EdsOpenSession", EDS_ERR_DEVICE_BUSY, 0));
    EXPECT_FALSE(control_->injectError("EdsFrobnicate", 1, 1));
    ASSERT_TRUE(waitForItems(2));
    for (EdsBaseRef item : log_.items)
        EXPECT_EQ(sdk_->EdsDownloadComplete(item), EDS_ERR_OK);
}

TEST_F(Simulator, PluggingCallsTheAddedHandlerOnTheEventQueueAndReferencesBalance) {
    const long objectsAtStart = control_->liveObjectCount();
    struct Added {
        std::atomic<int> calls{0};
        std::atomic<bool> onEventQueue{true};
    } added;
    ASSERT_EQ(sdk_->EdsSetCameraAddedHandler(
                  [](EdsVoid *context) -> EdsError {
                      auto *a = static_cast<Added *>(context);
                      if (std::strcmp(dispatch::currentQueueLabel(), kSimulatorEventQueueLabel) != 0)
                          a->onEventQueue = false;
                      ++a->calls;
                      return EDS_ERR_OK;
                  },
                  &added),
              EDS_ERR_OK);
    EXPECT_EQ(control_->plug("Canon EOS R5", -1), 2);
    ASSERT_TRUE(test::processEventsUntil([&] { return added.calls == 1; }));
    EXPECT_TRUE(added.onEventQueue);

    // A list taken now keeps the new body alive after it is unplugged.
    EdsCameraListHandle list;
    ASSERT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_OK);
    EdsCameraHandle r5;
    ASSERT_EQ(sdk_->EdsGetChildAtIndex(list.get(), 1, r5.receive(*sdk_)), EDS_ERR_OK);
    EXPECT_TRUE(control_->unplug());
    EdsDeviceInfo info{};
    EXPECT_EQ(sdk_->EdsGetDeviceInfo(r5.get(), &info), EDS_ERR_OK);
    EXPECT_STREQ(info.szDeviceDescription, "Canon EOS R5");
    EXPECT_EQ(sdk_->EdsOpenSession(r5.get()), EDS_ERR_DEVICE_NOT_FOUND);
    // Giving back a count the host never had is refused, not obeyed.
    const EdsBaseRef raw = r5.get();
    EXPECT_EQ(control_->callerReferenceCount(), 2);
    r5.reset();
    list.reset();
    EXPECT_EQ(sdk_->EdsRelease(raw), 0xFFFFFFFFu); // gone with its last count
    int notAReference = 0;
    EXPECT_EQ(sdk_->EdsRetain(reinterpret_cast<EdsBaseRef>(&notAReference)), 0xFFFFFFFFu);
    EXPECT_EQ(control_->liveObjectCount(), objectsAtStart);

    EdsCameraListHandle again;
    ASSERT_EQ(sdk_->EdsGetCameraList(again.receive(*sdk_)), EDS_ERR_OK);
    EdsCameraHandle first;
    ASSERT_EQ(sdk_->EdsGetChildAtIndex(again.get(), 0, first.receive(*sdk_)), EDS_ERR_OK);
    EXPECT_EQ(sdk_->EdsRelease(again.get()), 0u); // the list goes, the child handle stays valid
    (void)again.take();
    EXPECT_EQ(sdk_->EdsRelease(first.get()), 1u); // the bus still holds the body
    (void)first.take();
    EXPECT_EQ(sdk_->EdsRelease(first.get()), 0xFFFFFFFFu);
    EXPECT_EQ(sdk_->EdsTerminateSDK(), EDS_ERR_OK);
    EdsCameraListHandle none;
    EXPECT_NE(sdk_->EdsGetCameraList(none.receive(*sdk_)), EDS_ERR_OK);
}
