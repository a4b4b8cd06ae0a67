// libgphoto2 itself, without a camera: its "Directory Browse" driver serves a
// folder on a disk: port. First the adapter's own calls, then the whole backend
// downloading a file through the real library (the folder driver has no
// events, so a thin wrapper announces the file once and names the folder
// camera as a Canon body; every other call goes to libgphoto2 unchanged).
#include "Gphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
#include <random>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;

namespace {

constexpr const char *kFolderDriver = "Directory Browse";

std::string makeShot(const QString &folder, const QString &name, size_t size) {
    QDir().mkpath(folder);
    std::string bytes(size, '\0');
    std::mt19937 rng(42);
    for (auto &b : bytes)
        b = char(rng());
    QFile f(folder + "/" + name);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(bytes.data(), qint64(bytes.size()));
    return bytes;
}

// Forwards to the real adapter; adds what the folder driver cannot do.
class FolderCamera final : public Gphoto2Port {
public:
    FolderCamera(std::shared_ptr<Gphoto2Port> real, std::string path, std::string folder, std::string file)
        : real_(std::move(real)), port_("disk:" + path), folder_(std::move(folder)), file_(std::move(file)) {}

    int driverCount() override { return real_->driverCount(); }
    int autodetect(std::vector<DetectedCamera> *cameras) override {
        const int rc = real_->autodetect(cameras);
        cameras->push_back({"Canon EOS (folder)", port_});
        return rc;
    }
    int openCamera(const DetectedCamera &c, Handle *h) override {
        return real_->openCamera(c.port == port_ ? DetectedCamera{kFolderDriver, port_} : c, h);
    }
    void closeCamera(Handle h) override { real_->closeCamera(h); }
    int listWidgets(Handle h, std::vector<Widget> *w) override { return real_->listWidgets(h, w); }
    int getWidget(Handle h, const std::string &n, Widget *w) override { return real_->getWidget(h, n, w); }
    int setWidget(Handle h, const std::string &n, const Widget &v) override {
        return real_->setWidget(h, n, v);
    }
    int waitForEvent(Handle h, int timeoutMs, Event *e) override {
        if (!announced_.exchange(true)) {
            *e = Event{Event::Type::FileAdded, "", folder_, file_};
            return gp::OK;
        }
        const int rc = real_->waitForEvent(h, timeoutMs, e);
        if (rc == gp::NotSupported) { // no events on a folder
            *e = Event{};
            return gp::OK;
        }
        return rc;
    }
    int triggerCapture(Handle h) override { return real_->triggerCapture(h); }
    int fileInfo(Handle h, const std::string &f, const std::string &n, FileInfo *i) override {
        return real_->fileInfo(h, f, n, i);
    }
    int readFile(Handle h, const std::string &f, const std::string &n, uint64_t o, char *b,
                 uint64_t *s) override {
        return real_->readFile(h, f, n, o, b, s);
    }
    int getFile(Handle h, const std::string &f, const std::string &n, std::string *d) override {
        return real_->getFile(h, f, n, d);
    }
    int deleteFile(Handle h, const std::string &f, const std::string &n) override {
        return real_->deleteFile(h, f, n);
    }
    int capturePreview(Handle h, std::string *j) override { return real_->capturePreview(h, j); }
    std::string describe(int r, Handle h) override { return real_->describe(r, h); }

private:
    std::shared_ptr<Gphoto2Port> real_;
    std::string port_, folder_, file_;
    std::atomic<bool> announced_{false};
};

struct Download {
    Gphoto2Sdk *sdk = nullptr;
    std::atomic<bool> done{false};
    EdsError result = 0xFFFF;
    std::string bytes;
    std::vector<uint32_t> percents;
};

EdsError onProgress(EdsUInt32 percent, EdsVoid *ctx, EdsBool *cancel) {
    static_cast<Download *>(ctx)->percents.push_back(percent);
    *cancel = 0;
    return 0;
}

EdsError onObject(EdsObjectEvent, EdsBaseRef item, EdsVoid *ctx) {
    auto *d = static_cast<Download *>(ctx);
    EdsDirectoryItemInfo info{};
    d->result = d->sdk->EdsGetDirectoryItemInfo(item, &info);
    if (d->result == EDS_ERR_OK) {
        d->bytes.assign(info.size, '\0');
        EdsStreamRef stream = nullptr;
        d->sdk->EdsCreateMemoryStreamFromPointer(d->bytes.data(), d->bytes.size(), &stream);
        d->sdk->EdsSetProgressCallback(stream, onProgress, kEdsProgressOption_Periodically, d);
        d->result = d->sdk->EdsDownload(item, info.size, stream);
        if (d->result == EDS_ERR_OK)
            d->result = d->sdk->EdsDownloadComplete(item);
        d->sdk->EdsRelease(stream);
    }
    d->done = true;
    return 0;
}

} // namespace

TEST(Gphoto2Library, FolderDriverListsReadsAndDeletesThroughTheAdapter) {
    const QString root = test::testHome() + "/card";
    const std::string shot = makeShot(root + "/DCIM/100CANON", "IMG_0001.JPG", 3 * 1024 * 1024 + 17);
    auto port = makeLibGphoto2Port();
    ASSERT_GT(port->driverCount(), 10);
    std::vector<DetectedCamera> found;
    EXPECT_EQ(port->autodetect(&found), gp::OK); // no USB camera here; must not fail

    Gphoto2Port::Handle h = 0;
    ASSERT_EQ(port->openCamera({kFolderDriver, "disk:" + root.toStdString()}, &h), gp::OK)
        << port->describe(gp::Error, 0);
    FileInfo info;
    ASSERT_EQ(port->fileInfo(h, "/DCIM/100CANON", "IMG_0001.JPG", &info), gp::OK);
    EXPECT_EQ(info.size, shot.size());
    EXPECT_EQ(info.mimeType, "image/jpeg");
    std::string whole;
    ASSERT_EQ(port->getFile(h, "/DCIM/100CANON", "IMG_0001.JPG", &whole), gp::OK);
    EXPECT_TRUE(whole == shot);
    // The folder driver reads whole files only, has no settings and no shutter.
    char chunk[16];
    uint64_t n = sizeof chunk;
    EXPECT_EQ(port->readFile(h, "/DCIM/100CANON", "IMG_0001.JPG", 0, chunk, &n), gp::NotSupported);
    std::vector<Widget> widgets;
    EXPECT_EQ(port->listWidgets(h, &widgets), gp::NotSupported);
    EXPECT_EQ(port->triggerCapture(h), gp::NotSupported);
    EXPECT_EQ(edsErrorFor(port->fileInfo(h, "/DCIM/100CANON", "IMG_9999.JPG", &info)), 0x22u);
    EXPECT_NE(port->describe(gp::FileNotFound, h).find("not found"), std::string::npos);
    ASSERT_EQ(port->deleteFile(h, "/DCIM/100CANON", "IMG_0001.JPG"), gp::OK);
    EXPECT_FALSE(QFile::exists(root + "/DCIM/100CANON/IMG_0001.JPG"));
    port->closeCamera(h);

    EXPECT_EQ(port->openCamera({"No Such Camera Model", "usb:"}, &h), gp::ModelNotFound);
    EXPECT_NE(libgphoto2Path().find("libgphoto2"), std::string::npos) << libgphoto2Path();
}

TEST(Gphoto2Library, BackendDownloadsAShotThroughLibgphoto2) {
    const QString root = test::testHome() + "/card";
    const std::string shot = makeShot(root + "/DCIM", "IMG_0002.JPG", 2 * 1024 * 1024 + 5);
    Gphoto2Options o;
    o.hotplug = Gphoto2Options::Hotplug::Off;
    o.eventWaitMs = 5;
    Gphoto2Sdk sdk(
        std::make_shared<FolderCamera>(makeLibGphoto2Port(), root.toStdString(), "/DCIM", "IMG_0002.JPG"), o);
    ASSERT_EQ(sdk.EdsInitializeSDK(), EDS_ERR_OK);
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(sdk.EdsGetCameraList(&list), EDS_ERR_OK);
    EdsUInt32 count = 0;
    sdk.EdsGetChildCount(list, &count);
    ASSERT_GE(count, 1u);
    EdsCameraRef camera = nullptr;
    ASSERT_EQ(sdk.EdsGetChildAtIndex(list, EdsInt32(count - 1), &camera), EDS_ERR_OK);
    sdk.EdsRelease(list);

    Download download;
    download.sdk = &sdk;
    ASSERT_EQ(sdk.EdsSetObjectEventHandler(camera, kEdsObjectEvent_All, onObject, &download), EDS_ERR_OK);
    ASSERT_EQ(sdk.EdsOpenSession(camera), EDS_ERR_OK);
    ASSERT_TRUE(test::processEventsUntil([&] { return download.done.load(); }));
    EXPECT_EQ(download.result, EDS_ERR_OK);
    EXPECT_TRUE(download.bytes == shot);
    EXPECT_EQ(download.percents, std::vector<uint32_t>{100});
    // A folder has no settings: the property reads say so instead of failing hard.
    EdsDataType type = 0;
    EdsUInt32 size = 0;
    EXPECT_EQ(sdk.EdsGetPropertySize(camera, kEdsPropID_Av, 0, &type, &size), EDS_ERR_PROPERTIES_UNAVAILABLE);
    EXPECT_EQ(sdk.EdsSendCommand(camera, kEdsCameraCommand_TakePicture, 0), EDS_ERR_NOT_SUPPORTED);
    EXPECT_EQ(sdk.EdsCloseSession(camera), EDS_ERR_OK);
    sdk.EdsRelease(camera);
}
