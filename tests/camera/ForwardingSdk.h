// An SDK that passes every call to another one (the simulator). Tests and the
// benchmark derive from it to watch a call on its way (record what a download
// wrote, time an event) while the real simulated camera does the work.
//
// Threads: as the inner SDK. Ownership: shares the inner SDK.
#pragma once

#include "EdsSdk.h"

#include <memory>

namespace brix::eds {

// One override that passes the call on unchanged.
#define BRIX_FORWARD(ret, name, params, args)                                                                \
    ret name params override {                                                                               \
        return inner_->name args;                                                                            \
    }

class ForwardingSdk : public EdsSdk {
public:
    explicit ForwardingSdk(std::shared_ptr<EdsSdk> inner) : inner_(std::move(inner)) {}
    EdsSdk &inner() const { return *inner_; }

    const char *backendName() const override { return inner_->backendName(); }
    const char *libraryPath() const override { return inner_->libraryPath(); }
    BRIX_FORWARD(EdsError, EdsInitializeSDK, (), ())
    BRIX_FORWARD(EdsError, EdsTerminateSDK, (), ())
    BRIX_FORWARD(EdsError, EdsSetCameraAddedHandler, (EdsCameraAddedHandler handler, EdsVoid *context),
                 (handler, context))
    BRIX_FORWARD(EdsError, EdsGetCameraList, (EdsCameraListRef * out), (out))
    BRIX_FORWARD(EdsError, EdsGetChildCount, (EdsBaseRef ref, EdsUInt32 *out), (ref, out))
    BRIX_FORWARD(EdsError, EdsGetChildAtIndex, (EdsBaseRef ref, EdsInt32 index, EdsBaseRef *out),
                 (ref, index, out))
    BRIX_FORWARD(EdsError, EdsGetDeviceInfo, (EdsCameraRef camera, EdsDeviceInfo *out), (camera, out))
    BRIX_FORWARD(EdsUInt32, EdsRetain, (EdsBaseRef ref), (ref))
    BRIX_FORWARD(EdsUInt32, EdsRelease, (EdsBaseRef ref), (ref))
    BRIX_FORWARD(EdsError, EdsOpenSession, (EdsCameraRef camera), (camera))
    BRIX_FORWARD(EdsError, EdsCloseSession, (EdsCameraRef camera), (camera))
    BRIX_FORWARD(EdsError, EdsSetCameraStateEventHandler,
                 (EdsCameraRef camera, EdsStateEvent event, EdsStateEventHandler handler, EdsVoid *context),
                 (camera, event, handler, context))
    BRIX_FORWARD(EdsError, EdsSetPropertyEventHandler,
                 (EdsCameraRef camera, EdsPropertyEvent event, EdsPropertyEventHandler handler,
                  EdsVoid *context),
                 (camera, event, handler, context))
    BRIX_FORWARD(EdsError, EdsSetObjectEventHandler,
                 (EdsCameraRef camera, EdsObjectEvent event, EdsObjectEventHandler handler, EdsVoid *context),
                 (camera, event, handler, context))
    BRIX_FORWARD(EdsError, EdsGetPropertySize,
                 (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsDataType *type, EdsUInt32 *size),
                 (ref, id, param, type, size))
    BRIX_FORWARD(EdsError, EdsGetPropertyData,
                 (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size, EdsVoid *data),
                 (ref, id, param, size, data))
    BRIX_FORWARD(EdsError, EdsSetPropertyData,
                 (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size, const EdsVoid *data),
                 (ref, id, param, size, data))
    BRIX_FORWARD(EdsError, EdsGetPropertyDesc, (EdsBaseRef ref, EdsPropertyID id, EdsPropertyDesc *desc),
                 (ref, id, desc))
    BRIX_FORWARD(EdsError, EdsSendCommand, (EdsCameraRef camera, EdsCameraCommand command, EdsInt32 param),
                 (camera, command, param))
    BRIX_FORWARD(EdsError, EdsSendStatusCommand,
                 (EdsCameraRef camera, EdsCameraStatusCommand command, EdsInt32 param),
                 (camera, command, param))
    BRIX_FORWARD(EdsError, EdsSetCapacity, (EdsCameraRef camera, EdsCapacity capacity), (camera, capacity))
    BRIX_FORWARD(EdsError, EdsGetDirectoryItemInfo, (EdsDirectoryItemRef item, EdsDirectoryItemInfo *info),
                 (item, info))
    BRIX_FORWARD(EdsError, EdsCreateMemoryStreamFromPointer,
                 (EdsVoid * buffer, EdsUInt64 size, EdsStreamRef *out), (buffer, size, out))
    BRIX_FORWARD(EdsError, EdsSetProgressCallback,
                 (EdsBaseRef ref, EdsProgressCallback callback, EdsProgressOption option, EdsVoid *context),
                 (ref, callback, option, context))
    BRIX_FORWARD(EdsError, EdsDownload, (EdsDirectoryItemRef item, EdsUInt64 size, EdsStreamRef stream),
                 (item, size, stream))
    BRIX_FORWARD(EdsError, EdsDownloadComplete, (EdsDirectoryItemRef item), (item))
    BRIX_FORWARD(EdsError, EdsCreateEvfImageRef, (EdsStreamRef stream, EdsEvfImageRef *out), (stream, out))
    BRIX_FORWARD(EdsError, EdsDownloadEvfImage, (EdsCameraRef camera, EdsEvfImageRef image), (camera, image))

protected:
    std::shared_ptr<EdsSdk> inner_;
};

#undef BRIX_FORWARD

} // namespace brix::eds
