#include "SingleInstance.h"

#include "BundleInfo.h"
#include "Logger.h"
#include "Paths.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QFile>
#include <QThread>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

namespace brix {

namespace {
// A copy that was just killed still holds the name until the bus has noticed
// the closed connection; a relaunch waits this long for that.
constexpr int kDeadOwnerWaitMs = 5000;
constexpr int kActivateTimeoutMs = 5000;

bool processIsGone(pid_t pid) {
    return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}
} // namespace

SingleInstance::SingleInstance(QObject *parent) : QObject(parent) {}

SingleInstance::~SingleInstance() {
    if (ownsName_) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        bus.unregisterObject(QLatin1String(kObjectPath));
        bus.unregisterService(QLatin1String(bundle::kIdentifier));
    }
    if (lockFd_ >= 0)
        ::close(lockFd_);
}

QString SingleInstance::lockFilePath() {
    return Paths::runtimeFolder() + QLatin1Char('/') + QLatin1String(bundle::kIdentifier) +
           QStringLiteral(".lock");
}

bool SingleInstance::claim() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return claimLockFile();
    const QString name = QLatin1String(bundle::kIdentifier);
    // Exported first, so that a second copy that sees the name can call it at once.
    bus.registerObject(QLatin1String(kObjectPath), this, QDBusConnection::ExportScriptableSlots);
    QDBusConnectionInterface *iface = bus.interface();
    for (int waited = 0;; waited += 50) {
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = iface->registerService(
            name, QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
        if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
            ownsName_ = true;
            return true;
        }
        const QDBusReply<uint> owner = iface->servicePid(name);
        otherPid_ = owner.isValid() ? pid_t(owner.value()) : 0;
        if (!processIsGone(otherPid_) || waited >= kDeadOwnerWaitMs)
            break;
        QThread::msleep(50);
    }
    bus.unregisterObject(QLatin1String(kObjectPath));
    return false;
}

bool SingleInstance::claimLockFile() {
    const QString path = lockFilePath();
    lockFd_ = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd_ < 0) {
        Logger::setError(QStringLiteral("cannot open the instance lock %1: %2")
                             .arg(path, QString::fromLocal8Bit(strerror(errno))));
        return true; // better a station than none
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) == 0) {
        const QByteArray pid = QByteArray::number(qint64(::getpid())) + '\n';
        if (::ftruncate(lockFd_, 0) == 0) [[maybe_unused]]
            ssize_t n = ::pwrite(lockFd_, pid.constData(), size_t(pid.size()), 0);
        return true;
    }
    char buf[32] = {};
    [[maybe_unused]] ssize_t n = ::pread(lockFd_, buf, sizeof buf - 1, 0);
    otherPid_ = pid_t(std::atol(buf));
    ::close(lockFd_);
    lockFd_ = -1;
    return false;
}

bool SingleInstance::activateOther() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return false;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(bundle::kIdentifier), QLatin1String(kObjectPath),
                                       QLatin1String(kInterface), QStringLiteral("Activate"));
    call << QVariantMap{{QStringLiteral("pid"), qint64(::getpid())}};
    const QDBusMessage reply = bus.call(call, QDBus::Block, kActivateTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage;
}

void SingleInstance::Activate(const QVariantMap &platformData) {
    emit activateRequested(platformData.value(QStringLiteral("pid")).toLongLong());
}

void SingleInstance::SaveCameraSettings() {
    emit saveCameraSettingsRequested();
}

} // namespace brix
