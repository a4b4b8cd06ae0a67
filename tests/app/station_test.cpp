// Runs the real executable.
#include "CommandLine.h"

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

TEST(Station, HeadlessStaysUpUntilSigtermThenEndsCleanly) {
    QProcess p;
    p.setProcessChannelMode(QProcess::SeparateChannels);
    p.start(BRIX_EXECUTABLE, {"--headless"});
    ASSERT_TRUE(p.waitForStarted(10000));
    // Up and running: it logged its start and is still alive a moment later.
    QByteArray err;
    for (int i = 0; i < 100 && !err.contains("starting"); ++i) {
        p.waitForReadyRead(200);
        err += p.readAllStandardError();
    }
    ASSERT_TRUE(err.contains("starting")) << err.constData();
    EXPECT_FALSE(p.waitForFinished(300));
    ::kill(pid_t(p.processId()), SIGTERM);
    ASSERT_TRUE(p.waitForFinished(20000));
    EXPECT_EQ(p.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(p.exitCode(), 0);
    err += p.readAllStandardError();
    EXPECT_TRUE(err.contains("received signal 15")) << err.constData();
}
