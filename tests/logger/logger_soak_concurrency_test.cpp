// Soak test of the real redirection: a child process (this binary, running
// the disabled child test) attaches its log file, lowers the rotation limit
// and lets eight queues log at once, while a ninth writes straight to
// descriptor 2. The parent then checks that every line is in the current or
// the old log exactly once, whole, and that the log rotated exactly once.
#include "Logger.h"
#include "LoggerTestSupport.h"
#include "Scheduling.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <limits.h>
#include <unistd.h>

#include <set>
#include <vector>

using namespace brix;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int kLines = 40000; // the same run, smaller, where every access is instrumented
#else
constexpr int kLines = 200000;
#endif
constexpr int kThreads = 8;
constexpr int kDirectLines = 2000;
constexpr const char *kFileVariable = "BRIX_LOGGER_SOAK_FILE";
constexpr const char *kLimitVariable = "BRIX_LOGGER_SOAK_LIMIT";
// Length of "yyyy-MM-dd HH:mm:ss.SSS" and "[Q soak.N] ".
constexpr int kHeadLength = 23 + 11;

// The message of line `seq` of thread `t`; every 1000th is longer than a pipe
// takes in one piece.
QByteArray message(int t, int seq) {
    const int length = seq % 1000 == 999 ? 2 * PIPE_BUF : 20 + (seq * 7) % 60;
    return "soak " + QByteArray::number(t) + ' ' + QByteArray::number(seq) + ' ' +
           QByteArray(length, char('a' + seq % 26)) + '#' + QByteArray::number(length);
}

QByteArray directLine(int k) {
    return "direct " + QByteArray::number(k) + ' ' + QByteArray(30 + k % 50, char('A' + k % 26)) + "#\n";
}

qint64 expectedBytes() {
    qint64 total = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int seq = t; seq < kLines; seq += kThreads)
            total += kHeadLength + message(t, seq).size() + 1;
    for (int k = 0; k < kDirectLines; ++k)
        total += directLine(k).size();
    return total;
}

// Runs in the child only.
TEST(LoggerSoakChild, DISABLED_WriteLines) {
    const QString file = qEnvironmentVariable(kFileVariable);
    if (file.isEmpty())
        GTEST_SKIP() << "run by LoggerSoak only";
    Logger::setRotationLimitForTesting(qEnvironmentVariable(kLimitVariable).toULongLong());
    Logger::setLogFile(QUrl::fromLocalFile(file));

    std::vector<QueuePtr> queues;
    for (int t = 0; t < kThreads; ++t) {
        queues.push_back(Scheduling::dispatchQueueSerialWithDebugLabel(QStringLiteral("soak.%1").arg(t)));
        queues.back()->async([t] {
            for (int seq = t; seq < kLines; seq += kThreads)
                Logger::setError(QString::fromLatin1(message(t, seq)));
        });
    }
    queues.push_back(Scheduling::dispatchQueueSerialWithDebugLabel("soak.direct"));
    queues.back()->async([] {
        for (int k = 0; k < kDirectLines; ++k) {
            const QByteArray line = directLine(k);
            ASSERT_EQ(::write(STDERR_FILENO, line.constData(), size_t(line.size())), line.size());
        }
    });
    for (auto &q : queues)
        q->sync([] {});
    Logger::flush();
}

TEST(LoggerSoak, EveryLineOfEightQueuesReachesTheRotatedLogOnceAndWhole) {
    const QString folder = test::testHome() + "/soak";
    const QString path = folder + "/Soak.log";
    const qint64 total = expectedBytes();
    // Crossed once: the part after the rotation, with the report, stays below it.
    const qint64 limit = total * 6 / 10;

    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(kFileVariable, path);
    env.insert(kLimitVariable, QString::number(limit));
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_filter=LoggerSoakChild.DISABLED_WriteLines", "--gtest_also_run_disabled_tests"});
    ASSERT_TRUE(child.waitForStarted(10000));
    ASSERT_TRUE(child.waitForFinished(280000));
    ASSERT_EQ(child.exitStatus(), QProcess::NormalExit);
    ASSERT_EQ(child.exitCode(), 0);

    const QByteArray old = test::readFile(folder + "/Soak.old.log");
    const QByteArray current = test::readFile(path);
    EXPECT_EQ(QDir(folder).entryList(QDir::Files).size(), 2);
    // The old log is the first file (it starts with the attach line, not a
    // report), and the fresh one starts with the report: one rotation.
    EXPECT_TRUE(
        old.left(old.indexOf('\n')).endsWith("+[Logger setLogFile:] file://" + QFile::encodeName(path)))
        << old.left(200).constData();
    EXPECT_TRUE(current.startsWith(
        "\n    ====================================================\n    | BrixCanonCapture v"))
        << current.left(200).constData();
    EXPECT_GE(old.size(), limit);
    EXPECT_LT(current.size(), limit);

    const QRegularExpression logLine(
        QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\[Q ([^\]]+)\] (.*)$)"));
    const QRegularExpression soakLine(QStringLiteral(R"(^soak (\d) (\d+) ([a-z]+)#(\d+)$)"));
    const QRegularExpression direct(QStringLiteral(R"(^direct (\d+) ([A-Z]+)#$)"));
    std::vector<char> seen(size_t(kLines), 0);
    std::vector<char> seenDirect(size_t(kDirectLines), 0);
    int duplicates = 0, malformed = 0;
    for (const QByteArray &bytes : {old, current}) {
        for (const QByteArray &raw : bytes.split('\n')) {
            const QString line = QString::fromLatin1(raw);
            if (line.isEmpty() || line.startsWith("    "))
                continue; // the report
            if (auto d = direct.match(line); d.hasMatch()) {
                const int k = d.captured(1).toInt();
                if (k >= kDirectLines || line.toLatin1() + '\n' != directLine(k)) {
                    ++malformed;
                    continue;
                }
                duplicates += seenDirect[size_t(k)]++ ? 1 : 0;
                continue;
            }
            auto m = logLine.match(line);
            if (!m.hasMatch()) {
                ADD_FAILURE() << "torn or foreign line: " << raw.left(120).constData();
                ++malformed;
                continue;
            }
            const QString text = m.captured(2);
            if (!text.startsWith("soak "))
                continue; // the attach line and the like
            auto s = soakLine.match(text);
            const int t = s.captured(1).toInt();
            const int seq = s.captured(2).toInt();
            if (!s.hasMatch() || seq >= kLines || seq % kThreads != t ||
                m.captured(1) != QStringLiteral("soak.%1").arg(t) || text.toLatin1() != message(t, seq)) {
                ADD_FAILURE() << "damaged line: " << raw.left(120).constData();
                ++malformed;
                continue;
            }
            duplicates += seen[size_t(seq)]++ ? 1 : 0;
        }
    }
    EXPECT_EQ(malformed, 0);
    EXPECT_EQ(duplicates, 0);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), kLines) << "lines lost";
    EXPECT_EQ(std::count(seenDirect.begin(), seenDirect.end(), 1), kDirectLines) << "direct lines lost";
}

} // namespace
