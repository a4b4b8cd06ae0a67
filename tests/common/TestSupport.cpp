#include "TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

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

void drain(const dispatch::QueuePtr &queue) {
    queue->sync([] {});
}

QString testHome() {
    return qEnvironmentVariable("HOME");
}

QByteArray readFile(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

Run run(const QString &program, const QStringList &arguments, std::chrono::milliseconds timeout) {
    QProcess p;
    p.start(program, arguments);
    if (!p.waitForFinished(int(timeout.count())))
        return {};
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1,
            QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
}

PrivateBus::~PrivateBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
}

// Plain fork and exec rather than QProcess: QProcess starts children in a way
// ThreadSanitizer cannot follow, which then misreports every later lock.
bool PrivateBus::start() {
    int fds[2];
    if (::pipe(fds) != 0)
        return false;
    pid_ = ::fork();
    if (pid_ < 0)
        return false;
    if (pid_ == 0) {
        // The bus ends with the test process however it ends, and it holds
        // none of the test runner's pipes open after that.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        int devnull = ::open("/dev/null", O_WRONLY);
        if (devnull >= 0)
            ::dup2(devnull, 2);
        ::dup2(fds[1], 1);
        ::close(fds[0]);
        ::close(fds[1]);
        ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
                 static_cast<char *>(nullptr));
        ::_exit(127);
    }
    ::close(fds[1]);
    QFile out;
    out.open(fds[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    address_ = QString::fromUtf8(out.readLine()).trimmed();
    if (address_.isEmpty())
        return false;
    qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8());
    return true;
}

} // namespace brix::test
