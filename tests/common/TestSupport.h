// Helpers shared by the tests.
#pragma once

#include "Dispatch.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <sys/types.h>

#include <chrono>
#include <functional>

namespace brix::test {

// Runs the main thread's event loop until `done` answers true or the timeout
// passes. Returns the last answer of `done`.
bool processEventsUntil(const std::function<bool()> &done,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Waits until every task submitted to `queue` so far has run.
void drain(const dispatch::QueuePtr &queue);

// The temporary HOME of the running test.
QString testHome();

// The file's bytes, or none when it cannot be read.
QByteArray readFile(const QString &path);
// Replaces the file's contents; false when not all of them were written.
bool writeFile(const QString &path, const QByteArray &bytes);

// A program run to its end: the exit code (-1 unless it exited normally in
// time) and what it printed.
struct Run {
    int code = -1;
    QString out;
    QString err;
};
Run run(const QString &program, const QStringList &arguments,
        std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A private session bus (dbus-daemon) that lives as long as this object.
// start() points DBUS_SESSION_BUS_ADDRESS at it, for this process and its children.
class PrivateBus {
public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;
    bool start();

private:
    pid_t pid_ = -1;
    QString address_;
};

} // namespace brix::test
