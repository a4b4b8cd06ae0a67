// The station as a program and as the sibling applications see it: its command
// line, the real executable headless, the messages on the session bus; and how
// it keeps itself alive: the real executable and its watchdog on a private bus
// with a temporary HOME, killed, crashed, hung, started twice.
#include "AppDelegate.h"
#include "CommandLine.h"
#include "HotFolder.h"
#include "InterAppNotifications.h"
#include "Preferences.h"
#include "Station.h"

#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>

using namespace brix;
using namespace std::chrono_literals;

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
    // One connection delivers in order: had a switched-off sender sent, its
    // message would be among the first three.
    ASSERT_TRUE(sibling.waitFor(3));
    QStringList names;
    for (const auto &m : sibling.received)
        names << m.name;
    EXPECT_EQ(names,
              (QStringList{"BrixVideoAppNotification", "brixXNotification", "brixSalesStationNotification"}));
    EXPECT_EQ(sibling.received[0].userInfo.value("action").toString(), "StopRecording");
    EXPECT_EQ(sibling.received[1].userInfo.value("cameraStatus").metaType().id(), QMetaType::UShort);
    EXPECT_EQ(sibling.received[2].userInfo.value("editableTextPackages").toList().size(), 1);
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

    // Splitting the listing: blank output is no file, CR ends a line as LF
    // does, and a run of line ends leaves one empty entry.
    EXPECT_TRUE(hotfolder::splitCommandOutput(" \n  \r\n").isEmpty());
    EXPECT_EQ(hotfolder::splitCommandOutput("/a.jpg\r/b.jpg\r"),
              hotfolder::splitCommandOutput("/a.jpg\n/b.jpg\n"));
    EXPECT_EQ(hotfolder::splitCommandOutput("/a.jpg\n\n\n/b.jpg"), (QStringList{"/a.jpg", "", "/b.jpg"}));
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
    toggle();
    EXPECT_FALSE(delegate.fTimer) << "no timer without a positive interval";

    Preferences::standard().setFloat(2.0, key);
    toggle();
    ASSERT_TRUE(delegate.fTimer);
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

namespace {

// Generous: a loaded two-core machine runs these under AddressSanitizer.
constexpr auto kUp = 60s;

const QString kBusName = QStringLiteral("com.lumetra.BrixCanonCapture");

class KeepAlive : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = test::testHome();
        env_ = QProcessEnvironment::systemEnvironment();
        env_.insert("BRIX_CAMERA_BACKEND", "simulator");
        env_.insert("XDG_RUNTIME_DIR", home_ + "/run");
    }
    void TearDown() override {
        // Whatever is left of this test's stations and watchdogs: a normal quit
        // first, then SIGKILL for the watchdogs before the stations.
        for (pid_t pid : ours("BrixCanonCapture"))
            ::kill(pid, SIGTERM);
        test::processEventsUntil([&] { return ours("BrixCanonCapture").isEmpty(); }, 20s);
        for (const char *name : {"watchdog", "BrixCanonCapture"})
            for (pid_t pid : ours(name))
                ::kill(pid, SIGKILL);
        test::processEventsUntil(
            [&] { return ours("watchdog").isEmpty() && ours("BrixCanonCapture").isEmpty(); }, 20s);
        first_.waitForFinished(5000);
    }

    // Live processes of this test (its HOME) running the named executable.
    QList<pid_t> ours(const QString &executable) const {
        QList<pid_t> pids;
        const QByteArray homeEntry = "HOME=" + QFile::encodeName(home_);
        for (const QString &entry : QDir("/proc").entryList(QDir::Dirs)) {
            bool isPid = false;
            const pid_t pid = pid_t(entry.toInt(&isPid));
            if (!isPid || QFileInfo("/proc/" + entry + "/exe").symLinkTarget().section('/', -1) != executable)
                continue;
            QFile environ("/proc/" + entry + "/environ");
            if (environ.open(QIODevice::ReadOnly) && environ.readAll().split('\0').contains(homeEntry))
                pids << pid;
        }
        return pids;
    }
    pid_t owner() const {
        QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(kBusName);
        return pid.isValid() ? pid_t(pid.value()) : 0;
    }
    // The watchdog of `station` has read what it needs to relaunch it.
    bool watched(pid_t station) const {
        return log().contains(QStringLiteral("watchdog: watching pid %1\n").arg(station));
    }
    // The station that owns the bus name now, once it is not `previous`, is
    // watched by its watchdog, and has announced its camera.
    pid_t waitForStation(pid_t previous) {
        const size_t cameras = cameraAnnouncements();
        pid_t pid = 0;
        const bool up = test::processEventsUntil(
            [&] {
                pid = owner();
                return pid > 0 && pid != previous && watched(pid) && cameraAnnouncements() > cameras;
            },
            kUp);
        return up ? pid : 0;
    }
    size_t cameraAnnouncements() const {
        const auto s = sibling_.statuses();
        return size_t(std::count(s.begin(), s.end(), 1u));
    }
    // A shot on the simulated body is saved and announced.
    bool shotIsSavedAndAnnounced() {
        const size_t before = sibling_.files().size();
        if (!test::StationProcess::simulator().call("PressShutter").errorName().isEmpty() ||
            !sibling_.waitForFiles(before + 1, kUp))
            return false;
        return QFileInfo::exists(sibling_.files().back().userInfo.value("filePath").toString());
    }
    void startFirst() {
        first_.setProcessEnvironment(env_);
        // The relaunched stations inherit these descriptors: they must outlive
        // the QProcess object.
        first_.setProcessChannelMode(QProcess::ForwardedChannels);
        first_.start(BRIX_EXECUTABLE, {"--headless"});
        ASSERT_TRUE(first_.waitForStarted(10000));
    }
    // waitForFinished() answers false for a process already seen to end.
    static bool finished(QProcess &p) {
        return p.state() == QProcess::NotRunning || p.waitForFinished(30000);
    }
    QString log() const { return QString::fromUtf8(test::readFile(test::StationProcess::logPath())); }
    bool waitForLog(const QString &text) {
        return test::processEventsUntil([&] { return log().contains(text); }, kUp);
    }

    QString home_;
    QProcessEnvironment env_;
    QProcess first_;
    test::Sibling sibling_{{"brixXNotification"}};
};

} // namespace

TEST_F(KeepAlive, SecondCopyAndHangUpLeaveTheFirstAHungOneIsRelaunchedAndTerminateEndsIt) {
    const QString hang = home_ + "/hang";
    env_.insert("BRIX_TEST_HANG_FILE", hang);
    env_.insert("BRIX_WATCHDOG_HANG_SECONDS", "5");
    startFirst();
    const pid_t first = waitForStation(0);
    ASSERT_EQ(first, pid_t(first_.processId()));
    const QList<pid_t> watchdog = ours("watchdog");
    ASSERT_EQ(watchdog.size(), 1);

    // A second copy asks the first to come forward and leaves its camera alone.
    QProcess second;
    second.setProcessEnvironment(env_);
    second.start(BRIX_EXECUTABLE, {"--headless"});
    ASSERT_TRUE(second.waitForStarted(10000));
    const qint64 secondPid = second.processId();
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    ASSERT_TRUE(
        waitForLog(QStringLiteral("another instance (pid %1) asked us to come forward").arg(secondPid)));
    EXPECT_TRUE(
        log().contains("Inside AppDelegate => checkForDuplicateRunningInstances...Another Instance of this "
                       "app is already running..."));
    EXPECT_EQ(log().count("simulator control on the session bus"), 1);

    ::kill(first, SIGHUP);
    ASSERT_TRUE(waitForLog("Caught Hangup ... ignoring."));
    EXPECT_EQ(owner(), first);
    EXPECT_EQ(ours("watchdog"), watchdog);
    EXPECT_TRUE(shotIsSavedAndAnnounced());

    // Hung: the watchdog kills it and starts it again.
    QFile(hang).open(QIODevice::WriteOnly);
    ASSERT_TRUE(waitForLog("test switch: the main loop stops turning now"));
    const pid_t relaunched = waitForStation(first);
    ASSERT_GT(relaunched, 0) << log().toStdString();
    EXPECT_TRUE(finished(first_));
    EXPECT_EQ(first_.exitStatus(), QProcess::CrashExit); // SIGKILL from the watchdog
    EXPECT_TRUE(
        log().contains(QStringLiteral("pid %1 has not turned its main loop for 5 s, killed it").arg(first)));
    EXPECT_TRUE(shotIsSavedAndAnnounced());

    // SIGTERM ends it normally: it waits for its watchdog, which ends without
    // relaunching.
    const qsizetype relaunches = log().count("relaunched");
    ::kill(relaunched, SIGTERM);
    ASSERT_TRUE(test::processEventsUntil([&] { return ours("BrixCanonCapture").isEmpty(); }, kUp));
    EXPECT_TRUE(ours("watchdog").isEmpty());
    const QString text = log();
    EXPECT_TRUE(text.contains("Caught Terminated ... terminating."));
    EXPECT_TRUE(text.contains("ended with status 0"));
    EXPECT_TRUE(text.contains("watchdog has terminated with exit code 0"));
    EXPECT_EQ(text.count("relaunched"), relaunches);
}

// A crash signal, then kills: each end relaunches the station, until five ends
// within 30 s stop the loop.
TEST_F(KeepAlive, FiveEndsWithinThirtySecondsStopTheLoop) {
    startFirst();
    pid_t station = waitForStation(0);
    const pid_t first = station;
    ASSERT_GT(station, 0);
    EXPECT_TRUE(waitForLog("args = (\n    " BRIX_EXECUTABLE ",\n    --headless\n)"));
    ::kill(first, SIGSEGV);
    ASSERT_TRUE(finished(first_));
    EXPECT_EQ(first_.exitCode(), SIGSEGV); // ends at once, with the signal's number
    // Four relaunches keep their watchdog; the fifth start finds four recorded
    // launches within 30 s and runs without one.
    for (int relaunch = 1; relaunch <= 4; ++relaunch) {
        if (relaunch > 1)
            ::kill(station, SIGKILL);
        pid_t next = 0;
        // Each relaunched start notes itself once; the log lines of station and
        // watchdog arrive in either order.
        ASSERT_TRUE(test::processEventsUntil(
            [&] {
                next = owner();
                return next > 0 && next != station && watched(next) &&
                       log().count("automatically relaunched due to unexpected termination") == relaunch;
            },
            kUp))
            << "relaunch " << relaunch << log().toStdString();
        station = next;
    }
    EXPECT_TRUE(log().contains("App Launched From WatchDog..."));
    // "--autorelaunched" is added once, however often the station comes back.
    EXPECT_TRUE(test::processEventsUntil(
        [&] {
            return log().count("args = (\n    " BRIX_EXECUTABLE
                               ",\n    --headless,\n    --autorelaunched\n)") == 4;
        },
        kUp));
    EXPECT_FALSE(log().contains("--autorelaunched,\n    --autorelaunched"));
    ::kill(station, SIGKILL);
    ASSERT_TRUE(waitForLog(
        "NOT setting auto-relaunch because interval since 4 previous launches is less than 30.0 sec"))
        << log().toStdString();
    EXPECT_TRUE(log().contains(QStringLiteral("pid %1 ended without a normal quit; relaunched").arg(first)));
    ASSERT_TRUE(test::processEventsUntil([&] { return owner() > 0 && owner() != station; }, kUp));
    station = owner();
    EXPECT_TRUE(ours("watchdog").isEmpty());
    // The next end is final.
    ::kill(station, SIGKILL);
    ASSERT_TRUE(test::processEventsUntil([&] { return ours("BrixCanonCapture").isEmpty(); }, kUp));
    EXPECT_TRUE(ours("watchdog").isEmpty());
}

// Alone: without a session bus the lock file keeps a second copy out, and a
// lock left by a killed copy does not; without the watchdog beside it the
// station says so once and runs unmonitored. Its whole error stream goes into
// the rotating log under the XDG state folder, which starts with the machine
// report, and SIGTERM still ends it normally.
TEST_F(KeepAlive, AloneTheLockFileServesAStaleOneNeverBlocksAndSigtermEndsItCleanly) {
    env_.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home_ + "/no-bus");
    env_.insert("BRIX_CAMERA_BACKEND", "none-here"); // no camera is needed for this
    const QString lock = home_ + "/run/com.lumetra.BrixCanonCapture.lock";
    ASSERT_TRUE(test::writeFile(lock, "99999999\n"));
    const QString copy = home_ + "/bin/BrixCanonCapture";
    ASSERT_TRUE(QDir().mkpath(home_ + "/bin"));
    ASSERT_TRUE(QFile::copy(BRIX_EXECUTABLE, copy));
    first_.setProcessEnvironment(env_);
    first_.start(copy, {"--headless"});
    ASSERT_TRUE(waitForLog("missing watchdog! Unexpected termination will not be monitored."))
        << log().toStdString();
    ASSERT_TRUE(waitForLog("myappinfo = ")) << log().toStdString();
    EXPECT_TRUE(ours("watchdog").isEmpty());
    const QString text = log();
    EXPECT_TRUE(text.left(text.indexOf('\n'))
                    .endsWith("[Q com.apple.main-thread] +[Logger setLogFile:] file://" +
                              test::StationProcess::logPath()))
        << text.toStdString();
    EXPECT_TRUE(text.contains("    | Physical memory: ")) << text.toStdString();

    QProcess second;
    second.setProcessEnvironment(env_);
    second.start(copy, {"--headless"});
    ASSERT_TRUE(second.waitForFinished(60000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(log().contains("Another Instance of this app is already running"));
    EXPECT_EQ(first_.state(), QProcess::Running);
    EXPECT_EQ(test::readFile(lock).trimmed().toLongLong(), first_.processId());

    ::kill(pid_t(first_.processId()), SIGTERM);
    ASSERT_TRUE(finished(first_));
    EXPECT_EQ(first_.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(first_.exitCode(), 0);
    EXPECT_TRUE(first_.readAllStandardError().isEmpty());
    EXPECT_TRUE(log().contains("Caught Terminated ... terminating."));
    EXPECT_TRUE(log().contains("ended with status 0")) << log().toStdString();
}
