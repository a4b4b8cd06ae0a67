// Runs the real executable.
#include "CommandLine.h"

#include <QFile>
#include "TestSupport.h"

#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include <signal.h>

using namespace brix;

TEST(CommandLine, KeepsUnknownArgumentsAndChecksTheBackend) {
    auto cl = CommandLine::parse({"prog", "-fromlaunchagent", "--headless", "--camera-backend=GPhoto2"});
    EXPECT_TRUE(cl.headless);
    EXPECT_EQ(cl.cameraBackend, "gphoto2");
    EXPECT_TRUE(cl.errors.isEmpty());
    EXPECT_FALSE(CommandLine::parse({"prog", "--camera-backend=nikon"}).errors.isEmpty());
}

TEST(Station, PrintsHelp) {
    QProcess p;
    p.start(BRIX_EXECUTABLE, {"--help"});
    ASSERT_TRUE(p.waitForFinished(20000));
    EXPECT_EQ(p.exitCode(), 0);
    EXPECT_TRUE(p.readAllStandardOutput().contains("--headless"));
}

// The station writes its whole error stream into the rotating log under the
// XDG state folder, which starts with the machine report.
TEST(Station, HeadlessStaysUpUntilSigtermThenEndsCleanly) {
    QFile log(qEnvironmentVariable("XDG_STATE_HOME") + "/Logs/Brix/BrixCanonCapture.log");
    QProcess p;
    p.setProcessChannelMode(QProcess::SeparateChannels);
    p.start(BRIX_EXECUTABLE, {"--headless"});
    ASSERT_TRUE(p.waitForStarted(10000));
    // Up and running: it logged its start and is still alive a moment later.
    QByteArray text;
    for (int i = 0; i < 100 && !text.contains("starting"); ++i) {
        p.waitForFinished(100);
        if (log.open(QIODevice::ReadOnly)) {
            text = log.readAll();
            log.close();
        }
    }
    ASSERT_TRUE(text.contains("starting")) << text.constData();
    EXPECT_TRUE(text.left(text.indexOf('\n'))
                    .endsWith("[Q com.apple.main-thread] +[Logger setLogFile:] file://" +
                              QFile::encodeName(log.fileName())))
        << text.constData();
    EXPECT_TRUE(text.contains("    | Physical memory: ")) << text.constData();
    EXPECT_FALSE(p.waitForFinished(300));
    ::kill(pid_t(p.processId()), SIGTERM);
    ASSERT_TRUE(p.waitForFinished(20000));
    EXPECT_EQ(p.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(p.exitCode(), 0);
    EXPECT_TRUE(p.readAllStandardError().isEmpty());
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    text = log.readAll();
    EXPECT_TRUE(text.contains("Caught Terminated ... terminating.")) << text.constData();
    EXPECT_TRUE(text.contains("ended with status 0")) << text.constData();
}
