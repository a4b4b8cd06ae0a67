// The simulated Canon EOS camera behind the SDK interface: a bus that bodies
// are plugged into and unplugged from, sessions, the properties the station
// reads and writes with their SDK data types and AE-mode dependent supported
// values, commands with the body's refusals, shots rendered as real files,
// downloads with progress, live-view frames, and error injection.
//
// Threads: every operation may be called from any thread; one mutex guards the
// state and no callback is ever called while it is held. Camera-added, state,
// property and object events are delivered on the serial queue
// kSimulatorEventQueueLabel; the progress callback runs on the thread that
// called EdsDownload.
// Ownership: references are counted. Out-arguments carry one count for the
// caller. A reference passed to an object-event handler is lent for the call:
// the handler retains it to keep it. Bodies on the bus and shots not yet
// downloaded are held by the simulator itself.
#pragma once

#include "Dispatch.h"
#include "EdsSdk.h"
#include "SimulatorControl.h"

#include <QByteArray>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

namespace brix::eds::sim {

class SimulatorSdk final : public EdsSdk, public SimulatorControl {
public:
    // `cameras` bodies of `model` are attached from the start.
    SimulatorSdk(int cameras, std::string model);
    ~SimulatorSdk() override;

    const char *backendName() const override { return "simulator"; }

    EdsError EdsInitializeSDK() override;
    EdsError EdsTerminateSDK() override;
    EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler handler, EdsVoid *context) override;
    EdsError EdsGetCameraList(EdsCameraListRef *outCameraListRef) override;
    EdsError EdsGetChildCount(EdsBaseRef inRef, EdsUInt32 *outCount) override;
    EdsError EdsGetChildAtIndex(EdsBaseRef inRef, EdsInt32 inIndex, EdsBaseRef *outRef) override;
    EdsError EdsGetDeviceInfo(EdsCameraRef inCameraRef, EdsDeviceInfo *outDeviceInfo) override;
    EdsUInt32 EdsRetain(EdsBaseRef inRef) override;
    EdsUInt32 EdsRelease(EdsBaseRef inRef) override;
    EdsError EdsOpenSession(EdsCameraRef inCameraRef) override;
    EdsError EdsCloseSession(EdsCameraRef inCameraRef) override;
    EdsError EdsSetCameraStateEventHandler(EdsCameraRef inCameraRef, EdsStateEvent inEvent,
                                           EdsStateEventHandler inHandler, EdsVoid *inContext) override;
    EdsError EdsSetPropertyEventHandler(EdsCameraRef inCameraRef, EdsPropertyEvent inEvent,
                                        EdsPropertyEventHandler inHandler, EdsVoid *inContext) override;
    EdsError EdsSetObjectEventHandler(EdsCameraRef inCameraRef, EdsObjectEvent inEvent,
                                      EdsObjectEventHandler inHandler, EdsVoid *inContext) override;
    EdsError EdsGetPropertySize(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsDataType *outDataType, EdsUInt32 *outSize) override;
    EdsError EdsGetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsUInt32 inPropertySize, EdsVoid *outPropertyData) override;
    EdsError EdsSetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsUInt32 inPropertySize, const EdsVoid *inPropertyData) override;
    EdsError EdsGetPropertyDesc(EdsBaseRef inRef, EdsPropertyID inPropertyID,
                                EdsPropertyDesc *outPropertyDesc) override;
    EdsError EdsSendCommand(EdsCameraRef inCameraRef, EdsCameraCommand inCommand, EdsInt32 inParam) override;
    EdsError EdsSendStatusCommand(EdsCameraRef inCameraRef, EdsCameraStatusCommand inStatusCommand,
                                  EdsInt32 inParam) override;
    EdsError EdsSetCapacity(EdsCameraRef inCameraRef, EdsCapacity inCapacity) override;
    EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef inDirItemRef,
                                     EdsDirectoryItemInfo *outDirItemInfo) override;
    EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *inUserBuffer, EdsUInt64 inBufferSize,
                                              EdsStreamRef *outStream) override;
    EdsError EdsSetProgressCallback(EdsBaseRef inRef, EdsProgressCallback inProgressFunc,
                                    EdsProgressOption inProgressOption, EdsVoid *inContext) override;
    EdsError EdsDownload(EdsDirectoryItemRef inDirItemRef, EdsUInt64 inReadSize,
                         EdsStreamRef outStream) override;
    EdsError EdsDownloadComplete(EdsDirectoryItemRef inDirItemRef) override;
    EdsError EdsCreateEvfImageRef(EdsStreamRef inStreamRef, EdsEvfImageRef *outEvfImageRef) override;
    EdsError EdsDownloadEvfImage(EdsCameraRef inCameraRef, EdsEvfImageRef inEvfImageRef) override;

    // SimulatorControl
    int plug(const std::string &model, int subtype) override;
    bool unplug() override;
    int attachedCount() const override;
    bool pressShutter() override;
    EdsError setProperty(EdsPropertyID propertyID, EdsUInt32 value) override;
    EdsError setStringProperty(EdsPropertyID propertyID, const std::string &value) override;
    EdsError setSupportedValues(EdsPropertyID propertyID, const std::vector<EdsInt32> &values) override;
    QVariant property(EdsPropertyID propertyID) const override;
    bool injectError(const std::string &operation, EdsError code, unsigned count) override;
    bool setShotFormat(const std::string &extension, uint64_t bytes) override;
    void setLiveViewRate(double framesPerSecond) override;
    void setStampedShots(bool on) override;
    void setTransferRate(double bytesPerSecond) override;
    ShotBuffer shotBuffer() const override;
    unsigned shotCount() const override;
    long callerReferenceCount() const override;
    long liveObjectCount() const override;

    struct Object;
    struct Camera;
    struct CameraList;
    struct DirItem;
    struct Stream;
    struct EvfImage;

private:
    struct Injection {
        EdsError code = 0;
        unsigned count = 0;
    };
    using Lock = std::unique_lock<std::mutex>;

    // All below with mutex_ held.
    template <typename T> T *find(EdsBaseRef ref) const;
    void addObject(Object *object, bool internal);
    EdsUInt32 retainLocked(Object *object, bool internal);
    EdsUInt32 releaseLocked(Object *object, bool internal);
    EdsError takeInjection(const char *operation, const char *alias = nullptr);
    EdsError checkCamera(Camera *camera, bool needSession, bool needUiLock) const;
    Camera *activeCameraLocked() const;
    void post(std::function<void()> task);
    void postPropertyEvent(Camera *camera, EdsPropertyEvent event, EdsPropertyID propertyID);
    void postStateEvent(Camera *camera, EdsStateEvent event, EdsUInt32 data);
    EdsError changeValueLocked(Camera *camera, EdsPropertyID propertyID, EdsUInt32 value, bool fromBody);
    EdsError changeStringLocked(Camera *camera, EdsPropertyID propertyID, const std::string &value);
    std::vector<EdsInt32> descriptionLocked(const Camera *camera, EdsPropertyID propertyID) const;
    void shootLocked(Camera *camera);
    // Bulb exposures; the end reports the exposure time (0x310) and takes the shot.
    void startBulb(Camera *camera);
    void endBulb(Camera *camera);
    void detachLocked(Camera *camera);

    // Event thread: renders a shot and offers it to the object handler.
    void deliverShot(Camera *camera, unsigned shotNumber, unsigned fileNumber, std::string extension,
                     uint64_t bytes, std::string model, int64_t clockOffsetMs);

    mutable std::mutex mutex_;
    dispatch::QueuePtr events_;
    bool closing_ = false;
    bool initialized_ = false;
    EdsCameraAddedHandler addedHandler_ = nullptr;
    EdsVoid *addedContext_ = nullptr;

    std::unordered_set<const Object *> objects_;
    long totalRefs_ = 0;
    long internalRefs_ = 0;
    std::vector<Camera *> attached_; // each holds one internal count
    std::string defaultModel_;
    unsigned nextPort_ = 1;
    // The last file number of each model: a body keeps numbering its shots
    // across unplugging, as its card does.
    std::map<std::string, unsigned> fileCounters_;

    std::map<std::string, Injection> injections_;
    std::string shotExtension_ = "JPG";
    uint64_t shotBytes_ = 0;
    double evfRate_ = 10.0;
    bool stampedShots_ = false;
    double transferRate_ = 0; // bytes a second; 0 = unpaced
    // The picture stamped shots are copies of, and what it was drawn for.
    struct ShotPicture {
        std::string extension, model;
        uint64_t bytes = 0;
        QByteArray data;
        qsizetype stampAt = -1;
    };
    ShotPicture picture_;
    unsigned shots_ = 0;
};

} // namespace brix::eds::sim
