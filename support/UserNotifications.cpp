// The notification half of ErrorAlerts: desktop notifications over
// org.freedesktop.Notifications, falling back to the modal alert.
#include "BundleInfo.h"
#include "ErrorAlerts.h"
#include "Logger.h"
#include "Preferences.h"
#include "Scheduling.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QHash>
#include <QVariantMap>

namespace brix {

namespace {

constexpr const char *kService = "org.freedesktop.Notifications";
constexpr const char *kPath = "/org/freedesktop/Notifications";
constexpr const char *kInterface = "org.freedesktop.Notifications";
constexpr const char *kNotifyMethod = "Notify";
constexpr int kNotifyTimeoutMs = 5000;
constexpr const char *kNotifyFailedFormat = "alertUserOfError: notification for %1 not shown (%2)";

// Identifier -> id of the notification the server shows for it. Touched only
// on the notifications queue.
QHash<QString, uint> &shownNotifications() {
    static auto *shown = new QHash<QString, uint>;
    return *shown;
}

QueuePtr notificationsQueue() {
    static auto *queue =
        new QueuePtr(Scheduling::dispatchQueueSerialWithDebugLabel("com.okvasoft.usernotifications"));
    return *queue;
}

// Runs on the notifications queue. Returns false when the server did not take it.
bool sendNotification(const ErrorValue &error, const QString &identifier) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        Logger::setError(
            QString::fromLatin1(kNotifyFailedFormat).arg(identifier, QStringLiteral("no session bus")));
        return false;
    }
    auto &shown = shownNotifications();
    const uint replaces = shown.value(identifier, 0);
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, kNotifyMethod);
    call << QString::fromLatin1(bundle::kName) << replaces << QString() << QString::fromLatin1(bundle::kName)
         << error.localizedDescription << QStringList() << QVariantMap() << int(-1);
    const QDBusMessage reply = bus.call(call, QDBus::Block, kNotifyTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        Logger::setError(QString::fromLatin1(kNotifyFailedFormat).arg(identifier, reply.errorMessage()));
        return false;
    }
    shown.insert(identifier, reply.arguments().constFirst().toUInt());
    return true;
}

} // namespace

void ErrorAlerts::alertUserOfError(const ErrorValue &error, const QString &identifier) {
    if (!Preferences::standard().boolForKey(QString::fromLatin1(pref::kPreferNotificationsOverModalAlerts))) {
        displayErrorAlert(error);
        return;
    }
    notificationsQueue()->async([error, identifier] {
        if (!sendNotification(error, identifier))
            displayErrorAlert(error);
    });
}

} // namespace brix
