// The child of the logger soak test: attaches the log file given as the first
// argument with the rotation limit given as the second, then lets eight queues
// log at once while a ninth writes straight to descriptor 2. Exits 0 once
// every line has reached the file.
#include "../LoggerSoak.h"
#include "Logger.h"
#include "Scheduling.h"

#include <QCoreApplication>
#include <QUrl>

#include <unistd.h>

#include <cstdio>
#include <vector>

using namespace brix;
using namespace brix::soak;

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <log file> <rotation limit>\n", argv[0]);
        return 2;
    }
    dispatch::setMainThread();
    QCoreApplication app(argc, argv);
    Logger::setRotationLimitForTesting(QByteArray(argv[2]).toULongLong());
    Logger::setLogFile(QUrl::fromLocalFile(QString::fromLocal8Bit(argv[1])));

    std::vector<QueuePtr> queues;
    for (int t = 0; t < kThreads; ++t) {
        queues.push_back(Scheduling::dispatchQueueSerialWithDebugLabel(QStringLiteral("soak.%1").arg(t)));
        queues.back()->async([t] {
            for (int seq = t; seq < kLines; seq += kThreads)
                Logger::setError(QString::fromLatin1(message(t, seq)));
        });
    }
    bool directOk = true;
    queues.push_back(Scheduling::dispatchQueueSerialWithDebugLabel("soak.direct"));
    queues.back()->async([&directOk] {
        for (int k = 0; k < kDirectLines; ++k) {
            const QByteArray line = directLine(k);
            if (::write(STDERR_FILENO, line.constData(), size_t(line.size())) != line.size())
                directOk = false;
        }
    });
    for (auto &q : queues)
        q->sync([] {});
    Logger::flush();
    return directOk ? 0 : 1;
}
