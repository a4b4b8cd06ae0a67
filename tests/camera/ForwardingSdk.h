// An SDK that passes every call to another one (the simulator). Tests and the
// benchmark derive from it to watch a call on its way (record what a download
// wrote, time an event) while the real simulated camera does the work.
//
// Threads: as the inner SDK. Ownership: shares the inner SDK.
#pragma once

#include "EdsSdk.h"

#include <memory>

namespace brix::eds {

class ForwardingSdk : public EdsSdk {
public:
    explicit ForwardingSdk(std::shared_ptr<EdsSdk> inner) : inner_(std::move(inner)) {}
    EdsSdk &inner() const { return *inner_; }

    const char *backendName() const override { return inner_->backendName(); }
    const char *libraryPath() const override { return inner_->libraryPath(); }
    EdsError EdsInitializeSDK() override { return inner_->EdsInitializeSDK(); }
    EdsError EdsTerminateSDK() override { return inner_->EdsTerminateSDK(); }
    EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler inCameraAddedHandler,
                                      EdsVoid *inContext) override {
        return inner_->EdsSetCameraAddedHandler(inCameraAddedHandler, inContext);
    }
    EdsError EdsGetCameraList(EdsCameraListRef *outCameraListRef) override {
        return inner_->EdsGetCameraList(outCameraListRef);
    }
    EdsError EdsGetChildCount(EdsBaseRef inRef, EdsUInt32 *outCount) override {
        return inner_->EdsGetChildCount(inRef, outCount);
    }
    EdsError EdsGetChildAtIndex(EdsBaseRef inRef, EdsInt32 inIndex, EdsBaseRef *outRef) override {
        return inner_->EdsGetChildAtIndex(inRef, inIndex, outRef);
    }
    EdsError EdsGetDeviceInfo(EdsCameraRef inCameraRef, EdsDeviceInfo *outDeviceInfo) override {
        return inner_->EdsGetDeviceInfo(inCameraRef, outDeviceInfo);
    }
    EdsUInt32 EdsRetain(EdsBaseRef inRef) override { return inner_->EdsRetain(inRef); }
    EdsUInt32 EdsRelease(EdsBaseRef inRef) override { return inner_->EdsRelease(inRef); }
    EdsError EdsOpenSession(EdsCameraRef inCameraRef) override { return inner_->EdsOpenSession(inCameraRef); }
    EdsError EdsCloseSession(EdsCameraRef inCameraRef) override {
        return inner_->EdsCloseSession(inCameraRef);
    }
    EdsError EdsSetCameraStateEventHandler(EdsCameraRef inCameraRef, EdsStateEvent inEvent,
                                           EdsStateEventHandler inStateEventHandler,
                                           EdsVoid *inContext) override {
        return inner_->EdsSetCameraStateEventHandler(inCameraRef, inEvent, inStateEventHandler, inContext);
    }
    EdsError EdsSetPropertyEventHandler(EdsCameraRef inCameraRef, EdsPropertyEvent inEvent,
                                        EdsPropertyEventHandler inPropertyEventHandler,
                                        EdsVoid *inContext) override {
        return inner_->EdsSetPropertyEventHandler(inCameraRef, inEvent, inPropertyEventHandler, inContext);
    }
    EdsError EdsSetObjectEventHandler(EdsCameraRef inCameraRef, EdsObjectEvent inEvent,
                                      EdsObjectEventHandler inObjectEventHandler,
                                      EdsVoid *inContext) override {
        return inner_->EdsSetObjectEventHandler(inCameraRef, inEvent, inObjectEventHandler, inContext);
    }
    EdsError EdsGetPropertySize(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsDataType *outDataType, EdsUInt32 *outSize) override {
        return inner_->EdsGetPropertySize(inRef, inPropertyID, inParam, outDataType, outSize);
    }
    EdsError EdsGetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsUInt32 inPropertySize, EdsVoid *outPropertyData) override {
        return inner_->EdsGetPropertyData(inRef, inPropertyID, inParam, inPropertySize, outPropertyData);
    }
    EdsError EdsSetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                EdsUInt32 inPropertySize, const EdsVoid *inPropertyData) override {
        return inner_->EdsSetPropertyData(inRef, inPropertyID, inParam, inPropertySize, inPropertyData);
    }
    EdsError EdsGetPropertyDesc(EdsBaseRef inRef, EdsPropertyID inPropertyID,
                                EdsPropertyDesc *outPropertyDesc) override {
        return inner_->EdsGetPropertyDesc(inRef, inPropertyID, outPropertyDesc);
    }
    EdsError EdsSendCommand(EdsCameraRef inCameraRef, EdsCameraCommand inCommand, EdsInt32 inParam) override {
        return inner_->EdsSendCommand(inCameraRef, inCommand, inParam);
    }
    EdsError EdsSendStatusCommand(EdsCameraRef inCameraRef, EdsCameraStatusCommand inStatusCommand,
                                  EdsInt32 inParam) override {
        return inner_->EdsSendStatusCommand(inCameraRef, inStatusCommand, inParam);
    }
    EdsError EdsSetCapacity(EdsCameraRef inCameraRef, EdsCapacity inCapacity) override {
        return inner_->EdsSetCapacity(inCameraRef, inCapacity);
    }
    EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef inDirItemRef,
                                     EdsDirectoryItemInfo *outDirItemInfo) override {
        return inner_->EdsGetDirectoryItemInfo(inDirItemRef, outDirItemInfo);
    }
    EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *inUserBuffer, EdsUInt64 inBufferSize,
                                              EdsStreamRef *outStream) override {
        return inner_->EdsCreateMemoryStreamFromPointer(inUserBuffer, inBufferSize, outStream);
    }
    EdsError EdsSetProgressCallback(EdsBaseRef inRef, EdsProgressCallback inProgressFunc,
                                    EdsProgressOption inProgressOption, EdsVoid *inContext) override {
        return inner_->EdsSetProgressCallback(inRef, inProgressFunc, inProgressOption, inContext);
    }
    EdsError EdsDownload(EdsDirectoryItemRef inDirItemRef, EdsUInt64 inReadSize,
                         EdsStreamRef outStream) override {
        return inner_->EdsDownload(inDirItemRef, inReadSize, outStream);
    }
    EdsError EdsDownloadComplete(EdsDirectoryItemRef inDirItemRef) override {
        return inner_->EdsDownloadComplete(inDirItemRef);
    }
    EdsError EdsCreateEvfImageRef(EdsStreamRef inStreamRef, EdsEvfImageRef *outEvfImageRef) override {
        return inner_->EdsCreateEvfImageRef(inStreamRef, outEvfImageRef);
    }
    EdsError EdsDownloadEvfImage(EdsCameraRef inCameraRef, EdsEvfImageRef inEvfImageRef) override {
        return inner_->EdsDownloadEvfImage(inCameraRef, inEvfImageRef);
    }

protected:
    std::shared_ptr<EdsSdk> inner_;
};

} // namespace brix::eds
