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

} // namespace brix::test
