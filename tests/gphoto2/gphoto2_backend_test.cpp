// The gphoto2 backend on an EOS 5D Mark III widget tree (`gphoto2
// --list-all-config` format, assembled from libgphoto2's tables) served by the
// adapter's test double: detection, sessions, settings both ways, events, a
// capture with its download, live view, commands, a busy body, a vanished
// body, a claimed USB device and hotplug polling.
#include "FakeGphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "NotificationCenter.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;
using namespace std::chrono_literals;

namespace {

struct Recorder {
    struct Entry {
        char kind; // 's' state, 'p' property, 'o' object
        uint32_t event;
        uint32_t id;
        std::thread::id thread;
    };
    std::mutex m;
    std::vector<Entry> entries;
    // Download done by the object handler, as the camera object does it.
    Gphoto2Sdk *sdk = nullptr;
    bool downloadInHandler = false;
    std::vector<uint32_t> percents;
    int cancelAtCall = 0;
    std::string downloaded;
    std::string fileName;
    EdsError downloadResult = 0xFFFF;

    void add(char kind, uint32_t event, uint32_t id) {
        std::lock_guard lock(m);
        entries.push_back({kind, event, id, std::this_thread::get_id()});
    }
    size_t count(char kind, uint32_t event, uint32_t id = 0) {
        std::lock_guard lock(m);
        size_t n = 0;
        for (const auto &e : entries)
            if (e.kind == kind && e.event == event && (id == 0 || e.id == id))
                ++n;
        return n;
    }

    static EdsError onState(EdsStateEvent event, EdsUInt32 data, EdsVoid *ctx) {
        static_cast<Recorder *>(ctx)->add('s', event, data);
        return 0;
    }
    static EdsError onProperty(EdsPropertyEvent event, EdsPropertyID id, EdsUInt32, EdsVoid *ctx) {
        static_cast<Recorder *>(ctx)->add('p', event, id);
        return 0;
    }
    static EdsError onProgress(EdsUInt32 percent, EdsVoid *ctx, EdsBool *cancel) {
        auto *r = static_cast<Recorder *>(ctx);
        std::lock_guard lock(r->m);
        r->percents.push_back(percent);
        *cancel = int(r->percents.size()) == r->cancelAtCall;
        return 0;
    }
    static EdsError onObject(EdsObjectEvent event, EdsBaseRef item, EdsVoid *ctx) {
        auto *r = static_cast<Recorder *>(ctx);
        if (r->downloadInHandler) {
            EdsDirectoryItemInfo info{};
            r->sdk->EdsGetDirectoryItemInfo(item, &info);
            std::string buffer(info.size, '\0');
            EdsStreamRef stream = nullptr;
            r->sdk->EdsCreateMemoryStreamFromPointer(buffer.data(), buffer.size(), &stream);
            r->sdk->EdsSetProgressCallback(stream, onProgress, kEdsProgressOption_Periodically, r);
            EdsError e = r->sdk->EdsDownload(item, info.size, stream);
            if (e == EDS_ERR_OK)
                e = r->sdk->EdsDownloadComplete(item);
            r->sdk->EdsRelease(stream);
            std::lock_guard lock(r->m);
            r->downloadResult = e;
            r->downloaded = buffer;
            r->fileName = info.szFileName;
        }
        r->add('o', event, 0);
        return 0;
    }
};

class Gphoto2Backend : public ::testing::Test {
protected:
    void SetUp() override {
        port = std::make_shared<replay::FakeGphoto2Port>(
            replay::parseListAllConfig(replay::fixture("eos-5d-mark-iii.txt")));
        port->setDetected({{"Canon EOS 5D Mark III", "usb:001,005"}, {"Nikon DSC D750", "usb:001,007"}});
        make();
    }
    void TearDown() override {
        if (camera)
            sdk->EdsRelease(camera);
        sdk.reset();
    }
    void make(Gphoto2Options o = {}) {
        o.hotplug = o.hotplug == Gphoto2Options::Hotplug::Auto ? Gphoto2Options::Hotplug::Off : o.hotplug;
        o.eventWaitMs = 5;
        o.claimRetryDelay = 0ms;
        o.downloadChunk = 1000;
        o.procRoot = test::testHome() + "/proc";
        o.sysUsbRoot = test::testHome() + "/sys";
        o.runGio = [this](const QStringList &args, QString *out) {
            std::lock_guard lock(gioMutex);
            gioCalls << args.join(' ');
            if (out)
                *out = gioListing;
            return 0;
        };
        o.mayReleaseDesktopMount = [this] { return allowRelease; };
        sdk = std::make_unique<Gphoto2Sdk>(port, o);
        recorder.sdk = sdk.get();
        ASSERT_EQ(sdk->EdsInitializeSDK(), EDS_ERR_OK);
    }
    EdsCameraRef first() {
        EdsCameraListRef list = nullptr;
        EXPECT_EQ(sdk->EdsGetCameraList(&list), EDS_ERR_OK);
        EdsUInt32 n = 0;
        sdk->EdsGetChildCount(list, &n);
        EdsCameraRef cam = nullptr;
        if (n > 0)
            sdk->EdsGetChildAtIndex(list, 0, &cam);
        sdk->EdsRelease(list);
        return cam;
    }
    void openWithHandlers() {
        camera = first();
        ASSERT_NE(camera, nullptr);
        ASSERT_EQ(
            sdk->EdsSetCameraStateEventHandler(camera, kEdsStateEvent_All, Recorder::onState, &recorder), 0u);
        ASSERT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_OK);
        ASSERT_EQ(
            sdk->EdsSetPropertyEventHandler(camera, kEdsPropertyEvent_All, Recorder::onProperty, &recorder),
            0u);
        ASSERT_EQ(sdk->EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, Recorder::onObject, &recorder),
                  0u);
    }
    uint32_t readU32(EdsPropertyID id, EdsError *error = nullptr) {
        EdsDataType type = 0;
        EdsUInt32 size = 0;
        EdsError e = sdk->EdsGetPropertySize(camera, id, 0, &type, &size);
        uint32_t v = 0xDEADBEEF;
        if (e == EDS_ERR_OK) {
            EXPECT_EQ(size, 4u);
            e = sdk->EdsGetPropertyData(camera, id, 0, size, &v);
        }
        if (error)
            *error = e;
        else
            EXPECT_EQ(e, EDS_ERR_OK) << std::hex << id;
        return v;
    }
    EdsError writeU32(EdsPropertyID id, uint32_t v) { return sdk->EdsSetPropertyData(camera, id, 0, 4, &v); }
    bool waitFor(const std::function<bool()> &f) { return test::processEventsUntil(f, 5s); }

    std::shared_ptr<replay::FakeGphoto2Port> port;
    std::unique_ptr<Gphoto2Sdk> sdk;
    EdsCameraRef camera = nullptr;
    Recorder recorder;
    std::mutex gioMutex;
    QStringList gioCalls;
    QString gioListing;
    bool allowRelease = false;
};

} // namespace

TEST_F(Gphoto2Backend, ListsCanonBodiesWithStableReferences) {
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(sdk->EdsGetCameraList(&list), EDS_ERR_OK);
    EdsUInt32 n = 0;
    ASSERT_EQ(sdk->EdsGetChildCount(list, &n), EDS_ERR_OK);
    EXPECT_EQ(n, 1u); // the Nikon is not listed
    EdsCameraRef a = nullptr;
    ASSERT_EQ(sdk->EdsGetChildAtIndex(list, 0, &a), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsGetChildAtIndex(list, 1, &a), EDS_ERR_INVALID_INDEX);
    sdk->EdsRelease(list);

    EdsDeviceInfo info{};
    ASSERT_EQ(sdk->EdsGetDeviceInfo(a, &info), EDS_ERR_OK);
    EXPECT_STREQ(info.szDeviceDescription, "Canon EOS 5D Mark III");
    EXPECT_STREQ(info.szPortName, "usb:001,005");
    EXPECT_NE(info.deviceSubType, 0u);

    // A body that stays attached keeps its reference; one that leaves loses it.
    EdsCameraRef b = first();
    EXPECT_EQ(a, b);
    EXPECT_EQ(sdk->EdsRetain(a), 4u); // registry, a, b, this retain
    EXPECT_EQ(sdk->EdsRelease(a), 3u);
    sdk->EdsRelease(b);
    port->setDetected({});
    EXPECT_EQ(first(), nullptr);
    EXPECT_EQ(sdk->EdsRelease(a), 0u);
    EXPECT_EQ(sdk->EdsRelease(a), 0xFFFFFFFFu);
    EXPECT_EQ(sdk->EdsGetDeviceInfo(a, &info), EDS_ERR_INVALID_HANDLE);
}

namespace {
void usbDevice(const QString &name, int bus, int dev, const char *vendor) {
    const QString dir = test::testHome() + "/sys/" + name;
    QDir().mkpath(dir);
    auto write = [&](const char *file, const QString &text) {
        QFile f(dir + "/" + file);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(text.toUtf8() + "\n");
    };
    write("busnum", QString::number(bus));
    write("devnum", QString::number(dev));
    write("idVendor", vendor);
}
} // namespace

TEST_F(Gphoto2Backend, BodiesNewerThanLibgphoto2AreListedByCanonsVendorId) {
    usbDevice("1-3", 1, 9, "04a9");
    usbDevice("1-4", 1, 10, "04b0");
    port->setDetected({{"USB PTP Class Camera", "usb:001,009"}, {"USB PTP Class Camera", "usb:001,010"}});
    camera = first();
    ASSERT_NE(camera, nullptr);
    EdsDeviceInfo info{};
    ASSERT_EQ(sdk->EdsGetDeviceInfo(camera, &info), EDS_ERR_OK);
    EXPECT_STREQ(info.szPortName, "usb:001,009");
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(sdk->EdsGetCameraList(&list), EDS_ERR_OK);
    EdsUInt32 n = 0;
    sdk->EdsGetChildCount(list, &n);
    EXPECT_EQ(n, 1u); // the other generic camera is a Nikon
    sdk->EdsRelease(list);
}

TEST_F(Gphoto2Backend, ReadsTheBodysSettingsAsCameraValues) {
    openWithHandlers();
    EXPECT_EQ(readU32(kEdsPropID_Av), 0x30u);       // "5.6"
    EXPECT_EQ(readU32(kEdsPropID_Tv), 0x70u);       // "1/125"
    EXPECT_EQ(readU32(kEdsPropID_ISOSpeed), 0x48u); // "100"
    EXPECT_EQ(readU32(kEdsPropID_ExposureCompensation), 0x00u);
    EXPECT_EQ(readU32(kEdsPropID_AEMode), 3u);
    EXPECT_EQ(readU32(kEdsPropID_MeteringMode), 3u);
    EXPECT_EQ(readU32(kEdsPropID_AFMode), 0u);
    EXPECT_EQ(readU32(kEdsPropID_DriveMode), 0u);
    EXPECT_EQ(readU32(kEdsPropID_WhiteBalance), 0u);
    EXPECT_EQ(readU32(kEdsPropID_ImageQuality), 0x0013ff0fu);
    EXPECT_EQ(readU32(kEdsPropID_BatteryLevel), 75u);
    EXPECT_EQ(readU32(kEdsPropID_SaveTo), kEdsSaveTo_Camera);
    EXPECT_EQ(readU32(kEdsPropID_Evf_OutputDevice), 1u); // TFT

    EdsDataType type = 0;
    EdsUInt32 size = 0;
    ASSERT_EQ(sdk->EdsGetPropertySize(camera, kEdsPropID_WhiteBalance, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(type, kEdsDataType_Int32);
    ASSERT_EQ(sdk->EdsGetPropertySize(camera, kEdsPropID_LensName, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(type, kEdsDataType_String);
    std::string lens(size, 'x');
    ASSERT_EQ(sdk->EdsGetPropertyData(camera, kEdsPropID_LensName, 0, size, lens.data()), EDS_ERR_OK);
    EXPECT_STREQ(lens.c_str(), "EF24-105mm f/4L IS USM");
    ASSERT_EQ(sdk->EdsGetPropertySize(camera, kEdsPropID_ProductName, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(size, std::strlen("Canon EOS 5D Mark III") + 1);

    ASSERT_EQ(sdk->EdsGetPropertySize(camera, kEdsPropID_DateTime, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(type, kEdsDataType_Time);
    EXPECT_EQ(size, sizeof(EdsTime));
    EdsTime t{};
    ASSERT_EQ(sdk->EdsGetPropertyData(camera, kEdsPropID_DateTime, 0, size, &t), EDS_ERR_OK);
    const time_t onBody = 1700000000;
    std::tm tm{};
    localtime_r(&onBody, &tm);
    EXPECT_EQ(t.year, uint32_t(tm.tm_year + 1900));
    EXPECT_EQ(t.hour, uint32_t(tm.tm_hour));
    EXPECT_EQ(t.second, uint32_t(tm.tm_sec));

    // A property the body does not have, and one the backend does not know.
    EdsError e = 0;
    readU32(kEdsPropID_BatteryQuality, &e);
    EXPECT_EQ(e, EDS_ERR_PROPERTIES_UNAVAILABLE);
    readU32(0x409, &e);
    EXPECT_EQ(e, EDS_ERR_PROPERTIES_UNAVAILABLE);

    // Supported values come out as camera values, in the body's order.
    EdsPropertyDesc desc{};
    ASSERT_EQ(sdk->EdsGetPropertyDesc(camera, kEdsPropID_Av, &desc), EDS_ERR_OK);
    ASSERT_EQ(desc.numElements, 16);
    EXPECT_EQ(desc.propDesc[0], 0x28);
    EXPECT_EQ(desc.propDesc[1], 0x2b);  // "4.5" on a third-stop body
    EXPECT_EQ(desc.propDesc[10], 0x43); // "13"
    ASSERT_EQ(sdk->EdsGetPropertyDesc(camera, kEdsPropID_ImageQuality, &desc), EDS_ERR_OK);
    EXPECT_EQ(desc.propDesc[4], 0x0e13ff0f); // S1 on a body with S2/S3
    ASSERT_EQ(sdk->EdsGetPropertyDesc(camera, kEdsPropID_SaveTo, &desc), EDS_ERR_OK);
    EXPECT_EQ(desc.numElements, 2);
}

TEST_F(Gphoto2Backend, WritesSettingsAndAnnouncesChanges) {
    openWithHandlers();
    // A freshly opened body announces the supported values of its lists.
    ASSERT_TRUE(waitFor([&] { return recorder.count('p', kEdsPropertyEvent_PropertyDescChanged) >= 11; }));
    EXPECT_EQ(recorder.count('p', kEdsPropertyEvent_PropertyDescChanged, kEdsPropID_Av), 1u);

    ASSERT_EQ(writeU32(kEdsPropID_Av, 0x38), EDS_ERR_OK);
    ASSERT_EQ(writeU32(kEdsPropID_ImageQuality, 0x00640013), EDS_ERR_OK);
    ASSERT_EQ(writeU32(kEdsPropID_ExposureCompensation, 0xf8), EDS_ERR_OK);
    EXPECT_EQ(port->widget("aperture").text, "8");
    EXPECT_EQ(port->widget("imageformat").text, "RAW + Large Fine JPEG");
    EXPECT_EQ(port->widget("exposurecompensation").text, "-1");
    EXPECT_EQ(readU32(kEdsPropID_Av), 0x38u);
    ASSERT_TRUE(
        waitFor([&] { return recorder.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_Av) == 1; }));
    ASSERT_TRUE(waitFor([&] {
        return recorder.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_ImageQuality) == 1;
    }));

    // Values the body does not offer, or that do not fit its property.
    EXPECT_EQ(writeU32(kEdsPropID_Av, 0x18), EDS_ERR_INVALID_PARAMETER); // f/2 on an f/4 lens
    EXPECT_EQ(writeU32(kEdsPropID_WhiteBalance, 0xFFFFFFFF), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(writeU32(kEdsPropID_BatteryLevel, 50), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_Av, 0, 2, "\x38\x00"), EDS_ERR_INVALID_LENGTH);

    const char owner[] = "Brix Station 3";
    ASSERT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_OwnerName, 0, sizeof owner, owner), EDS_ERR_OK);
    EXPECT_EQ(port->widget("ownername").text, owner);
    EdsTime t{2024, 2, 29, 13, 14, 15, 0};
    ASSERT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_DateTime, 0, sizeof t, &t), EDS_ERR_OK);
    EdsTime back{};
    ASSERT_EQ(sdk->EdsGetPropertyData(camera, kEdsPropID_DateTime, 0, sizeof back, &back), EDS_ERR_OK);
    EXPECT_EQ(back.day, 29u);
    EXPECT_EQ(back.hour, 13u);
    EXPECT_EQ(back.second, 15u);
}

TEST_F(Gphoto2Backend, ABusyBodyAnswersDeviceBusy) {
    openWithHandlers();
    port->failNext(replay::FakeGphoto2Port::Op::SetWidget, gp::CameraBusy, "Device Busy");
    EXPECT_EQ(writeU32(kEdsPropID_Tv, 0x78), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(port->widget("shutterspeed").text, "1/125");
    port->failNext(replay::FakeGphoto2Port::Op::Trigger, gp::CameraBusy);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_DEVICE_BUSY);
    port->failNext(replay::FakeGphoto2Port::Op::Trigger, gp::Error,
                   "Canon EOS Capture failed to release: Perhaps no focus?");
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_TAKE_PICTURE_AF_NG);
    // The next try goes through.
    EXPECT_EQ(writeU32(kEdsPropID_Tv, 0x78), EDS_ERR_OK);
    EXPECT_EQ(port->widget("shutterspeed").text, "1/250");
}

TEST_F(Gphoto2Backend, ShotSentToTheHostIsTakenAtItsEventAndDownloadedInChunksWithProgress) {
    recorder.downloadInHandler = true;
    openWithHandlers();
    ASSERT_EQ(writeU32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
    EXPECT_EQ(port->widget("capturetarget").text, "Internal RAM");
    ASSERT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] { return recorder.count('o', kEdsObjectEvent_DirItemRequestTransfer) == 1; }));
    std::lock_guard lock(recorder.m);
    EXPECT_EQ(recorder.downloadResult, EDS_ERR_OK);
    EXPECT_EQ(recorder.fileName, "capt0000.jpg");
    const std::string shot = port->lastShot();
    ASSERT_GT(shot.size(), 3000u);
    EXPECT_TRUE(recorder.downloaded == shot);
    // One report per 1000-byte chunk, ending at 100 %.
    const size_t chunks = (shot.size() + 999) / 1000;
    ASSERT_EQ(recorder.percents.size(), chunks);
    EXPECT_EQ(recorder.percents.back(), 100u);
    for (size_t i = 1; i < chunks; ++i)
        EXPECT_LT(recorder.percents[i - 1], recorder.percents[i]);
    // libgphoto2 cannot read a part of such a file: taken whole, once, and let
    // go from its cache at once.
    EXPECT_TRUE(port->readOffsets().empty());
    EXPECT_FALSE(port->hasFile("/", "capt0000.jpg"));
    // The handler ran on the backend's event thread, not the test's.
    EXPECT_NE(recorder.entries.back().thread, std::this_thread::get_id());
}

TEST_F(Gphoto2Backend, CancelledDownloadStopsReading) {
    recorder.downloadInHandler = true;
    recorder.cancelAtCall = 2;
    openWithHandlers();
    ASSERT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] { return recorder.count('o', kEdsObjectEvent_DirItemRequestTransfer) == 1; }));
    std::lock_guard lock(recorder.m);
    EXPECT_EQ(recorder.downloadResult, EDS_ERR_OPERATION_CANCELLED);
    EXPECT_EQ(port->readOffsets().size(), 2u);
    // Saved to the card: the shot stays there.
    EXPECT_TRUE(port->hasFile("/store_00020001/DCIM/100CANON", "IMG_0001.JPG"));
}

TEST_F(Gphoto2Backend, WholeFileDriversDownloadInOnePiece) {
    recorder.downloadInHandler = true;
    port->setPartialReads(false);
    openWithHandlers();
    ASSERT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] { return recorder.count('o', kEdsObjectEvent_DirItemRequestTransfer) == 1; }));
    std::lock_guard lock(recorder.m);
    EXPECT_EQ(recorder.downloadResult, EDS_ERR_OK);
    EXPECT_TRUE(recorder.downloaded == port->lastShot());
    EXPECT_EQ(recorder.percents, std::vector<uint32_t>{100});
}

TEST_F(Gphoto2Backend, ShutterLensAndBulbCommandsDriveTheBodysControls) {
    openWithHandlers();
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_PressShutterButton,
                                  kEdsCameraCommand_ShutterButton_Halfway),
              EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_PressShutterButton,
                                  kEdsCameraCommand_ShutterButton_Completely_NonAF),
              EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_PressShutterButton,
                                  kEdsCameraCommand_ShutterButton_OFF),
              EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_PressShutterButton, 2),
              EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_BulbStart, 0), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_BulbEnd, 0), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DoEvfAf, 1), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DriveLensEvf, 0x8002), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DriveLensEvf, 3), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DriveLensEvf, 4), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DriveLensEvf, 0x8000), EDS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_DoClickWBEvf, 0), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_ExtendShutDownTimer, 0), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsSendCommand(camera, 0x999, 0), EDS_ERR_NOT_SUPPORTED);
    uint32_t zoom = 5;
    EXPECT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_Evf_Zoom, 0, 4, &zoom), EDS_ERR_OK);
    EXPECT_EQ(readU32(kEdsPropID_Evf_Zoom), 5u);

    using W = std::pair<std::string, std::string>;
    const std::vector<W> expected = {
        {"eosremoterelease", "Press 1"},
        {"eosremoterelease", "Press Full"},
        {"eosremoterelease", "Release Full"},
        {"eosremoterelease", "Release Half"},
        {"bulb", "1"},
        {"bulb", "0"},
        {"autofocusdrive", "1"},
        {"manualfocusdrive", "Far 2"},
        {"manualfocusdrive", "Near 3"},
        {"eoszoom", "5"},
    };
    EXPECT_EQ(port->writes(), expected);
}

TEST_F(Gphoto2Backend, LiveViewFollowsTheHostOutputBit) {
    openWithHandlers();
    std::string buffer(0x200000, '\0');
    EdsStreamRef stream = nullptr;
    ASSERT_EQ(sdk->EdsCreateMemoryStreamFromPointer(buffer.data(), buffer.size(), &stream), EDS_ERR_OK);
    EdsEvfImageRef image = nullptr;
    ASSERT_EQ(sdk->EdsCreateEvfImageRef(stream, &image), EDS_ERR_OK);
    EXPECT_EQ(sdk->EdsDownloadEvfImage(camera, image), EDS_ERR_OBJECT_NOTREADY);

    const uint32_t mode = kEdsEvfMode_Enabled;
    ASSERT_EQ(sdk->EdsSetPropertyData(camera, kEdsPropID_Evf_Mode, 0, 4, &mode), EDS_ERR_OK);
    ASSERT_EQ(
        writeU32(kEdsPropID_Evf_OutputDevice, readU32(kEdsPropID_Evf_OutputDevice) | kEdsEvfOutputDevice_PC),
        EDS_ERR_OK);
    EXPECT_EQ(port->widget("viewfinder").integer, 1);
    EXPECT_EQ(readU32(kEdsPropID_Evf_OutputDevice), 3u);
    ASSERT_TRUE(waitFor([&] {
        return recorder.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_Evf_OutputDevice) == 1;
    }));
    ASSERT_EQ(sdk->EdsDownloadEvfImage(camera, image), EDS_ERR_OK);
    EXPECT_EQ(buffer.substr(0, 2), "\xFF\xD8");
    const auto frameSize = sdk->streamPosition(stream);
    ASSERT_GT(frameSize, 100u);
    EXPECT_EQ(buffer.substr(frameSize - 2, 2), "\xFF\xD9");
    port->failNext(replay::FakeGphoto2Port::Op::Preview, gp::CameraBusy);
    EXPECT_EQ(sdk->EdsDownloadEvfImage(camera, image), EDS_ERR_OBJECT_NOTREADY);
    port->setPreviewFrame(std::string(0x200001, 'x'));
    EXPECT_EQ(sdk->EdsDownloadEvfImage(camera, image), EDS_ERR_STREAM_WRITE_ERROR);

    ASSERT_EQ(writeU32(kEdsPropID_Evf_OutputDevice, kEdsEvfOutputDevice_TFT), EDS_ERR_OK);
    EXPECT_EQ(port->widget("viewfinder").integer, 0);
    EXPECT_EQ(sdk->EdsDownloadEvfImage(camera, image), EDS_ERR_OBJECT_NOTREADY);
    sdk->EdsRelease(image);
    EXPECT_EQ(sdk->EdsRelease(stream), 0u); // the image held the stream until now
}

TEST_F(Gphoto2Backend, UnplugGivesOneShutdownEventAndDisconnectedErrors) {
    openWithHandlers();
    port->unplug();
    ASSERT_TRUE(waitFor([&] { return recorder.count('s', kEdsStateEvent_Shutdown) == 1; }));
    EdsError e = 0;
    readU32(kEdsPropID_Av, &e);
    EXPECT_EQ(e, EDS_ERR_COMM_DISCONNECTED);
    EXPECT_EQ(sdk->EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_COMM_DISCONNECTED);
    EXPECT_EQ(sdk->EdsCloseSession(camera), EDS_ERR_OK);
    EXPECT_EQ(port->closes(), 1);
    EXPECT_EQ(recorder.count('s', kEdsStateEvent_Shutdown), 1u);
    EXPECT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_DEVICE_NOT_FOUND);
}

TEST_F(Gphoto2Backend, UnloadRestoresTheCaptureTargetOtherProgramsSaw) {
    openWithHandlers();
    ASSERT_EQ(writeU32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
    ASSERT_EQ(writeU32(kEdsPropID_Evf_OutputDevice, kEdsEvfOutputDevice_PC), EDS_ERR_OK);
    ASSERT_EQ(sdk->EdsCloseSession(camera), EDS_ERR_OK);
    EXPECT_EQ(port->widget("capturetarget").text, "Memory card");
    EXPECT_EQ(port->widget("viewfinder").integer, 0);
    EXPECT_EQ(sdk->EdsCloseSession(camera), EDS_ERR_SESSION_NOT_OPEN);
    EdsError e = 0;
    readU32(kEdsPropID_Av, &e);
    EXPECT_EQ(e, EDS_ERR_SESSION_NOT_OPEN);
}

namespace {
void holdDevice(const QString &pid, const QString &comm) {
    const QString dir = test::testHome() + "/proc/" + pid;
    QDir().mkpath(dir + "/fd");
    QFile f(dir + "/comm");
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(comm.toUtf8() + "\n");
    ASSERT_TRUE(QFile::link("/dev/bus/usb/001/005", dir + "/fd/9"));
}
} // namespace

TEST_F(Gphoto2Backend, ClaimedDeviceIsReleasedFromTheDesktopWhenAllowed) {
    holdDevice("4242", "gvfsd-gphoto2");
    allowRelease = true;
    gioListing = "Mount(0): Canon EOS 5D Mark III -> gphoto2://%5Busb%3A001%2C005%5D/\n";
    port->failNext(replay::FakeGphoto2Port::Op::Open, gp::IoUsbClaim, "Could not claim the USB device", 2);
    camera = first();
    ASSERT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_OK);
    EXPECT_EQ(gioCalls, (QStringList{"mount -l", "mount -u gphoto2://%5Busb%3A001%2C005%5D/"}));
    EXPECT_EQ(port->opens(), 1);
}

TEST_F(Gphoto2Backend, ClaimedDeviceTellsTheOperatorWhenNotAllowed) {
    holdDevice("4242", "gvfsd-gphoto2");
    QString message;
    const auto token = NotificationCenter::defaultCenter().addObserver(
        kCameraInUseNotification, {},
        [&](const Notification &n) { message = n.userInfo.value("message").toString(); });
    port->failNext(replay::FakeGphoto2Port::Op::Open, gp::IoUsbClaim, "Could not claim the USB device");
    camera = first();
    EXPECT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_COMM_PORT_IS_IN_USE);
    EXPECT_TRUE(gioCalls.isEmpty());
    ASSERT_TRUE(waitFor([&] { return !message.isEmpty(); }));
    EXPECT_TRUE(message.contains("process 4242 (gvfsd-gphoto2)")) << message.toStdString();
    EXPECT_TRUE(message.contains(kPrefReleaseCameraFromDesktop));
    NotificationCenter::defaultCenter().removeObserver(token);
    // Once the other program lets go, the same reference opens.
    EXPECT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_OK);
}

TEST_F(Gphoto2Backend, PollingAnnouncesNewlyPluggedCameras) {
    dispatch::ManualClock clock;
    dispatch::setClock(&clock);
    sdk.reset();
    Gphoto2Options o;
    o.hotplug = Gphoto2Options::Hotplug::Polling;
    o.pollSeconds = 2.0;
    port->setDetected({});
    make(o);
    std::atomic<int> added{0};
    sdk->EdsSetCameraAddedHandler(
        [](EdsVoid *ctx) -> EdsError {
            ++*static_cast<std::atomic<int> *>(ctx);
            return 0;
        },
        &added);
    auto settle = [&] { test::drain(sdk->hotplugQueue()); };
    settle(); // the first detection only learns what is attached
    clock.advanceSeconds(2.0, settle);
    EXPECT_EQ(added, 0);
    port->setDetected({{"Canon EOS 5D Mark III", "usb:001,005"}});
    clock.advanceSeconds(2.0, settle);
    ASSERT_TRUE(waitFor([&] { return added == 1; }));
    clock.advanceSeconds(2.0, settle);
    clock.advanceSeconds(2.0, settle);
    EXPECT_EQ(added, 1); // still the same body

    // A listed body pulled out reports shutdown without a session.
    camera = first();
    ASSERT_NE(camera, nullptr);
    ASSERT_EQ(sdk->EdsSetCameraStateEventHandler(camera, kEdsStateEvent_All, Recorder::onState, &recorder),
              0u);
    port->setDetected({});
    clock.advanceSeconds(2.0, settle);
    ASSERT_TRUE(waitFor([&] { return recorder.count('s', kEdsStateEvent_Shutdown) == 1; }));
    sdk->EdsRelease(camera);
    camera = nullptr;
    sdk.reset();
    dispatch::setClock(nullptr);
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

TEST_F(Gphoto2Backend, EndingOnTheMainThreadLetsHandlersThatWaitForItFinish) {
    camera = first();
    ASSERT_EQ(sdk->EdsOpenSession(camera), EDS_ERR_OK);
    gWaitedForMain = 0;
    // The opened body's descriptions arrive at once, each handler waiting for us.
    ASSERT_EQ(sdk->EdsSetPropertyEventHandler(camera, kEdsPropertyEvent_All, waitForMainThread, nullptr), 0u);
    ASSERT_EQ(writeU32(kEdsPropID_Tv, 0x78), EDS_ERR_OK);
    sdk->EdsRelease(camera);
    camera = nullptr;
    sdk.reset(); // must not dead-lock
    EXPECT_GE(gWaitedForMain, 11);
}
