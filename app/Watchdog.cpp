#include "Watchdog.h"

#include "Logger.h"
#include "Paths.h"
#include "Preferences.h"
#include "Scheduling.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
// glibc 2.36 declares these without C linkage for C++.
extern "C" {
#include <sys/pidfd.h>
}
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

extern char **environ;

namespace brix {

namespace {

constexpr int kFirstCaught = 1;
constexpr int kPastLastCaught = 16;
// How long a normal quit waits for the watchdog process to end.
constexpr int kStopWaitMs = 3000;

// Process-wide state; the notifiers and the timer belong to the main thread.
std::once_flag gStartOnce;
std::mutex gChildMutex;
pid_t gChildPid = -1;
int gChildPidfd = -1;
int gHeartbeatWrite = -1; // our end of the socket pair shared with the watchdog
bool gWatched = false;    // the watchdog said it is ready
QSocketNotifier *gChildEnd = nullptr;
QTimer *gHeartbeat = nullptr;
std::map<QString, QSocketNotifier *> gSignalSources; // main thread only
bool gCrashSignalsCaught = false;                    // main thread only

sigset_t caughtSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int s = kFirstCaught; s < kPastLastCaught; ++s)
        if (s != SIGKILL)
            sigaddset(&set, s);
    return set;
}

// Reaps the watchdog process (once) and logs how it ended.
void childEnded() {
    int pidfd = -1;
    {
        std::lock_guard lock(gChildMutex);
        pidfd = gChildPidfd;
        gChildPidfd = -1;
        gChildPid = -1;
        if (gHeartbeatWrite >= 0)
            ::close(gHeartbeatWrite);
        gHeartbeatWrite = -1;
    }
    if (gChildEnd) {
        gChildEnd->setEnabled(false);
        gChildEnd->deleteLater();
        gChildEnd = nullptr;
    }
    if (gHeartbeat) {
        gHeartbeat->stop();
        gHeartbeat->deleteLater();
        gHeartbeat = nullptr;
    }
    if (pidfd < 0)
        return;
    siginfo_t info{};
    int status = -1;
    if (::waitid(P_PIDFD, id_t(pidfd), &info, WEXITED) == 0)
        status = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    ::close(pidfd);
    Logger::setError(QStringLiteral("%1 has terminated with exit code %2")
                         .arg(QLatin1String(Watchdog::kResourceName))
                         .arg(status));
}

void beat() {
    // A test stands in for a station whose main loop stopped turning.
    const QString hangFile = qEnvironmentVariable(Watchdog::kTestHangFileVariable);
    if (!hangFile.isEmpty() && QFile::remove(hangFile)) {
        Logger::setError(QStringLiteral("test switch: the main loop stops turning now"));
        Logger::flush();
        for (;;)
            ::pause();
    }
    std::lock_guard lock(gChildMutex);
    if (gHeartbeatWrite >= 0) {
        const char byte = 1;
        // Never blocks (a watchdog that reads nothing must not stop us) and
        // never raises SIGPIPE (which would end us) when the watchdog is gone.
        [[maybe_unused]] ssize_t n = ::send(gHeartbeatWrite, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

// The main-thread half of starting: end handler, heartbeat, crash signals and
// the will-terminate observer.
void armOnMainThread(int pidfd) {
    if (pidfd >= 0) {
        gChildEnd = new QSocketNotifier(pidfd, QSocketNotifier::Read);
        QObject::connect(gChildEnd, &QSocketNotifier::activated, gChildEnd, [] { childEnded(); });
        gHeartbeat = new QTimer;
        QObject::connect(gHeartbeat, &QTimer::timeout, gHeartbeat, [] { beat(); });
        gHeartbeat->start(Watchdog::kHeartbeatIntervalMs);
        Watchdog::catchCrashSignals();
    }
    // A normal quit ends the watchdog process first, so it does not relaunch.
    if (auto *app = QCoreApplication::instance()) {
        auto *connection = new QMetaObject::Connection;
        *connection = QObject::connect(app, &QCoreApplication::aboutToQuit, app, [connection] {
            Watchdog::stopKeepingUsRunning();
            QObject::disconnect(*connection);
            delete connection;
        });
    }
}

void startWatchdogProcess() {
    const QString path = Watchdog::watchdogPath();
    const QFileInfo info(path);
    int pidfd = -1;
    if (!info.isFile() || !info.isExecutable()) {
        Watchdog::systemLog(QStringLiteral("missing %1! Unexpected termination will not be monitored.")
                                .arg(QLatin1String(Watchdog::kResourceName)));
    } else {
        // Heartbeats go one way, the watchdog's "ready" (one byte once it has
        // read what it needs to relaunch us) the other.
        int beats[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, beats) != 0)
            beats[0] = beats[1] = -1;
        else
            ::fcntl(beats[1], F_SETFL, O_NONBLOCK);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (beats[0] >= 0)
            posix_spawn_file_actions_adddup2(&actions, beats[0], Watchdog::kHeartbeatFd);
        // The child starts with a clean signal state: nothing blocked or ignored.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &all);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        const QByteArray file = QFile::encodeName(path);
        const QByteArray parent = QByteArray::number(qint64(::getpid()));
        char *argv[] = {const_cast<char *>(file.constData()), const_cast<char *>(parent.constData()),
                        nullptr};
        pid_t pid = -1;
        const int rc = ::posix_spawn(&pid, file.constData(), &actions, &attr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        if (beats[0] >= 0)
            ::close(beats[0]);
        if (rc != 0) {
            Watchdog::systemLog(QStringLiteral("could not start %1: %2")
                                    .arg(path, QString::fromLocal8Bit(std::strerror(rc))));
            if (beats[1] >= 0)
                ::close(beats[1]);
        } else {
            pidfd = int(::pidfd_open(pid, 0));
            std::lock_guard lock(gChildMutex);
            gChildPid = pid;
            gChildPidfd = pidfd;
            gHeartbeatWrite = beats[1];
            Logger::setError(QStringLiteral("started %1 (pid %2) keeping pid %3 running")
                                 .arg(path)
                                 .arg(pid)
                                 .arg(QLatin1String(parent)));
        }
    }
    Scheduling::performInlineOnMainQueue([pidfd] { armOnMainThread(pidfd); });
}

QString signalDescription(int signalNumber) {
    return QString::fromLocal8Bit(::strsignal(signalNumber));
}

} // namespace

void Watchdog::systemLog(const QString &line) {
    ::syslog(LOG_NOTICE, "%s", line.toLocal8Bit().constData());
    Logger::setError(line);
}

void Watchdog::blockCaughtSignals() {
    sigset_t set = caughtSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

QSocketNotifier *Watchdog::catchSignal(int signalNumber, SignalHandler handler) {
    // Blocked, the signal stays pending for the signalfd even while ignored:
    // it is handled on the main loop, never inside the signal context.
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signalNumber);
    pthread_sigmask(SIG_BLOCK, &one, nullptr);
    const int fd = ::signalfd(-1, &one, SFD_NONBLOCK | SFD_CLOEXEC);
    // Ignoring a signal discards it when pending: one that arrived during
    // start-up is taken off first and handled once the main loop runs.
    signalfd_siginfo early{};
    const bool arrivedEarly = fd >= 0 && ::read(fd, &early, sizeof early) == ssize_t(sizeof early);
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    if (::sigaction(signalNumber, &action, nullptr) != 0) {
        const QString line =
            QStringLiteral("tried to ignore %1 but got '%2'")
                .arg(signalDescription(signalNumber), QString::fromLocal8Bit(std::strerror(errno)));
        Watchdog::systemLog(line);
    }
    if (fd < 0)
        return nullptr;
    auto *source = new QSocketNotifier(fd, QSocketNotifier::Read);
    QObject::connect(source, &QSocketNotifier::activated, source, [fd, handler] {
        signalfd_siginfo info;
        while (::read(fd, &info, sizeof info) == ssize_t(sizeof info))
            if (handler)
                handler(int(info.ssi_signo));
    });
    if (arrivedEarly && handler)
        QMetaObject::invokeMethod(
            source, [handler, signalNumber] { handler(signalNumber); }, Qt::QueuedConnection);
    return source;
}

void Watchdog::catchCrashSignals() {
    if (gCrashSignalsCaught)
        return;
    gCrashSignalsCaught = true;
    for (int s = kFirstCaught; s < kPastLastCaught; ++s) {
        SignalHandler handler;
        if (s == SIGKILL)
            continue; // cannot be caught
        if (s == SIGHUP) {
            handler = [](int n) {
                Logger::setError(QStringLiteral("Caught %1 ... ignoring.").arg(signalDescription(n)));
            };
        } else if (s == SIGTERM) {
            handler = [](int n) {
                Logger::setError(QStringLiteral("Caught %1 ... terminating.").arg(signalDescription(n)));
                QCoreApplication::quit();
            };
        } else {
            handler = [](int n) { ::_exit(n); };
        }
        if (QSocketNotifier *source = catchSignal(s, handler))
            gSignalSources[QString::number(s)] = source;
    }
}

void Watchdog::releaseUncaughtSignals() {
    if (gCrashSignalsCaught)
        return;
    if (!gSignalSources.count(QString::number(SIGTERM)))
        gSignalSources[QString::number(SIGTERM)] = catchSignal(SIGTERM, [](int n) {
            Logger::setError(QStringLiteral("Caught %1 ... terminating.").arg(signalDescription(n)));
            QCoreApplication::quit();
        });
    sigset_t rest = caughtSet();
    sigdelset(&rest, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &rest, nullptr);
}

void Watchdog::keepUsRunning() {
    std::call_once(gStartOnce, startWatchdogProcess);
}

void Watchdog::stopKeepingUsRunning() {
    int pidfd = -1;
    {
        std::lock_guard lock(gChildMutex);
        if (gChildPidfd < 0)
            return;
        ::pidfd_send_signal(gChildPidfd, SIGTERM, nullptr, 0);
        pidfd = gChildPidfd;
    }
    if (!dispatch::isMainThread())
        return; // the end handler reaps it
    pollfd p{pidfd, POLLIN, 0};
    if (::poll(&p, 1, kStopWaitMs) == 1)
        childEnded();
}

bool Watchdog::waitUntilWatched(int timeoutMs) {
    int fd = -1;
    {
        std::lock_guard lock(gChildMutex);
        if (gWatched)
            return true;
        fd = gHeartbeatWrite;
    }
    pollfd p{fd, POLLIN, 0};
    char ready = 0;
    if (fd < 0 || ::poll(&p, 1, timeoutMs) != 1 || ::read(fd, &ready, 1) != 1)
        return false;
    std::lock_guard lock(gChildMutex);
    gWatched = true;
    return true;
}

void Watchdog::quitAndRelaunch() {
    keepUsRunning();
    // A watchdog started just now must have taken note of us before we go.
    if (!waitUntilWatched(kStopWaitMs))
        Logger::setError(QStringLiteral("the watchdog is not watching; quitting without a relaunch"));
    Logger::setError(QStringLiteral("quitting so that the watchdog relaunches us"));
    Preferences::standard().synchronize();
    Logger::flush();
    ::_exit(0);
}

pid_t Watchdog::watchdogPid() {
    std::lock_guard lock(gChildMutex);
    return gChildPid;
}

QString Watchdog::watchdogPath() {
    const QString folder = Paths::executableFolder();
    const QString beside = folder + QLatin1Char('/') + QLatin1String(kResourceName);
    if (QFileInfo::exists(beside))
        return beside;
    return QFileInfo(folder + QStringLiteral("/../libexec/BrixCanonCapture/") + QLatin1String(kResourceName))
        .absoluteFilePath();
}

Watchdog::LaunchDecision Watchdog::launchLoopRule(unsigned count, double seconds,
                                                  const EscapeDecision &escapeDecision, bool relaunched,
                                                  const QVariantList &recentLaunchDates,
                                                  const QDateTime &now) {
    LaunchDecision d;
    if (count != 0 && !relaunched) {
        d.clearHistory = true;
        d.keepRunning = true;
        return d;
    }
    // Unsigned on purpose: with fewer dates than `count` the index wraps and
    // there is no reference, so the interval is taken as `seconds`.
    const auto size = static_cast<unsigned long>(recentLaunchDates.size());
    const unsigned long k = size - count;
    QDateTime reference;
    if (size > k && recentLaunchDates.at(qsizetype(k)).metaType().id() == QMetaType::QDateTime)
        reference = recentLaunchDates.at(qsizetype(k)).toDateTime();
    d.interval = reference.isValid() ? double(reference.msecsTo(now)) / 1000.0 : seconds;
    const bool escape = count == 0 || d.interval < seconds;
    d.logLines << QStringLiteral("automatically relaunched due to unexpected termination");
    if (escape) {
        d.keepRunning = escapeDecision ? escapeDecision(count, d.interval) : false;
        d.logLines << QString::asprintf("%ssetting auto-relaunch because interval since %lu previous "
                                        "launches is less than %.1f sec (%.f)",
                                        d.keepRunning ? "" : "NOT ", static_cast<unsigned long>(count),
                                        seconds, d.interval);
    } else {
        d.keepRunning = true;
    }
    d.dates = recentLaunchDates;
    d.dates.append(now);
    return d;
}

void Watchdog::autoRelaunchUnless(unsigned count, double seconds, const EscapeDecision &escapeDecision) {
    const bool relaunched = QCoreApplication::arguments().contains(QLatin1String(kRelaunchArgument));
    Preferences &prefs = Preferences::standard();
    const LaunchDecision d = launchLoopRule(count, seconds, escapeDecision, relaunched,
                                            prefs.arrayForKey(QLatin1String(pref::kRecentLaunchDates)),
                                            QDateTime::currentDateTime());
    for (const QString &line : d.logLines)
        systemLog(line);
    if (d.clearHistory)
        prefs.removeObjectForKey(QLatin1String(pref::kRecentLaunchDates));
    else
        prefs.setObject(d.dates, QLatin1String(pref::kRecentLaunchDates));
    // The history must survive a crash that follows at once.
    prefs.synchronize();
    if (d.keepRunning)
        keepUsRunning();
}

} // namespace brix
