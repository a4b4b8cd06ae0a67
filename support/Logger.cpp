#include "Logger.h"

#include "DateFormat.h"
#include "Scheduling.h"

#include <QDateTime>

#include <cstdio>

namespace brix {

namespace {
std::atomic<long> gLogLevel{0};

void submit(const QString &message) {
    QByteArray line = Logger::formatLine(message, dispatch::currentQueueLabel()).toUtf8();
    Logger::queueForWriting()->async([line = std::move(line)] {
        std::fprintf(stderr, "%s\n", line.constData());
        std::fflush(stderr);
    });
}
} // namespace

dispatch::QueuePtr Logger::queueForWriting() {
    static auto *queue = new dispatch::QueuePtr(Scheduling::dispatchQueueSerialWithDebugLabel("Logger-Writing"));
    return *queue;
}

QString Logger::formatLine(const QString &message, const char *queueLabel) {
    return DateFormat::format(QDateTime::currentDateTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss.SSS")) +
           QStringLiteral("[Q ") + QString::fromUtf8(queueLabel) + QStringLiteral("] ") + message;
}

void Logger::setError(const QString &message) { submit(message); }

void Logger::setDebug(const QString &message) {
    if (gLogLevel.load(std::memory_order_relaxed) >= 1)
        submit(message);
}

void Logger::setVerbose(const QString &message) {
    if (gLogLevel.load(std::memory_order_relaxed) >= 2)
        submit(message);
}

long Logger::logLevel() { return gLogLevel.load(std::memory_order_relaxed); }
void Logger::setLogLevel(long level) { gLogLevel.store(level, std::memory_order_relaxed); }

void Logger::flush() { queueForWriting()->sync([] {}); }

} // namespace brix
