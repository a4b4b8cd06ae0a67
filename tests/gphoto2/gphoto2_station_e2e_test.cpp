// End-to-end: the real station, headless, with --camera-backend=gphoto2, on
// the real libgphoto2 and an EOS body emulated below it: the station process
// finds the emulated libusb first on its library path. The body is steered
// through its control file; siblings talk to the station over the session bus.
#include "Station.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace brix;

// On a German desktop with libgphoto2's translations installed: one shot, a
// RAW+JPEG pair, then the body unplugged and plugged in under a new device
// number, and the next shot.
TEST(StationOnEmulatedBody, GrabImageRawPairAndReplugOnAGermanDesktop) {
    const QString saveFolder = test::testHome() + "/Users/Shared/CanonFolder";
    const QString control = test::testHome() + "/eosbody.control";
    auto tell = [&](const QString &line) {
        QFile f(control);
        ASSERT_TRUE(f.open(QIODevice::Append));
        f.write((line + "\n").toUtf8());
    };
    test::StationProcess station;
    test::Sibling sibling({"brixXNotification"});
    const QString libraryPath = qEnvironmentVariable("LD_LIBRARY_PATH");
    station.set("LD_LIBRARY_PATH",
                QStringLiteral(BRIX_EOSBODY_DIR) + (libraryPath.isEmpty() ? QString() : ":" + libraryPath));
    station.set("BRIX_EOSBODY_PLUGGED", "1").set("BRIX_EOSBODY_CONTROL", control);
    station.set("LANG", "de_DE.UTF-8").set("LC_ALL", "de_DE.UTF-8").set("LANGUAGE", "de");
    ASSERT_TRUE(station.start({"--headless", "--camera-backend=gphoto2"}));
    ASSERT_TRUE(sibling.waitForStatuses(1)) << "the station did not find the body";
    ASSERT_EQ(sibling.statuses().back(), 1u);

    sibling.request("grabimage");
    ASSERT_TRUE(sibling.waitForFiles(1)) << station.log().toStdString();
    QStringList files = test::filesIn(saveFolder);
    ASSERT_EQ(files.size(), 1) << files.join(",").toStdString();
    EXPECT_TRUE(QRegularExpression("^\\d{17}\\.jpg$").match(files[0]).hasMatch()) << files[0].toStdString();
    EXPECT_TRUE(test::readFile(saveFolder + "/" + files[0]).startsWith("\xFF\xD8"));

    tell("raw+jpeg 1");
    sibling.request("grabimage");
    ASSERT_TRUE(sibling.waitForFiles(3)) << station.log().toStdString();
    files = test::filesIn(saveFolder);
    ASSERT_EQ(files.size(), 3) << files.join(",").toStdString();
    EXPECT_EQ(files.filter(".cr2").size(), 1) << files.join(",").toStdString();

    tell("replug");
    ASSERT_TRUE(sibling.waitForStatuses(3)) << station.log().toStdString(); // gone, then back
    EXPECT_EQ(sibling.statuses()[1], 0u);
    EXPECT_EQ(sibling.statuses()[2], 1u);
    tell("raw+jpeg 0");
    sibling.request("grabimage");
    ASSERT_TRUE(sibling.waitForFiles(4)) << station.log().toStdString();
    EXPECT_EQ(test::filesIn(saveFolder).size(), 4);
}
