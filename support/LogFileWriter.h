// The reading end of the logger: takes whatever arrives on a descriptor (the
// pipe that descriptor 2 was redirected into), appends it to the log file,
// checks the file's size after every write and rotates it at the logger's
// limit into "<name>.old.log", starting the fresh file with the system report.
//
// Threads: all reading, writing and rotation runs as tasks on the reading
// queue given to start(): one task waits for data (or a wake-up) and submits
// the next, so rotation and the writer's other tasks interleave with reading.
// flush(), appendWhole() and stop() may be called from any other queue.
// Ownership: start() returns a shared handle; the pending read task holds one
// too, so the writer lives until stop() or the end of the stream.
#pragma once

#include "Dispatch.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace brix {

class LogFileWriter : public std::enable_shared_from_this<LogFileWriter> {
public:
    // Takes ownership of readFd. Opens `file` for appending (making its folder
    // when missing) and starts reading. Failures are logged; the writer then
    // drops what it reads.
    static std::shared_ptr<LogFileWriter> start(int readFd, const QUrl &file,
                                                dispatch::QueuePtr readingQueue);
    ~LogFileWriter();
    LogFileWriter(const LogFileWriter &) = delete;
    LogFileWriter &operator=(const LogFileWriter &) = delete;

    // The file now written to.
    QUrl logFile() const;

    // Returns once everything in the pipe at the time of the call has reached
    // the file. Does nothing when called on the reading queue itself.
    void flush();

    // Appends `bytes` to the file as one piece, after everything already in the
    // pipe: for lines too long to go through the pipe without being torn.
    void appendWhole(const QByteArray &bytes);

    // Stops reading and closes the descriptors (tests).
    void stop();

    // "<folder>/<name>.old.log" for "<folder>/<name>.log".
    static QString oldLogPath(const QString &logPath);

private:
    LogFileWriter(int readFd, QUrl file, dispatch::QueuePtr queue);

    void openLogFile();
    void readOnce();
    // Reads what is in the pipe now, up to `limit` bytes. False at the end of
    // the stream or on a read error.
    bool drainAvailable(qint64 limit);
    void writeChunk(const char *data, qint64 size);
    void checkSize(bool atLineEnd);
    void rotate();
    void wake();
    void runOnQueueAndWait(const std::function<void()> &task);
    qint64 bytesInPipe() const;
    QString logPath() const;

    int readFd_;
    int wakeFd_ = -1;
    int fileFd_ = -1; // touched only on the reading queue
    int reportedWriteErrno_ = 0;
    dispatch::QueuePtr queue_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> finished_{false};
    mutable std::mutex fileMutex_;
    QUrl file_;
};

} // namespace brix
