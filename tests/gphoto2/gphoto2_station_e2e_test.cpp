// End-to-end: the real station, headless, with --camera-backend=gphoto2, on
// the real libgphoto2 and an EOS body emulated below it: the station process
// finds the emulated libusb first on its library path. The body is steered
// through its control file; siblings talk to the station over the session bus.
#include "Station.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

using namespace brix;
using namespace std::chrono_literals;

namespace {

const QRegularExpression kShotName(QStringLiteral("^\\d{17}\\.(jpg|cr2)$"));

class StationOnEmulatedBody : public ::testing::Test {
protected:
    void SetUp() override {
        saveFolder_ = test::testHome() + "/Users/Shared/CanonFolder";
        control_ = test::testHome() + "/eosbody.control";
    }

    void start(const QStringList &extraEnv = {}) {
        const QString libraryPath = qEnvironmentVariable("LD_LIBRARY_PATH");
        station_.set("LD_LIBRARY_PATH", QStringLiteral(BRIX_EOSBODY_DIR) +
                                            (libraryPath.isEmpty() ? QString() : ":" + libraryPath));
        station_.set("BRIX_EOSBODY_PLUGGED", "1").set("BRIX_EOSBODY_CONTROL", control_);
        for (const QString &kv : extraEnv)
            station_.set(kv.section('=', 0, 0), kv.section('=', 1));
        ASSERT_TRUE(station_.start({"--headless", "--camera-backend=gphoto2"}));
        ASSERT_TRUE(sibling_.waitForStatuses(1)) << "the station did not find the body";
        ASSERT_EQ(sibling_.statuses().back(), 1u);
    }
    void tell(const QString &line) {
        QFile f(control_);
        ASSERT_TRUE(f.open(QIODevice::Append));
        f.write((line + "\n").toUtf8());
    }
    // Two shots saved within one millisecond share a name and the later
    // replaces the earlier, so the folder holds one file per distinct path.
    size_t distinctFiles() const {
        QSet<QString> paths;
        for (const auto &m : sibling_.files())
            paths.insert(m.userInfo.value("filePath").toString());
        return size_t(paths.size());
    }
    QStringList shots() const { return test::filesIn(saveFolder_); }
    std::string log() const { return station_.log().toStdString(); }

    QString saveFolder_, control_;
    test::StationProcess station_;
    test::Sibling sibling_{{"brixXNotification"}};
};

} // namespace

// On a German desktop with libgphoto2's translations installed: one shot, a
// RAW+JPEG pair, then the body unplugged and plugged in under a new device
// number, and the next shot.
TEST_F(StationOnEmulatedBody, GrabImageRawPairAndReplugOnAGermanDesktop) {
    start({"LANG=de_DE.UTF-8", "LC_ALL=de_DE.UTF-8", "LANGUAGE=de"});
    sibling_.request("grabimage");
    ASSERT_TRUE(sibling_.waitForFiles(1)) << log();
    QStringList files = shots();
    ASSERT_EQ(files.size(), 1) << files.join(",").toStdString();
    EXPECT_TRUE(kShotName.match(files[0]).hasMatch()) << files[0].toStdString();
    EXPECT_TRUE(files[0].endsWith(".jpg"));
    EXPECT_TRUE(test::readFile(saveFolder_ + "/" + files[0]).startsWith("\xFF\xD8"));

    tell("raw+jpeg 1");
    sibling_.request("grabimage");
    ASSERT_TRUE(sibling_.waitForFiles(3)) << log();
    files = shots();
    ASSERT_EQ(files.size(), 3) << files.join(",").toStdString();
    EXPECT_EQ(files.filter(".cr2").size(), 1) << files.join(",").toStdString();

    tell("replug");
    ASSERT_TRUE(sibling_.waitForStatuses(3)) << log(); // gone, then back
    EXPECT_EQ(sibling_.statuses()[1], 0u);
    EXPECT_EQ(sibling_.statuses()[2], 1u);
    tell("raw+jpeg 0");
    sibling_.request("grabimage");
    ASSERT_TRUE(sibling_.waitForFiles(4)) << log();
    EXPECT_EQ(shots().size(), 4);
}

// Twenty shots in a burst from the body's own shutter (a sibling's requests
// each wait at most 3 s for the one before), then twenty more with one transfer
// failing on the cable in the middle: at most that shot is lost, and said so.
TEST_F(StationOnEmulatedBody, BurstOfTwentyAndAnIoErrorMidBurst) {
    start();
    for (int i = 0; i < 20; ++i)
        tell("press");
    ASSERT_TRUE(sibling_.waitForFiles(20, 60s)) << sibling_.files().size();
    EXPECT_EQ(size_t(shots().size()), distinctFiles());
    for (const QString &f : shots())
        EXPECT_TRUE(kShotName.match(f).hasMatch()) << f.toStdString();

    for (int i = 0; i < 20; ++i) {
        if (i == 10)
            tell("fail-transfers 1");
        tell("press");
    }
    ASSERT_TRUE(sibling_.waitForFiles(39, 60s)) << sibling_.files().size();
    test::processEventsUntil([&] { return sibling_.files().size() >= 40; },
                             2s); // the failed one, if it was retried
    EXPECT_EQ(size_t(shots().size()), distinctFiles());
    EXPECT_EQ(sibling_.statuses().size(), 1u) << "an I/O error is not a vanished camera";
    EXPECT_TRUE(station_.log().contains("I/O")) << "the failed transfer is logged";
}
