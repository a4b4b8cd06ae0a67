// AppDelegate: keeps the current camera, loads the first camera that appears,
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
#include "DistributedNotificationCenter.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>
#include <vector>

namespace brix {

class AppDelegate : public QObject, public OKVA_CanonCameraDelegate {
    Q_OBJECT
public:
    static constexpr const char *kSeparator = "===========================================";

    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

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
