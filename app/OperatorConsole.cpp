#include "OperatorConsole.h"

#include "OKVA_CanonCamera.h"

#include <QTime>

namespace brix {

OperatorConsole::OperatorConsole(bool quiet, std::FILE *out) : quiet_(quiet), out_(out) {
    if (quiet_)
        return;
    // Every notification: the camera's own by name, and any backend's operator message.
    tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
        QString(), QVariant(), [this](const Notification &notification) { handle(notification); }));
}

OperatorConsole::~OperatorConsole() {
    for (NotificationCenter::Token token : tokens_)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void OperatorConsole::backendStarted(const QString &name) {
    print(QStringLiteral("camera backend: %1").arg(name));
}

void OperatorConsole::backendUnavailable(const QString &name, const QString &why) {
    print(QStringLiteral("error: camera backend %1 is not available: %2").arg(name, why));
}

void OperatorConsole::shotSaved(const QString &path) {
    print(QStringLiteral("shot saved: %1").arg(path));
}

void OperatorConsole::stopping() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    print(QStringLiteral("station stopping"));
}

void OperatorConsole::handle(const Notification &notification) {
    const QString &name = notification.name;
    if (name == kOKVA_CanonCameraDidLoad) {
        const CameraPtr camera = OKVA_CanonCamera::fromVariant(notification.object);
        const QString model = camera ? camera->description() : QString();
        {
            std::lock_guard lock(mutex_);
            if (stopping_)
                return;
            cameraPresent_ = model.isEmpty() ? QStringLiteral("camera") : model;
        }
        print(QStringLiteral("camera found: %1")
                  .arg(model.isEmpty() ? QStringLiteral("(model unknown)") : model));
    } else if (name == kOKVA_CanonCameraDidUnload) {
        // A camera that goes away is unloaded afterwards, which posts this a
        // second time: report the loss once.
        QString lost;
        bool noneAtAll = false;
        {
            std::lock_guard lock(mutex_);
            if (stopping_)
                return;
            if (OKVA_CanonCamera::fromVariant(notification.object)) {
                lost.swap(cameraPresent_);
                if (lost.isEmpty())
                    return;
            } else {
                noneAtAll = cameraPresent_.isEmpty();
            }
        }
        if (!lost.isEmpty())
            print(QStringLiteral("camera lost: %1").arg(lost));
        else if (noneAtAll)
            print(QStringLiteral("no camera found: check the cable and that the camera is on"));
    } else if (name == kOKVA_CanonCameraCommandError) {
        const QVariantMap command = notification.userInfo.value(kOKVA_CanonCameraCommandDictionary).toMap();
        const ErrorValue error =
            notification.userInfo.value(kOKVA_CanonCameraCommandErrorKey).value<ErrorValue>();
        print(QStringLiteral("error: the camera refused %1: %2 (0x%3)")
                  .arg(command.value(kCommandDescription).toString(), error.localizedDescription)
                  .arg(quint64(error.code), 0, 16));
    } else if (notification.userInfo.value(QLatin1String(kMessageKey)).metaType().id() ==
               QMetaType::QString) {
        print(QStringLiteral("error: %1")
                  .arg(notification.userInfo.value(QLatin1String(kMessageKey)).toString()));
    }
}

void OperatorConsole::print(const QString &text) {
    if (quiet_)
        return;
    const QByteArray line =
        (QTime::currentTime().toString(QStringLiteral("HH:mm:ss ")) + text + QLatin1Char('\n')).toLocal8Bit();
    std::lock_guard lock(mutex_);
    std::fwrite(line.constData(), 1, size_t(line.size()), out_);
    std::fflush(out_);
}

} // namespace brix
