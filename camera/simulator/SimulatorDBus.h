// The D-Bus face of the simulated camera: interface kSimulatorInterface at
// kSimulatorObjectPath, under the session-bus name kSimulatorBusName. Tests and
// demonstrations plug and unplug bodies and press the shutter through it.
//
// Threads: lives on the main thread; method calls arrive there from Qt's event
// loop and are forwarded to the thread-safe SimulatorControl.
// Ownership: does not own the control, which must outlive it. Releases the bus
// name and the object path when destroyed.
#pragma once

#include "SimulatorControl.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusVariant>
#include <QList>
#include <QObject>

namespace brix::eds::sim {

class SimulatorDBus : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.lumetra.brix.Simulator")

public:
    SimulatorDBus(SimulatorControl &control, QDBusConnection connection);
    ~SimulatorDBus() override;

    // Registers the object and asks for the name; false with the reason otherwise.
    bool exportOnBus(QString *why);

public Q_SLOTS:
    void Plug(const QString &model);
    void Unplug();
    void PressShutter();
    void SetProperty(uint propertyID, uint value);
    void SetSupportedValues(uint propertyID, const QList<uint> &values);
    void InjectError(const QString &operation, uint code, uint count);
    void SetShotFormat(const QString &extension, uint bytes);
    QDBusVariant GetProperty(uint propertyID);
    uint ShotCount();

private:
    void fail(const QString &message);

    SimulatorControl &control_;
    QDBusConnection connection_;
    bool registered_ = false;
    bool ownsName_ = false;
};

} // namespace brix::eds::sim
