// Soak test of the real redirection, which changes descriptor 2 for the whole
// process and so runs in a child (soak_child/): it attaches its log file,
// lowers the rotation limit and lets eight queues log at once, while a ninth
// writes straight to descriptor 2. The parent then checks that every line is
// in the current or the old log exactly once, whole, and that the log rotated
// exactly once.
#include "LoggerSoak.h"
#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <vector>

using namespace brix;
using namespace brix::soak;

namespace {

TEST(LoggerSoak, EveryLineOfEightQueuesReachesTheRotatedLogOnceAndWhole) {
    const QString folder = test::testHome() + "/soak";
    const QString path = folder + "/Soak.log";
    const qint64 total = expectedBytes();
    // Crossed once: the part after the rotation, with the report, stays below it.
    const qint64 limit = total * 6 / 10;

    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(BRIX_LOGGER_SOAK_CHILD, {path, QString::number(limit)});
    ASSERT_TRUE(child.waitForStarted(10000));
    ASSERT_TRUE(child.waitForFinished(280000));
    ASSERT_EQ(child.exitStatus(), QProcess::NormalExit);
    // The child's error stream is the log: a sanitizer's report ends up there.
    ASSERT_EQ(child.exitCode(), 0) << test::readFile(path).right(20000).constData();

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
