// SingleInstance: one station per user session. The station owns the session
// bus name com.lumetra.BrixCanonCapture (never queued for it) and exports
// Activate and SaveCameraSettings at /com/lumetra/BrixCanonCapture; a second copy finds the owner's
// process id and asks it to come forward. Without a session bus an exclusive
// lock on $XDG_RUNTIME_DIR/com.lumetra.BrixCanonCapture.lock serves; the lock
// goes with the process that held it, so a killed copy never blocks a new one.
//
// Threads: main thread. Activate requests arrive through the main loop.
// Ownership: the object holds the name (or the lock) for as long as it lives.
#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <sys/types.h>

namespace brix {

class SingleInstance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.lumetra.brix.Application")
public:
    static constexpr const char *kObjectPath = "/com/lumetra/BrixCanonCapture";
    static constexpr const char *kInterface = "com.lumetra.brix.Application";

    explicit SingleInstance(QObject *parent = nullptr);
    ~SingleInstance() override;

    // Takes the name (or the lock). True when this process is the only copy;
    // false with otherPid() set (0 when unknown) when another copy holds it.
    bool claim();
    pid_t otherPid() const { return otherPid_; }
    bool usesLockFile() const { return lockFd_ >= 0; }
    // Asks the running copy to come forward. False without a bus or an answer.
    bool activateOther();

    static QString lockFilePath();

public slots:
    // Called over the bus by a second copy.
    Q_SCRIPTABLE void Activate(const QVariantMap &platformData);
    // Called over the bus by a kiosk script or brixctl: remember the current
    // camera's settings, as the panel's Save Settings button does.
    Q_SCRIPTABLE void SaveCameraSettings();

signals:
    // The window raises itself; headless, the request is only logged.
    void activateRequested(qint64 requesterPid);
    void saveCameraSettingsRequested();

private:
    bool claimLockFile();
    int lockFd_ = -1;
    pid_t otherPid_ = 0;
    bool ownsName_ = false;
};

} // namespace brix
