#include "LogFileWriter.h"

#include "ErrorAlerts.h"
#include "ErrorValue.h"
#include "Logger.h"
#include "SystemInfo.h"

#include <QFileInfo>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <limits>
#include <vector>

namespace brix {

namespace {

constexpr const char *kBlockInvoke = "+[Logger setLogFile:]_block_invoke";
constexpr const char *kBlockInvoke3 = "+[Logger setLogFile:]_block_invoke_3";
constexpr const char *kBlockInvoke4 = "+[Logger setLogFile:]_block_invoke_4";
constexpr const char *kBlockInvoke5 = "+[Logger setLogFile:]_block_invoke_5";

constexpr const char *kIoErrorFormat = "an io error has occurred: %1";
constexpr const char *kReadFdErrorFormat = "make error (read fd) in %1: %2";
constexpr const char *kLogPathErrorFormat = "make error (log path) in %1: %2";
constexpr const char *kWriteErrorFormat = "write Error (log) in %1: %2";
constexpr const char *kReadErrorFormat = "Read Error in %1: %2";
constexpr const char *kMoveErrorFormat = "%1 Failed to move file %2 (%3)";
constexpr const char *kMakeFolderErrorFormat = "Could not make the folder %1: %2";

constexpr qint64 kReadChunk = 64 * 1024;
// Bytes read per task before the next task gets its turn (rotation, flushes).
constexpr qint64 kReadPerTask = 1024 * 1024;
// Before a long line is appended, what is already in the pipe goes first.
constexpr qint64 kLongLineDrainLimit = 64 * 1024 * 1024;
// A fresh file is started at a line boundary; a stream that never ends its
// line rotates anyway once it is this far past the limit.
constexpr qint64 kUnterminatedLineAllowance = 1024 * 1024;
// A roomier pipe lets bursts of lines wait there instead of blocking writers.
constexpr int kPipeSize = 1024 * 1024;

// Logs a failure of the file or pipe handling as an error in the POSIX domain.
void logIoError(const char *format, const char *where, int errorNumber) {
    const ErrorValue error = ErrorValue::posix(
        errorNumber, QString::fromLatin1(format).arg(QString::fromLatin1(where), errnoText(errorNumber)));
    Logger::setError(QString::fromLatin1(kIoErrorFormat).arg(error.description()));
}

bool isFolder(const QString &path) {
    struct stat st;
    return ::stat(path.toLocal8Bit().constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p. Returns 0 or the errno of the step that failed.
int makeFolders(const QString &path) {
    const QByteArray bytes = path.toLocal8Bit();
    std::string partial;
    for (qsizetype i = 0; i <= bytes.size(); ++i) {
        if (i == bytes.size() || (bytes[i] == '/' && i > 0)) {
            partial.assign(bytes.constData(), size_t(i));
            if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
                return errno;
        }
    }
    return isFolder(path) ? 0 : ENOTDIR;
}

// Makes the folder that holds the log when it is not there; logs a failure.
void ensureParentFolder(const QString &logPath) {
    const QString parent = QFileInfo(logPath).absolutePath();
    if (isFolder(parent))
        return;
    if (int e = makeFolders(parent)) {
        const ErrorValue error =
            ErrorValue::posix(e, QString::fromLatin1(kMakeFolderErrorFormat).arg(parent, errnoText(e)));
        Logger::setError(error.description());
    }
}

// Writes all of `data`; 0 or the errno of the failed write.
int writeAll(int fd, const char *data, qint64 size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size_t(size));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        data += n;
        size -= n;
    }
    return 0;
}

} // namespace

std::shared_ptr<LogFileWriter> LogFileWriter::start(int readFd, const QUrl &file,
                                                    dispatch::QueuePtr readingQueue) {
    std::shared_ptr<LogFileWriter> writer(new LogFileWriter(readFd, file, std::move(readingQueue)));
    // The read end never blocks: a task reads what is there and yields.
    const int flags = ::fcntl(readFd, F_GETFL);
    if (flags < 0 || ::fcntl(readFd, F_SETFL, flags | O_NONBLOCK) != 0) {
        logIoError(kReadFdErrorFormat, kBlockInvoke, errno);
        writer->finished_ = true;
    }
    (void)::fcntl(readFd, F_SETPIPE_SZ, kPipeSize); // best effort; not a pipe in every test
    writer->wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (writer->wakeFd_ < 0) {
        logIoError(kReadFdErrorFormat, kBlockInvoke, errno);
        writer->finished_ = true;
    }
    writer->queue_->async([w = writer] {
        w->openLogFile();
        w->readOnce();
    });
    return writer;
}

LogFileWriter::LogFileWriter(int readFd, QUrl file, dispatch::QueuePtr queue)
    : readFd_(readFd), queue_(std::move(queue)), file_(std::move(file)) {}

LogFileWriter::~LogFileWriter() {
    if (readFd_ >= 0)
        ::close(readFd_);
    if (wakeFd_ >= 0)
        ::close(wakeFd_);
    if (fileFd_ >= 0)
        ::close(fileFd_);
}

QUrl LogFileWriter::logFile() const {
    std::lock_guard lk(fileMutex_);
    return file_;
}

QString LogFileWriter::logPath() const {
    return logFile().toLocalFile();
}

QString LogFileWriter::oldLogPath(const QString &logPath) {
    const qsizetype slash = logPath.lastIndexOf(QLatin1Char('/'));
    const qsizetype dot = logPath.lastIndexOf(QLatin1Char('.'));
    const QString stem = dot > slash + 1 ? logPath.left(dot) : logPath;
    return stem + QStringLiteral(".old.log");
}

void LogFileWriter::openLogFile() {
    const QString path = logPath();
    ensureParentFolder(path);
    fileFd_ = ::open(path.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fileFd_ < 0)
        logIoError(kLogPathErrorFormat, kBlockInvoke, errno);
}

void LogFileWriter::wake() {
    if (wakeFd_ < 0)
        return;
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
}

qint64 LogFileWriter::bytesInPipe() const {
    int available = 0;
    if (::ioctl(readFd_, FIONREAD, &available) != 0)
        return 0;
    return available;
}

void LogFileWriter::readOnce() {
    if (stopping_ || finished_)
        return;
    pollfd fds[2] = {{readFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    const int ready = ::poll(fds, 2, -1);
    if (ready < 0 && errno != EINTR) {
        const int e = errno;
        finished_ = true;
        ErrorAlerts::displayErrorAlert(ErrorValue::posix(
            e, QString::fromLatin1(kReadErrorFormat).arg(QString::fromLatin1(kBlockInvoke), errnoText(e))));
        return;
    }
    if (ready > 0 && (fds[1].revents & POLLIN)) {
        uint64_t count;
        (void)!::read(wakeFd_, &count, sizeof count);
    }
    if (stopping_)
        return;
    if (ready > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) {
        if (!drainAvailable(kReadPerTask))
            return;
    }
    queue_->async([self = shared_from_this()] { self->readOnce(); });
}

bool LogFileWriter::drainAvailable(qint64 limit) {
    static thread_local std::vector<char> buffer = std::vector<char>(size_t(kReadChunk));
    qint64 total = 0;
    while (total < limit) {
        const ssize_t n = ::read(readFd_, buffer.data(), buffer.size());
        if (n > 0) {
            writeChunk(buffer.data(), n);
            total += n;
            continue;
        }
        if (n == 0) { // every write end is closed
            finished_ = true;
            return false;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN)
            return true;
        // The log itself has failed: only the user can be told.
        const int e = errno;
        finished_ = true;
        ErrorAlerts::displayErrorAlert(ErrorValue::posix(
            e, QString::fromLatin1(kReadErrorFormat).arg(QString::fromLatin1(kBlockInvoke), errnoText(e))));
        return false;
    }
    return true;
}

void LogFileWriter::writeChunk(const char *data, qint64 size) {
    if (size <= 0)
        return;
    if (fileFd_ < 0)
        return; // the failed open was reported; the bytes have nowhere to go
    if (int e = writeAll(fileFd_, data, size)) {
        // Reported once per run of failures: the report itself comes back
        // through the pipe and would fail the same way.
        if (e != reportedWriteErrno_)
            logIoError(kWriteErrorFormat, kBlockInvoke3, e);
        reportedWriteErrno_ = e;
    } else {
        reportedWriteErrno_ = 0;
    }
    checkSize(data[size - 1] == '\n');
}

void LogFileWriter::checkSize(bool atLineEnd) {
    struct stat st;
    if (::stat(logPath().toLocal8Bit().constData(), &st) != 0)
        return;
    const auto size = std::uint64_t(st.st_size);
    const std::uint64_t limit = Logger::rotationLimit();
    if (size < limit)
        return;
    if (!atLineEnd && size < limit + std::uint64_t(kUnterminatedLineAllowance))
        return;
    rotate();
}

void LogFileWriter::rotate() {
    if (fileFd_ >= 0) {
        ::close(fileFd_);
        fileFd_ = -1;
    }
    const QUrl current = logFile();
    const QString path = current.toLocalFile();
    const QString oldPath = oldLogPath(path);
    if (::rename(path.toLocal8Bit().constData(), oldPath.toLocal8Bit().constData()) != 0) {
        // The content is lost below when the file is reopened with truncation;
        // the user is told why.
        const int e = errno;
        ErrorAlerts::displayErrorAlert(ErrorValue::posix(
            e, QString::fromLatin1(kMoveErrorFormat)
                   .arg(QString::fromLatin1(kBlockInvoke3), current.toString(), errnoText(e))));
    } else {
        std::lock_guard lk(fileMutex_);
        file_ = QUrl::fromLocalFile(path);
    }
    ensureParentFolder(path);
    fileFd_ =
        ::open(path.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fileFd_ < 0) {
        logIoError(kLogPathErrorFormat, kBlockInvoke4, errno);
        return;
    }
    const QByteArray report = OKVA_SystemInfo::currentSystemInfo().toUtf8();
    if (int e = writeAll(fileFd_, report.constData(), report.size()))
        logIoError(kWriteErrorFormat, kBlockInvoke5, e);
}

void LogFileWriter::runOnQueueAndWait(const std::function<void()> &task) {
    // The task is queued before the wake-up, so a read task that is waiting
    // returns and the task runs before the next read task.
    std::promise<void> done;
    queue_->async([&] {
        task();
        done.set_value();
    });
    wake();
    done.get_future().wait();
}

void LogFileWriter::flush() {
    if (dispatch::currentQueue() == queue_.get())
        return;
    do {
        runOnQueueAndWait([] {});
    } while (!finished_ && !stopping_ && bytesInPipe() > 0);
}

void LogFileWriter::appendWhole(const QByteArray &bytes) {
    if (dispatch::currentQueue() == queue_.get()) {
        writeChunk(bytes.constData(), bytes.size());
        return;
    }
    runOnQueueAndWait([this, &bytes] {
        if (!finished_)
            drainAvailable(kLongLineDrainLimit);
        writeChunk(bytes.constData(), bytes.size());
    });
}

void LogFileWriter::stop() {
    stopping_ = true;
    runOnQueueAndWait([] {});
}

} // namespace brix
