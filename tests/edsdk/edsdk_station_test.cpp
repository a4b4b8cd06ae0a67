// End to end: the real station, headless, told to use Canon's library and
// pointed at a test library through BRIX_EDSDK_PATH, as a user would do it.
#include "EdsdkLibrary.h"

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>

#include <gtest/gtest.h>

#include <signal.h>

namespace {

// The station writes its whole error stream into its log file under the
// test's XDG_STATE_HOME; the tests read that file.
class Station {
public:
    explicit Station(const QString &library)
        : logFile_(qEnvironmentVariable("XDG_STATE_HOME") + "/Logs/Brix/BrixCanonCapture.log") {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BRIX_CAMERA_BACKEND", "edsdk");
        env.insert(brix::eds::kEdsdkPathVariable, library);
        p_.setProcessEnvironment(env);
        p_.setProcessChannelMode(QProcess::MergedChannels);
        p_.start(BRIX_EXECUTABLE, QStringList{"--headless"});
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
    bool waitForLog(const QByteArray &text) {
        for (int i = 0; i < 200 && !log_.contains(text) && p_.state() != QProcess::NotRunning; ++i) {
            p_.waitForReadyRead(100);
            p_.readAll();
            read();
        }
        read();
        return log_.contains(text);
    }
    bool running() { return p_.state() == QProcess::Running; }
    // SIGTERM, then the exit code of a normal exit (-1 otherwise).
    int terminate() {
        ::kill(pid_t(p_.processId()), SIGTERM);
        if (!p_.waitForFinished(20000) || p_.exitStatus() != QProcess::NormalExit)
            return -1;
        read();
        return p_.exitCode();
    }
    const QByteArray &log() const { return log_; }

private:
    void read() {
        QFile f(logFile_);
        if (f.open(QIODevice::ReadOnly))
            log_ = f.readAll();
    }

    QProcess p_;
    QString logFile_;
    QByteArray log_;
};

} // namespace

#ifdef BRIX_EDSDK_SIM_LIBRARY
TEST(EdsdkStation, LoadsTheLibraryFromTheEnvironmentAndRunsOnIt) {
    Station station(BRIX_EDSDK_SIM_LIBRARY);
    ASSERT_TRUE(station.waitForLog(QByteArray("EDSDK loaded from: ") + BRIX_EDSDK_SIM_LIBRARY))
        << station.log().constData();
    ASSERT_TRUE(station.waitForLog("camera backend: edsdk")) << station.log().constData();
    EXPECT_TRUE(station.running());
    EXPECT_EQ(station.terminate(), 0) << station.log().constData();
}
#endif

TEST(EdsdkStation, AnIncompleteLibraryIsRefusedAndTheStationStaysUp) {
    Station station(BRIX_EDSDK_INCOMPLETE_LIBRARY);
    ASSERT_TRUE(station.waitForLog(QByteArray("EDSDK at ") + BRIX_EDSDK_INCOMPLETE_LIBRARY +
                                   " lacks the function EdsDownloadEvfImage; not used"))
        << station.log().constData();
    ASSERT_TRUE(station.waitForLog("camera backend \"edsdk\" is not available")) << station.log().constData();
    EXPECT_TRUE(station.running());
    EXPECT_EQ(station.terminate(), 0) << station.log().constData();
}
