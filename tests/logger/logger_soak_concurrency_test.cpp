// Soak test of the real redirection, which changes descriptor 2 for the whole
// process and so runs in a child (soak_child/): it attaches its log file,
// lowers the rotation limit and lets eight queues log at once, while a ninth
// writes straight to descriptor 2. The parent then checks that every line is
// in the current or the old log exactly once, whole, and that the log rotated
// exactly once.
#include "LoggerSoak.h"
#include "TestSupport.h"

#include <QDir>
#include <QHash>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <algorithm>

using namespace brix;
using namespace brix::soak;

namespace {

TEST(LoggerSoak, EveryLineOfEightQueuesReachesTheRotatedLogOnceAndWhole) {
    const QString folder = test::testHome() + "/soak";
    const QString path = folder + "/Soak.log";
    // Every line the child wrote, as it reads after the time: with its queue's
    // label, or bare when written straight to descriptor 2; each must be seen once.
    QHash<QByteArray, int> seen;
    for (int seq = 0; seq < kLines; ++seq)
        seen.insert("[Q soak." + QByteArray::number(seq % kThreads) + "] " + message(seq % kThreads, seq), 0);
    for (int k = 0; k < kDirectLines; ++k)
        seen.insert(directLine(k).chopped(1), 0);
    // What the child writes: each line with its newline, a logged one after its
    // time ("yyyy-MM-dd HH:mm:ss.SSS").
    qint64 total = 0;
    for (auto it = seen.cbegin(); it != seen.cend(); ++it)
        total += it.key().size() + 1 + (it.key().startsWith("[Q ") ? 23 : 0);
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

    const QRegularExpression time(QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\[Q )"));
    for (const QByteArray &bytes : {old, current}) {
        for (const QByteArray &line : bytes.split('\n')) {
            const bool logged = time.match(QString::fromLatin1(line)).hasMatch();
            const QByteArray text = logged ? line.mid(23) : line;
            if (auto it = seen.find(text); it != seen.end())
                ++*it;
            // Other queues' lines (the attach line and the like) and the report pass.
            else if (logged ? text.startsWith("[Q soak.") : !(line.isEmpty() || line.startsWith("    ")))
                ADD_FAILURE() << "torn, damaged or foreign line: " << line.left(120).constData();
        }
    }
    EXPECT_EQ(std::count(seen.cbegin(), seen.cend(), 1), seen.size()) << "lines lost or written twice";
}

} // namespace
