// watchdog: started by the station with the station's process id as its only
// argument. When that process ends while this one runs (a crash, SIGKILL, an
// exit through a caught signal), or stops sending its heartbeat on descriptor
// 3 (a socket) for 30 s (a hung main loop; it is killed first), the station is started
// again: the same executable, the same arguments plus "--autorelaunched", the
// same environment and working folder, in a session of its own. Then this
// process ends; the new station starts its own watchdog. SIGTERM ends it
// without a relaunch: that is how a normal quit tells it.
//
// Threads: one; everything waits in one poll() on the station's pidfd, a
// signalfd for SIGTERM and the heartbeat pipe.
#include "BundleInfo.h"
#include "Logger.h"
#include "Paths.h"

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
// glibc 2.36 declares these without C linkage for C++.
extern "C" {
#include <sys/pidfd.h>
}
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace brix;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char *kRelaunchArgument = "--autorelaunched";
constexpr int kHeartbeatFd = 3;
constexpr int kDefaultHangSeconds = 30;
// Tests shorten the hang limit with this variable.
constexpr const char *kHangSecondsVariable = "BRIX_WATCHDOG_HANG_SECONDS";
// How long a killed, hung station may take to be gone.
constexpr int kKillWaitMs = 10000;

QString gLogFile;

// One line to the system log and to the station's log file.
void say(const QString &message) {
    const QByteArray text = ("watchdog: " + message).toLocal8Bit();
    ::syslog(LOG_NOTICE, "%s", text.constData());
    if (gLogFile.isEmpty())
        return;
    const int fd =
        ::open(QFile::encodeName(gLogFile).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    const QByteArray line = Logger::formatLine(QString::fromLocal8Bit(text), "watchdog").toUtf8() + '\n';
    [[maybe_unused]] ssize_t n = ::write(fd, line.constData(), size_t(line.size()));
    ::close(fd);
}

QByteArray readProcFile(pid_t pid, const char *name) {
    QByteArray out;
    const int fd =
        ::open(QByteArray("/proc/" + QByteArray::number(pid) + '/' + name).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        out.append(buf, int(n));
    ::close(fd);
    return out;
}

QByteArray readProcLink(pid_t pid, const char *name) {
    char buf[4096];
    const ssize_t n = ::readlink(QByteArray("/proc/" + QByteArray::number(pid) + '/' + name).constData(), buf,
                                 sizeof buf - 1);
    return n > 0 ? QByteArray(buf, int(n)) : QByteArray();
}

QList<QByteArray> splitNul(const QByteArray &data) {
    QList<QByteArray> parts = data.split('\0');
    if (!parts.isEmpty() && parts.last().isEmpty())
        parts.removeLast();
    return parts;
}

struct Station {
    pid_t pid = -1;
    QByteArray executable;
    QList<QByteArray> arguments;
    QList<QByteArray> environment;
    QByteArray workingFolder;
};

bool relaunch(const Station &station, const QString &why) {
    QList<QByteArray> args = station.arguments;
    if (!args.contains(kRelaunchArgument))
        args.append(kRelaunchArgument);
    std::vector<char *> argv, envp;
    for (QByteArray &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    QList<QByteArray> env = station.environment;
    for (QByteArray &e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    if (!station.workingFolder.isEmpty() && ::chdir(station.workingFolder.constData()) != 0)
        say(QStringLiteral("cannot enter the working folder %1: %2")
                .arg(QString::fromLocal8Bit(station.workingFolder),
                     QString::fromLocal8Bit(std::strerror(errno))));
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    pid_t pid = -1;
    const int rc =
        ::posix_spawn(&pid, station.executable.constData(), nullptr, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        say(QStringLiteral("could not relaunch %1: %2")
                .arg(QString::fromLocal8Bit(station.executable), QString::fromLocal8Bit(std::strerror(rc))));
        return false;
    }
    say(QStringLiteral("%1; relaunched %2 as pid %3")
            .arg(why, QString::fromLocal8Bit(station.executable))
            .arg(pid));
    return true;
}

int hangSeconds() {
    const char *v = std::getenv(kHangSecondsVariable);
    const int s = v ? std::atoi(v) : 0;
    return s > 0 ? s : kDefaultHangSeconds;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <pid of the station>\n", argv[0]);
        return 2;
    }
    Station station;
    station.pid = pid_t(std::atol(argv[1]));
    ::openlog("BrixCanonCapture-watchdog", LOG_PID, LOG_USER);
    // The station's own log file (the logger would name it after this executable).
    gLogFile = Paths::libraryFolder() + QStringLiteral("/Logs/Brix/") + QLatin1String(bundle::kName) +
               QStringLiteral(".log");

    // The error stream we inherit is the station's log pipe, which ends with
    // the station: our lines go to the system log and the log file instead.
    const int devnull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devnull >= 0)
        ::dup2(devnull, STDERR_FILENO);
    ::signal(SIGHUP, SIG_IGN); // a closed terminal must not leave the station unmonitored
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    const int termFd = ::signalfd(-1, &term, SFD_CLOEXEC | SFD_NONBLOCK);

    const int stationFd = int(::pidfd_open(station.pid, 0));
    if (station.pid <= 0 || stationFd < 0) {
        say(QStringLiteral("no process %1 to keep running").arg(QString::fromLocal8Bit(argv[1])));
        return 1;
    }
    // Everything needed to start it again, read while it is certainly there.
    station.executable = readProcLink(station.pid, "exe");
    if (station.executable.endsWith(" (deleted)")) // replaced by an update: start the new one
        station.executable.chop(int(qstrlen(" (deleted)")));
    station.arguments = splitNul(readProcFile(station.pid, "cmdline"));
    station.environment = splitNul(readProcFile(station.pid, "environ"));
    station.workingFolder = readProcLink(station.pid, "cwd");
    pollfd check{stationFd, POLLIN, 0};
    if (::poll(&check, 1, 0) == 1 || station.executable.isEmpty() || station.arguments.isEmpty()) {
        say(QStringLiteral("process %1 ended before it could be watched").arg(station.pid));
        return 1;
    }

    say(QStringLiteral("watching pid %1").arg(station.pid));

    struct stat st {};
    int beatFd = (::fstat(kHeartbeatFd, &st) == 0 && S_ISSOCK(st.st_mode)) ? kHeartbeatFd : -1;
    if (beatFd >= 0) {
        const char ready = 1;
        [[maybe_unused]] ssize_t n = ::write(beatFd, &ready, 1);
    }
    const auto hangLimit = std::chrono::seconds(hangSeconds());
    auto lastBeat = Clock::now();

    for (;;) {
        pollfd fds[3] = {{termFd, POLLIN, 0}, {stationFd, POLLIN, 0}, {beatFd, POLLIN, 0}};
        int timeoutMs = -1;
        if (beatFd >= 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(lastBeat + hangLimit - Clock::now());
            timeoutMs = int(std::max<long long>(0, left.count()));
        }
        const int ready = ::poll(fds, beatFd >= 0 ? 3 : 2, timeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        // Checked first: a station that quits normally tells us before it ends.
        if (fds[0].revents & POLLIN)
            return 0;
        if (fds[1].revents & POLLIN)
            return relaunch(station, QStringLiteral("pid %1 ended without a normal quit").arg(station.pid))
                       ? 0
                       : 1;
        if (beatFd >= 0 && (fds[2].revents & (POLLIN | POLLHUP))) {
            char buf[256];
            const ssize_t n = ::read(beatFd, buf, sizeof buf);
            if (n > 0) {
                lastBeat = Clock::now();
            } else if (n == 0) {
                // The station is ending; its pidfd says how.
                ::close(beatFd);
                beatFd = -1;
            }
            continue;
        }
        if (beatFd >= 0 && Clock::now() >= lastBeat + hangLimit) {
            const QString why = QStringLiteral("pid %1 has not turned its main loop for %2 s, killed it")
                                    .arg(station.pid)
                                    .arg(hangLimit.count());
            ::pidfd_send_signal(stationFd, SIGKILL, nullptr, 0);
            pollfd gone{stationFd, POLLIN, 0};
            if (::poll(&gone, 1, kKillWaitMs) != 1) {
                say(QStringLiteral("pid %1 did not end after SIGKILL; not relaunching").arg(station.pid));
                return 1;
            }
            return relaunch(station, why) ? 0 : 1;
        }
    }
}
