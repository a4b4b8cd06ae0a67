// AppDelegate: owns the process's life: the one-time start-up sequence (log
// file, system report, single instance, launch arguments, factory defaults),
// the launch callbacks that arm the watchdog and compose the window title, the
// queue on which the current camera is driven, and the menu actions that ask
// for the preferences or a quit. It also keeps the current camera, loads the
// first camera that appears,
// tells the sibling applications when the camera becomes available or goes
// away, mirrors camera properties into the window's controls (when there is a
// window), and answers the siblings' requests ("grabimage",
// "requestcamerastatus", "getlistofimages").
//
// Threads: main thread. Camera notifications it observes are delivered there
// (did-load and the did-unload of unload() arrive on the thread that called
// load/unload, which is the main thread when this class calls them).
// Ownership: owns its observer registrations and a reference to the current
// camera; the controls are owned by the window.
#pragma once

#include "CameraControls.h"
#include "Dispatch.h"
#include "DistributedNotificationCenter.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"
#include "ScanTimer.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>
#include <vector>

namespace brix {

class SingleInstance;

class AppDelegate : public QObject, public OKVA_CanonCameraDelegate {
    Q_OBJECT
public:
    static constexpr const char *kSeparator = "===========================================";
    static constexpr const char *kQuitAppNotification = "quitAppNotification";
    static constexpr const char *kStartPhotoSessionNotification = "notifictionStartPhotoSession";
    static constexpr const char *kCurrentCameraQueueLabel = "com.lumetra.brix.current.camera.queue";
    static constexpr const char *kTimerRunning = "running";
    static constexpr const char *kTimerSuspended = "suspended";

    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // --- start-up and shutdown ---
    // The start-up sequence, once per process (a second call only logs). Ends
    // the process with status 0 when another copy runs.
    static void initialize(const QStringList &arguments);
    static bool didOnceAlready();
    // Another copy running: beep, log, ask it to come forward, exit 0.
    static void checkForDuplicateRunningInstances();
    // The single-instance guard of this process (after initialize()); the window
    // connects to its activateRequested to raise itself.
    static SingleInstance *singleInstance();
    // Set when the launch arguments hold "--autorelaunched"; written, never read.
    static bool autorelaunched();
    // The serial queue "com.lumetra.brix.current.camera.queue", created on first
    // use. Never released.
    static dispatch::QueuePtr currentCameraDispatchQueue();
    // Name, versions, tool and SDK names, identifier, executable.
    static QVariantMap bundleInfo();
    // The texts of the alerts of the single-instance rule (both stay switched off).
    static QStringList duplicateInstanceAlertTexts();
    static QStringList olderVersionAlertTexts(const QString &otherName);

    // Arms the watchdog: 4 relaunches within 30.0 s stop the loop.
    void applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    // Logs the bundle information and writes the title preferences.
    void setupWindowTitle(const QVariantMap &info = bundleInfo());
    // Closing the last window does not quit; quitting goes through the quit sheet.
    bool applicationShouldTerminateAfterLastWindowClosed() const { return false; }
    void applicationWillTerminate() {}
    // Menu actions.
    void ibOpenPrefsAction();
    void ibHandleCommandQuit();

    bool fControlKeyPressed = false;

    // Registers the camera and sibling observers.
    void awakeFromNib();
    void setControls(CameraControls *controls) { controls_ = controls; }

    CameraPtr currentCamera() const { return currentCamera_; }

    // --- camera panel ---
    void takePicture();
    void cameraListUpdated(const Notification &notification);
    void updateCameraPopupWithCameras(const QList<CameraPtr> &cameras);
    void cameraAdded(const Notification &notification);
    void setCurrentCamera(const CameraPtr &camera);
    void cameraDidLoad(const Notification &notification);
    void cameraDisappeared(const Notification &notification);
    void updateCameraProperties();
    void cameraPropertiesChanged(const Notification &notification);
    void cameraPropertyChanged(const Notification &notification);
    void setEnabledForAEMode(const QVariant &value);
    void updateControlWithTagWithValue(quint32 tag, const QVariant &value);
    void updateControlWithTagWithValues(quint32 tag, const std::optional<QVariantMap> &values);
    void floatingAlertWithString(const QString &text);

    // --- hot folder ---
    // The scan timer: made on the first call from "prefScanForNewImageInSeconds"
    // (nothing when that is not above 0), then suspended and resumed in turn on
    // the current-camera queue by every later call.
    void createScanTimer();
    // Touched on the current-camera queue once made; read it there.
    std::shared_ptr<ScanTimer> fTimer;
    QString fTimerStatus; // "running", "suspended", or empty before the first toggle

    // --- sibling requests ---
    void handleDistributedNotification(const DistributedNotificationCenter::Message &message);

    // The download cancel question: a tethering station never cancels a shot.
    bool cancelDownloadForProgress(eds::EdsUInt32 percent) override;

    // Properties mirrored into the panel, in refresh order.
    static const std::vector<eds::EdsPropertyID> &panelProperties();

private:
    QString objectDescription() const;
    void sendCameraStatus(const QString &name, unsigned status);

    CameraPtr currentCamera_;
    CameraPtr previousCamera_; // let go at the next change, not at once
    CameraControls *controls_ = nullptr;
    std::vector<NotificationCenter::Token> localTokens_;
    std::vector<DistributedNotificationCenter::Token> distributedTokens_;
};

} // namespace brix
