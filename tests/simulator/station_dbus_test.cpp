// End to end: the real station, headless, on the simulated camera, driven over
// the session bus with gdbus as a person at a demo would drive it.
#include "SimulatorControl.h"
#include "TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <gtest/gtest.h>

#include <signal.h>

using namespace brix;

namespace {

struct Reply {
    int exitCode = -1;
    QString out;
    QString err;
};

Reply gdbus(const QString &method, const QStringList &args = {}) {
    QProcess p;
    p.start(QStringLiteral("gdbus"),
            QStringList{"call", "--session", "--dest", eds::kSimulatorBusName, "--object-path",
                        eds::kSimulatorObjectPath, "--method",
                        QString::fromLatin1(eds::kSimulatorInterface) + "." + method} +
                args);
    if (!p.waitForFinished(20000))
        return {};
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()).trimmed(),
            QString::fromUtf8(p.readAllStandardError()).trimmed()};
}

// The station logs into its log file under XDG_STATE_HOME; a station reads
// only what was appended since it started.
class Station {
public:
    explicit Station(const QStringList &args,
                     const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
        : logPath_(env.value("XDG_STATE_HOME") + "/Logs/Brix/BrixCanonCapture.log"),
          offset_(QFileInfo(logPath_).size()) {
        p_.setProcessEnvironment(env);
        p_.setProcessChannelMode(QProcess::SeparateChannels);
        p_.start(BRIX_EXECUTABLE, QStringList{"--headless"} + args);
    }
    ~Station() {
        // A normal quit: a killed station would be relaunched by its watchdog.
        if (p_.state() != QProcess::NotRunning) {
            p_.terminate();
            if (!p_.waitForFinished(20000)) {
                p_.kill();
                p_.waitForFinished(5000);
            }
        }
    }
    // Reads the log until it holds `text`.
    bool waitForLog(const QByteArray &text) {
        for (int i = 0; i < 200 && !log().contains(text); ++i)
            p_.waitForFinished(100);
        return log().contains(text);
    }
    int terminate() {
        ::kill(pid_t(p_.processId()), SIGTERM);
        if (!p_.waitForFinished(20000))
            return -1;
        return p_.exitStatus() == QProcess::NormalExit ? p_.exitCode() : -1;
    }
    QByteArray log() const {
        QFile f(logPath_);
        if (!f.open(QIODevice::ReadOnly) || !f.seek(offset_))
            return {};
        return f.readAll();
    }

private:
    QString logPath_;
    qint64 offset_;
    QProcess p_;
};

} // namespace

TEST(StationOnTheSimulator, GdbusPlugsUnplugsAndFiresTheShutter) {
    Station station({"--camera-backend=simulator"});
    ASSERT_TRUE(station.waitForLog("simulator control on the session bus")) << station.log().constData();
    ASSERT_TRUE(
        test::processEventsUntil([] { return gdbus("ShotCount").exitCode == 0; }, std::chrono::seconds(20)));

    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 0,)");
    EXPECT_EQ(gdbus("PressShutter").exitCode, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 1,)");

    EXPECT_EQ(gdbus("GetProperty", {"0x2"}).out, "(<'Canon EOS 5D Mark IV'>,)");
    EXPECT_EQ(gdbus("GetProperty", {"0x400"}).out, "(<uint32 3>,)");
    EXPECT_EQ(gdbus("SetProperty", {"0x400", "2"}).exitCode, 0);
    EXPECT_EQ(gdbus("GetProperty", {"0x400"}).out, "(<uint32 2>,)");
    const Reply bad = gdbus("SetProperty", {"0x2", "1"}); // a string property
    EXPECT_NE(bad.exitCode, 0);
    EXPECT_TRUE(bad.err.contains("invalid parameter")) << bad.err.toStdString();
    EXPECT_EQ(gdbus("SetSupportedValues", {"0x402", "[0x48, 0x50]"}).exitCode, 0);
    EXPECT_EQ(gdbus("InjectError", {"TakePicture", "0x8D01", "1"}).exitCode, 0);
    EXPECT_NE(gdbus("InjectError", {"Teleport", "1", "1"}).exitCode, 0);
    EXPECT_EQ(gdbus("SetShotFormat", {"CR2", "1000000"}).exitCode, 0);

    // A second, legacy body comes and goes; then the first one goes too.
    EXPECT_EQ(gdbus("Plug", {"Canon EOS 40D"}).exitCode, 0);
    EXPECT_EQ(gdbus("Unplug").exitCode, 0);
    EXPECT_EQ(gdbus("GetProperty", {"0x2"}).out, "(<'Canon EOS 5D Mark IV'>,)");
    EXPECT_EQ(gdbus("Unplug").exitCode, 0);
    const Reply none = gdbus("PressShutter");
    EXPECT_NE(none.exitCode, 0);
    EXPECT_TRUE(none.err.contains("no camera")) << none.err.toStdString();
    EXPECT_NE(gdbus("Unplug").exitCode, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 1,)");

    // A body with the default model, and the shutter works again.
    EXPECT_EQ(gdbus("Plug", {"''"}).exitCode, 0);
    EXPECT_EQ(gdbus("PressShutter").exitCode, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 2,)");

    EXPECT_EQ(station.terminate(), 0) << station.log().constData();
    // The name is given up with the station.
    EXPECT_NE(gdbus("ShotCount").exitCode, 0);
}

TEST(StationOnTheSimulator, EnvironmentChoosesTheBodiesAndAMissingBackendIsLogged) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("BRIX_CAMERA_BACKEND", "simulator");
    env.insert("BRIX_SIM_CAMERAS", "0");
    env.insert("BRIX_SIM_MODEL", "Canon EOS 6D");
    {
        Station station({}, env);
        ASSERT_TRUE(station.waitForLog("simulator control on the session bus")) << station.log().constData();
        ASSERT_TRUE(test::processEventsUntil([] { return gdbus("ShotCount").exitCode == 0; }));
        EXPECT_NE(gdbus("PressShutter").exitCode, 0); // nothing attached
        EXPECT_EQ(gdbus("Plug", {"''"}).exitCode, 0);
        EXPECT_EQ(gdbus("GetProperty", {"2"}).out, "(<'Canon EOS 6D'>,)");
        EXPECT_EQ(station.terminate(), 0);
    }
    // The edsdk library is not installed here: the station says so and keeps running.
    QFile::remove(test::testHome() + "/.local/state/Logs/Brix/BrixCanonCapture.log");
    Station station({"--camera-backend=edsdk"});
    ASSERT_TRUE(station.waitForLog("is not available")) << station.log().constData();
    EXPECT_EQ(station.terminate(), 0);
    EXPECT_FALSE(station.log().contains("simulator control"));
}
