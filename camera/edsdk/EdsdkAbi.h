// The C interface of Canon's libEDSDK.so as this program calls it, written
// from the records and operations the camera code uses: C linkage, opaque
// counted references, 32-bit error results, records with the library's LP64
// layout. Nothing in the station links against these names; the loader
// (EdsdkLibrary) resolves each one with dlsym into an EdsdkFunctions table.
// The declarations also let a test library that exports the same functions
// be checked against them by the compiler.
//
// Threads and ownership: as the library defines them; see EdsdkSdk.h for how
// the station serialises its calls.
#pragma once

#include "EdsSdk.h"

#include <cstddef>

extern "C" {

using brix::eds::EdsBaseRef;
using brix::eds::EdsCameraAddedHandler;
using brix::eds::EdsCameraCommand;
using brix::eds::EdsCameraListRef;
using brix::eds::EdsCameraRef;
using brix::eds::EdsCameraStatusCommand;
using brix::eds::EdsCapacity;
using brix::eds::EdsDataType;
using brix::eds::EdsDeviceInfo;
using brix::eds::EdsDirectoryItemInfo;
using brix::eds::EdsDirectoryItemRef;
using brix::eds::EdsError;
using brix::eds::EdsEvfImageRef;
using brix::eds::EdsInt32;
using brix::eds::EdsObjectEvent;
using brix::eds::EdsObjectEventHandler;
using brix::eds::EdsProgressCallback;
using brix::eds::EdsProgressOption;
using brix::eds::EdsPropertyDesc;
using brix::eds::EdsPropertyEvent;
using brix::eds::EdsPropertyEventHandler;
using brix::eds::EdsPropertyID;
using brix::eds::EdsStateEvent;
using brix::eds::EdsStateEventHandler;
using brix::eds::EdsStreamRef;
using brix::eds::EdsUInt32;
using brix::eds::EdsUInt64;
using brix::eds::EdsVoid;

EdsError EdsInitializeSDK(void);
EdsError EdsTerminateSDK(void);
EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler inCameraAddedHandler, EdsVoid *inContext);
EdsError EdsGetCameraList(EdsCameraListRef *outCameraListRef);
EdsError EdsGetChildCount(EdsBaseRef inRef, EdsUInt32 *outCount);
EdsError EdsGetChildAtIndex(EdsBaseRef inRef, EdsInt32 inIndex, EdsBaseRef *outRef);
EdsError EdsGetDeviceInfo(EdsCameraRef inCameraRef, EdsDeviceInfo *outDeviceInfo);
EdsUInt32 EdsRetain(EdsBaseRef inRef);
EdsUInt32 EdsRelease(EdsBaseRef inRef);
EdsError EdsOpenSession(EdsCameraRef inCameraRef);
EdsError EdsCloseSession(EdsCameraRef inCameraRef);
EdsError EdsSetCameraStateEventHandler(EdsCameraRef inCameraRef, EdsStateEvent inEvent,
                                       EdsStateEventHandler inStateEventHandler, EdsVoid *inContext);
EdsError EdsSetPropertyEventHandler(EdsCameraRef inCameraRef, EdsPropertyEvent inEvent,
                                    EdsPropertyEventHandler inPropertyEventHandler, EdsVoid *inContext);
EdsError EdsSetObjectEventHandler(EdsCameraRef inCameraRef, EdsObjectEvent inEvent,
                                  EdsObjectEventHandler inObjectEventHandler, EdsVoid *inContext);
EdsError EdsGetPropertySize(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                            EdsDataType *outDataType, EdsUInt32 *outSize);
EdsError EdsGetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                            EdsUInt32 inPropertySize, EdsVoid *outPropertyData);
EdsError EdsSetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                            EdsUInt32 inPropertySize, const EdsVoid *inPropertyData);
EdsError EdsGetPropertyDesc(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsPropertyDesc *outPropertyDesc);
EdsError EdsSendCommand(EdsCameraRef inCameraRef, EdsCameraCommand inCommand, EdsInt32 inParam);
EdsError EdsSendStatusCommand(EdsCameraRef inCameraRef, EdsCameraStatusCommand inStatusCommand,
                              EdsInt32 inParam);
// The capacity record travels by value (12 bytes: two integer registers on x86_64).
EdsError EdsSetCapacity(EdsCameraRef inCameraRef, EdsCapacity inCapacity);
EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef inDirItemRef, EdsDirectoryItemInfo *outDirItemInfo);
EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *inUserBuffer, EdsUInt64 inBufferSize,
                                          EdsStreamRef *outStream);
EdsError EdsSetProgressCallback(EdsBaseRef inRef, EdsProgressCallback inProgressFunc,
                                EdsProgressOption inProgressOption, EdsVoid *inContext);
EdsError EdsDownload(EdsDirectoryItemRef inDirItemRef, EdsUInt64 inReadSize, EdsStreamRef outStream);
EdsError EdsDownloadComplete(EdsDirectoryItemRef inDirItemRef);
EdsError EdsCreateEvfImageRef(EdsStreamRef inStreamRef, EdsEvfImageRef *outEvfImageRef);
EdsError EdsDownloadEvfImage(EdsCameraRef inCameraRef, EdsEvfImageRef inEvfImageRef);
// Delivers the events the library has queued, calling the registered
// handlers on the calling thread. Without a message loop this is the only way
// events arrive.
EdsError EdsGetEvent(void);

} // extern "C"

namespace brix::eds {

// Every function the station resolves, in one list: the table's members and
// the loader's dlsym loop both expand it.
#define BRIX_EDSDK_FUNCTIONS(X)                                                                              \
    X(EdsInitializeSDK)                                                                                      \
    X(EdsTerminateSDK)                                                                                       \
    X(EdsSetCameraAddedHandler)                                                                              \
    X(EdsGetCameraList)                                                                                      \
    X(EdsGetChildCount)                                                                                      \
    X(EdsGetChildAtIndex)                                                                                    \
    X(EdsGetDeviceInfo)                                                                                      \
    X(EdsRetain)                                                                                             \
    X(EdsRelease)                                                                                            \
    X(EdsOpenSession)                                                                                        \
    X(EdsCloseSession)                                                                                       \
    X(EdsSetCameraStateEventHandler)                                                                         \
    X(EdsSetPropertyEventHandler)                                                                            \
    X(EdsSetObjectEventHandler)                                                                              \
    X(EdsGetPropertySize)                                                                                    \
    X(EdsGetPropertyData)                                                                                    \
    X(EdsSetPropertyData)                                                                                    \
    X(EdsGetPropertyDesc)                                                                                    \
    X(EdsSendCommand)                                                                                        \
    X(EdsSendStatusCommand)                                                                                  \
    X(EdsSetCapacity)                                                                                        \
    X(EdsGetDirectoryItemInfo)                                                                               \
    X(EdsCreateMemoryStreamFromPointer)                                                                      \
    X(EdsSetProgressCallback)                                                                                \
    X(EdsDownload)                                                                                           \
    X(EdsDownloadComplete)                                                                                   \
    X(EdsCreateEvfImageRef)                                                                                  \
    X(EdsDownloadEvfImage)                                                                                   \
    X(EdsGetEvent)

// The resolved entry points of one loaded library. Each member has exactly the
// type of the declaration above, so a mismatch is a compile error.
struct EdsdkFunctions {
#define BRIX_EDSDK_MEMBER(name) decltype(&::name) name = nullptr;
    BRIX_EDSDK_FUNCTIONS(BRIX_EDSDK_MEMBER)
#undef BRIX_EDSDK_MEMBER
};

// The records as the library lays them out on LP64: sizes and every offset.
static_assert(sizeof(void *) == 8, "the library exists for LP64 targets only");
static_assert(sizeof(EdsError) == 4 && sizeof(EdsBool) == 4 && sizeof(EdsDataType) == 4);

static_assert(sizeof(EdsDeviceInfo) == 520);
static_assert(offsetof(EdsDeviceInfo, szPortName) == 0);
static_assert(offsetof(EdsDeviceInfo, szDeviceDescription) == 256);
static_assert(offsetof(EdsDeviceInfo, deviceSubType) == 512);
static_assert(offsetof(EdsDeviceInfo, reserved) == 516);

static_assert(sizeof(EdsDirectoryItemInfo) == 288);
static_assert(alignof(EdsDirectoryItemInfo) == 8);
static_assert(offsetof(EdsDirectoryItemInfo, size) == 0);
static_assert(offsetof(EdsDirectoryItemInfo, isFolder) == 8);
static_assert(offsetof(EdsDirectoryItemInfo, groupID) == 12);
static_assert(offsetof(EdsDirectoryItemInfo, option) == 16);
static_assert(offsetof(EdsDirectoryItemInfo, szFileName) == 20);
static_assert(offsetof(EdsDirectoryItemInfo, format) == 276);
static_assert(offsetof(EdsDirectoryItemInfo, dateTime) == 280);

static_assert(sizeof(EdsPropertyDesc) == 524);
static_assert(offsetof(EdsPropertyDesc, form) == 0);
static_assert(offsetof(EdsPropertyDesc, access) == 4);
static_assert(offsetof(EdsPropertyDesc, numElements) == 8);
static_assert(offsetof(EdsPropertyDesc, propDesc) == 12);

static_assert(sizeof(EdsCapacity) == 12);
static_assert(offsetof(EdsCapacity, numberOfFreeClusters) == 0);
static_assert(offsetof(EdsCapacity, bytesPerSector) == 4);
static_assert(offsetof(EdsCapacity, reset) == 8);

static_assert(sizeof(EdsTime) == 28);
static_assert(offsetof(EdsTime, year) == 0);
static_assert(offsetof(EdsTime, month) == 4);
static_assert(offsetof(EdsTime, day) == 8);
static_assert(offsetof(EdsTime, hour) == 12);
static_assert(offsetof(EdsTime, minute) == 16);
static_assert(offsetof(EdsTime, second) == 20);
static_assert(offsetof(EdsTime, milliseconds) == 24);

} // namespace brix::eds
