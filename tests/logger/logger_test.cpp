// The log line: levels, the caller's queue label, verbatim messages, long
// lines, where the default log file lives, the hex dump of binary data, and the
// values the system report at the head of each log reads from Linux.
#include "LogCapture.h"
#include "Logger.h"
#include "Paths.h"
#include "Scheduling.h"
#include "SystemInfo.h"
#include "TestSupport.h"

#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <limits.h>

using namespace brix;
using test::LogCapture;

namespace {

class LoggerLines : public ::testing::Test {
protected:
    void TearDown() override { Logger::setLogLevel(0); }
};

TEST_F(LoggerLines, LevelsAdmitDebugAndVerboseLines) {
    LogCapture capture;
    for (int level = 0; level <= 2; ++level) {
        Logger::setLogLevel(level);
        Logger::setError(QStringLiteral("e%1").arg(level));
        Logger::setDebug(QStringLiteral("d%1").arg(level));
        Logger::setVerbose(QStringLiteral("v%1").arg(level));
    }
    EXPECT_EQ(capture.messages(), QStringList({"e0", "e1", "d1", "e2", "d2", "v2"}));
    EXPECT_TRUE(Logger::error().isNull());
    EXPECT_TRUE(Logger::debug().isNull());
    EXPECT_TRUE(Logger::verbose().isNull());
}

TEST_F(LoggerLines, LineCarriesTheCallersQueueRightAfterTheTime) {
    LogCapture capture;
    Logger::setError("from main");
    Logger::queueForReading()->sync([] { Logger::setError("from reading"); });
    auto custom = Scheduling::dispatchQueueSerialWithDebugLabel("com.lumetra.brix.current.camera.queue");
    custom->sync([] { Logger::setError("from camera queue"); });
    Scheduling::dispatchQueueGlobal()->async([] { Logger::setError("from global"); });
    test::processEventsUntil([&] { return capture.text().contains("from global"); });

    const QStringList got = QString::fromUtf8(capture.text()).split('\n', Qt::SkipEmptyParts);
    const QList<std::pair<QString, QString>> want{
        {"com.apple.main-thread", "from main"},
        {"Logger-Reading", "from reading"},
        {"com.lumetra.brix.current.camera.queue", "from camera queue"},
        {"com.apple.root.default-qos", "from global"}};
    ASSERT_EQ(got.size(), want.size()) << capture.text().constData();
    for (qsizetype i = 0; i < got.size(); ++i) {
        const QRegularExpression line('^' + test::lineHeadPattern(QRegularExpression::escape(want[i].first)) +
                                      QRegularExpression::escape(want[i].second) + '$');
        EXPECT_TRUE(line.match(got[i]).hasMatch()) << got[i].toStdString();
    }
}

TEST_F(LoggerLines, MessagesAreWrittenVerbatimWithPerCentSignsAndAnyLength) {
    LogCapture capture;
    const QString tricky = QStringLiteral("100% done %1 %s %@ %n %% \u00e9t\u00e9");
    const QString longLine = QString(3 * PIPE_BUF, QLatin1Char('x')) + QStringLiteral("#end");
    Logger::setError(tricky);
    Logger::setError(longLine);
    Logger::setError(QStringLiteral("after"));
    EXPECT_EQ(capture.messages(), QStringList({tricky, longLine, "after"}));
}

// The station's own file, XDG_STATE_HOME/Logs/Brix, is where every test of
// the station process reads its log. A failed attach leaves descriptor 2 alone,
// so it can run in this process.
TEST(LoggerDefaultFile, LivesInTheLogsFolderOfTheStateFolderAndWithoutOneTheStreamStays) {
    const QString name = Paths::executableName();
    EXPECT_EQ(Logger::defaultLogFile().toLocalFile(),
              qEnvironmentVariable("XDG_STATE_HOME") + "/Logs/" + name + ".log");
    // Without the variable, the state folder inside HOME, made on demand.
    qunsetenv("XDG_STATE_HOME");
    QDir(test::testHome() + "/.local/state").removeRecursively();
    EXPECT_EQ(Logger::defaultLogFileWithinSubdirectory("Brix").toLocalFile(),
              test::testHome() + "/.local/state/Logs/Brix/" + name + ".log");
    EXPECT_TRUE(QDir(test::testHome() + "/.local/state").exists());

    // A state folder that cannot be made: the stream stays and the failure is logged.
    ASSERT_TRUE(test::writeFile(test::testHome() + "/plainfile", "x"));
    qputenv("XDG_STATE_HOME", (test::testHome() + "/plainfile/state").toUtf8());
    LogCapture capture;
    Logger::setLogFile(QUrl());
    Logger::setError("still on the captured stream");
    EXPECT_EQ(capture.messages(),
              QStringList({"+[Logger setLogFile:] (null)", "+[Logger setLogFile:] (null)",
                           "Failed to pass (or make) a URL +[Logger setLogFile:]: ((null))",
                           "still on the captured stream"}));
    EXPECT_TRUE(Logger::logFile().isEmpty());
}

TEST(Hexdump, RepeatedLinesAreCountedAndAnnouncedBeforeTheNextDifferentLine) {
    QByteArray data(16, 'A');
    data += QByteArray(16 * 3, 'B');
    data += QByteArray(16, 'A');
    data += QByteArray(16 * 2, 'C');
    data += QByteArray("\x00\x7f\x1f !~", 6);
    const QString dump = hexdump(data);
    const QString a = "41 41 41 41 41 41 41 41  41 41 41 41 41 41 41 41  |AAAAAAAAAAAAAAAA|";
    const QString b = "42 42 42 42 42 42 42 42  42 42 42 42 42 42 42 42  |BBBBBBBBBBBBBBBB|";
    const QString c = "43 43 43 43 43 43 43 43  43 43 43 43 43 43 43 43  |CCCCCCCCCCCCCCCC|";
    const QString expected = "00000000  " + a + "\n" + "00000010  " + b + "\n" +
                             "* last line repeated 2 times\n" + "00000040  " + a + "\n" + "00000050  " + c +
                             "\n" + "* last line repeated 1 times\n" + "00000070  00 7f 1f 20 21 7e " +
                             QString(10 * 3 + 1, ' ') + " |... !~|\n";
    EXPECT_EQ(dump, expected);

    // A run at the end is announced; a range counts from its start.
    data = "xyz" + QByteArray(48, '\0');
    const QString zero = "00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|";
    EXPECT_EQ(hexdump(data, 3), "00000000  " + zero + "\n* last line repeated 2 times\n");
    EXPECT_EQ(hexdump(data, 1, 2), "00000000  79 7a " + QString(14 * 3 + 1, ' ') + " |yz|\n");
    EXPECT_EQ(hexdump(QByteArray()), QString());
    EXPECT_EQ(hexdump(data, 100), QString());
}

TEST(SysctlRendering, LinuxSourcesFillTheHardwareNamesThroughTheTool) {
    const auto values = OKVA_SystemInfo::hardwareInfo();
    EXPECT_FALSE(values.value("hw.machine").isEmpty());
    EXPECT_GE(values.value("hw.logicalcpu").toInt(), 1);
    EXPECT_GE(values.value("hw.activecpu").toInt(), 1);
    EXPECT_GE(values.value("hw.physicalcpu").toInt(), 1);
    EXPECT_TRUE(values.value("kern.clockrate").startsWith("hz="))
        << values.value("kern.clockrate").toStdString();
    EXPECT_TRUE(values.value("kern.clockrate").endsWith("}"));
    EXPECT_FALSE(values.value("kern.boottime").isEmpty());
    EXPECT_FALSE(values.contains("kern.osrevision")) << "no such value here; absent, not empty";
    EXPECT_TRUE(OKVA_SystemInfo::sysctlValuesForKeys({"no.such.name"}).isEmpty());

    // The tool's output splits at the first equals sign.
    const auto parsed = OKVA_SystemInfo::parseSysctlOutput("kernel.ostype = Linux\n"
                                                           "dev.tty.ldisc_autoload = 1\n"
                                                           "kernel.core_pattern = |/bin/x a=b c=d\n"
                                                           "garbage line\n");
    EXPECT_EQ(parsed, (OKVA_SystemInfo::SysctlValues{{"kernel.ostype", "Linux"},
                                                     {"dev.tty.ldisc_autoload", "1"},
                                                     {"kernel.core_pattern", "|/bin/x a=b c=d"}}));
    const auto live = OKVA_SystemInfo::sysctlShellValuesForKeys({"kernel.ostype", "no.such.name"});
    EXPECT_EQ(live, (OKVA_SystemInfo::SysctlValues{{"kernel.ostype", "Linux"}}));
}

} // namespace
