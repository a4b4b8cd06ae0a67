// OKVA_CanonCamera: one connected Canon camera and, on the class, the process's
// camera SDK, the list of cameras on the bus and the one loaded (current) camera.
//
// A camera holds its SDK camera reference (its identity), opens and closes the
// session, keeps the SDK event handlers, turns SDK events into notifications of
// the default NotificationCenter (names and keys below), reads and writes
// properties, keeps the supported values of each property, queues and sends
// commands, downloads every new shot into memory and runs live view.
//
// Threads: every operation may be called from any thread. SDK events arrive on
// the backend's event thread; property and supported-value notifications are
// handed to the main thread and waited for, the photo-data notification is
// posted on the camera's own download queue (so an observer that holds it back
// holds back only the next download, never the events), the list, disappearance, command-error,
// added and live-view notifications go to the main thread without waiting,
// did-load and the did-unload of unload() are posted on the caller's thread.
// Each queued command is sent on a detached thread of its own, each list update
// runs on one, and so does the live-view loop.
// Ownership: cameras are shared (CameraPtr). The class keeps the current camera
// and the camera list; notifications carry the camera as their object. Values
// returned are copies owned by the caller; the delegate is not owned.
#pragma once

#include "Dispatch.h"
#include "EdsRef.h"
#include "EdsSdk.h"
#include "ErrorValue.h"
#include "NamedLock.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace brix {

class OKVA_CanonCamera;
using CameraPtr = std::shared_ptr<OKVA_CanonCamera>;

// --- notification names and user-info keys ----------------------------------
inline const QString kOKVA_CanonCameraDidLoad = QStringLiteral("OKVA_CanonCameraDidLoad");
inline const QString kOKVA_CanonCameraDidUnload = QStringLiteral("OKVA_CanonCameraDidUnload");
inline const QString kOKVA_CanonCameraListDidUpdate = QStringLiteral("OKVA_CanonCameraListDidUpdate");
inline const QString kOKVA_CanonCameraAdded = QStringLiteral("OKVA_CanonCameraAdded");
inline const QString kOKVA_CanonCameraPropertyDidChange = QStringLiteral("OKVA_CanonCameraPropertyDidChange");
inline const QString kOKVA_CanonCameraPropertiesDidChange =
    QStringLiteral("OKVA_CanonCameraPropertiesDidChange");
inline const QString kOKVA_CanonCameraCommandError = QStringLiteral("OKVA_CanonCameraCommandError");
inline const QString kOKVA_CanonCameraDownloadProgress = QStringLiteral("OKVA_CanonCameraDownloadProgress");
inline const QString kOKVA_CanonCameraPhotoDataAvailable =
    QStringLiteral("OKVA_CanonCameraPhotoDataAvailable");
inline const QString kOKVA_CanonCameraLiveViewImageUpdate =
    QStringLiteral("OKVA_CanonCameraLiveViewImageUpdate");

inline const QString kOKVA_CanonCameraPropertyName = QStringLiteral("OKVA_CanonCameraPropertyName");
inline const QString kOKVA_CanonCameraProperty = QStringLiteral("OKVA_CanonCameraProperty");
inline const QString kOKVA_CanonCameraPropertyID = QStringLiteral("OKVA_CanonCameraPropertyID");
inline const QString kOKVA_CanonCameraPropertyValue = QStringLiteral("OKVA_CanonCameraPropertyValue");
inline const QString kOKVA_CanonCameraProperties = QStringLiteral("OKVA_CanonCameraProperties");
inline const QString kOKVA_CanonCameraCommandDictionary = QStringLiteral("OKVA_CanonCameraCommandDictionary");
// The command-error notification's error uses the same text as its name.
inline const QString kOKVA_CanonCameraCommandErrorKey = QStringLiteral("OKVA_CanonCameraCommandError");
inline const QString kOKVA_CanonCameraDownloadProgressPercent =
    QStringLiteral("OKVA_CanonCameraDownloadProgressPercent");
inline const QString kOKVA_CanonCameraPhotoData = QStringLiteral("OKVA_CanonCameraPhotoData");
inline const QString kOKVA_CanonCameraPhotoFilename = QStringLiteral("OKVA_CanonCameraPhotoFilename");
inline const QString kOKVA_CanonCameraLiveViewImage = QStringLiteral("OKVA_CanonCameraLiveViewImage");

// The line logged whenever a shot the camera offered ends up in no file: the
// camera's file name of the shot, then why. Every loss says so once.
inline const QString kShotNotSavedFormat = QStringLiteral("shot \"%1\" not saved: %2");

// Keys of a command dictionary.
inline const QString kCommandNumber = QStringLiteral("commandNumber");
inline const QString kCommandParam = QStringLiteral("commandParam");
inline const QString kCommandDescription = QStringLiteral("description");

// Domain of the errors that carry an SDK code.
inline const QString kEdsErrorDomain = QStringLiteral("EdsError");

// The object of notifications posted by the camera class itself.
struct OKVA_CanonCameraClass {
    bool operator==(const OKVA_CanonCameraClass &) const { return true; }
};

// Asked, on the thread that runs a download, whether to cancel it. The default
// answer never cancels.
class OKVA_CanonCameraDelegate {
public:
    virtual ~OKVA_CanonCameraDelegate() = default;
    virtual bool cancelDownloadForProgress(eds::EdsUInt32 percent);
};

class OKVA_CanonCamera : public std::enable_shared_from_this<OKVA_CanonCamera> {
public:
    // --- class: the SDK and the camera list ------------------------------------
    // Class start-up with the process's SDK: logs where it was loaded from,
    // EdsInitializeSDK (on success the application's about-to-quit is observed),
    // the camera-added handler, then the first list update. A second call
    // replaces the SDK: the current camera is unloaded and the list emptied
    // first. A null SDK is logged and leaves the class without cameras.
    static bool initialize(std::shared_ptr<eds::EdsSdk> sdk);
    // The SDK installed by initialize(), or null.
    static std::shared_ptr<eds::EdsSdk> sdk();
    // Logs the notification's text, closes the way in for SDK events and waits
    // for the ones under way (pumping the main loop on the main thread), then
    // terminates the SDK, once for each initialize(). Afterwards no SDK event
    // reaches an observer or a delegate, until the next initialize().
    static void applicationWillTerminate(const QString &notification);
    // A copy of the camera list, or nothing while the list is busy (ask later).
    static std::optional<QList<CameraPtr>> cameras();
    // Starts one list update on a detached thread and returns at once.
    static void updateCameraList();
    // Sleeps the calling thread until `date`, then updateCameraList().
    static void updateCameraListAtDate(const QDateTime &date);
    // One list update on the calling thread.
    static void updateCameraListAsync();
    // The loaded camera, or null. A camera that disappeared stays current
    // until it is unloaded or another camera loads.
    static CameraPtr currentCamera();
    // Notification objects: the class, and a camera taken back out of one.
    static QVariant classObject();
    static CameraPtr fromVariant(const QVariant &object);

    // --- creation and identity --------------------------------------------------
    // A camera for the reference (retained), or null for a null reference.
    static CameraPtr initWithCameraRef(eds::EdsCameraRef cameraRef);
    ~OKVA_CanonCamera();
    OKVA_CanonCamera(const OKVA_CanonCamera &) = delete;
    OKVA_CanonCamera &operator=(const OKVA_CanonCamera &) = delete;

    eds::EdsCameraRef cameraRef() const { return cameraRef_; }
    int32_t subType() const { return subType_; }
    // The model name; empty when the device info could not be read.
    QString description() const { return modelName_; }
    bool isLoaded() const { return loaded_.load(); }
    bool isLegacyModel() const { return subType_ == 0; }
    OKVA_CanonCameraDelegate *delegate() const { return delegate_.load(); }
    void setDelegate(OKVA_CanonCameraDelegate *delegate) { delegate_.store(delegate); }
    std::size_t hash() const { return reinterpret_cast<std::size_t>(cameraRef_); }
    bool isEqual(const OKVA_CanonCamera &other) const { return hash() == other.hash(); }
    bool isEqual(const CameraPtr &other) const { return other && isEqual(*other); }
    // This camera as a notification object.
    QVariant toVariant();

    // --- session ------------------------------------------------------------------
    bool load();
    bool unload();
    void startNotifications();
    void stopNotifications();
    bool setDestination(eds::EdsUInt32 destination);
    bool setHostStorageCapacityAtPath(const QString &path, bool reset);

    // --- events (from the SDK handlers) ----------------------------------------
    eds::EdsError processCameraEvent(eds::EdsStateEvent event, eds::EdsUInt32 eventData);
    eds::EdsError processPropertyEvent(eds::EdsPropertyEvent event, eds::EdsPropertyID propertyID,
                                       eds::EdsUInt32 parameter);
    eds::EdsError processObjectEvent(eds::EdsObjectEvent event, eds::EdsBaseRef object);

    // --- properties -----------------------------------------------------------------
    // Text (QString), number (qint64 for signed types, quint64 for unsigned),
    // date (QDateTime), or an invalid QVariant for none.
    QVariant valueForPropertyID(eds::EdsPropertyID propertyID, eds::EdsInt32 parameter);
    bool setValue(const QVariant &value, eds::EdsPropertyID propertyID, eds::EdsInt32 parameter);
    bool setStringValue(const QString &text, eds::EdsPropertyID propertyID);
    void propertyDidChange(eds::EdsPropertyID propertyID, eds::EdsUInt32 parameter);
    void updateValueForPropertyID(eds::EdsPropertyID propertyID);
    // Display text -> value (quint32); nothing when the description cannot be read.
    std::optional<QVariantMap> supportedValuesForPropertyID(eds::EdsPropertyID propertyID);
    void setSupportedValues(const std::optional<QVariantMap> &values, eds::EdsPropertyID propertyID);
    // The supported values kept for the property, if any.
    std::optional<QVariantMap> cachedSupportedValuesForPropertyID(eds::EdsPropertyID propertyID) const;
    void getDeviceProperties();
    QVariant cameraClock();
    bool setCameraClock(const QDateTime &date);
    bool setOwnerName(const QString &name);
    eds::EdsError setProperty(eds::EdsBaseRef ref, eds::EdsPropertyID propertyID, eds::EdsInt32 parameter,
                              eds::EdsUInt32 size, const void *data);

    // --- locks ------------------------------------------------------------------------
    bool getLock(NamedLock &lock, std::chrono::steady_clock::time_point beforeDate);
    bool waitForCameraLock(double seconds);
    void unlockCameraLock();
    NamedLock &commandLock() { return commandLock_; }
    NamedLock &queueLock() { return queueLock_; }
    NamedLock &liveViewLock() { return liveViewLock_; }

    // --- time records -----------------------------------------------------------------
    static QDateTime dateForEDSTime(const eds::EdsTime *time);
    static void EDSTime(eds::EdsTime *time, const QVariant &date);

    // --- commands ---------------------------------------------------------------------
    // The command's text, or a null QString for a dictionary without a number.
    static QString descriptionForCommandDictionary(const QVariantMap &command);
    void queueCameraCommand(eds::EdsCameraCommand command, eds::EdsInt32 parameter);
    void performNextQueuedCameraCommand();
    void performCommandWithDictionary(const QVariantMap &command);
    // Sends on the caller's thread, without the queue. Returns the SDK's answer,
    // or EDS_ERR_DEVICE_BUSY when the command lock was not had within 3 s.
    eds::EdsError performCameraCommand(eds::EdsCameraCommand command, eds::EdsInt32 parameter);
    void takePicture();
    void pressShutter(eds::EdsUInt32 parameter);
    void pressShutterHalf();
    void pressShutterFull();
    void releaseShutter();
    void liveViewDriveAF(eds::EdsUInt32 parameter);
    void liveViewDriveAFNear1();
    void liveViewSetZoom(eds::EdsUInt32 zoom);
    // Commands waiting on the queue (copies), or nothing when the queue lock
    // could not be had in time.
    std::optional<QList<QVariantMap>> queuedCommands();

    // --- download and live view ---------------------------------------------------------
    eds::EdsError downloadObject(eds::EdsDirectoryItemRef item);
    // One try of the transfer; `step` names the step that failed.
    eds::EdsError downloadOnce(eds::EdsDirectoryItemRef item, eds::EdsUInt32 size, const QString &fileName,
                               const char **step);
    bool cancelDownloadForProgress(eds::EdsUInt32 percent);
    static constexpr eds::EdsUInt32 liveViewStreamSize() { return 0x200000; }
    static int liveViewSupportLevel() { return 0; }
    eds::EdsUInt32 liveViewOutputDevice();
    void liveViewBegin();
    void liveViewEnd();
    void downloadLiveViewImage();
    bool isLiveViewRunning() const { return liveViewRunning_.load(); }

private:
    explicit OKVA_CanonCamera(std::shared_ptr<eds::EdsSdk> sdk);
    void startLiveView();
    void stopLiveView();

    static eds::EdsError stateEventHandler(eds::EdsStateEvent event, eds::EdsUInt32 data, void *context);
    static eds::EdsError propertyEventHandler(eds::EdsPropertyEvent event, eds::EdsPropertyID id,
                                              eds::EdsUInt32 param, void *context);
    static eds::EdsError objectEventHandler(eds::EdsObjectEvent event, eds::EdsBaseRef ref, void *context);
    static eds::EdsError progressHandler(eds::EdsUInt32 percent, void *context, eds::EdsBool *cancel);
    static eds::EdsError cameraAddedHandler(void *context);
    static CameraPtr cameraForContext(void *context);
    // A live camera object for the body other than the one being destroyed
    // (whose weak reference no longer locks): the current camera first.
    static CameraPtr otherObjectForBody(eds::EdsCameraRef cameraRef, const eds::EdsSdk *sdk);
    // Lets a camera go that an SDK callback held, on another thread when it is the last reference.
    static void letGoOffEventThread(CameraPtr camera);

    std::atomic<OKVA_CanonCameraDelegate *> delegate_{nullptr};
    std::shared_ptr<eds::EdsSdk> sdk_;
    eds::EdsCameraRef cameraRef_ = nullptr; // identity; the count is held by cameraHandle_
    eds::EdsCameraHandle cameraHandle_;
    QString modelName_;
    int32_t subType_ = 0;
    NamedLock commandLock_{QStringLiteral("commandLock")};
    NamedLock queueLock_{QStringLiteral("queueLock")};
    // Shots are downloaded here, one at a time and in the order the body asked,
    // off the SDK's event thread; the photo-data notification is posted here.
    dispatch::QueuePtr downloadQueue_ = dispatch::makeSerialQueue("com.lumetra.brix.camera.download");
    NamedLock liveViewLock_{QStringLiteral("liveViewLock")};
    mutable std::mutex cacheMutex_;
    QMap<QString, QVariantMap> supportedValues_;
    QList<QVariantMap> commandQueue_;  // guarded by queueLock_
    std::vector<char> liveViewBuffer_; // used only under liveViewLock_
    std::atomic<bool> loaded_{false};
    std::atomic<bool> liveViewRunning_{false};
    std::atomic<bool> ownsStateHandler_{false};

    friend struct CameraClassState;
};

} // namespace brix

Q_DECLARE_METATYPE(brix::CameraPtr)
Q_DECLARE_METATYPE(brix::OKVA_CanonCameraClass)
