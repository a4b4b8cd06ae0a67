#include "CameraPanelModel.h"
#include "LogCapture.h"
#include "OKVA_CanonCamera.h"
#include "Preferences.h"
#include "TestSupport.h"
#include "ViewController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace brix;

namespace {

Notification shot(const QByteArray &bytes, const QString &cameraName) {
    return Notification{kOKVA_CanonCameraPhotoDataAvailable,
                        {},
                        {{kOKVA_CanonCameraPhotoData, bytes}, {kOKVA_CanonCameraPhotoFilename, cameraName}},
                        {}};
}

const QByteArray kJpegLike("\xFF\xD8 pretend image \xFF\xD9", 19);

class ViewControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        Preferences::standard().removeObjectForKey(ViewController::kPrefSaveFolderPath);
        QObject::connect(
            &vc, &ViewController::photoSaved, &vc, [this](const QString &p) { saved << p; },
            Qt::DirectConnection);
    }
    void finish() {
        test::drain(ViewController::metadataQueue());
        test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    }
    // The save folder made, and the clock stopped at that moment.
    void startAt(const QDateTime &now) {
        vc.createSavePhotosFolder();
        finish();
        vc.setClock([now] { return now; });
    }
    ViewController vc;
    QStringList saved;
};

} // namespace

// The default folder under HOME is the end-to-end tests' (station_e2e_test.cpp).
TEST_F(ViewControllerTest, AStoredSaveFolderIsTrimmedExpandedCreatedAndStoredBack) {
    Preferences::standard().setObject(QString("  ~/Event//Shots/./day1/..\n"),
                                      ViewController::kPrefSaveFolderPath);
    vc.createSavePhotosFolder();
    finish();
    EXPECT_EQ(vc.getPathToSavePhotos(), test::testHome() + "/Event/Shots");
    EXPECT_TRUE(QFileInfo(test::testHome() + "/Event/Shots").isDir());
}

TEST_F(ViewControllerTest, ShotIsNamedByWeekYearTimestampWithLowerCaseExtension) {
    // 31 December 2024 falls in week 1 of 2025.
    startAt(QDateTime(QDate(2024, 12, 31), QTime(23, 59, 59, 123)));
    vc.newPhoto(shot(kJpegLike, "IMG_0001.JPG"));
    // A raw shot is no valid JPEG, yet it is saved and announced all the same.
    vc.newPhoto(shot(QByteArray("RAW-ish bytes"), "IMG_0002.CR2"));
    finish();
    ASSERT_EQ(saved.size(), 2);
    EXPECT_EQ(QFileInfo(saved[0]).fileName(), "20251231235959123.jpg");
    EXPECT_EQ(test::readFile(saved[0]), kJpegLike);
    EXPECT_EQ(QFileInfo(saved[1]).fileName(), "20251231235959124.cr2");
    EXPECT_TRUE(ViewController::isValidJPEGFile(saved[0]));
    EXPECT_FALSE(ViewController::isValidJPEGFile(saved[1]));
    EXPECT_FALSE(ViewController::isValidJPEGFile(QString())); // a missing file is not valid
    EXPECT_EQ(vc.fDownloadCount(), 2);
    EXPECT_EQ(vc.fSavedCount(), 2);
}

TEST_F(ViewControllerTest, TwoShotsInOneMillisecondTakeTheNextFreeMillisecond) {
    startAt(QDateTime(QDate(2025, 6, 1), QTime(10, 0, 0, 5)));
    // A file left from before a restart takes the second shot's millisecond too.
    const QString folder = vc.getPathToSavePhotos();
    QFile(folder + "/20250601100000006.jpg").open(QIODevice::WriteOnly);
    vc.newPhoto(shot(QByteArray("first\xFF\xD9"), "IMG_0003.JPG"));
    vc.newPhoto(shot(QByteArray("second\xFF\xD9"), "IMG_0004.JPG"));
    finish();
    EXPECT_EQ(saved, (QStringList{folder + "/20250601100000005.jpg", folder + "/20250601100000007.jpg"}));
    EXPECT_EQ(test::readFile(folder + "/20250601100000007.jpg"), QByteArray("second\xFF\xD9"));
    EXPECT_EQ(vc.fSavedCount(), 2);
    // Each shot is written beside its name and renamed into place: no
    // temporary file is left.
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              (QStringList{"20250601100000005.jpg", "20250601100000006.jpg", "20250601100000007.jpg"}));
}

TEST_F(ViewControllerTest, FailedWriteAnnouncesNothingButBothCountersGrew) {
    Preferences::standard().setObject(test::testHome() + "/no/such/folder",
                                      ViewController::kPrefSaveFolderPath);
    test::LogCapture log;
    vc.newPhoto(shot(kJpegLike, "IMG_0005.JPG"));
    finish();
    EXPECT_EQ(log.matching("failed to save image to path " + test::testHome() + "/no/such/folder/").size(), 1)
        << log.text().constData();
    EXPECT_TRUE(saved.isEmpty());
    EXPECT_EQ(vc.fDownloadCount(), 1);
    EXPECT_EQ(vc.fSavedCount(), 1);
}

TEST_F(ViewControllerTest, StatusTextFollowsStatusMessagesAndProgressShowsThenClears) {
    const QString key = ViewController::kPrefNameOfCameraFound;
    vc.cameraStatusChanged({"brixXNotification", "", {{"camerName", "Canon EOS R5"}, {"cameraStatus", 1u}}});
    ASSERT_TRUE(test::processEventsUntil([&] { return vc.fCameraOnline(); }));
    EXPECT_EQ(Preferences::standard().stringForKey(key), "Canon EOS R5");
    vc.cameraStatusChanged({"brixXNotification", "test", {{"filePath", "/x.jpg"}}});
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_TRUE(vc.fCameraOnline());
    vc.cameraStatusChanged({"brixXNotification", "", {{"cameraStatus", false}}});
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return Preferences::standard().stringForKey(key) == "< NO Camera Found >"; }));
    EXPECT_FALSE(vc.fCameraOnline());
    vc.cameraDisappeared(Notification{kOKVA_CanonCameraDidUnload, {}, {}, {}});
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return Preferences::standard().stringForKey(key) == "< NO Canon Camera Found >"; }));

    // Download progress shows, then clears.
    vc.downloadProgress(Notification{
        kOKVA_CanonCameraDownloadProgress, {}, {{kOKVA_CanonCameraDownloadProgressPercent, 42u}}, {}});
    ASSERT_TRUE(test::processEventsUntil([&] { return vc.progressVisible(); }));
    EXPECT_EQ(vc.progressValue(), 42.0);
    vc.clearProgressIndicator();
    ASSERT_TRUE(test::processEventsUntil([&] { return !vc.progressVisible(); }));
    EXPECT_EQ(vc.progressValue(), 0.0);
}

// The start-up sequence opens the camera a little after launch; a station told
// to quit before then must not open one while it is being torn down.
TEST_F(ViewControllerTest, AStartStillQueuedWhenTheLoopEndsOpensNoCamera) {
    CameraPanelModel panel;
    vc.setCameraControls(&panel);
    int starts = 0;
    vc.setCameraStarter([&starts] { return ++starts > 0; });
    vc.ibStartCameraButton();
    vc.applicationWillTerminate();
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(starts, 0);
    EXPECT_FALSE(vc.cameraObjectExists());
}
