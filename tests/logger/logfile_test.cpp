// The reading end of the log: appending, the size check and rotation, and the
// failure paths, run on a pipe of the test's own (descriptor 2 stays as it is).
#include "ErrorAlerts.h"
#include "LogFileWriter.h"
#include "Logger.h"
#include "LogCapture.h"
#include "Scheduling.h"
#include "TestSupport.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <mutex>

using namespace brix;
using test::readFile;
using test::writeFile;

namespace {

constexpr std::uint64_t kLimit = 4096;
const QByteArray kReportHead = "\n    ====================================================\n    | ";

class LogFile : public ::testing::Test {
protected:
    void SetUp() override {
        Logger::setRotationLimitForTesting(kLimit);
        ErrorAlerts::setPresenter([this](const ErrorValue &e) {
            std::lock_guard lk(m_);
            alerts_.push_back(e);
        });
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
        ErrorAlerts::setPresenter(nullptr);
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
    std::vector<ErrorValue> alerts() {
        std::lock_guard lk(m_);
        return alerts_;
    }

    QString folder_, path_, oldPath_;
    int writeFd_ = -1;
    std::shared_ptr<LogFileWriter> writer_;
    std::mutex m_;
    std::vector<ErrorValue> alerts_;
};

TEST_F(LogFile, AppendsToAnExistingFileAndMakesAMissingFolder) {
    ASSERT_FALSE(QFileInfo::exists(folder_));
    start();
    send("first\n");
    EXPECT_EQ(readFile(path_), "first\n");
    EXPECT_EQ(QFileInfo(path_).permissions() & 0x7777, QFile::ReadOwner | QFile::WriteOwner |
                                                           QFile::ReadUser | QFile::WriteUser |
                                                           QFile::ReadGroup | QFile::ReadOther);
    writer_->stop();
    writer_.reset();
    ::close(writeFd_);
    start();
    send("second\n");
    EXPECT_EQ(readFile(path_), "first\nsecond\n");
    EXPECT_EQ(writer_->logFile(), QUrl::fromLocalFile(path_));
}

TEST_F(LogFile, RotatesAtExactlyTheLimitAndNotOneByteBelow) {
    ASSERT_TRUE(QDir().mkpath(folder_));
    const QByteArray start_(kLimit - 10, 'a');
    // One byte short of the limit: stays.
    ASSERT_TRUE(writeFile(path_, start_));
    start();
    send("12345678\n");
    EXPECT_EQ(QFileInfo(path_).size(), qint64(kLimit - 1));
    EXPECT_FALSE(QFileInfo::exists(oldPath_));
    // The next byte reaches the limit: the whole file moves to the old log and
    // the fresh file starts with the system report.
    send("\n");
    const QByteArray old = readFile(oldPath_);
    EXPECT_EQ(old.size(), qint64(kLimit));
    EXPECT_TRUE(old.endsWith("12345678\n\n"));
    const QByteArray fresh = readFile(path_);
    EXPECT_TRUE(fresh.startsWith(kReportHead)) << fresh.constData();
    EXPECT_TRUE(fresh.contains("    |        swapouts: "));
    send("next\n");
    EXPECT_TRUE(readFile(path_).endsWith("====\nnext\n"));
    EXPECT_TRUE(alerts().empty());
}

TEST_F(LogFile, RotatesOnlyAtALineBoundary) {
    ASSERT_TRUE(QDir().mkpath(folder_));
    ASSERT_TRUE(writeFile(path_, QByteArray(kLimit - 4, 'a')));
    start();
    send("half of a line ");
    EXPECT_FALSE(QFileInfo::exists(oldPath_)) << "a line is never split between the two files";
    send("ends here\n");
    EXPECT_TRUE(readFile(oldPath_).endsWith("half of a line ends here\n"));
}

TEST_F(LogFile, TwoRotationsKeepOnlyTheLatestOldLog) {
    start();
    send(QByteArray(kLimit - 1, '1') + '\n');
    ASSERT_TRUE(readFile(oldPath_).startsWith("111"));
    send(QByteArray(kLimit, '2') + '\n');
    const QByteArray old = readFile(oldPath_);
    EXPECT_TRUE(old.startsWith(kReportHead));
    EXPECT_TRUE(old.endsWith("222\n"));
    EXPECT_FALSE(old.contains("111"));
    EXPECT_EQ(QDir(folder_).entryList(QDir::Files).size(), 2);
    EXPECT_TRUE(readFile(path_).startsWith(kReportHead));
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

} // namespace
