// The station as a program and as the sibling applications see it: its command
// line, the real executable headless, and the messages on the session bus.
#include "AppDelegate.h"
#include "CommandLine.h"
#include "DistributedNotificationCenter.h"
#include "HotFolder.h"
#include "InterAppNotifications.h"
#include "Preferences.h"
#include "Station.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

using namespace brix;

TEST(CommandLine, KeepsUnknownArgumentsChecksTheBackendAndPrintsHelp) {
    auto cl = CommandLine::parse({"prog", "-fromlaunchagent", "--headless", "--camera-backend=GPhoto2"});
    EXPECT_TRUE(cl.headless);
    EXPECT_EQ(cl.cameraBackend, "gphoto2");
    EXPECT_TRUE(cl.errors.isEmpty());
    EXPECT_FALSE(CommandLine::parse({"prog", "--camera-backend=nikon"}).errors.isEmpty());

    // The real executable prints its help.
    const test::Run help = test::run(BRIX_EXECUTABLE, {"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(help.out.contains("--headless"));
}

// The station writes its whole error stream into the rotating log under the
// XDG state folder, which starts with the machine report.
TEST(Station, HeadlessStaysUpUntilSigtermThenEndsCleanly) {
    test::StationProcess station;
    ASSERT_TRUE(station.start({"--headless"}, QProcess::SeparateChannels));
    // Up and running: it logged its start and is still alive a moment later.
    ASSERT_TRUE(station.waitForLog("starting")) << station.log().toStdString();
    const QString text = station.log();
    EXPECT_TRUE(text.left(text.indexOf('\n'))
                    .endsWith("[Q com.apple.main-thread] +[Logger setLogFile:] file://" +
                              test::StationProcess::logPath()))
        << text.toStdString();
    EXPECT_TRUE(text.contains("    | Physical memory: ")) << text.toStdString();
    EXPECT_FALSE(station.process().waitForFinished(300));
    EXPECT_EQ(station.terminate(), 0);
    EXPECT_TRUE(station.process().readAllStandardError().isEmpty());
    EXPECT_TRUE(station.log().contains("Caught Terminated ... terminating.")) << station.log().toStdString();
    EXPECT_TRUE(station.log().contains("ended with status 0")) << station.log().toStdString();
}

namespace ia = brix::interapp;

using test::Sibling;

TEST(InterApp, SwitchedOffSendersSendNothingWhileTheOthersWork) {
    Sibling sibling({ia::kBrixXNotification, ia::kFlashDriveNotification, ia::kWebServerNotification,
                     ia::kVideoAppNotification, ia::kSalesStationNotification});
    ia::mySendFlashWriterAppNotificationWithFilePath("/x.jpg");
    ia::mySendNotificationToWebServerAppWithDictionary({{"copies", 1}});
    ia::mySendVideoAppNotificationWithCustomerIDAndPath("c1", "/f");
    ia::doBrixXNotification("x.jpg");
    ia::mySendVideoAppNotificationStopRecording();
    ia::mySendBrixXStatusNotification(7);
    ia::mySendNotificationWithArray({QStringLiteral("pkg")});
    sibling.sync();
    QStringList names;
    for (const auto &m : sibling.received)
        names << m.name;
    EXPECT_EQ(names, (QStringList{"BrixVideoAppNotification", "brixXNotification",
                                  "brixSalesStationNotification", "sibling.marker"}));
    EXPECT_EQ(sibling.received[0].userInfo.value("action").toString(), "StopRecording");
    EXPECT_EQ(sibling.received[1].userInfo.value("cameraStatus").metaType().id(), QMetaType::UShort);
    EXPECT_EQ(sibling.received[2].userInfo.value("editableTextPackages").toList().size(), 1);
}

TEST(HotFolder, SplittingKeepsItsSinglePassRule) {
    EXPECT_TRUE(hotfolder::splitCommandOutput(" \n  \r\n").isEmpty());
    EXPECT_EQ(hotfolder::splitCommandOutput("/a.jpg\r/b.jpg\r"),
              hotfolder::splitCommandOutput("/a.jpg\n/b.jpg\n"));
    EXPECT_EQ(hotfolder::splitCommandOutput("/a.jpg\n\n\n/b.jpg"), (QStringList{"/a.jpg", "", "/b.jpg"}));
    EXPECT_EQ(hotfolder::commandForFolder("/s f"), "find \"/s f\" -d 1  -name '*.jpg'");
}

TEST(HotFolder, ListsJpegsDirectlyInTheFolderAndSendsThemInOneMessage) {
    const QString folder = test::testHome() + "/Shots";
    QDir().mkpath(folder + "/sub");
    QDir().mkpath(folder + "/folder.jpg");
    for (const char *name : {"a.jpg", "b.jpg", "C.JPG", "notes.txt", "sub/deep.jpg", "x.jpg.bak"})
        ASSERT_TRUE(test::writeFile(folder + "/" + name, {}));
    QStringList listed = hotfolder::splitCommandOutput(hotfolder::listJpegsAtDepthOne(folder));
    listed.sort();
    EXPECT_EQ(listed, (QStringList{folder + "/a.jpg", folder + "/b.jpg", folder + "/folder.jpg"}));

    Sibling previewer({ia::kPreviewerNotification});
    QStringList sent = hotfolder::sendAllItemsInHotFolder(QString("~/Shots/"));
    ASSERT_EQ(sent.size(), 3);
    ASSERT_TRUE(previewer.waitFor(1));
    EXPECT_EQ(previewer.received[0].userInfo.value("value").toStringList(), sent);

    // A path naming a file, and a value that is not text, send nothing.
    EXPECT_TRUE(hotfolder::sendAllItemsInHotFolder(folder + "/a.jpg").isEmpty());
    EXPECT_TRUE(hotfolder::sendAllItemsInHotFolder(QVariant(42)).isEmpty());
}

TEST(HotFolder, ScanTimerStartsThenSuspendsAndResumesInTurnOnTheCameraQueue) {
    dispatch::ManualClock clock;
    dispatch::setClock(&clock);
    AppDelegate delegate;
    const QString key = QLatin1String(pref::kScanForNewImageInSeconds);
    const auto queue = AppDelegate::currentCameraDispatchQueue();
    auto advance = [&](double seconds) { clock.advanceSeconds(seconds, [&] { test::drain(queue); }); };
    auto toggle = [&] {
        delegate.createScanTimer();
        test::drain(queue);
    };

    Preferences::standard().setFloat(0, key);
    delegate.createScanTimer();
    EXPECT_FALSE(delegate.fTimer) << "no timer without a positive interval";

    Preferences::standard().setFloat(2.0, key);
    delegate.createScanTimer();
    ASSERT_TRUE(delegate.fTimer);
    test::drain(queue);
    advance(5); // ticks at 0, 2 and 4
    EXPECT_EQ(delegate.fTimer->ticks(), 3u);

    toggle(); // the first toggle finds no status and resumes a running timer
    EXPECT_EQ(delegate.fTimerStatus, "running");
    advance(2);
    EXPECT_EQ(delegate.fTimer->ticks(), 4u);

    toggle();
    EXPECT_EQ(delegate.fTimerStatus, "suspended");
    advance(10);
    EXPECT_EQ(delegate.fTimer->ticks(), 4u);

    toggle();
    EXPECT_EQ(delegate.fTimerStatus, "running");
    advance(0.5);
    EXPECT_EQ(delegate.fTimer->ticks(), 5u) << "a resumed timer ticks at once";
    delegate.fTimer->queue()->sync([&] { delegate.fTimer->suspend(); });
    dispatch::setClock(nullptr);
}
