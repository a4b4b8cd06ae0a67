// The reading end of the log: appending, the size check and rotation, and the
// failure paths, run on a pipe of the test's own (descriptor 2 stays as it is);
// and the error alerts those failures raise: the modal presentation, and
// desktop notifications against a stand-in notification server on the test
// run's private session bus.
#include "ErrorAlerts.h"
#include "LogCapture.h"
#include "LogFileWriter.h"
#include "Logger.h"
#include "Preferences.h"
#include "Scheduling.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QObject>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <vector>

using namespace brix;
using test::readFile;

namespace {

// Records every alert presented while the test runs.
class PresentedAlerts : public ::testing::Test {
protected:
    void SetUp() override {
        ErrorAlerts::setPresenter([this](const ErrorValue &e) {
            std::lock_guard lk(m_);
            alerts_.push_back(e);
        });
    }
    void TearDown() override { ErrorAlerts::setPresenter(nullptr); }
    std::vector<ErrorValue> alerts() {
        std::lock_guard lk(m_);
        return alerts_;
    }

private:
    std::mutex m_;
    std::vector<ErrorValue> alerts_;
};

constexpr std::uint64_t kLimit = 4096;
const QByteArray kReportHead = "\n    ====================================================\n    | ";

class LogFile : public PresentedAlerts {
protected:
    void SetUp() override {
        PresentedAlerts::SetUp();
        Logger::setRotationLimitForTesting(kLimit);
        folder_ = test::testHome() + "/.local/state/Logs/Brix";
        path_ = folder_ + "/Station.log";
        oldPath_ = folder_ + "/Station.old.log";
    }
    void TearDown() override {
        if (writer_)
            writer_->stop();
        if (writeFd_ >= 0)
            ::close(writeFd_);
        Logger::setRotationLimitForTesting(0);
        PresentedAlerts::TearDown();
    }

    void start() {
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        writeFd_ = fds[1];
        writer_ = LogFileWriter::start(fds[0], QUrl::fromLocalFile(path_),
                                       Scheduling::dispatchQueueSerialWithDebugLabel("Logger-Reading"));
    }
    void send(const QByteArray &bytes) {
        ASSERT_EQ(::write(writeFd_, bytes.constData(), size_t(bytes.size())), bytes.size());
        writer_->flush();
    }
    QString folder_, path_, oldPath_;
    int writeFd_ = -1;
    std::shared_ptr<LogFileWriter> writer_;
};

TEST_F(LogFile, RotatesAtExactlyTheLimitAndNotOneByteBelow) {
    // The writer makes the missing folder; a later one appends to the file.
    ASSERT_FALSE(QFileInfo::exists(folder_));
    start();
    send(QByteArray(kLimit - 11, 'a') + '\n');
    EXPECT_EQ(QFileInfo(path_).permissions() & 0x7777, QFile::ReadOwner | QFile::WriteOwner |
                                                           QFile::ReadUser | QFile::WriteUser |
                                                           QFile::ReadGroup | QFile::ReadOther);
    writer_->stop();
    writer_.reset();
    ::close(writeFd_);
    start();
    EXPECT_EQ(writer_->logFile(), QUrl::fromLocalFile(path_));
    // One byte short of the limit: stays.
    send("12345678\n");
    EXPECT_EQ(QFileInfo(path_).size(), qint64(kLimit - 1));
    EXPECT_FALSE(QFileInfo::exists(oldPath_));
    // The next byte reaches the limit: the whole file moves to the old log and
    // the fresh file starts with the system report.
    send("\n");
    const QByteArray old = readFile(oldPath_);
    EXPECT_EQ(old, QByteArray(kLimit - 11, 'a') + "\n12345678\n\n");
    const QByteArray fresh = readFile(path_);
    EXPECT_TRUE(fresh.startsWith(kReportHead)) << fresh.constData();
    EXPECT_TRUE(fresh.contains("    |        swapouts: "));
    send("next\n");
    EXPECT_TRUE(readFile(path_).endsWith("====\nnext\n"));

    // Past the limit in the middle of a line: a line is never split between the two files.
    send(QByteArray(kLimit, '2'));
    EXPECT_TRUE(readFile(oldPath_).endsWith("12345678\n\n"));
    // At its end, the second rotation keeps only the latest old log.
    send("\n");
    const QByteArray second = readFile(oldPath_);
    EXPECT_TRUE(second.startsWith(kReportHead));
    EXPECT_TRUE(second.endsWith("====\nnext\n" + QByteArray(kLimit, '2') + '\n'));
    EXPECT_EQ(QDir(folder_).entryList(QDir::Files).size(), 2);
    EXPECT_TRUE(readFile(path_).startsWith(kReportHead));
    EXPECT_TRUE(alerts().empty());
}

TEST_F(LogFile, FailedRenameAlertsAndRestartsTheLogWithTheReport) {
    ASSERT_TRUE(QDir().mkpath(oldPath_ + "/occupied")); // a folder holds the old name
    start();
    send(QByteArray(kLimit + 10, 'z') + '\n');
    ASSERT_TRUE(test::processEventsUntil([&] { return !alerts().empty(); }));
    const ErrorValue alert = alerts().front();
    EXPECT_EQ(alert.domain, "NSPOSIXErrorDomain");
    EXPECT_TRUE(alert.code == EISDIR || alert.code == ENOTEMPTY || alert.code == EEXIST) << alert.code;
    EXPECT_EQ(alert.localizedDescription,
              QStringLiteral("+[Logger setLogFile:]_block_invoke_3 Failed to move file %1 (%2)")
                  .arg(QUrl::fromLocalFile(path_).toString(), errnoText(int(alert.code))));
    // The content is gone and the log starts again with the report.
    const QByteArray fresh = readFile(path_);
    EXPECT_TRUE(fresh.startsWith(kReportHead));
    EXPECT_FALSE(fresh.contains("zzz"));
    send("still logging\n");
    EXPECT_TRUE(readFile(path_).endsWith("====\nstill logging\n"));
}

TEST_F(LogFile, LongPiecesFollowWhatThePipeHolds) {
    Logger::setRotationLimitForTesting(1 << 20);
    start();
    ASSERT_EQ(::write(writeFd_, "one\ntwo\n", 8), 8);
    writer_->appendWhole(QByteArray(10000, 'L') + '\n');
    send("three\n");
    EXPECT_EQ(readFile(path_), "one\ntwo\n" + QByteArray(10000, 'L') + "\nthree\n");
}

TEST_F(LogFile, AFileThatCannotBeOpenedIsReportedAndNothingIsWritten) {
    ASSERT_TRUE(QDir().mkpath(path_)); // a folder where the file should be
    test::LogCapture capture;
    start();
    send("lost\n");
    const QByteArray text = capture.text();
    EXPECT_TRUE(
        text.contains("[Q Logger-Reading] an io error has occurred: Error Domain=NSPOSIXErrorDomain Code=" +
                      QByteArray::number(EISDIR) +
                      " \"make error (log path) in +[Logger setLogFile:]_block_invoke: Is a directory\""))
        << text.constData();
    EXPECT_TRUE(QFileInfo(path_).isDir());
}

TEST_F(LogFile, AFailedWriteIsReportedOnceAndTheSizeStillChecked) {
    path_ = "/dev/full";
    test::LogCapture capture;
    start();
    send("one\n");
    send("two\n");
    const QByteArray text = capture.text();
    const QByteArray report =
        "[Q Logger-Reading] an io error has occurred: Error Domain=NSPOSIXErrorDomain Code=" +
        QByteArray::number(ENOSPC) +
        " \"write Error (log) in +[Logger setLogFile:]_block_invoke_3: No space left on device\"";
    EXPECT_TRUE(text.contains(report)) << text.constData();
    EXPECT_EQ(text.count(report), 1) << "the report itself must not start a storm";
}

TEST_F(LogFile, AFailedReadIsShownToTheUser) {
    ASSERT_TRUE(QDir().mkpath(folder_));
    // A folder reads as "Is a directory": the stream has failed.
    const int fd = ::open(folder_.toLocal8Bit().constData(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    writer_ = LogFileWriter::start(fd, QUrl::fromLocalFile(path_),
                                   Scheduling::dispatchQueueSerialWithDebugLabel("Logger-Reading"));
    ASSERT_TRUE(test::processEventsUntil([&] { return !alerts().empty(); }));
    EXPECT_EQ(alerts().front(),
              ErrorValue::posix(EISDIR, "Read Error in +[Logger setLogFile:]_block_invoke: Is a directory"));
}

// Answers Notify as a notification server does: a non-zero replaces_id of a
// notification still shown replaces it.
class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Call {
        uint replaces;
        QString summary;
    };
    std::vector<Call> calls;
    QMap<uint, QString> onScreen;

public slots:
    uint Notify(const QString &, uint replaces, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int) {
        calls.push_back({replaces, summary});
        const uint id = replaces && onScreen.contains(replaces) ? replaces : nextId_++;
        onScreen.insert(id, body);
        return id;
    }

private:
    uint nextId_ = 41;
};

class Alerts : public PresentedAlerts {
protected:
    void TearDown() override {
        PresentedAlerts::TearDown();
        Preferences::standard().removeObjectForKey(pref::kPreferNotificationsOverModalAlerts);
        if (serverBus_) {
            serverBus_->unregisterService("org.freedesktop.Notifications");
            serverBus_->unregisterObject("/org/freedesktop/Notifications");
            QDBusConnection::disconnectFromBus("fake-notification-server");
        }
    }

    void startServer() {
        serverBus_ = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake-notification-server"));
        ASSERT_TRUE(serverBus_->isConnected());
        ASSERT_TRUE(serverBus_->registerObject("/org/freedesktop/Notifications", &server_,
                                               QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(serverBus_->registerService("org.freedesktop.Notifications"));
    }

    FakeNotificationServer server_;
    std::unique_ptr<QDBusConnection> serverBus_;
};

TEST_F(Alerts, AnEmptyAlertLogsTheCallStackAndWithoutAPresenterAnAlertIsALogLine) {
    test::LogCapture capture;
    ErrorAlerts::displayErrorAlert(std::nullopt);
    EXPECT_TRUE(alerts().empty()) << "presented later, on the main queue";
    ASSERT_TRUE(test::processEventsUntil([&] { return !alerts().empty(); }));
    EXPECT_EQ(alerts().front(), (ErrorValue{"Internal Error", -1, "An unknown error has occured!"}));
    // One log line per frame, this test's own among them.
    const QStringList lines = QString::fromUtf8(capture.text()).split('\n', Qt::SkipEmptyParts);
    EXPECT_GE(lines.size(), 4);
    EXPECT_FALSE(lines.filter("test_logger").isEmpty()) << capture.text().constData();

    ErrorAlerts::setPresenter(nullptr);
    ErrorAlerts::displayErrorAlert(ErrorValue::posix(28, "disk full 100%"));
    ASSERT_TRUE(test::processEventsUntil([&] { return capture.text().contains("presentError"); }));
    EXPECT_TRUE(capture.text().contains("[Q com.apple.main-thread] presentError: Error "
                                        "Domain=NSPOSIXErrorDomain Code=28 \"disk full 100%\"\n"))
        << capture.text().constData();
}

TEST_F(Alerts, TheServerAndThePreferenceChooseAndOneNotificationPerIdentifierIsReplacedNotPiledUp) {
    // No notification server: the modal alert, though notifications are preferred.
    ASSERT_FALSE(
        QDBusConnection::sessionBus().interface()->isServiceRegistered("org.freedesktop.Notifications"));
    Preferences::standard().setBool(true, pref::kPreferNotificationsOverModalAlerts);
    test::LogCapture capture;
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "nobody listens"), "no-server");
    ASSERT_TRUE(test::processEventsUntil([&] { return alerts().size() == 1; }));
    EXPECT_EQ(alerts().back().localizedDescription, "nobody listens");
    EXPECT_TRUE(capture.text().contains("alertUserOfError: notification for no-server not shown ("))
        << capture.text().constData();

    startServer();
    // The preference off: the modal alert, though a server is there.
    Preferences::standard().setBool(false, pref::kPreferNotificationsOverModalAlerts);
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "camera gone"), "pref-off");
    ASSERT_TRUE(test::processEventsUntil([&] { return alerts().size() == 2; }));
    EXPECT_EQ(alerts().back().localizedDescription, "camera gone");
    EXPECT_TRUE(server_.calls.empty());

    Preferences::standard().setBool(true, pref::kPreferNotificationsOverModalAlerts);
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "first"), "camera-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "second"), "camera-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(28, "disk"), "disk-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "third"), "camera-errors");
    ASSERT_TRUE(test::processEventsUntil([&] { return server_.calls.size() == 4; }));
    EXPECT_EQ(server_.calls[0].replaces, 0u);
    EXPECT_EQ(server_.calls[1].replaces, 41u);
    EXPECT_EQ(server_.calls[2].replaces, 0u);
    EXPECT_EQ(server_.calls[3].replaces, 41u);
    EXPECT_EQ(server_.calls[0].summary, "BrixCanonCapture");
    EXPECT_EQ(server_.onScreen, (QMap<uint, QString>{{41, "third"}, {42, "disk"}}));
    // Nothing fell back to the modal alert.
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(alerts().size(), 2u);
}

} // namespace

#include "logfile_test.moc"
