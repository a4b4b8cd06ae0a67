#include "TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>

namespace brix::test {

bool processEventsUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeout.count())
            return done();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

void drain(const dispatch::QueuePtr &queue) { queue->sync([] {}); }

QString testHome() { return qEnvironmentVariable("HOME"); }

PrivateBus::~PrivateBus() {
    if (daemon_.state() != QProcess::NotRunning) {
        daemon_.terminate();
        if (!daemon_.waitForFinished(3000))
            daemon_.kill();
        daemon_.waitForFinished(3000);
    }
}

bool PrivateBus::start() {
    daemon_.setProgram(QStringLiteral("dbus-daemon"));
    daemon_.setArguments({QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                          QStringLiteral("--print-address=1")});
    daemon_.start();
    if (!daemon_.waitForStarted(5000))
        return false;
    QByteArray line;
    while (!line.contains('\n')) {
        if (!daemon_.waitForReadyRead(5000))
            return false;
        line += daemon_.readAllStandardOutput();
    }
    address_ = QString::fromUtf8(line.left(line.indexOf('\n'))).trimmed();
    qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8());
    return !address_.isEmpty();
}

} // namespace brix::test
