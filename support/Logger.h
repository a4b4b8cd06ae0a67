// The program's log facility: class-level operations on process-wide state.
//
// Once setLogFile() has run, everything written to the standard error stream
// (these lines, Qt's own messages, child processes) lands in one append-only
// file, one message per line, which rotates at 10 MiB into "<name>.old.log"
// and starts each fresh file with the system report.
//
// Threads: callable from any thread; the caller never waits for output. The
// time and the caller's queue label are taken on the caller's thread; lines
// are composed and written to descriptor 2, in submission order, on the serial
// queue "Logger-Writing". The redirected stream is read, appended to the file
// and rotated on the serial queue "Logger-Reading". Both queues live for the
// process. Returned URLs are copies.
#pragma once

#include "Dispatch.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <cstdint>

namespace brix {

class Logger {
public:
    // A fresh log file is started once the current one holds this many bytes.
    static constexpr std::uint64_t kRotationLimit = std::uint64_t(10) << 20;

    // Always written.
    static void setError(const QString &message);
    // Written when logLevel() >= 1.
    static void setDebug(const QString &message);
    // Written when logLevel() >= 2.
    static void setVerbose(const QString &message);
    // Write-only in effect: these answer an empty string.
    static QString error() { return {}; }
    static QString debug() { return {}; }
    static QString verbose() { return {}; }

    // 0 = errors only, 1 = also debug lines, 2 or more = also verbose lines.
    static long logLevel();
    static void setLogLevel(long level);

    static dispatch::QueuePtr queueForReading();
    static dispatch::QueuePtr queueForWriting();

    // <Library>/Logs[/<subdirectory>]/<process name>.log, where Library is
    // $XDG_STATE_HOME (else ~/.local/state). The Library folder is made if
    // missing, the Logs folders are not. Empty when the Library cannot be made.
    static QUrl defaultLogFileWithinSubdirectory(const QString &subdirectory);
    static QUrl defaultLogFile();
    // The file now written to; empty before setLogFile(). Rotation may replace it.
    static QUrl logFile();

    // Attaches the log file (empty = defaultLogFile()) and redirects descriptor 2
    // into it for the rest of the process. Meant to be called once.
    static void setLogFile(const QUrl &file);

    // "yyyy-MM-dd HH:mm:ss.SSS[Q <label>] <message>" for the current time.
    static QString formatLine(const QString &message, const char *queueLabel);

    // Waits until every line submitted so far has been written to descriptor 2
    // and, when the log file is attached, has reached the file (tests, shutdown).
    // Does nothing on the "Logger-Reading" queue, which cannot wait for itself.
    static void flush();

    // Lowers the rotation limit so that tests can cross it with little data;
    // 0 restores kRotationLimit.
    static void setRotationLimitForTesting(std::uint64_t bytes);
    static std::uint64_t rotationLimit();
};

// Hex dump of `length` bytes of `data` from `offset` (length < 0: to the end),
// 16 bytes a line: "%.8x  " offset, the bytes in hex, then the printable text
// between bars. A line equal to the one before is not repeated; the run is
// announced as "* last line repeated N times" before the next different line
// (and at the end of the dump).
QString hexdump(const QByteArray &data, qsizetype offset = 0, qsizetype length = -1);

} // namespace brix
