#include "SimulatorDBus.h"

#include "EdsNames.h"
#include "Logger.h"

#include <QDBusConnectionInterface>
#include <QDBusError>

namespace brix::eds {

std::unique_ptr<QObject> exportSimulatorControl(EdsSdk &sdk, QString *why) {
    SimulatorControl *control = simulatorControl(sdk);
    if (!control) {
        if (why)
            *why = QStringLiteral("the %1 backend is not the simulator")
                       .arg(QString::fromUtf8(sdk.backendName()));
        return nullptr;
    }
    auto object = std::make_unique<sim::SimulatorDBus>(*control, QDBusConnection::sessionBus());
    if (!object->exportOnBus(why))
        return nullptr;
    return object;
}

namespace sim {

SimulatorDBus::SimulatorDBus(SimulatorControl &control, QDBusConnection connection)
    : control_(control), connection_(std::move(connection)) {}

SimulatorDBus::~SimulatorDBus() {
    if (registered_)
        connection_.unregisterObject(QString::fromLatin1(kSimulatorObjectPath));
    if (ownsName_)
        connection_.unregisterService(QString::fromLatin1(kSimulatorBusName));
}

bool SimulatorDBus::exportOnBus(QString *why) {
    if (!connection_.isConnected()) {
        if (why)
            *why = QStringLiteral("no session bus: %1").arg(connection_.lastError().message());
        return false;
    }
    if (!connection_.registerObject(QString::fromLatin1(kSimulatorObjectPath), this,
                                    QDBusConnection::ExportAllSlots)) {
        if (why)
            *why = QStringLiteral("could not register %1 on the session bus")
                       .arg(QLatin1String(kSimulatorObjectPath));
        return false;
    }
    registered_ = true;
    if (!connection_.registerService(QString::fromLatin1(kSimulatorBusName))) {
        if (why)
            *why = QStringLiteral("could not own the bus name %1: %2")
                       .arg(QLatin1String(kSimulatorBusName), connection_.lastError().message());
        return false;
    }
    ownsName_ = true;
    return true;
}

void SimulatorDBus::fail(const QString &message) {
    Logger::setError(QStringLiteral("simulator D-Bus: %1").arg(message));
    if (calledFromDBus())
        sendErrorReply(QDBusError::Failed, message);
}

void SimulatorDBus::Plug(const QString &model) {
    const int n = control_.plug(model.toStdString(), -1);
    Logger::setDebug(QStringLiteral("simulator D-Bus: Plug(\"%1\"), %2 attached").arg(model).arg(n));
}

void SimulatorDBus::Unplug() {
    if (!control_.unplug())
        fail(QStringLiteral("Unplug: no camera is plugged in"));
}

void SimulatorDBus::PressShutter() {
    if (!control_.pressShutter())
        fail(QStringLiteral("PressShutter: no camera is plugged in"));
}

void SimulatorDBus::SetProperty(uint propertyID, uint value) {
    if (const EdsError e = control_.setProperty(propertyID, value))
        fail(QStringLiteral("SetProperty(0x%1, %2): error 0x%3 (%4)")
                 .arg(propertyID, 0, 16)
                 .arg(value)
                 .arg(e, 0, 16)
                 .arg(QLatin1String(errorText(e))));
}

void SimulatorDBus::SetSupportedValues(uint propertyID, const QList<uint> &values) {
    std::vector<EdsInt32> list;
    list.reserve(size_t(values.size()));
    for (uint v : values)
        list.push_back(EdsInt32(v));
    if (const EdsError e = control_.setSupportedValues(propertyID, list))
        fail(QStringLiteral("SetSupportedValues(0x%1): error 0x%2 (%3)")
                 .arg(propertyID, 0, 16)
                 .arg(e, 0, 16)
                 .arg(QLatin1String(errorText(e))));
}

void SimulatorDBus::InjectError(const QString &operation, uint code, uint count) {
    if (!control_.injectError(operation.toStdString(), code, count))
        fail(QStringLiteral("InjectError: unknown operation \"%1\"").arg(operation));
}

void SimulatorDBus::SetShotFormat(const QString &extension, uint bytes) {
    if (!control_.setShotFormat(extension.toStdString(), bytes))
        fail(QStringLiteral("SetShotFormat: unknown extension \"%1\" (use JPG or CR2)").arg(extension));
}

QDBusVariant SimulatorDBus::GetProperty(uint propertyID) {
    const QVariant v = control_.property(propertyID);
    if (!v.isValid()) {
        fail(QStringLiteral("GetProperty(0x%1): no such property or no camera").arg(propertyID, 0, 16));
        return QDBusVariant(QVariant(uint(0)));
    }
    return QDBusVariant(v);
}

uint SimulatorDBus::ShotCount() {
    return control_.shotCount();
}

} // namespace sim
} // namespace brix::eds
