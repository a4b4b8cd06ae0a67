/* libEDSDK-incomplete.so: exports every name the station resolves except
 * EdsDownloadEvfImage, as an older or damaged library might. The loader must
 * refuse it before calling anything, so the bodies never run. */
#define BRIX_EXPORT(name)                                                                                    \
    __attribute__((visibility("default"))) unsigned name(void) {                                             \
        return 0x2u;                                                                                         \
    }

BRIX_EXPORT(EdsInitializeSDK)
BRIX_EXPORT(EdsTerminateSDK)
BRIX_EXPORT(EdsSetCameraAddedHandler)
BRIX_EXPORT(EdsGetCameraList)
BRIX_EXPORT(EdsGetChildCount)
BRIX_EXPORT(EdsGetChildAtIndex)
BRIX_EXPORT(EdsGetDeviceInfo)
BRIX_EXPORT(EdsRetain)
BRIX_EXPORT(EdsRelease)
BRIX_EXPORT(EdsOpenSession)
BRIX_EXPORT(EdsCloseSession)
BRIX_EXPORT(EdsSetCameraStateEventHandler)
BRIX_EXPORT(EdsSetPropertyEventHandler)
BRIX_EXPORT(EdsSetObjectEventHandler)
BRIX_EXPORT(EdsGetPropertySize)
BRIX_EXPORT(EdsGetPropertyData)
BRIX_EXPORT(EdsSetPropertyData)
BRIX_EXPORT(EdsGetPropertyDesc)
BRIX_EXPORT(EdsSendCommand)
BRIX_EXPORT(EdsSendStatusCommand)
BRIX_EXPORT(EdsSetCapacity)
BRIX_EXPORT(EdsGetDirectoryItemInfo)
BRIX_EXPORT(EdsCreateMemoryStreamFromPointer)
BRIX_EXPORT(EdsSetProgressCallback)
BRIX_EXPORT(EdsDownload)
BRIX_EXPORT(EdsDownloadComplete)
BRIX_EXPORT(EdsCreateEvfImageRef)
BRIX_EXPORT(EdsGetEvent)
