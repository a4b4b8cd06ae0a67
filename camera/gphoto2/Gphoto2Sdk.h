// The camera boundary on libgphoto2: real Canon EOS bodies over USB, mapped
// onto the boundary's numbers, references and events.
//
// Threads: every operation may be called from any thread. Each camera has one
// serial "device" queue that makes every libgphoto2 call for that camera and
// runs its event loop (gp_camera_wait_for_event, one pass per timer tick);
// calls from other threads are marshalled onto it. State, property and object events are handed, in order,
// to the camera's serial "events" queue, where the handlers run; a handler may
// call back into the boundary (the call then waits for the device queue,
// never the other way round, so a handler that waits for the main thread while
// the main thread waits for the camera cannot dead-lock). The camera-added
// handler runs on the "hotplug" queue (udev monitor, or autodetect polling on
// the dispatch clock when udev is absent). The download progress callback runs
// on the thread that called EdsDownload.
// Ownership: references handed out start with a count of one, owned by the
// caller (see EdsSdk.h). The backend keeps one reference to each camera it has
// seen on the bus until the camera leaves it, so a camera that stays attached
// keeps its reference across list updates.
#pragma once

#include "Dispatch.h"
#include "EdsSdk.h"
#include "Gphoto2Port.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>

namespace brix::gphoto2 {

// Preference key: may the station unmount the desktop's gphoto2:// mount of a
// camera that the desktop holds (boolean; absent = no).
inline constexpr const char *kPrefReleaseCameraFromDesktop = "prefReleaseCameraFromDesktop";
// Posted (object none) on the main thread when a camera cannot be opened because
// another program holds it; user info "message" = the text for the operator,
// "port" = the camera's port.
inline constexpr const char *kCameraInUseNotification = "BrixGphoto2CameraInUse";

// Where the decision to release a desktop mount comes from: this policy when one
// is installed, else the preference kPrefReleaseCameraFromDesktop in the user's
// store (absent = no: the operator is told what to do instead).
void setDesktopMountReleasePolicy(std::function<bool()> policy);

struct Gphoto2Options {
    enum class Hotplug { Auto, Udev, Polling, Off };
    Hotplug hotplug = Hotplug::Auto;
    // Autodetect period when polling for new cameras.
    double pollSeconds = 2.0;
    // Time between two passes of a camera's event loop (on the dispatch clock):
    // eventWaitMs after a pass that found events, doubling with each quiet pass
    // up to eventWaitMaxMs (as libgphoto2's own wait backs off from 50 to
    // 200 ms). Every pass also keeps an EOS body awake.
    int eventWaitMs = 50;
    int eventWaitMaxMs = 200;
    // Claimed device: how often and how far apart to retry after releasing a mount.
    int claimRetries = 3;
    std::chrono::milliseconds claimRetryDelay{700};
    // Null = the process-wide policy (setDesktopMountReleasePolicy).
    std::function<bool()> mayReleaseDesktopMount;
    // Runs "gio" with the arguments (never through a shell); returns the exit
    // status (-1 when it could not run) and the standard output. Null = QProcess.
    std::function<int(const QStringList &arguments, QString *output)> runGio;
    QString procRoot = QStringLiteral("/proc");
    // Where USB devices are described (vendor IDs of generic PTP cameras).
    QString sysUsbRoot = QStringLiteral("/sys/bus/usb/devices");
    // Download chunk: one progress report and one cancel check per chunk.
    uint64_t downloadChunk = 1024 * 1024;
};

// Maps a libgphoto2 result onto the boundary's error code.
eds::EdsError edsErrorFor(int gphoto2Result);

class Gphoto2Sdk final : public eds::EdsSdk {
public:
    Gphoto2Sdk(std::shared_ptr<Gphoto2Port> port, Gphoto2Options options = {});
    ~Gphoto2Sdk() override;

    const char *backendName() const override { return "gphoto2"; }
    // The libgphoto2 library the backend runs on.
    const char *libraryPath() const override;

    eds::EdsError EdsInitializeSDK() override;
    eds::EdsError EdsTerminateSDK() override;
    eds::EdsError EdsSetCameraAddedHandler(eds::EdsCameraAddedHandler inCameraAddedHandler,
                                           eds::EdsVoid *inContext) override;
    eds::EdsError EdsGetCameraList(eds::EdsCameraListRef *outCameraListRef) override;
    eds::EdsError EdsGetChildCount(eds::EdsBaseRef inRef, eds::EdsUInt32 *outCount) override;
    eds::EdsError EdsGetChildAtIndex(eds::EdsBaseRef inRef, eds::EdsInt32 inIndex,
                                     eds::EdsBaseRef *outRef) override;
    eds::EdsError EdsGetDeviceInfo(eds::EdsCameraRef inCameraRef, eds::EdsDeviceInfo *outDeviceInfo) override;
    eds::EdsUInt32 EdsRetain(eds::EdsBaseRef inRef) override;
    eds::EdsUInt32 EdsRelease(eds::EdsBaseRef inRef) override;
    eds::EdsError EdsOpenSession(eds::EdsCameraRef inCameraRef) override;
    eds::EdsError EdsCloseSession(eds::EdsCameraRef inCameraRef) override;
    eds::EdsError EdsSetCameraStateEventHandler(eds::EdsCameraRef inCameraRef, eds::EdsStateEvent inEvent,
                                                eds::EdsStateEventHandler inStateEventHandler,
                                                eds::EdsVoid *inContext) override;
    eds::EdsError EdsSetPropertyEventHandler(eds::EdsCameraRef inCameraRef, eds::EdsPropertyEvent inEvent,
                                             eds::EdsPropertyEventHandler inPropertyEventHandler,
                                             eds::EdsVoid *inContext) override;
    eds::EdsError EdsSetObjectEventHandler(eds::EdsCameraRef inCameraRef, eds::EdsObjectEvent inEvent,
                                           eds::EdsObjectEventHandler inObjectEventHandler,
                                           eds::EdsVoid *inContext) override;
    eds::EdsError EdsGetPropertySize(eds::EdsBaseRef inRef, eds::EdsPropertyID inPropertyID,
                                     eds::EdsInt32 inParam, eds::EdsDataType *outDataType,
                                     eds::EdsUInt32 *outSize) override;
    eds::EdsError EdsGetPropertyData(eds::EdsBaseRef inRef, eds::EdsPropertyID inPropertyID,
                                     eds::EdsInt32 inParam, eds::EdsUInt32 inPropertySize,
                                     eds::EdsVoid *outPropertyData) override;
    eds::EdsError EdsSetPropertyData(eds::EdsBaseRef inRef, eds::EdsPropertyID inPropertyID,
                                     eds::EdsInt32 inParam, eds::EdsUInt32 inPropertySize,
                                     const eds::EdsVoid *inPropertyData) override;
    eds::EdsError EdsGetPropertyDesc(eds::EdsBaseRef inRef, eds::EdsPropertyID inPropertyID,
                                     eds::EdsPropertyDesc *outPropertyDesc) override;
    eds::EdsError EdsSendCommand(eds::EdsCameraRef inCameraRef, eds::EdsCameraCommand inCommand,
                                 eds::EdsInt32 inParam) override;
    eds::EdsError EdsSendStatusCommand(eds::EdsCameraRef inCameraRef,
                                       eds::EdsCameraStatusCommand inStatusCommand,
                                       eds::EdsInt32 inParam) override;
    eds::EdsError EdsSetCapacity(eds::EdsCameraRef inCameraRef, eds::EdsCapacity inCapacity) override;
    eds::EdsError EdsGetDirectoryItemInfo(eds::EdsDirectoryItemRef inDirItemRef,
                                          eds::EdsDirectoryItemInfo *outDirItemInfo) override;
    eds::EdsError EdsCreateMemoryStreamFromPointer(eds::EdsVoid *inUserBuffer, eds::EdsUInt64 inBufferSize,
                                                   eds::EdsStreamRef *outStream) override;
    eds::EdsError EdsSetProgressCallback(eds::EdsBaseRef inRef, eds::EdsProgressCallback inProgressFunc,
                                         eds::EdsProgressOption inProgressOption,
                                         eds::EdsVoid *inContext) override;
    eds::EdsError EdsDownload(eds::EdsDirectoryItemRef inDirItemRef, eds::EdsUInt64 inReadSize,
                              eds::EdsStreamRef outStream) override;
    eds::EdsError EdsDownloadComplete(eds::EdsDirectoryItemRef inDirItemRef) override;
    eds::EdsError EdsCreateEvfImageRef(eds::EdsStreamRef inStreamRef,
                                       eds::EdsEvfImageRef *outEvfImageRef) override;
    eds::EdsError EdsDownloadEvfImage(eds::EdsCameraRef inCameraRef,
                                      eds::EdsEvfImageRef inEvfImageRef) override;

    // Bytes a memory stream has been written so far (tests, diagnostics);
    // 0xFFFFFFFFFFFFFFFF for anything that is not a stream.
    eds::EdsUInt64 streamPosition(eds::EdsStreamRef stream);

    // References the host holds now: every count on a handed-out object, less
    // the backend's own hold on each attached camera (tests, diagnostics).
    long callerReferences();

    // The queue that runs hotplug detection and the camera-added handler
    // (tests wait for it; diagnostics).
    dispatch::QueuePtr hotplugQueue() const;

    struct Impl;

private:
    std::unique_ptr<Impl> d;
};

} // namespace brix::gphoto2
