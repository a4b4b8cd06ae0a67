// Every choice a real body lists in libgphoto2's labels maps to a value and
// back, the image quality arithmetic, reading a port's vendor from sysfs, and
// libgphoto2 itself on its "Directory Browse" driver, which serves a folder on
// a disk: the adapter's whole-file reads, deletes and refusals. The whole
// backend on the real library runs against the emulated EOS body
// (gphoto2_eosbody_test.cpp).
#include "ClaimedDevice.h"
#include "Gphoto2Sdk.h"
#include "Gphoto2Tables.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <set>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;

TEST(Gphoto2Tables, ImageQualityPackingIsLossless) {
    int valid = 0;
    for (uint32_t packed = 0; packed <= 0xffff; ++packed) {
        auto code = imageQualityFromPacked(uint16_t(packed));
        if (!code)
            continue;
        ++valid;
        EXPECT_EQ(packedFromImageQuality(*code), uint16_t(packed)) << std::hex << packed;
        // What libgphoto2 has no label for (an M1 JPEG, say) still travels both ways.
        const auto label = labelForValue(kEdsPropID_ImageQuality, *code);
        ASSERT_TRUE(label);
        if (label->rfind("Unknown value ", 0) == 0) {
            EXPECT_EQ(valueForLabel(kEdsPropID_ImageQuality, *label), *code) << *label;
        }
    }
    EXPECT_GT(valid, 1000);
    // "Small" is S1 on bodies that also offer S2/S3, the older size otherwise.
    const std::vector<std::string> withS2 = {"Large Fine JPEG", "Small Fine JPEG", "Smaller JPEG",
                                             "Tiny JPEG"};
    const std::vector<std::string> withoutS2 = {"Large Fine JPEG", "Medium Fine JPEG", "Small Fine JPEG"};
    EXPECT_EQ(valueForLabel(kEdsPropID_ImageQuality, "Small Fine JPEG", withS2), 0x0e13ff0fu);
    EXPECT_EQ(valueForLabel(kEdsPropID_ImageQuality, "Small Fine JPEG", withoutS2), 0x0213ff0fu);
    EXPECT_EQ(valueForLabel(kEdsPropID_ImageQuality, "RAW + Small Fine JPEG", withS2), 0x00640e13u);
    // Codes with no packed form: an unknown image type, size 0xd, bad quality.
    EXPECT_FALSE(packedFromImageQuality(0x0033ff0f));
    EXPECT_FALSE(packedFromImageQuality(0x0d13ff0f));
    EXPECT_FALSE(packedFromImageQuality(0x0019ff0f));
    EXPECT_FALSE(labelForValue(kEdsPropID_ImageQuality, 0xffffffff));
}

TEST(Gphoto2Tables, EveryChoiceOfAListedBodyMaps) {
    // The choices of an EOS 5D Mark III in `gphoto2 --list-all-config` form:
    // each maps to a value whose label is the choice again, nothing is lost.
    std::map<std::string, std::vector<std::string>> choices;
    std::ifstream in(BRIX_GPHOTO2_TEST_DATA "/eos-5d-mark-iii.txt");
    std::string line, widget;
    while (std::getline(in, line)) {
        if (line.rfind('/', 0) == 0)
            widget = line.substr(line.rfind('/') + 1);
        else if (line.rfind("Choice: ", 0) == 0)
            choices[widget].push_back(line.substr(line.find(' ', 8) + 1));
    }
    int checked = 0;
    for (const auto &spec : allPropertySpecs()) {
        if (spec.kind != PropertyKind::Table && spec.kind != PropertyKind::ImageQuality &&
            spec.kind != PropertyKind::OutputDevice)
            continue;
        const auto &offered = choices[spec.widgets.front()];
        std::set<uint32_t> seen;
        for (const auto &choice : offered) {
            auto v = valueForLabel(spec.id, choice, offered);
            ASSERT_TRUE(v) << spec.widgets.front() << ": " << choice;
            EXPECT_EQ(labelForValue(spec.id, *v), choice);
            EXPECT_TRUE(seen.insert(*v).second) << choice << ": two choices gave " << *v;
            ++checked;
        }
    }
    EXPECT_GT(checked, 150);
}

TEST(Gphoto2ClaimedDevice, ReadsTheVendorOfAPortFromSysfs) {
    const QString sys = test::testHome() + "/sys";
    auto device = [&](const QString &name, const char *bus, const char *dev, const char *vendor) {
        QDir().mkpath(sys + "/" + name);
        for (auto [file, text] : {std::pair{"busnum", bus}, {"devnum", dev}, {"idVendor", vendor}})
            ASSERT_TRUE(test::writeFile(sys + "/" + name + "/" + file, QByteArray(text) + "\n"));
    };
    device("1-1", "1", "5", "04a9");
    device("1-2", "1", "7", "04b0");
    device("usb1", "1", "1", "1d6b");
    EXPECT_EQ(usbVendorId("usb:001,005", sys), kCanonUsbVendor);
    EXPECT_EQ(usbVendorId("usb:001,007", sys), 0x04b0);
    EXPECT_FALSE(usbVendorId("usb:002,005", sys));
    EXPECT_FALSE(usbVendorId("disk:/media", sys));
}

TEST(Gphoto2Library, FolderDriverListsReadsAndDeletesThroughTheAdapter) {
    const QString root = test::testHome() + "/card";
    QDir().mkpath(root + "/DCIM/100CANON");
    std::string shot(3 * 1024 * 1024 + 17, '\0');
    std::mt19937 rng(42);
    for (auto &b : shot)
        b = char(rng());
    ASSERT_TRUE(test::writeFile(root + "/DCIM/100CANON/IMG_0001.JPG", QByteArray::fromStdString(shot)));
    auto port = makeLibGphoto2Port();

    Gphoto2Port::Handle h = 0;
    ASSERT_EQ(port->openCamera({"Directory Browse", "disk:" + root.toStdString()}, &h), gp::OK)
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
