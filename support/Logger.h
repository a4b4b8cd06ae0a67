// The program's log facility: class-level operations only.
//
// Threads: callable from any thread. The line is formatted on the caller's
// thread (so it carries the caller's queue label) and written asynchronously,
// in submission order, on the serial queue "Logger-Writing".
#pragma once

#include "Dispatch.h"

#include <QString>

#include <atomic>

namespace brix {

class Logger {
public:
    // Always written.
    static void setError(const QString &message);
    // Written when logLevel() >= 1.
    static void setDebug(const QString &message);
    // Written when logLevel() >= 2.
    static void setVerbose(const QString &message);

    static long logLevel();
    static void setLogLevel(long level);

    static dispatch::QueuePtr queueForWriting();

    // "yyyy-MM-dd HH:mm:ss.SSS[Q <label>] <message>" for the current time.
    static QString formatLine(const QString &message, const char *queueLabel);

    // Waits until every line submitted so far has been written (tests, shutdown).
    static void flush();
};

} // namespace brix
