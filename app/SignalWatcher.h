// Turns SIGTERM, SIGINT and SIGHUP into a Qt signal on the main thread.
// Signals are read from a signalfd by the main loop, never handled inside the
// signal context.
//
// Threads: blockTerminationSignals() must run on the main thread before any
// other thread starts (threads inherit the mask). The watcher lives on the main thread.
#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace brix {

class SignalWatcher : public QObject {
    Q_OBJECT
public:
    static void blockTerminationSignals();

    explicit SignalWatcher(QObject *parent = nullptr);
    ~SignalWatcher() override;

signals:
    void terminationRequested(int signalNumber);

private:
    void readSignals();
    int fd_ = -1;
    std::unique_ptr<QSocketNotifier> notifier_;
};

} // namespace brix
