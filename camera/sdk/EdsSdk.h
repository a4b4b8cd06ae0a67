// The camera boundary: one C++ interface whose operations mirror, by name,
// arguments and results, the Canon SDK operations the camera code calls.
// Backends (simulator, gphoto2, edsdk) implement it; nothing above this folder
// knows which one runs.
//
// Threads: every operation may be called from any thread; each backend
// serialises its own access to the device. Callbacks (camera added, state,
// property, object events) arrive on the backend's own event thread, except
// the progress callback, which runs on the thread that called EdsDownload.
// Ownership: references are counted. Whatever an operation hands out through
// an out-argument (camera list, child, stream, live-view image) starts with a
// count of one, owned by the caller, who gives it back with EdsRelease.
// Errors are unsigned 32-bit codes, 0 meaning success; nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace brix::eds {

using EdsError = uint32_t;
using EdsUInt32 = uint32_t;
using EdsInt32 = int32_t;
using EdsUInt64 = uint64_t;
using EdsBool = uint32_t;
using EdsChar = char;
using EdsVoid = void;
using EdsPropertyID = uint32_t;
using EdsDataType = uint32_t;
using EdsCameraCommand = uint32_t;
using EdsCameraStatusCommand = uint32_t;
using EdsPropertyEvent = uint32_t;
using EdsObjectEvent = uint32_t;
using EdsStateEvent = uint32_t;
using EdsProgressOption = uint32_t;

// Opaque counted reference. What it points to belongs to the backend.
struct EdsOpaqueObject;
using EdsBaseRef = EdsOpaqueObject *;
using EdsCameraListRef = EdsBaseRef;
using EdsCameraRef = EdsBaseRef;
using EdsDirectoryItemRef = EdsBaseRef;
using EdsStreamRef = EdsBaseRef;
using EdsEvfImageRef = EdsBaseRef;

// --- records (field layouts as the SDK defines them) ------------------------

inline constexpr std::size_t EDS_MAX_NAME = 256;

struct EdsDeviceInfo {
    EdsChar szPortName[EDS_MAX_NAME];
    EdsChar szDeviceDescription[EDS_MAX_NAME]; // NUL-terminated UTF-8: the model name
    EdsUInt32 deviceSubType;                   // 0 = legacy model
    EdsUInt32 reserved;
};

struct EdsDirectoryItemInfo {
    EdsUInt64 size;
    EdsBool isFolder;
    EdsUInt32 groupID;
    EdsUInt32 option;
    EdsChar szFileName[EDS_MAX_NAME]; // NUL-terminated UTF-8
    EdsUInt32 format;
    EdsUInt32 dateTime;
};

struct EdsPropertyDesc {
    EdsInt32 form;
    EdsInt32 access;
    EdsInt32 numElements;
    EdsInt32 propDesc[128];
};

struct EdsCapacity {
    EdsInt32 numberOfFreeClusters;
    EdsInt32 bytesPerSector;
    EdsBool reset;
};

struct EdsTime {
    EdsUInt32 year;
    EdsUInt32 month;
    EdsUInt32 day;
    EdsUInt32 hour;
    EdsUInt32 minute;
    EdsUInt32 second;
    EdsUInt32 milliseconds;
};
// The SDK's layouts on LP64.
static_assert(sizeof(EdsDeviceInfo) == 520);
static_assert(sizeof(EdsDirectoryItemInfo) == 288);
static_assert(offsetof(EdsDirectoryItemInfo, szFileName) == 20);
static_assert(sizeof(EdsPropertyDesc) == 524);
static_assert(sizeof(EdsCapacity) == 12);
static_assert(sizeof(EdsTime) == 28);

// --- callbacks ---------------------------------------------------------------

using EdsCameraAddedHandler = EdsError (*)(EdsVoid *inContext);
using EdsStateEventHandler = EdsError (*)(EdsStateEvent inEvent, EdsUInt32 inEventData, EdsVoid *inContext);
using EdsPropertyEventHandler = EdsError (*)(EdsPropertyEvent inEvent, EdsPropertyID inPropertyID,
                                             EdsUInt32 inParam, EdsVoid *inContext);
using EdsObjectEventHandler = EdsError (*)(EdsObjectEvent inEvent, EdsBaseRef inRef, EdsVoid *inContext);
using EdsProgressCallback = EdsError (*)(EdsUInt32 inPercent, EdsVoid *inContext, EdsBool *outCancel);

// --- constants ---------------------------------------------------------------

// Error codes the camera code tests for by value.
inline constexpr EdsError EDS_ERR_OK = 0x00000000;
inline constexpr EdsError EDS_ERR_UNIMPLEMENTED = 0x00000001;
inline constexpr EdsError EDS_ERR_INTERNAL_ERROR = 0x00000002;
inline constexpr EdsError EDS_ERR_MEM_ALLOC_FAILED = 0x00000003;
inline constexpr EdsError EDS_ERR_OPERATION_CANCELLED = 0x00000005;
inline constexpr EdsError EDS_ERR_NOT_SUPPORTED = 0x00000007;
inline constexpr EdsError EDS_ERR_FILE_DISK_FULL_ERROR = 0x0000002A;
inline constexpr EdsError EDS_ERR_PROPERTIES_UNAVAILABLE = 0x00000050;
inline constexpr EdsError EDS_ERR_INVALID_PARAMETER = 0x00000060;
inline constexpr EdsError EDS_ERR_INVALID_HANDLE = 0x00000061;
inline constexpr EdsError EDS_ERR_INVALID_POINTER = 0x00000062;
inline constexpr EdsError EDS_ERR_INVALID_INDEX = 0x00000063;
inline constexpr EdsError EDS_ERR_INVALID_LENGTH = 0x00000064;
inline constexpr EdsError EDS_ERR_DEVICE_NOT_FOUND = 0x00000080;
inline constexpr EdsError EDS_ERR_DEVICE_BUSY = 0x00000081;
inline constexpr EdsError EDS_ERR_DEVICE_INVALID = 0x00000082;
inline constexpr EdsError EDS_ERR_STREAM_WRITE_ERROR = 0x000000A8;
inline constexpr EdsError EDS_ERR_STREAM_END_OF_STREAM = 0x000000AC;
inline constexpr EdsError EDS_ERR_COMM_PORT_IS_IN_USE = 0x000000C0;
inline constexpr EdsError EDS_ERR_COMM_DISCONNECTED = 0x000000C1;
inline constexpr EdsError EDS_ERR_SESSION_NOT_OPEN = 0x00002003;
inline constexpr EdsError EDS_ERR_TAKE_PICTURE_AF_NG = 0x00008D01;
inline constexpr EdsError EDS_ERR_OBJECT_NOTREADY = 0x0000A102;

// Camera commands.
inline constexpr EdsCameraCommand kEdsCameraCommand_TakePicture = 0x00000000;
inline constexpr EdsCameraCommand kEdsCameraCommand_ExtendShutDownTimer = 0x00000001;
inline constexpr EdsCameraCommand kEdsCameraCommand_BulbStart = 0x00000002;
inline constexpr EdsCameraCommand kEdsCameraCommand_BulbEnd = 0x00000003;
inline constexpr EdsCameraCommand kEdsCameraCommand_PressShutterButton = 0x00000004;
inline constexpr EdsCameraCommand kEdsCameraCommand_DoEvfAf = 0x00000102;
inline constexpr EdsCameraCommand kEdsCameraCommand_DriveLensEvf = 0x00000103;
inline constexpr EdsCameraCommand kEdsCameraCommand_DoClickWBEvf = 0x00000104;

// Parameters of kEdsCameraCommand_PressShutterButton.
inline constexpr EdsInt32 kEdsCameraCommand_ShutterButton_OFF = 0x00000000;
inline constexpr EdsInt32 kEdsCameraCommand_ShutterButton_Halfway = 0x00000001;
inline constexpr EdsInt32 kEdsCameraCommand_ShutterButton_Completely = 0x00000003;
inline constexpr EdsInt32 kEdsCameraCommand_ShutterButton_Halfway_NonAF = 0x00010001;
inline constexpr EdsInt32 kEdsCameraCommand_ShutterButton_Completely_NonAF = 0x00010003;

// Status commands.
inline constexpr EdsCameraStatusCommand kEdsCameraStatusCommand_UILock = 0x00000000;
inline constexpr EdsCameraStatusCommand kEdsCameraStatusCommand_UIUnLock = 0x00000001;

// Events.
inline constexpr EdsPropertyEvent kEdsPropertyEvent_All = 0x00000100;
inline constexpr EdsPropertyEvent kEdsPropertyEvent_PropertyChanged = 0x00000101;
inline constexpr EdsPropertyEvent kEdsPropertyEvent_PropertyDescChanged = 0x00000102;
inline constexpr EdsObjectEvent kEdsObjectEvent_All = 0x00000200;
inline constexpr EdsObjectEvent kEdsObjectEvent_DirItemRequestTransfer = 0x00000208;
inline constexpr EdsStateEvent kEdsStateEvent_All = 0x00000300;
inline constexpr EdsStateEvent kEdsStateEvent_Shutdown = 0x00000301;
inline constexpr EdsStateEvent kEdsStateEvent_JobStatusChanged = 0x00000302;
inline constexpr EdsStateEvent kEdsStateEvent_WillSoonShutDown = 0x00000303;
inline constexpr EdsStateEvent kEdsStateEvent_ShutDownTimerUpdate = 0x00000304;
inline constexpr EdsStateEvent kEdsStateEvent_CaptureError = 0x00000305;
inline constexpr EdsStateEvent kEdsStateEvent_InternalError = 0x00000306;
inline constexpr EdsStateEvent kEdsStateEvent_AfResult = 0x00000309;
inline constexpr EdsStateEvent kEdsStateEvent_BulbExposureTime = 0x00000310;

// Progress option: call back periodically.
inline constexpr EdsProgressOption kEdsProgressOption_NoReport = 0;
inline constexpr EdsProgressOption kEdsProgressOption_Done = 1;
inline constexpr EdsProgressOption kEdsProgressOption_Periodically = 2;

// Data types.
enum : EdsDataType {
    kEdsDataType_Unknown = 0,
    kEdsDataType_Bool = 1,
    kEdsDataType_String = 2,
    kEdsDataType_Int8 = 3,
    kEdsDataType_Int16 = 4,
    kEdsDataType_UInt8 = 6,
    kEdsDataType_UInt16 = 7,
    kEdsDataType_Int32 = 8,
    kEdsDataType_UInt32 = 9,
    kEdsDataType_Int64 = 10,
    kEdsDataType_UInt64 = 11,
    kEdsDataType_Float = 12,
    kEdsDataType_Double = 13,
    kEdsDataType_ByteBlock = 14,
    kEdsDataType_Rational = 20,
    kEdsDataType_Point = 21,
    kEdsDataType_Rect = 22,
    kEdsDataType_Time = 23,
    kEdsDataType_Bool_Array = 30,
    kEdsDataType_Int8_Array = 31,
    kEdsDataType_Int16_Array = 32,
    kEdsDataType_Int32_Array = 33,
    kEdsDataType_UInt8_Array = 34,
    kEdsDataType_UInt16_Array = 35,
    kEdsDataType_UInt32_Array = 36,
    kEdsDataType_Rational_Array = 37,
    kEdsDataType_FocusInfo = 101,
    kEdsDataType_PictureStyleDesc = 102,
};

// Property IDs the camera code reads or writes.
enum : EdsPropertyID {
    kEdsPropID_ProductName = 0x00000002,
    kEdsPropID_OwnerName = 0x00000004,
    kEdsPropID_DateTime = 0x00000006,
    kEdsPropID_FirmwareVersion = 0x00000007,
    kEdsPropID_BatteryLevel = 0x00000008,
    kEdsPropID_SaveTo = 0x0000000B,
    kEdsPropID_BatteryQuality = 0x00000010,
    kEdsPropID_ImageQuality = 0x00000100,
    kEdsPropID_WhiteBalance = 0x00000106,
    kEdsPropID_AEMode = 0x00000400,
    kEdsPropID_DriveMode = 0x00000401,
    kEdsPropID_ISOSpeed = 0x00000402,
    kEdsPropID_MeteringMode = 0x00000403,
    kEdsPropID_AFMode = 0x00000404,
    kEdsPropID_Av = 0x00000405,
    kEdsPropID_Tv = 0x00000406,
    kEdsPropID_ExposureCompensation = 0x00000407,
    kEdsPropID_LensName = 0x0000040D,
    kEdsPropID_Artist = 0x00000418,
    kEdsPropID_Copyright = 0x00000419,
    kEdsPropID_Evf_OutputDevice = 0x00000500,
    kEdsPropID_Evf_Mode = 0x00000501,
    kEdsPropID_Evf_Zoom = 0x00000507,
    kEdsPropID_Evf_AFMode = 0x0000050E,
};

// Values of kEdsPropID_SaveTo.
inline constexpr EdsUInt32 kEdsSaveTo_Camera = 1;
inline constexpr EdsUInt32 kEdsSaveTo_Host = 2;
inline constexpr EdsUInt32 kEdsSaveTo_Both = 3;

// Bits of kEdsPropID_Evf_OutputDevice.
inline constexpr EdsUInt32 kEdsEvfOutputDevice_TFT = 1;
inline constexpr EdsUInt32 kEdsEvfOutputDevice_PC = 2;

// Value of kEdsPropID_Evf_Mode when live view is enabled.
inline constexpr EdsUInt32 kEdsEvfMode_Enabled = 1;

// --- the interface -----------------------------------------------------------

class EdsSdk {
public:
    virtual ~EdsSdk() = default;

    // Short name of the backend: "simulator", "gphoto2" or "edsdk".
    virtual const char *backendName() const = 0;
    // Path of the library image that implements the SDK, or empty when the
    // backend is built in (used for the "EDSDK loaded from" line).
    virtual const char *libraryPath() const { return ""; }

    virtual EdsError EdsInitializeSDK() = 0;
    virtual EdsError EdsTerminateSDK() = 0;

    virtual EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler inCameraAddedHandler, EdsVoid *inContext) = 0;

    virtual EdsError EdsGetCameraList(EdsCameraListRef *outCameraListRef) = 0;
    virtual EdsError EdsGetChildCount(EdsBaseRef inRef, EdsUInt32 *outCount) = 0;
    virtual EdsError EdsGetChildAtIndex(EdsBaseRef inRef, EdsInt32 inIndex, EdsBaseRef *outRef) = 0;
    virtual EdsError EdsGetDeviceInfo(EdsCameraRef inCameraRef, EdsDeviceInfo *outDeviceInfo) = 0;

    // Return the reference count after the call; 0xFFFFFFFF for an invalid reference.
    virtual EdsUInt32 EdsRetain(EdsBaseRef inRef) = 0;
    virtual EdsUInt32 EdsRelease(EdsBaseRef inRef) = 0;

    virtual EdsError EdsOpenSession(EdsCameraRef inCameraRef) = 0;
    virtual EdsError EdsCloseSession(EdsCameraRef inCameraRef) = 0;

    // A null handler clears the registration.
    virtual EdsError EdsSetCameraStateEventHandler(EdsCameraRef inCameraRef, EdsStateEvent inEvent,
                                                   EdsStateEventHandler inStateEventHandler, EdsVoid *inContext) = 0;
    virtual EdsError EdsSetPropertyEventHandler(EdsCameraRef inCameraRef, EdsPropertyEvent inEvent,
                                                EdsPropertyEventHandler inPropertyEventHandler,
                                                EdsVoid *inContext) = 0;
    virtual EdsError EdsSetObjectEventHandler(EdsCameraRef inCameraRef, EdsObjectEvent inEvent,
                                              EdsObjectEventHandler inObjectEventHandler, EdsVoid *inContext) = 0;

    virtual EdsError EdsGetPropertySize(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                        EdsDataType *outDataType, EdsUInt32 *outSize) = 0;
    virtual EdsError EdsGetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                        EdsUInt32 inPropertySize, EdsVoid *outPropertyData) = 0;
    virtual EdsError EdsSetPropertyData(EdsBaseRef inRef, EdsPropertyID inPropertyID, EdsInt32 inParam,
                                        EdsUInt32 inPropertySize, const EdsVoid *inPropertyData) = 0;
    virtual EdsError EdsGetPropertyDesc(EdsBaseRef inRef, EdsPropertyID inPropertyID,
                                        EdsPropertyDesc *outPropertyDesc) = 0;

    virtual EdsError EdsSendCommand(EdsCameraRef inCameraRef, EdsCameraCommand inCommand, EdsInt32 inParam) = 0;
    virtual EdsError EdsSendStatusCommand(EdsCameraRef inCameraRef, EdsCameraStatusCommand inStatusCommand,
                                          EdsInt32 inParam) = 0;
    virtual EdsError EdsSetCapacity(EdsCameraRef inCameraRef, EdsCapacity inCapacity) = 0;

    virtual EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef inDirItemRef,
                                             EdsDirectoryItemInfo *outDirItemInfo) = 0;
    // The stream writes into the caller's buffer; it never owns or frees it.
    virtual EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *inUserBuffer, EdsUInt64 inBufferSize,
                                                      EdsStreamRef *outStream) = 0;
    virtual EdsError EdsSetProgressCallback(EdsBaseRef inRef, EdsProgressCallback inProgressFunc,
                                            EdsProgressOption inProgressOption, EdsVoid *inContext) = 0;
    virtual EdsError EdsDownload(EdsDirectoryItemRef inDirItemRef, EdsUInt64 inReadSize,
                                 EdsStreamRef outStream) = 0;
    virtual EdsError EdsDownloadComplete(EdsDirectoryItemRef inDirItemRef) = 0;

    virtual EdsError EdsCreateEvfImageRef(EdsStreamRef inStreamRef, EdsEvfImageRef *outEvfImageRef) = 0;
    // EDS_ERR_OBJECT_NOTREADY while no new frame is there yet.
    virtual EdsError EdsDownloadEvfImage(EdsCameraRef inCameraRef, EdsEvfImageRef inEvfImageRef) = 0;
};

// --- backends ------------------------------------------------------------------
// Each is defined in its own folder; `why` receives the reason when a backend
// cannot run on this machine (library missing, not built in), and the result is null.

std::unique_ptr<EdsSdk> createSimulatorSdk(std::string *why = nullptr);
std::unique_ptr<EdsSdk> createGphoto2Sdk(std::string *why = nullptr);
std::unique_ptr<EdsSdk> createEdsdkSdk(std::string *why = nullptr);

// Chooses a backend by name ("simulator", "gphoto2", "edsdk", "auto"; empty =
// $BRIX_CAMERA_BACKEND, else "auto"). "auto" takes edsdk when its library
// loads, else gphoto2.
std::unique_ptr<EdsSdk> createSdk(const std::string &name, std::string *why = nullptr);

} // namespace brix::eds
