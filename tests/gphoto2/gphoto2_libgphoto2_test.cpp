// libgphoto2 itself on its "Directory Browse" driver, which serves a folder on
// a disk: port: the adapter's whole-file reads, deletes and refusals. The whole
// backend on the real library runs against the emulated EOS body
// (gphoto2_eosbody_test.cpp).
#include "Gphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

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
    EXPECT_TRUE(test::writeFile(folder + "/" + name, QByteArray::fromStdString(bytes)));
    return bytes;
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
