// The real libgphoto2 with its real usb1 port driver and ptp2 camera driver on
// an EOS body emulated below libusb (eosbody/): the whole backend as the
// station uses it, and under the backend contract shared with the simulator.
#include "ClaimedDevice.h"
#include "ContractSuite.h"
#include "EosBody.h"
#include "Gphoto2Sdk.h"
#include "NotificationCenter.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;
using brix::eosbody::EosBody;

namespace {

Gphoto2Options fastOptions(int eventWaitMs = 5) {
    return {.hotplug = Gphoto2Options::Hotplug::Polling, .pollSeconds = 0.05, .eventWaitMs = eventWaitMs};
}

// The backend on the body, plugged in afresh with its factory settings.
contract::Backend emulatedBodyBackend(Gphoto2Options options = fastOptions()) {
    contract::Backend b;
    b.name = "EmulatedEosBody";
    b.make = [options]() -> std::unique_ptr<EdsSdk> {
        EosBody::instance().command("reset");
        EosBody::instance().plug();
        return std::make_unique<Gphoto2Sdk>(makeLibGphoto2Port(), options);
    };
    b.unplug = [](EdsSdk &) { return EosBody::instance().command("unplug"); };
    b.callerReferences = [](EdsSdk &sdk) { return static_cast<Gphoto2Sdk &>(sdk).callerReferences(); };
    b.done = [] { EosBody::instance().unplug(); };
    return b;
}

// A test starts the backend with the options it needs; its callbacks are
// logged as in the contract suite, whose own cases balance the references.
class EmulatedBody : public contract::SdkSession {
protected:
    const contract::Backend &backend() const override { return backend_; }
    void SetUp() override {}
    void TearDown() override {
        if (sdk_)
            SdkSession::TearDown();
    }
    void start(Gphoto2Options options = fastOptions()) {
        backend_ = emulatedBodyBackend(options);
        backend_.callerReferences = nullptr;
        SdkSession::SetUp();
    }
    // Opens the first camera on the list afresh; false when that fails.
    bool openBody() {
        EdsCameraListHandle list;
        EdsUInt32 count = 0;
        if (sdk_->EdsGetCameraList(list.receive(*sdk_)) != EDS_ERR_OK ||
            sdk_->EdsGetChildCount(list.get(), &count) != EDS_ERR_OK || count == 0 ||
            sdk_->EdsGetChildAtIndex(list.get(), 0, camera_.receive(*sdk_)) != EDS_ERR_OK)
            return false;
        sdk_->EdsSetObjectEventHandler(camera_.get(), kEdsObjectEvent_All, &contract::EventLog::onObject,
                                       &log_);
        sdk_->EdsSetCameraStateEventHandler(camera_.get(), kEdsStateEvent_All, &contract::EventLog::onState,
                                            &log_);
        sessionOpen_ = sdk_->EdsOpenSession(camera_.get()) == EDS_ERR_OK;
        return sessionOpen_;
    }
    EdsError shoot() { return sdk_->EdsSendCommand(camera_.get(), kEdsCameraCommand_TakePicture, 0); }
    size_t shutdowns() { return log_.count('s', kEdsStateEvent_Shutdown); }
    static EosBody &body() { return EosBody::instance(); }

    contract::Backend backend_;
};

} // namespace

TEST_F(EmulatedBody, BackendSavesEveryShotOfABurstCapturedToRam) {
    start(fastOptions(400)); // shots come faster than the event loop's passes
    ASSERT_TRUE(openBody());
    EXPECT_EQ(body().property(0xD11C), 4u); // capture destination: the host
    // The mode dial decides: the only AE mode on offer is the dial's.
    EdsPropertyDesc modes{};
    ASSERT_EQ(sdk_->EdsGetPropertyDesc(camera_.get(), kEdsPropID_AEMode, &modes), EDS_ERR_OK);
    ASSERT_EQ(modes.numElements, 1);
    EXPECT_EQ(modes.propDesc[0], 3); // Manual
    // The body reports each shot during the release of the next one, where
    // libgphoto2 discards what it fetched before releasing.
    body().command("transfer-after-polls 1");
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(shoot(), EDS_ERR_OK);
    ASSERT_TRUE(waitForItems(5)) << items();
    for (EdsBaseRef item : log_.items) {
        const QByteArray bytes = download(item);
        EXPECT_TRUE(bytes.startsWith("\xFF\xD8") && bytes.endsWith("\xFF\xD9"));
    }
    EXPECT_EQ(body().objectsInRam(), 0);
}

// Unplugging and plugging in again under a new device number is proven on
// the running station (StationOnEmulatedBody).
TEST_F(EmulatedBody, IoErrorsAndBusyAnswersLoseNoMoreThanTheShotInTransfer) {
    start();
    ASSERT_TRUE(openBody());

    // One failed transfer is not a vanished body: the next shot is saved.
    body().command("fail-transfers 1");
    ASSERT_EQ(shoot(), EDS_ERR_OK);
    ASSERT_EQ(shoot(), EDS_ERR_OK);
    ASSERT_TRUE(waitForItems(1));
    EXPECT_EQ(shutdowns(), 0u);

    // Busy for a moment: the shot is refused as busy, the next one goes.
    body().command("busy 1");
    EXPECT_EQ(shoot(), EDS_ERR_DEVICE_BUSY);
    ASSERT_EQ(shoot(), EDS_ERR_OK);
    ASSERT_TRUE(waitForItems(2));

    // I/O failures in a row: the body is given up, yet it is still listed,
    // so it is offered again and opens.
    body().command("fail-io 12");
    ASSERT_TRUE(test::processEventsUntil([&] { return shutdowns() >= 1; }));
    ASSERT_TRUE(test::processEventsUntil([&] { return openBody(); }));
    ASSERT_EQ(shoot(), EDS_ERR_OK);
    ASSERT_TRUE(waitForItems(3));
}

TEST_F(EmulatedBody, LiveViewOutlivesABodyThatIsNotReadyForThreeSeconds) {
    start();
    ASSERT_TRUE(openBody());
    ASSERT_EQ(setUInt32(kEdsPropID_Evf_OutputDevice, kEdsEvfOutputDevice_PC), EDS_ERR_OK);
    std::string buffer(4 << 20, '\0');
    EdsStreamHandle stream;
    ASSERT_EQ(sdk_->EdsCreateMemoryStreamFromPointer(buffer.data(), buffer.size(), stream.receive(*sdk_)),
              EDS_ERR_OK);
    EdsEvfImageHandle image;
    ASSERT_EQ(sdk_->EdsCreateEvfImageRef(stream.get(), image.receive(*sdk_)), EDS_ERR_OK);
    ASSERT_EQ(sdk_->EdsDownloadEvfImage(camera_.get(), image.get()), EDS_ERR_OK);

    // libgphoto2 waits 3 s for a frame, then gives up with a plain error: a
    // frame that is not there yet, not the end of live view.
    body().command("viewfinder-not-ready-ms 3200");
    EXPECT_EQ(sdk_->EdsDownloadEvfImage(camera_.get(), image.get()), EDS_ERR_OBJECT_NOTREADY);
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return sdk_->EdsDownloadEvfImage(camera_.get(), image.get()) == EDS_ERR_OK; }));
    EXPECT_EQ(buffer.substr(0, 2), "\xFF\xD8");
    EXPECT_EQ(shutdowns(), 0u);
    EXPECT_EQ(getUInt32(kEdsPropID_Evf_OutputDevice) & kEdsEvfOutputDevice_PC, kEdsEvfOutputDevice_PC);
}

// The body's PTP values come out as camera values through libgphoto2's labels
// and go back the same way; what the body or the property cannot take is refused.
// (Strings travel both ways in the contract suite.)
TEST_F(EmulatedBody, SettingsTravelBothWaysThroughLibgphotosLabels) {
    start();
    ASSERT_TRUE(openBody());
    EXPECT_EQ(getUInt32(kEdsPropID_Av), 0x30u);
    EXPECT_EQ(getUInt32(kEdsPropID_Tv), 0x68u);
    EXPECT_EQ(getUInt32(kEdsPropID_ISOSpeed), 0x48u);
    EXPECT_EQ(getUInt32(kEdsPropID_MeteringMode), 3u);
    EXPECT_EQ(getUInt32(kEdsPropID_ImageQuality), 0x0013ff0fu);
    EdsUInt32 v = 0;
    // A property the backend does not know.
    EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), 0x409, 0, sizeof v, &v),
              EDS_ERR_PROPERTIES_UNAVAILABLE);
    EdsPropertyDesc desc{};
    ASSERT_EQ(sdk_->EdsGetPropertyDesc(camera_.get(), kEdsPropID_Av, &desc), EDS_ERR_OK);
    ASSERT_EQ(desc.numElements, 19);
    EXPECT_EQ(desc.propDesc[4], 0x2b);

    ASSERT_EQ(setUInt32(kEdsPropID_Av, 0x38), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD101), 0x38u);
    ASSERT_EQ(setUInt32(kEdsPropID_ImageQuality, 0x00640013), EDS_ERR_OK);
    EXPECT_EQ(getUInt32(kEdsPropID_ImageQuality), 0x00640013u);
    ASSERT_EQ(setUInt32(kEdsPropID_ExposureCompensation, 0xf8), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD104), 0xf8u);
    EXPECT_EQ(setUInt32(kEdsPropID_Av, 0x18), EDS_ERR_INVALID_PARAMETER); // not on offer
    EXPECT_EQ(setUInt32(kEdsPropID_WhiteBalance, 0xFFFFFFFF), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(setUInt32(kEdsPropID_BatteryLevel, 50), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(sdk_->EdsSetPropertyData(camera_.get(), kEdsPropID_Av, 0, 2, "\x38\x00"),
              EDS_ERR_INVALID_LENGTH);
    EdsTime t{2024, 2, 29, 13, 14, 15, 0};
    ASSERT_EQ(sdk_->EdsSetPropertyData(camera_.get(), kEdsPropID_DateTime, 0, sizeof t, &t), EDS_ERR_OK);
    EdsTime when{};
    ASSERT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_DateTime, 0, sizeof when, &when),
              EDS_ERR_OK);
    EXPECT_EQ(when.day, 29u);
    EXPECT_EQ(when.hour, 13u);
    EXPECT_EQ(when.second, 15u);

    // Busy for a moment: refused as busy, and the next try goes through.
    body().command("busy 1");
    EXPECT_EQ(setUInt32(kEdsPropID_Tv, 0x78), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(body().property(0xD102), 0x68u);
    EXPECT_EQ(setUInt32(kEdsPropID_Tv, 0x78), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD102), 0x78u);

    // Commands the backend cannot map are refused before they reach the body.
    EXPECT_EQ(sdk_->EdsSendCommand(camera_.get(), kEdsCameraCommand_PressShutterButton, 2),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk_->EdsSendCommand(camera_.get(), kEdsCameraCommand_DriveLensEvf, 4),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk_->EdsSendCommand(camera_.get(), kEdsCameraCommand_DriveLensEvf, 0x8000),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk_->EdsSendCommand(camera_.get(), kEdsCameraCommand_DoClickWBEvf, 0), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(sdk_->EdsSendCommand(camera_.get(), 0x999, 0), EDS_ERR_NOT_SUPPORTED);

    // Closing gives the body back as other programs saw it: shots to the card.
    EXPECT_EQ(body().property(0xD11C), 4u); // capture destination: the host
    ASSERT_EQ(sdk_->EdsCloseSession(camera_.get()), EDS_ERR_OK);
    sessionOpen_ = false;
    EXPECT_EQ(body().property(0xD11C), 2u);
    EXPECT_EQ(sdk_->EdsCloseSession(camera_.get()), EDS_ERR_SESSION_NOT_OPEN);
    EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Av, 0, sizeof v, &v),
              EDS_ERR_SESSION_NOT_OPEN);
}

namespace {
std::atomic<int> gWaitedForMain{0};
EdsError waitForMainThread(EdsPropertyEvent, EdsPropertyID, EdsUInt32, EdsVoid *) {
    // As the camera object does with its property notifications.
    dispatch::mainQueue()->sync([] {});
    ++gWaitedForMain;
    return 0;
}
} // namespace

// Many threads at one body: every call still answers, property events keep
// coming, and ending the backend on the main thread lets handlers that wait
// for that thread finish.
TEST_F(EmulatedBody, CallsFromManyThreadsAndAnEndOnTheMainThread) {
    start();
    ASSERT_TRUE(openBody());
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (EdsPropertyID id : {kEdsPropID_Av, kEdsPropID_ISOSpeed, kEdsPropID_ImageQuality, kEdsPropID_AEMode})
        threads.emplace_back([&, id] {
            for (int i = 0; i < 30; ++i) {
                EdsDataType type = 0;
                EdsUInt32 size = 0;
                char buffer[64];
                if (sdk_->EdsGetPropertySize(camera_.get(), id, 0, &type, &size) != EDS_ERR_OK ||
                    sdk_->EdsGetPropertyData(camera_.get(), id, 0, sizeof buffer, buffer) != EDS_ERR_OK)
                    ++failures;
            }
        });
    threads.emplace_back([&] {
        const uint32_t speeds[] = {0x70, 0x78, 0x80};
        for (int i = 0; i < 30; ++i)
            if (setUInt32(kEdsPropID_Tv, speeds[i % 3]) != EDS_ERR_OK)
                ++failures;
    });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures, 0);

    gWaitedForMain = 0;
    ASSERT_EQ(
        sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All, waitForMainThread, nullptr),
        EDS_ERR_OK);
    ASSERT_EQ(setUInt32(kEdsPropID_Av, 0x38), EDS_ERR_OK);
    ASSERT_EQ(setUInt32(kEdsPropID_Tv, 0x70), EDS_ERR_OK);
    // Ended with the handler in place; must not dead-lock.
    sdk_->EdsCloseSession(camera_.get());
    camera_.reset();
    sdk_->EdsTerminateSDK();
    sdk_.reset();
    EXPECT_GE(gWaitedForMain, 1);
}

// Another program holds the body: with leave to do so, the desktop's mount is
// let go and the session opens; without, the operator is told who holds it.
TEST_F(EmulatedBody, AClaimedBodyIsFreedFromTheDesktopOnlyWithLeave) {
    QStringList gioCalls;
    QString mount;
    bool allowed = false;
    Gphoto2Options o = fastOptions();
    o.procRoot = test::testHome() + "/proc";
    o.claimRetryDelay = std::chrono::milliseconds(0);
    o.mayReleaseDesktopMount = [&] { return allowed; };
    o.runGio = [&](const QStringList &args, QString *out) {
        gioCalls << args.join(' ');
        if (out)
            *out = "Mount(0): Canon EOS 5D Mark IV -> " + mount + "\n";
        if (args.value(1) == "-u")
            body().command("claimed 0");
        return 0;
    };
    start(o);
    body().command("claimed 1");
    const QString proc = o.procRoot + "/4242";
    QDir().mkpath(proc + "/fd");
    ASSERT_TRUE(test::writeFile(proc + "/comm", "gvfsd-gphoto2\n"));
    ASSERT_TRUE(QFile::link(usbDeviceNode(body().portPath()).value_or(QString()), proc + "/fd/9"));
    mount =
        "gphoto2://" + QUrl::toPercentEncoding("[" + QString::fromStdString(body().portPath()) + "]") + "/";
    QString message;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        kCameraInUseNotification, {},
        [&](const Notification &n) { message = n.userInfo.value("message").toString(); });
    EXPECT_FALSE(openBody());
    ASSERT_TRUE(test::processEventsUntil([&] { return !message.isEmpty(); }));
    EXPECT_TRUE(message.contains("process 4242 (gvfsd-gphoto2)")) << message.toStdString();
    EXPECT_TRUE(message.contains(kPrefReleaseCameraFromDesktop));
    NotificationCenter::defaultCenter().removeObserver(token);

    allowed = true;
    EXPECT_EQ(sdk_->EdsOpenSession(camera_.get()), EDS_ERR_OK);
    sessionOpen_ = true;
    EXPECT_EQ(gioCalls, (QStringList{"mount -l", "mount -u " + mount}));
}

using contract::EdsContract;
INSTANTIATE_TEST_SUITE_P(Gphoto2, EdsContract, ::testing::Values(emulatedBodyBackend()),
                         [](const auto &info) { return info.param.name; });
