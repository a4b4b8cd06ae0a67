// The real libgphoto2 with its real usb1 port driver and ptp2 camera driver on
// an EOS body emulated below libusb (eosbody/): the whole backend as the
// station uses it, and under the backend contract shared with the simulator.
#include "ClaimedDevice.h"
#include "ContractSuite.h"
#include "EosBody.h"
#include "Gphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "NotificationCenter.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;
using brix::eosbody::EosBody;

namespace {

class EmulatedBody : public ::testing::Test {
protected:
    void SetUp() override {
        body().command("reset");
        body().plug();
    }
    void TearDown() override { body().unplug(); }
    static EosBody &body() { return EosBody::instance(); }
};

// The station's side of the boundary, reduced to what a shot needs: every
// object event downloads the item whole, as the camera code does.
struct Station {
    explicit Station(Gphoto2Options o = fastOptions()) : sdk(makeLibGphoto2Port(), o) {
        initialized = sdk.EdsInitializeSDK() == EDS_ERR_OK;
    }
    static Gphoto2Options fastOptions() {
        Gphoto2Options o;
        o.hotplug = Gphoto2Options::Hotplug::Polling;
        o.pollSeconds = 0.05;
        o.eventWaitMs = 5;
        return o;
    }

    Gphoto2Sdk sdk;
    bool initialized = false;
    EdsCameraRef camera = nullptr;
    std::mutex m;
    std::vector<std::pair<std::string, std::string>> shots; // name, bytes
    std::vector<EdsError> failures;
    std::atomic<int> shutdowns{0};

    static EdsError onObject(EdsObjectEvent, EdsBaseRef item, EdsVoid *ctx) {
        auto *s = static_cast<Station *>(ctx);
        EdsDirectoryItemInfo info{};
        EdsError e = s->sdk.EdsGetDirectoryItemInfo(item, &info);
        std::string bytes(info.size, '\0');
        if (e == EDS_ERR_OK) {
            EdsStreamRef stream = nullptr;
            s->sdk.EdsCreateMemoryStreamFromPointer(bytes.data(), bytes.size(), &stream);
            e = s->sdk.EdsDownload(item, info.size, stream);
            if (e == EDS_ERR_OK)
                e = s->sdk.EdsDownloadComplete(item);
            s->sdk.EdsRelease(stream);
        }
        std::lock_guard lock(s->m);
        if (e == EDS_ERR_OK)
            s->shots.emplace_back(info.szFileName, bytes);
        else
            s->failures.push_back(e);
        return 0;
    }
    static EdsError onState(EdsStateEvent event, EdsUInt32, EdsVoid *ctx) {
        if (event == kEdsStateEvent_Shutdown)
            ++static_cast<Station *>(ctx)->shutdowns;
        return 0;
    }

    // Opens the first camera on the list; false when there is none.
    bool open() {
        if (!initialized)
            return false;
        if (camera)
            sdk.EdsRelease(camera);
        camera = nullptr;
        EdsCameraListRef list = nullptr;
        if (sdk.EdsGetCameraList(&list) != EDS_ERR_OK)
            return false;
        EdsUInt32 count = 0;
        sdk.EdsGetChildCount(list, &count);
        if (count > 0)
            sdk.EdsGetChildAtIndex(list, 0, &camera);
        sdk.EdsRelease(list);
        return camera &&
               sdk.EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, onObject, this) == EDS_ERR_OK &&
               sdk.EdsSetCameraStateEventHandler(camera, kEdsStateEvent_All, onState, this) == EDS_ERR_OK &&
               sdk.EdsOpenSession(camera) == EDS_ERR_OK;
    }
    EdsError shoot() { return sdk.EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0); }
    size_t shotCount() {
        std::lock_guard lock(m);
        return shots.size();
    }
    ~Station() {
        if (camera) {
            sdk.EdsCloseSession(camera);
            sdk.EdsRelease(camera);
        }
        sdk.EdsTerminateSDK();
    }
};

} // namespace

TEST_F(EmulatedBody, BackendSavesEveryShotOfABurstCapturedToRam) {
    Gphoto2Options o = Station::fastOptions();
    o.eventWaitMs = 400; // shots come faster than the event loop's passes
    Station s(o);
    ASSERT_TRUE(s.open());
    EXPECT_EQ(body().captureDestination(), 4u); // the host
    // The mode dial decides: the only AE mode on offer is the dial's.
    EdsPropertyDesc modes{};
    ASSERT_EQ(s.sdk.EdsGetPropertyDesc(s.camera, kEdsPropID_AEMode, &modes), EDS_ERR_OK);
    ASSERT_EQ(modes.numElements, 1);
    EXPECT_EQ(modes.propDesc[0], 3); // Manual
    // The body reports each shot during the release of the next one, where
    // libgphoto2 discards what it fetched before releasing.
    body().command("transfer-after-polls 1");
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 5; })) << s.shotCount();
    for (const auto &[name, bytes] : s.shots) {
        EXPECT_EQ(bytes.substr(0, 2), "\xFF\xD8") << name;
        EXPECT_EQ(bytes.substr(bytes.size() - 2), "\xFF\xD9") << name;
    }
    EXPECT_TRUE(s.failures.empty());
    EXPECT_EQ(body().objectsInRam(), 0);

    // RAW+JPEG: both files of the shot, the pair together.
    body().command("raw+jpeg 1");
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 7; }))
        << s.shotCount() << " " << s.shots.back().first << " " << s.shots.back().second.size() << " in RAM "
        << body().objectsInRam();
    EXPECT_NE(s.shots[5].first.find(".cr2"), std::string::npos) << s.shots[5].first;
    EXPECT_NE(s.shots[6].first.find(".jpg"), std::string::npos) << s.shots[6].first;
}

TEST_F(EmulatedBody, ReplugIoErrorsAndBusyAnswersLoseNoMoreThanTheShotInTransfer) {
    Station s;
    ASSERT_TRUE(s.open());

    // One failed transfer is not a vanished body: the next shot is saved.
    body().command("fail-transfers 1");
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 1; }));
    EXPECT_EQ(s.shutdowns.load(), 0);

    // Busy for a moment: the shot is refused as busy, the next one goes.
    body().command("busy 1");
    EXPECT_EQ(s.shoot(), EDS_ERR_DEVICE_BUSY);
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 2; }));

    // I/O failures in a row: the body is given up, yet it is still listed,
    // so it is offered again and opens.
    body().command("fail-io 12");
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shutdowns.load() >= 1; }));
    ASSERT_TRUE(test::processEventsUntil([&] { return s.open(); }));
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 3; }));

    // Unplugged and plugged in again: a new device number, found and opened.
    const std::string before = body().portPath();
    body().unplug();
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shutdowns.load() >= 2; }));
    body().plug();
    EXPECT_NE(body().portPath(), before);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.open(); }));
    ASSERT_EQ(s.shoot(), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return s.shotCount() >= 4; }));
}

TEST_F(EmulatedBody, LiveViewOutlivesABodyThatIsNotReadyForThreeSeconds) {
    Station s;
    ASSERT_TRUE(s.open());
    const EdsUInt32 pc = kEdsEvfOutputDevice_PC;
    ASSERT_EQ(s.sdk.EdsSetPropertyData(s.camera, kEdsPropID_Evf_OutputDevice, 0, sizeof pc, &pc), EDS_ERR_OK);
    std::string buffer(4 << 20, '\0');
    EdsStreamRef stream = nullptr;
    ASSERT_EQ(s.sdk.EdsCreateMemoryStreamFromPointer(buffer.data(), buffer.size(), &stream), EDS_ERR_OK);
    EdsEvfImageRef image = nullptr;
    ASSERT_EQ(s.sdk.EdsCreateEvfImageRef(stream, &image), EDS_ERR_OK);
    ASSERT_EQ(s.sdk.EdsDownloadEvfImage(s.camera, image), EDS_ERR_OK);
    EXPECT_EQ(buffer.substr(0, 2), "\xFF\xD8");

    // libgphoto2 waits 3 s for a frame, then gives up with a plain error: a
    // frame that is not there yet, not the end of live view.
    body().command("viewfinder-not-ready-ms 3200");
    EXPECT_EQ(s.sdk.EdsDownloadEvfImage(s.camera, image), EDS_ERR_OBJECT_NOTREADY);
    ASSERT_TRUE(
        test::processEventsUntil([&] { return s.sdk.EdsDownloadEvfImage(s.camera, image) == EDS_ERR_OK; }));
    EXPECT_EQ(s.shutdowns.load(), 0);
    EdsUInt32 bits = 0;
    ASSERT_EQ(s.sdk.EdsGetPropertyData(s.camera, kEdsPropID_Evf_OutputDevice, 0, sizeof bits, &bits),
              EDS_ERR_OK);
    EXPECT_EQ(bits & kEdsEvfOutputDevice_PC, kEdsEvfOutputDevice_PC);
    s.sdk.EdsRelease(image);
    s.sdk.EdsRelease(stream);
}

namespace {

uint32_t readU32(Station &s, EdsPropertyID id, EdsError *error = nullptr) {
    uint32_t v = 0xDEADBEEF;
    const EdsError e = s.sdk.EdsGetPropertyData(s.camera, id, 0, sizeof v, &v);
    if (error)
        *error = e;
    else
        EXPECT_EQ(e, EDS_ERR_OK) << std::hex << id;
    return v;
}
EdsError writeU32(Station &s, EdsPropertyID id, uint32_t v) {
    return s.sdk.EdsSetPropertyData(s.camera, id, 0, sizeof v, &v);
}

} // namespace

// The body's PTP values come out as camera values through libgphoto2's labels
// and go back the same way; what the body or the property cannot take is refused.
TEST_F(EmulatedBody, SettingsTravelBothWaysThroughLibgphotosLabels) {
    Station s;
    ASSERT_TRUE(s.open());
    EXPECT_EQ(readU32(s, kEdsPropID_Av), 0x30u);
    EXPECT_EQ(readU32(s, kEdsPropID_Tv), 0x68u);
    EXPECT_EQ(readU32(s, kEdsPropID_ISOSpeed), 0x48u);
    EXPECT_EQ(readU32(s, kEdsPropID_MeteringMode), 3u);
    EXPECT_EQ(readU32(s, kEdsPropID_ImageQuality), 0x0013ff0fu);
    EdsError e = 0;
    readU32(s, 0x409, &e); // a property the backend does not know
    EXPECT_EQ(e, EDS_ERR_PROPERTIES_UNAVAILABLE);
    EdsPropertyDesc desc{};
    ASSERT_EQ(s.sdk.EdsGetPropertyDesc(s.camera, kEdsPropID_Av, &desc), EDS_ERR_OK);
    ASSERT_EQ(desc.numElements, 19);
    EXPECT_EQ(desc.propDesc[4], 0x2b);

    ASSERT_EQ(writeU32(s, kEdsPropID_Av, 0x38), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD101), 0x38u);
    ASSERT_EQ(writeU32(s, kEdsPropID_ImageQuality, 0x00640013), EDS_ERR_OK);
    EXPECT_EQ(readU32(s, kEdsPropID_ImageQuality), 0x00640013u);
    ASSERT_EQ(writeU32(s, kEdsPropID_ExposureCompensation, 0xf8), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD104), 0xf8u);
    EXPECT_EQ(writeU32(s, kEdsPropID_Av, 0x18), EDS_ERR_INVALID_PARAMETER); // not on offer
    EXPECT_EQ(writeU32(s, kEdsPropID_WhiteBalance, 0xFFFFFFFF), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(writeU32(s, kEdsPropID_BatteryLevel, 50), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(s.sdk.EdsSetPropertyData(s.camera, kEdsPropID_Av, 0, 2, "\x38\x00"), EDS_ERR_INVALID_LENGTH);
    const char owner[] = "Brix Station 3";
    ASSERT_EQ(s.sdk.EdsSetPropertyData(s.camera, kEdsPropID_OwnerName, 0, sizeof owner, owner), EDS_ERR_OK);
    char back[64] = {};
    ASSERT_EQ(s.sdk.EdsGetPropertyData(s.camera, kEdsPropID_OwnerName, 0, sizeof back, back), EDS_ERR_OK);
    EXPECT_STREQ(back, owner);
    EdsTime t{2024, 2, 29, 13, 14, 15, 0};
    ASSERT_EQ(s.sdk.EdsSetPropertyData(s.camera, kEdsPropID_DateTime, 0, sizeof t, &t), EDS_ERR_OK);
    EdsTime when{};
    ASSERT_EQ(s.sdk.EdsGetPropertyData(s.camera, kEdsPropID_DateTime, 0, sizeof when, &when), EDS_ERR_OK);
    EXPECT_EQ(when.day, 29u);
    EXPECT_EQ(when.hour, 13u);
    EXPECT_EQ(when.second, 15u);

    // Busy for a moment: refused as busy, and the next try goes through.
    body().command("busy 1");
    EXPECT_EQ(writeU32(s, kEdsPropID_Tv, 0x78), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(body().property(0xD102), 0x68u);
    EXPECT_EQ(writeU32(s, kEdsPropID_Tv, 0x78), EDS_ERR_OK);
    EXPECT_EQ(body().property(0xD102), 0x78u);

    // Commands the backend cannot map are refused before they reach the body.
    EXPECT_EQ(s.sdk.EdsSendCommand(s.camera, kEdsCameraCommand_PressShutterButton, 2),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(s.sdk.EdsSendCommand(s.camera, kEdsCameraCommand_DriveLensEvf, 4), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(s.sdk.EdsSendCommand(s.camera, kEdsCameraCommand_DriveLensEvf, 0x8000),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(s.sdk.EdsSendCommand(s.camera, kEdsCameraCommand_DoClickWBEvf, 0), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(s.sdk.EdsSendCommand(s.camera, 0x999, 0), EDS_ERR_NOT_SUPPORTED);

    // Closing gives the body back as other programs saw it: shots to the card.
    EXPECT_EQ(body().captureDestination(), 4u);
    ASSERT_EQ(s.sdk.EdsCloseSession(s.camera), EDS_ERR_OK);
    EXPECT_EQ(body().captureDestination(), 2u);
    EXPECT_EQ(s.sdk.EdsCloseSession(s.camera), EDS_ERR_SESSION_NOT_OPEN);
    readU32(s, kEdsPropID_Av, &e);
    EXPECT_EQ(e, EDS_ERR_SESSION_NOT_OPEN);
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
    auto s = std::make_unique<Station>();
    ASSERT_TRUE(s->open());
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (EdsPropertyID id : {kEdsPropID_Av, kEdsPropID_ISOSpeed, kEdsPropID_ImageQuality, kEdsPropID_AEMode})
        threads.emplace_back([&, id] {
            for (int i = 0; i < 30; ++i) {
                EdsDataType type = 0;
                EdsUInt32 size = 0;
                char buffer[64];
                if (s->sdk.EdsGetPropertySize(s->camera, id, 0, &type, &size) != EDS_ERR_OK ||
                    s->sdk.EdsGetPropertyData(s->camera, id, 0, sizeof buffer, buffer) != EDS_ERR_OK)
                    ++failures;
            }
        });
    threads.emplace_back([&] {
        const uint32_t speeds[] = {0x70, 0x78, 0x80};
        for (int i = 0; i < 30; ++i)
            if (writeU32(*s, kEdsPropID_Tv, speeds[i % 3]) != EDS_ERR_OK)
                ++failures;
    });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures, 0);

    gWaitedForMain = 0;
    ASSERT_EQ(s->sdk.EdsSetPropertyEventHandler(s->camera, kEdsPropertyEvent_All, waitForMainThread, nullptr),
              EDS_ERR_OK);
    ASSERT_EQ(writeU32(*s, kEdsPropID_Av, 0x38), EDS_ERR_OK);
    ASSERT_EQ(writeU32(*s, kEdsPropID_Tv, 0x70), EDS_ERR_OK);
    s.reset(); // must not dead-lock
    EXPECT_GE(gWaitedForMain, 1);
}

// Another program holds the body: with leave to do so, the desktop's mount is
// let go and the session opens; without, the operator is told who holds it.
TEST_F(EmulatedBody, AClaimedBodyIsFreedFromTheDesktopOnlyWithLeave) {
    const QString proc = test::testHome() + "/proc/4242";
    QDir().mkpath(proc + "/fd");
    ASSERT_TRUE(test::writeFile(proc + "/comm", "gvfsd-gphoto2\n"));
    ASSERT_TRUE(QFile::link(usbDeviceNode(body().portPath()).value_or(QString()), proc + "/fd/9"));
    const QString mount =
        "gphoto2://" + QUrl::toPercentEncoding("[" + QString::fromStdString(body().portPath()) + "]") + "/";
    QStringList gioCalls;
    bool allowed = false;
    Gphoto2Options o = Station::fastOptions();
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
    body().command("claimed 1");
    Station s(o);
    QString message;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        kCameraInUseNotification, {},
        [&](const Notification &n) { message = n.userInfo.value("message").toString(); });
    EXPECT_FALSE(s.open());
    EXPECT_TRUE(gioCalls.isEmpty());
    ASSERT_TRUE(test::processEventsUntil([&] { return !message.isEmpty(); }));
    EXPECT_TRUE(message.contains("process 4242 (gvfsd-gphoto2)")) << message.toStdString();
    EXPECT_TRUE(message.contains(kPrefReleaseCameraFromDesktop));
    NotificationCenter::defaultCenter().removeObserver(token);

    allowed = true;
    EXPECT_EQ(s.sdk.EdsOpenSession(s.camera), EDS_ERR_OK);
    EXPECT_EQ(gioCalls, (QStringList{"mount -l", "mount -u " + mount}));
}

namespace brix::eds::contract {
namespace {

Backend emulatedBodyBackend() {
    Backend b;
    b.name = "EmulatedEosBody";
    b.make = []() -> std::unique_ptr<EdsSdk> {
        EosBody::instance().command("reset");
        EosBody::instance().plug();
        return std::make_unique<Gphoto2Sdk>(makeLibGphoto2Port(), Station::fastOptions());
    };
    b.unplug = [](EdsSdk &) {
        EosBody::instance().unplug();
        return true;
    };
    b.callerReferences = [](EdsSdk &sdk) { return static_cast<Gphoto2Sdk &>(sdk).callerReferences(); };
    b.done = [] { EosBody::instance().unplug(); };
    return b;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Gphoto2, EdsContract, ::testing::Values(emulatedBodyBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract
