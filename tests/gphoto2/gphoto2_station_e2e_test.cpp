// End-to-end: the real station, headless, with --camera-backend=gphoto2, on
// the real libgphoto2 and an EOS body emulated below it: the station process
// finds the emulated libusb first on its library path. The body is steered
// through its control file; siblings talk to the station over the session bus.
#include "DistributedNotificationCenter.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

#include <signal.h>

using namespace brix;
using Message = DistributedNotificationCenter::Message;
using namespace std::chrono_literals;

namespace {

const QRegularExpression kShotName(QStringLiteral("^\\d{17}\\.(jpg|cr2)$"));

class Sibling {
public:
    Sibling()
        : connection_(
              QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("gp-sibling"))),
          center_(connection_) {
        center_.addObserver("brixXNotification", [this](const Message &m) { received.push_back(m); });
    }
    ~Sibling() { QDBusConnection::disconnectFromBus(QStringLiteral("gp-sibling")); }

    void grab() {
        center_.post("BrixNikonAppNotification", "sibling",
                     {{"action", "grabimage"}, {"senderApp", "SiblingTool"}});
    }
    size_t files() const {
        size_t n = 0;
        for (const auto &m : received)
            n += m.userInfo.contains("filePath");
        return n;
    }
    // Two shots saved within one millisecond share a name and the later
    // replaces the earlier, so the folder holds one file per distinct path.
    size_t distinctFiles() const {
        QSet<QString> paths;
        for (const auto &m : received)
            if (m.userInfo.contains("filePath"))
                paths.insert(m.userInfo.value("filePath").toString());
        return size_t(paths.size());
    }
    std::vector<uint32_t> statuses() const {
        std::vector<uint32_t> out;
        for (const auto &m : received)
            if (m.userInfo.contains("cameraStatus"))
                out.push_back(m.userInfo.value("cameraStatus").toUInt());
        return out;
    }

    std::vector<Message> received;

private:
    QDBusConnection connection_;
    DistributedNotificationCenter center_;
};

class StationOnEmulatedBody : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = test::testHome();
        saveFolder_ = home_ + "/Users/Shared/CanonFolder";
        control_ = home_ + "/eosbody.control";
    }
    void TearDown() override {
        if (process_.state() != QProcess::NotRunning) {
            ::kill(pid_t(process_.processId()), SIGTERM);
            process_.waitForFinished(20000);
        }
    }

    void start(Sibling &sibling, const QStringList &extraEnv = {}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        const QString libraryPath = env.value("LD_LIBRARY_PATH");
        env.insert("LD_LIBRARY_PATH", QStringLiteral(BRIX_EOSBODY_DIR) +
                                          (libraryPath.isEmpty() ? QString() : ":" + libraryPath));
        env.insert("BRIX_EOSBODY_PLUGGED", "1");
        env.insert("BRIX_EOSBODY_CONTROL", control_);
        for (const QString &kv : extraEnv)
            env.insert(kv.section('=', 0, 0), kv.section('=', 1));
        process_.setProcessEnvironment(env);
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(BRIX_EXECUTABLE, {"--headless", "--camera-backend=gphoto2"});
        ASSERT_TRUE(process_.waitForStarted(10000));
        ASSERT_TRUE(waitForStatus(sibling, 1)) << "the station did not find the body";
        ASSERT_EQ(sibling.statuses().back(), 1u);
    }
    void tell(const QString &line) {
        QFile f(control_);
        ASSERT_TRUE(f.open(QIODevice::Append));
        f.write((line + "\n").toUtf8());
    }
    bool waitForStatus(Sibling &s, size_t count) {
        return test::processEventsUntil([&] { return s.statuses().size() >= count; }, 30s);
    }
    bool waitForFiles(Sibling &s, size_t count, std::chrono::milliseconds timeout = 30s) {
        return test::processEventsUntil([&] { return s.files() >= count; }, timeout);
    }
    QStringList shots() const { return QDir(saveFolder_).entryList(QDir::Files, QDir::Name); }
    QString log() const {
        QFile f(home_ + "/.local/state/Logs/Brix/BrixCanonCapture.log");
        f.open(QIODevice::ReadOnly);
        return QString::fromUtf8(f.readAll());
    }

    QString home_, saveFolder_, control_;
    QProcess process_;
};

} // namespace

// On a German desktop with libgphoto2's translations installed: one shot, a
// RAW+JPEG pair, then the body unplugged and plugged in under a new device
// number, and the next shot.
TEST_F(StationOnEmulatedBody, GrabImageRawPairAndReplugOnAGermanDesktop) {
    Sibling sibling;
    start(sibling, {"LANG=de_DE.UTF-8", "LC_ALL=de_DE.UTF-8", "LANGUAGE=de"});
    sibling.grab();
    ASSERT_TRUE(waitForFiles(sibling, 1)) << log().toStdString();
    QStringList files = shots();
    ASSERT_EQ(files.size(), 1) << files.join(",").toStdString();
    EXPECT_TRUE(kShotName.match(files[0]).hasMatch()) << files[0].toStdString();
    EXPECT_TRUE(files[0].endsWith(".jpg"));
    QFile jpeg(saveFolder_ + "/" + files[0]);
    ASSERT_TRUE(jpeg.open(QIODevice::ReadOnly));
    EXPECT_TRUE(jpeg.readAll().startsWith("\xFF\xD8"));

    tell("raw+jpeg 1");
    sibling.grab();
    ASSERT_TRUE(waitForFiles(sibling, 3)) << log().toStdString();
    files = shots();
    ASSERT_EQ(files.size(), 3) << files.join(",").toStdString();
    EXPECT_EQ(files.filter(".cr2").size(), 1) << files.join(",").toStdString();

    tell("replug");
    ASSERT_TRUE(waitForStatus(sibling, 3)) << log().toStdString(); // gone, then back
    EXPECT_EQ(sibling.statuses()[1], 0u);
    EXPECT_EQ(sibling.statuses()[2], 1u);
    tell("raw+jpeg 0");
    sibling.grab();
    ASSERT_TRUE(waitForFiles(sibling, 4)) << log().toStdString();
    EXPECT_EQ(shots().size(), 4);
}

// Twenty shots in a burst from the body's own shutter (a sibling's requests
// each wait at most 3 s for the one before), then twenty more with one transfer
// failing on the cable in the middle: at most that shot is lost, and said so.
TEST_F(StationOnEmulatedBody, BurstOfTwentyAndAnIoErrorMidBurst) {
    Sibling sibling;
    start(sibling);
    for (int i = 0; i < 20; ++i)
        tell("press");
    ASSERT_TRUE(waitForFiles(sibling, 20, 60s)) << sibling.files();
    EXPECT_EQ(size_t(shots().size()), sibling.distinctFiles());
    for (const QString &f : shots())
        EXPECT_TRUE(kShotName.match(f).hasMatch()) << f.toStdString();

    for (int i = 0; i < 20; ++i) {
        if (i == 10)
            tell("fail-transfers 1");
        tell("press");
    }
    ASSERT_TRUE(waitForFiles(sibling, 39, 60s)) << sibling.files();
    test::processEventsUntil([&] { return sibling.files() >= 40; }, 2s); // the failed one, if it was retried
    EXPECT_EQ(size_t(shots().size()), sibling.distinctFiles());
    EXPECT_EQ(sibling.statuses().size(), 1u) << "an I/O error is not a vanished camera";
    EXPECT_TRUE(log().contains("I/O")) << "the failed transfer is logged";
}
