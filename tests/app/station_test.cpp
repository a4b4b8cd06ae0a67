// Runs the real executable.
#include "CommandLine.h"

#include "Station.h"

#include <QProcess>

#include <gtest/gtest.h>

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
