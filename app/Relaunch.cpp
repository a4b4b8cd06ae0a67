#include "Relaunch.h"

#include "Logger.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>

namespace brix::Relaunch {

void quitAndRelaunch(const QStringList &arguments) {
    const QString exe = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    QStringList args = arguments.mid(1);
    if (!args.contains(QLatin1String(kAutoRelaunchedArgument), Qt::CaseInsensitive))
        args << QString::fromLatin1(kAutoRelaunchedArgument);
    // The waiter polls for this process's end, then replaces itself with the station.
    const QString script =
        QStringLiteral("while kill -0 %1 2>/dev/null; do sleep 0.1; done; exec \"$0\" \"$@\"")
            .arg(QCoreApplication::applicationPid());
    QStringList shellArgs{QStringLiteral("-c"), script, exe};
    shellArgs += args;
    qint64 pid = 0;
    if (QProcess::startDetached(QStringLiteral("/bin/sh"), shellArgs, QString(), &pid))
        Logger::setError(QStringLiteral("relaunch waiter %1 will start %2 again").arg(pid).arg(exe));
    else
        Logger::setError(QStringLiteral("could not start the relaunch waiter; quitting without relaunch"));
    QCoreApplication::exit(0);
}

} // namespace brix::Relaunch
