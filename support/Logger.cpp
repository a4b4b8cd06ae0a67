#include "Logger.h"

#include "DateFormat.h"
#include "ErrorValue.h"
#include "LogFileWriter.h"
#include "Paths.h"
#include "Scheduling.h"

#include <QDateTime>
#include <QDir>

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace brix {

namespace {

constexpr const char *kSetLogFile = "+[Logger setLogFile:]";
constexpr const char *kSetLogFileFormat = "%1 %2";
constexpr const char *kErrorMakingPipes = "Error making pipes";
constexpr const char *kNoUrlFormat = "Failed to pass (or make) a URL %1: (%2)";
constexpr const char *kNoRedirectFormat = "%1 could not redirect the error stream: %2";
constexpr const char *kNullText = "(null)";
constexpr const char *kLineTimePattern = "yyyy-MM-dd HH:mm:ss.SSS";
constexpr const char *kLogsFolder = "Logs";
constexpr const char *kLogExtension = "log";

std::atomic<long> gLogLevel{0};
std::atomic<std::uint64_t> gRotationLimit{Logger::kRotationLimit};

// The writer behind descriptor 2 once setLogFile() has run; lives for the process.
std::atomic<LogFileWriter *> gWriter{nullptr};

// --- records: what the caller's thread captures --------------------------------

struct Record {
    qint64 msecs;
    const std::string *label; // interned, lives for the process
    QString message;
};

// Queue labels live as long as their queue; a record outlives the call, so
// it keeps an interned copy. Each thread remembers the label it used last.
const std::string *internLabel(const char *label) {
    thread_local const std::string *last = nullptr;
    if (last && *last == label)
        return last;
    static std::mutex m;
    static auto *labels = new std::unordered_set<std::string>;
    std::lock_guard lk(m);
    last = &*labels->insert(label).first;
    return last;
}

// Records waiting for the writing queue. A drain task is submitted only when
// the list turns non-empty, so the caller's cost is a lock and an append.
struct Pending {
    std::mutex m;
    std::vector<Record> records;
    bool drainScheduled = false;
};

Pending &pending() {
    static auto *p = new Pending;
    return *p;
}

void drainPending();

void submit(const QString &message) {
    Record record{QDateTime::currentMSecsSinceEpoch(), internLabel(dispatch::currentQueueLabel()), message};
    auto &p = pending();
    bool schedule;
    {
        std::lock_guard lk(p.m);
        p.records.push_back(std::move(record));
        schedule = !p.drainScheduled;
        p.drainScheduled = true;
    }
    if (schedule)
        Logger::queueForWriting()->async(drainPending);
}

// --- the writing queue --------------------------------------------------------

// The time text of a record. The text up to the seconds changes once a
// second, so it is formatted once per second and the milliseconds appended.
void appendTime(QByteArray &out, qint64 msecs) {
    static qint64 cachedSecond = std::numeric_limits<qint64>::min();
    // Never destroyed: the writing queue may still run while the process exits.
    static QByteArray &cachedPrefix = *new QByteArray;
    const qint64 second = msecs >= 0 ? msecs / 1000 : (msecs - 999) / 1000;
    if (second != cachedSecond) {
        cachedPrefix = DateFormat::format(QDateTime::fromMSecsSinceEpoch(second * 1000),
                                          QString::fromLatin1(kLineTimePattern))
                           .toUtf8();
        cachedPrefix.chop(3); // "000"
        cachedSecond = second;
    }
    const int millis = int(msecs - second * 1000);
    out += cachedPrefix;
    out += char('0' + millis / 100);
    out += char('0' + millis / 10 % 10);
    out += char('0' + millis % 10);
}

void writeToStandardError(const char *data, qsizetype size) {
    while (size > 0) {
        const ssize_t n = ::write(STDERR_FILENO, data, size_t(size));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return; // nowhere left to report it
        }
        data += n;
        size -= n;
    }
}

// Lines go to descriptor 2 gathered into writes of at most PIPE_BUF bytes,
// which a pipe takes in one piece. A longer line could be torn by other
// writers of descriptor 2, so while the log file is attached it bypasses the
// pipe and is handed whole to the reading side, after what the pipe holds.
void drainPending() {
    // Scratch space of the writing queue, kept for the process: the queue may
    // still be draining while static objects are destroyed at exit.
    static std::vector<Record> &batch = *new std::vector<Record>;
    {
        auto &p = pending();
        std::lock_guard lk(p.m);
        batch.swap(p.records);
        p.drainScheduled = false;
    }
    static QByteArray &out = *new QByteArray;
    static QByteArray &line = *new QByteArray;
    out.clear();
    for (Record &r : batch) {
        line.clear();
        appendTime(line, r.msecs);
        line += "[Q ";
        line += *r.label;
        line += "] ";
        line += r.message.toUtf8();
        line += '\n';
        if (line.size() > PIPE_BUF) {
            writeToStandardError(out.constData(), out.size());
            out.clear();
            if (LogFileWriter *writer = gWriter.load(std::memory_order_acquire))
                writer->appendWhole(line);
            else
                writeToStandardError(line.constData(), line.size());
            continue;
        }
        if (out.size() + line.size() > PIPE_BUF) {
            writeToStandardError(out.constData(), out.size());
            out.clear();
        }
        out += line;
    }
    writeToStandardError(out.constData(), out.size());
    batch.clear();
}

QString urlText(const QUrl &url) {
    return url.isEmpty() ? QString::fromLatin1(kNullText) : url.toString();
}

} // namespace

dispatch::QueuePtr Logger::queueForReading() {
    static auto *queue =
        new dispatch::QueuePtr(Scheduling::dispatchQueueSerialWithDebugLabel("Logger-Reading"));
    return *queue;
}

dispatch::QueuePtr Logger::queueForWriting() {
    static auto *queue =
        new dispatch::QueuePtr(Scheduling::dispatchQueueSerialWithDebugLabel("Logger-Writing"));
    return *queue;
}

QString Logger::formatLine(const QString &message, const char *queueLabel) {
    return DateFormat::format(QDateTime::currentDateTime(), QString::fromLatin1(kLineTimePattern)) +
           QStringLiteral("[Q ") + QString::fromUtf8(queueLabel) + QStringLiteral("] ") + message;
}

void Logger::setError(const QString &message) {
    submit(message);
}

void Logger::setDebug(const QString &message) {
    if (gLogLevel.load(std::memory_order_relaxed) >= 1)
        submit(message);
}

void Logger::setVerbose(const QString &message) {
    if (gLogLevel.load(std::memory_order_relaxed) >= 2)
        submit(message);
}

long Logger::logLevel() {
    return gLogLevel.load(std::memory_order_relaxed);
}
void Logger::setLogLevel(long level) {
    gLogLevel.store(level, std::memory_order_relaxed);
}

void Logger::setRotationLimitForTesting(std::uint64_t bytes) {
    gRotationLimit.store(bytes ? bytes : kRotationLimit, std::memory_order_relaxed);
}

std::uint64_t Logger::rotationLimit() {
    return gRotationLimit.load(std::memory_order_relaxed);
}

QUrl Logger::defaultLogFileWithinSubdirectory(const QString &subdirectory) {
    const QString library = Paths::libraryFolder();
    if (!QDir().mkpath(library))
        return QUrl();
    QString path = library + QLatin1Char('/') + QLatin1String(kLogsFolder);
    if (!subdirectory.isEmpty())
        path += QLatin1Char('/') + subdirectory;
    path += QLatin1Char('/') + Paths::executableName() + QLatin1Char('.') + QLatin1String(kLogExtension);
    return QUrl::fromLocalFile(path);
}

QUrl Logger::defaultLogFile() {
    return defaultLogFileWithinSubdirectory(QString());
}

QUrl Logger::logFile() {
    LogFileWriter *writer = gWriter.load(std::memory_order_acquire);
    return writer ? writer->logFile() : QUrl();
}

void Logger::setLogFile(const QUrl &file) {
    // Output waits until the stream is redirected (or has failed to be), so
    // that the file always begins with the line below.
    struct Gate {
        std::promise<void> open;
        Gate() {
            queueForWriting()->async([done = open.get_future().share()] { done.wait(); });
        }
        ~Gate() { open.set_value(); }
    };
    std::optional<Gate> gate(std::in_place);
    setError(QString::fromLatin1(kSetLogFileFormat).arg(QString::fromLatin1(kSetLogFile), urlText(file)));
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        setError(QString::fromLatin1(kErrorMakingPipes));
        return;
    }
    QUrl target = file;
    if (target.isEmpty()) {
        target = defaultLogFile();
        setError(
            QString::fromLatin1(kSetLogFileFormat).arg(QString::fromLatin1(kSetLogFile), urlText(target)));
    }
    if (target.isEmpty()) {
        setError(QString::fromLatin1(kNoUrlFormat)
                     .arg(QString::fromLatin1(kSetLogFile), QString::fromLatin1(kNullText)));
        ::close(fds[0]);
        ::close(fds[1]);
        return;
    }
    // Only the error stream is redirected; standard output stays as it is.
    std::fflush(stderr);
    // The copy on descriptor 2 is inherited by child processes.
    if (::dup2(fds[1], STDERR_FILENO) < 0) {
        const int e = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        setError(QString::fromLatin1(kNoRedirectFormat).arg(QString::fromLatin1(kSetLogFile), errnoText(e)));
        return;
    }
    ::close(fds[1]);
    // A second call replaces the first writer, whose pipe no longer receives anything.
    if (LogFileWriter *previous = gWriter.load(std::memory_order_acquire)) {
        previous->flush();
        previous->stop();
    }
    // Writers live for the process, as does the redirection.
    static auto *writers = new std::vector<std::shared_ptr<LogFileWriter>>;
    auto writer = LogFileWriter::start(fds[0], target, queueForReading());
    gate.reset();
    queueForWriting()->sync([&] {
        writers->push_back(writer);
        gWriter.store(writer.get(), std::memory_order_release);
    });
}

void Logger::flush() {
    // The writing queue may itself be waiting for the reading queue (a long
    // line), so the reading queue cannot wait for it.
    if (dispatch::currentQueue() == queueForReading().get())
        return;
    queueForWriting()->sync([] {});
    if (LogFileWriter *writer = gWriter.load(std::memory_order_acquire))
        writer->flush();
}

// --- hex dump ------------------------------------------------------------------

QString hexdump(const QByteArray &data, qsizetype offset, qsizetype length) {
    static constexpr const char *kRepeatedFormat = "* last line repeated %1 times\n";
    static constexpr char kHex[] = "0123456789abcdef";
    offset = qBound<qsizetype>(0, offset, data.size());
    if (length < 0 || length > data.size() - offset)
        length = data.size() - offset;
    const auto *bytes = reinterpret_cast<const unsigned char *>(data.constData()) + offset;

    QString out;
    QString previous;
    bool havePrevious = false;
    unsigned repeats = 0;
    for (qsizetype lineStart = 0; lineStart < length; lineStart += 16) {
        const qsizetype count = std::min<qsizetype>(16, length - lineStart);
        QString body;
        body.reserve(16 * 3 + 1 + 2 + 16 + 1);
        for (qsizetype i = 0; i < 16; ++i) {
            if (i < count) {
                const unsigned char b = bytes[lineStart + i];
                body += QLatin1Char(kHex[b >> 4]);
                body += QLatin1Char(kHex[b & 0xf]);
                body += QLatin1Char(' ');
            } else {
                body += QLatin1String("   ");
            }
            if (i == 7)
                body += QLatin1Char(' ');
        }
        body += QLatin1String(" |");
        for (qsizetype i = 0; i < count; ++i) {
            const unsigned char b = bytes[lineStart + i];
            body += (b >= 32 && b <= 126) ? QLatin1Char(char(b)) : QLatin1Char('.');
        }
        body += QLatin1Char('|');
        if (havePrevious && body == previous) {
            ++repeats;
            continue;
        }
        if (repeats > 0) {
            out += QString::fromLatin1(kRepeatedFormat).arg(repeats);
            repeats = 0;
        }
        out += QStringLiteral("%1  ").arg(qulonglong(lineStart), 8, 16, QLatin1Char('0'));
        out += body;
        out += QLatin1Char('\n');
        previous = body;
        havePrevious = true;
    }
    // A dump that ends inside a run says so, rather than ending silently.
    if (repeats > 0)
        out += QString::fromLatin1(kRepeatedFormat).arg(repeats);
    return out;
}

} // namespace brix
