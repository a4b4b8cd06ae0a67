#include "SimulatorSdk.h"

#include "Logger.h"
#include "SimulatorImages.h"

#include <QDateTime>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <optional>
#include <thread>
#include <type_traits>

namespace brix::eds {

std::unique_ptr<EdsSdk> createSimulatorSdk(std::string *why) {
    (void)why; // the simulator runs everywhere
    int cameras = 1;
    if (qEnvironmentVariableIsSet("BRIX_SIM_CAMERAS")) {
        bool ok = false;
        const int n = qEnvironmentVariable("BRIX_SIM_CAMERAS").toInt(&ok);
        if (ok && n >= 0 && n <= 16)
            cameras = n;
        else
            Logger::setError(
                QStringLiteral("simulator: ignoring BRIX_SIM_CAMERAS=\"%1\" (want 0 to 16), using 1")
                    .arg(qEnvironmentVariable("BRIX_SIM_CAMERAS")));
    }
    auto sdk =
        std::make_unique<sim::SimulatorSdk>(cameras, qEnvironmentVariable("BRIX_SIM_MODEL").toStdString());
    if (qEnvironmentVariableIsSet("BRIX_SIM_EVF_FPS")) {
        bool ok = false;
        const double fps = qEnvironmentVariable("BRIX_SIM_EVF_FPS").toDouble(&ok);
        if (ok && fps > 0)
            sdk->setLiveViewRate(fps);
    }
    return sdk;
}

namespace sim {

namespace {

constexpr EdsError kErrOperationRefused = 0x0000A005;
constexpr EdsError kErrSessionAlreadyOpen = 0x0000201E;
constexpr EdsUInt32 kInvalidCount = 0xFFFFFFFFu;
constexpr EdsUInt32 kFormatJpeg = 0x3801;
constexpr EdsUInt32 kFormatCr2 = 0xB103;
constexpr qsizetype kStampLength = 20; // "BRIX SHOT " and ten digits
constexpr EdsPropertyID kPropColorSpace = 0x10D;
constexpr EdsUInt32 kAEBulb = 4;
constexpr EdsUInt32 kTvBulb = 0x0C;
constexpr EdsUInt32 kAFManual = 3;
constexpr const char *kDefaultLens = "EF24-70mm f/2.8L II USM";

// Supported values of the simulated body, each in its table of display texts.
const std::vector<EdsInt32> kAEModes = {0, 1, 2, 3, 4, 9};
const std::vector<EdsInt32> kApertures = {0x20, 0x23, 0x25, 0x28, 0x2C, 0x2D, 0x30, 0x33, 0x35, 0x38,
                                          0x3B, 0x3D, 0x40, 0x43, 0x45, 0x48, 0x4B, 0x4D, 0x50};
const std::vector<EdsInt32> kShutterSpeeds = {
    0x10, 0x13, 0x15, 0x18, 0x1B, 0x1D, 0x20, 0x23, 0x25, 0x28, 0x2B, 0x2D, 0x30, 0x33,
    0x35, 0x38, 0x3B, 0x3D, 0x40, 0x43, 0x45, 0x48, 0x4B, 0x4D, 0x50, 0x53, 0x55, 0x58,
    0x5B, 0x5D, 0x60, 0x63, 0x65, 0x68, 0x6B, 0x6D, 0x70, 0x73, 0x75, 0x78, 0x7B, 0x7D,
    0x80, 0x83, 0x85, 0x88, 0x8B, 0x8D, 0x90, 0x93, 0x95, 0x98, 0x9B, 0x9D, 0xA0};
const std::vector<EdsInt32> kIsoSpeeds = {0,    0x48, 0x4B, 0x4D, 0x50, 0x53, 0x55, 0x58, 0x5B,
                                          0x5D, 0x60, 0x63, 0x65, 0x68, 0x70, 0x78, 0x80, 0x88};
const std::vector<EdsInt32> kCompensations = {0xE8, 0xEB, 0xED, 0xF0, 0xF3, 0xF5, 0xF8, 0xFB, 0xFD, 0x00,
                                              0x03, 0x05, 0x08, 0x0B, 0x0D, 0x10, 0x13, 0x15, 0x18};
const std::vector<EdsInt32> kWhiteBalances = {0, 1, 8, 2, 3, 4, 5, 6, 9};
const std::vector<EdsInt32> kAFModes = {0, 1, 2};
const std::vector<EdsInt32> kDriveModes = {0, 1, 4, 5, 6, 0x10, 0x11};
const std::vector<EdsInt32> kMeteringModes = {3, 4, 1, 5};
const std::vector<EdsInt32> kImageQualities = {0x0013FF0F, 0x0012FF0F, 0x0113FF0F, 0x0112FF0F, 0x0213FF0F,
                                               0x0212FF0F, 0x0E13FF0F, 0x0F13FF0F, 0x0064FF0F, 0x00640013,
                                               0x00640113, 0x01640F0F, 0x02640F0F};
const std::vector<EdsInt32> kColorSpaces = {1, 2};
const std::vector<EdsInt32> kEvfAFModes = {0, 1, 2};
const std::vector<EdsInt32> kEvfZooms = {1, 5, 10};

// Which AE modes offer a property's values. Basic-zone modes (9 and up) let the
// body decide exposure and colour itself.
bool always(EdsUInt32) {
    return true;
}
bool creativeZone(EdsUInt32 ae) {
    return ae < 9;
}
bool creativeNotBulb(EdsUInt32 ae) {
    return ae < 9 && ae != kAEBulb;
}
bool apertureModes(EdsUInt32 ae) {
    return ae == 2 || ae == 3 || ae == kAEBulb;
}
bool shutterModes(EdsUInt32 ae) {
    return ae == 1 || ae == 3;
}

enum class Access {
    Free,     // any value of the type
    Listed,   // only a value of the current description
    ReadOnly, // the body's own; the host cannot change it
};

// One property of the simulated body: adding a property is one row.
struct PropertySpec {
    EdsPropertyID id;
    EdsDataType type;
    EdsUInt32 initial; // numeric value at plug-in
    const char *text;  // string value at plug-in (string properties)
    Access access;
    const std::vector<EdsInt32> *values = nullptr; // description, when offered
    bool (*offered)(EdsUInt32 ae) = always;
    // Value taken when an AE-mode change no longer offers the current one; set
    // only for properties whose description follows the AE mode.
    std::optional<EdsUInt32> aeFallback = std::nullopt;
};

// Product name and firmware depend on the plugged body and are filled in by plug().
const std::vector<PropertySpec> kProperties = {
    {kEdsPropID_ProductName, kEdsDataType_String, 0, "", Access::ReadOnly},
    {kEdsPropID_OwnerName, kEdsDataType_String, 0, "", Access::Free},
    {kEdsPropID_DateTime, kEdsDataType_Time, 0, nullptr, Access::Free},
    {kEdsPropID_FirmwareVersion, kEdsDataType_String, 0, "", Access::ReadOnly},
    {kEdsPropID_BatteryLevel, kEdsDataType_Int32, 85, nullptr, Access::ReadOnly},
    {kEdsPropID_SaveTo, kEdsDataType_UInt32, kEdsSaveTo_Camera, nullptr, Access::Free},
    {kEdsPropID_BatteryQuality, kEdsDataType_UInt32, 3, nullptr, Access::ReadOnly},
    {kEdsPropID_ImageQuality, kEdsDataType_UInt32, 0x0013FF0F, nullptr, Access::Listed, &kImageQualities},
    {kEdsPropID_WhiteBalance, kEdsDataType_Int32, 0, nullptr, Access::Listed, &kWhiteBalances, creativeZone,
     0},
    {kPropColorSpace, kEdsDataType_UInt32, 1, nullptr, Access::Listed, &kColorSpaces, creativeZone, 1},
    {kEdsPropID_AEMode, kEdsDataType_UInt32, 3, nullptr, Access::Listed, &kAEModes},
    {kEdsPropID_DriveMode, kEdsDataType_UInt32, 0, nullptr, Access::Listed, &kDriveModes},
    {kEdsPropID_ISOSpeed, kEdsDataType_UInt32, 0x48, nullptr, Access::Listed, &kIsoSpeeds, creativeZone, 0},
    {kEdsPropID_MeteringMode, kEdsDataType_UInt32, 3, nullptr, Access::Listed, &kMeteringModes, creativeZone,
     3},
    {kEdsPropID_AFMode, kEdsDataType_UInt32, 0, nullptr, Access::Listed, &kAFModes, creativeZone, 0},
    {kEdsPropID_Av, kEdsDataType_UInt32, 0x30, nullptr, Access::Listed, &kApertures, apertureModes, 0x30},
    {kEdsPropID_Tv, kEdsDataType_UInt32, 0x68, nullptr, Access::Listed, &kShutterSpeeds, shutterModes, 0x68},
    {kEdsPropID_ExposureCompensation, kEdsDataType_UInt32, 0, nullptr, Access::Listed, &kCompensations,
     creativeNotBulb, 0},
    {kEdsPropID_LensName, kEdsDataType_String, 0, kDefaultLens, Access::ReadOnly},
    {kEdsPropID_Artist, kEdsDataType_String, 0, "", Access::Free},
    {kEdsPropID_Copyright, kEdsDataType_String, 0, "", Access::Free},
    {kEdsPropID_Evf_OutputDevice, kEdsDataType_UInt32, 0, nullptr, Access::Free},
    {kEdsPropID_Evf_Mode, kEdsDataType_UInt32, 0, nullptr, Access::Free},
    {kEdsPropID_Evf_Zoom, kEdsDataType_UInt32, 1, nullptr, Access::Free, &kEvfZooms},
    {kEdsPropID_Evf_AFMode, kEdsDataType_UInt32, 0, nullptr, Access::Free, &kEvfAFModes},
};

const PropertySpec *specOf(EdsPropertyID id) {
    for (const auto &spec : kProperties)
        if (spec.id == id)
            return &spec;
    return nullptr;
}

bool isReadOnlyForHost(EdsPropertyID id) {
    const PropertySpec *spec = specOf(id);
    return spec && spec->access == Access::ReadOnly;
}

// The properties whose description follows the AE mode, in ID order (the order
// their change events go out in).
const std::vector<const PropertySpec *> &aeDependent() {
    static const std::vector<const PropertySpec *> list = [] {
        std::vector<const PropertySpec *> l;
        for (const auto &spec : kProperties)
            if (spec.aeFallback)
                l.push_back(&spec);
        std::sort(l.begin(), l.end(), [](auto *a, auto *b) { return a->id < b->id; });
        return l;
    }();
    return list;
}

const std::map<std::string, EdsCameraCommand> kCommandNames = {
    {"TakePicture", kEdsCameraCommand_TakePicture},
    {"ExtendShutDownTimer", kEdsCameraCommand_ExtendShutDownTimer},
    {"BulbStart", kEdsCameraCommand_BulbStart},
    {"BulbEnd", kEdsCameraCommand_BulbEnd},
    {"PressShutterButton", kEdsCameraCommand_PressShutterButton},
    {"DoEvfAf", kEdsCameraCommand_DoEvfAf},
    {"DriveLensEvf", kEdsCameraCommand_DriveLensEvf},
    {"DoClickWBEvf", kEdsCameraCommand_DoClickWBEvf},
};

const char *const kOperations[] = {
    "EdsInitializeSDK",
    "EdsTerminateSDK",
    "EdsSetCameraAddedHandler",
    "EdsGetCameraList",
    "EdsGetChildCount",
    "EdsGetChildAtIndex",
    "EdsGetDeviceInfo",
    "EdsOpenSession",
    "EdsCloseSession",
    "EdsSetCameraStateEventHandler",
    "EdsSetPropertyEventHandler",
    "EdsSetObjectEventHandler",
    "EdsGetPropertySize",
    "EdsGetPropertyData",
    "EdsSetPropertyData",
    "EdsGetPropertyDesc",
    "EdsSendCommand",
    "EdsSendStatusCommand",
    "EdsSetCapacity",
    "EdsGetDirectoryItemInfo",
    "EdsCreateMemoryStreamFromPointer",
    "EdsSetProgressCallback",
    "EdsDownload",
    "EdsDownloadComplete",
    "EdsCreateEvfImageRef",
    "EdsDownloadEvfImage",
};

const char *commandName(EdsCameraCommand command) {
    for (const auto &[name, value] : kCommandNames)
        if (value == command)
            return name.c_str();
    return nullptr;
}

template <typename Fn> struct Handler {
    Fn fn = nullptr;
    EdsVoid *context = nullptr;
    EdsUInt32 event = 0;

    // Registrations for the "all" event of a kind take every event of it.
    bool wants(EdsUInt32 e) const { return fn && (event == e || (event & 0xFF) == 0); }
};

struct Prop {
    EdsDataType type = kEdsDataType_UInt32;
    EdsUInt32 value = 0;
    std::string text;
};

QDateTime cameraNow(int64_t offsetMs) {
    return QDateTime::currentDateTime().addMSecs(offsetMs);
}

} // namespace

struct SimulatorSdk::Object {
    enum class Kind { CameraList, Camera, DirItem, Stream, EvfImage };
    explicit Object(Kind k) : kind(k) {}
    virtual ~Object() = default;
    const Kind kind;
    EdsUInt32 refs = 1;
    EdsUInt32 internal = 0; // counts held by the simulator itself
};

struct SimulatorSdk::Camera : Object {
    static constexpr Kind kKind = Kind::Camera;
    Camera() : Object(kKind) {}
    std::string model;
    std::string port;
    EdsUInt32 subtype = 1;
    bool attached = true;
    bool session = false;
    int uiLocks = 0;
    Handler<EdsStateEventHandler> stateHandler;
    Handler<EdsPropertyEventHandler> propertyHandler;
    Handler<EdsObjectEventHandler> objectHandler;
    std::map<EdsPropertyID, Prop> props;
    std::map<EdsPropertyID, std::vector<EdsInt32>> overrides;
    unsigned fileCounter = 0;
    std::vector<DirItem *> pending; // shots offered and not yet downloaded; one internal count each
    int shutter = kEdsCameraCommand_ShutterButton_OFF;
    bool bulb = false;
    dispatch::Nanos bulbStart{0};
    EdsCapacity capacity{};
    int64_t clockOffsetMs = 0;
    dispatch::Nanos evfStart{0};
    int64_t evfLastFrame = -1;
};

struct SimulatorSdk::CameraList : Object {
    static constexpr Kind kKind = Kind::CameraList;
    CameraList() : Object(kKind) {}
    std::vector<Camera *> cameras; // one internal count each
};

struct SimulatorSdk::DirItem : Object {
    static constexpr Kind kKind = Kind::DirItem;
    DirItem() : Object(kKind) {}
    Camera *camera = nullptr; // one internal count
    QByteArray data;          // shared with the other stamped shots while stamping
    QByteArray stamp;         // written over data at stampAt as it is downloaded
    qsizetype stampAt = -1;
    std::string fileName;
    EdsUInt32 format = kFormatJpeg;
    EdsUInt32 dateTime = 0;
    bool completed = false;
};

struct SimulatorSdk::Stream : Object {
    static constexpr Kind kKind = Kind::Stream;
    Stream() : Object(kKind) {}
    unsigned char *buffer = nullptr; // the caller's
    EdsUInt64 capacity = 0;
    EdsUInt64 position = 0;
    EdsProgressCallback progress = nullptr;
    EdsProgressOption progressOption = kEdsProgressOption_NoReport;
    EdsVoid *progressContext = nullptr;
};

struct SimulatorSdk::EvfImage : Object {
    static constexpr Kind kKind = Kind::EvfImage;
    EvfImage() : Object(kKind) {}
    Stream *stream = nullptr; // one internal count
    EdsUInt64 frameSize = 0;
};

namespace {
EdsBaseRef toRef(SimulatorSdk::Object *o) {
    return reinterpret_cast<EdsBaseRef>(o);
}
} // namespace

// --- construction --------------------------------------------------------------

SimulatorSdk::SimulatorSdk(int cameras, std::string model)
    : events_(dispatch::makeSerialQueue(kSimulatorEventQueueLabel)),
      defaultModel_(model.empty() ? std::string(kSimulatorDefaultModel) : std::move(model)) {
    for (int i = 0; i < cameras; ++i)
        plug({}, -1);
}

SimulatorSdk::~SimulatorSdk() {
    {
        Lock lock(mutex_);
        closing_ = true;
    }
    // Let deliveries under way finish; the ones still queued see closing_. A
    // handler may be waiting for the main thread, so the main thread keeps its
    // event loop turning while it waits instead of blocking.
    dispatch::drainPumpingMainLoop(events_);
    Lock lock(mutex_);
    const long leaked = totalRefs_ - internalRefs_;
    if (leaked != 0)
        Logger::setError(
            QStringLiteral("simulator: %1 references were still held by the host at the end").arg(leaked));
    for (const Object *o : objects_)
        delete o;
    objects_.clear();
}

// --- bookkeeping (mutex_ held) ------------------------------------------------

template <typename T> T *SimulatorSdk::find(EdsBaseRef ref) const {
    auto *o = reinterpret_cast<Object *>(ref);
    if (!o || !objects_.count(o))
        return nullptr;
    if constexpr (std::is_same_v<T, Object>)
        return o;
    else
        return o->kind == T::kKind ? static_cast<T *>(o) : nullptr;
}

void SimulatorSdk::addObject(Object *object, bool internal) {
    objects_.insert(object);
    object->refs = 1;
    object->internal = internal ? 1 : 0;
    ++totalRefs_;
    if (internal)
        ++internalRefs_;
}

EdsUInt32 SimulatorSdk::retainLocked(Object *object, bool internal) {
    ++object->refs;
    ++totalRefs_;
    if (internal) {
        ++object->internal;
        ++internalRefs_;
    }
    return object->refs;
}

EdsUInt32 SimulatorSdk::releaseLocked(Object *object, bool internal) {
    --object->refs;
    --totalRefs_;
    if (internal) {
        --object->internal;
        --internalRefs_;
    }
    const EdsUInt32 left = object->refs;
    if (left == 0) {
        objects_.erase(object);
        switch (object->kind) {
        case Object::Kind::CameraList:
            for (Camera *c : static_cast<CameraList *>(object)->cameras)
                releaseLocked(c, true);
            break;
        case Object::Kind::DirItem:
            releaseLocked(static_cast<DirItem *>(object)->camera, true);
            break;
        case Object::Kind::EvfImage:
            releaseLocked(static_cast<EvfImage *>(object)->stream, true);
            break;
        case Object::Kind::Camera:
        case Object::Kind::Stream:
            break;
        }
        delete object;
    }
    return left;
}

EdsError SimulatorSdk::takeInjection(const char *operation, const char *alias) {
    for (const char *name : {operation, alias}) {
        if (!name)
            continue;
        auto it = injections_.find(name);
        if (it == injections_.end())
            continue;
        const EdsError code = it->second.code;
        if (--it->second.count == 0)
            injections_.erase(it);
        return code;
    }
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::checkCamera(Camera *camera, bool needSession, bool needUiLock) const {
    if (!camera)
        return EDS_ERR_INVALID_HANDLE;
    if (!camera->attached)
        return EDS_ERR_COMM_DISCONNECTED;
    if (needSession && !camera->session)
        return EDS_ERR_SESSION_NOT_OPEN;
    // Older bodies answer the host only while their own controls are locked.
    if (needUiLock && camera->subtype == 0 && camera->uiLocks == 0)
        return EDS_ERR_DEVICE_BUSY;
    return EDS_ERR_OK;
}

SimulatorSdk::Camera *SimulatorSdk::activeCameraLocked() const {
    for (Camera *c : attached_)
        if (c->session)
            return c;
    return attached_.empty() ? nullptr : attached_.front();
}

void SimulatorSdk::post(std::function<void()> task) {
    events_->async(std::move(task));
}

void SimulatorSdk::postPropertyEvent(Camera *camera, EdsPropertyEvent event, EdsPropertyID propertyID) {
    if (closing_)
        return;
    retainLocked(camera, true);
    post([this, camera, event, propertyID] {
        Lock lock(mutex_);
        const auto h = camera->propertyHandler;
        const bool deliver = !closing_ && camera->attached && h.wants(event);
        if (deliver) {
            lock.unlock();
            h.fn(event, propertyID, 0, h.context);
            lock.lock();
        }
        releaseLocked(camera, true);
    });
}

void SimulatorSdk::postStateEvent(Camera *camera, EdsStateEvent event, EdsUInt32 data) {
    if (closing_)
        return;
    retainLocked(camera, true);
    post([this, camera, event, data] {
        Lock lock(mutex_);
        const auto h = camera->stateHandler;
        if (!closing_ && h.wants(event)) {
            lock.unlock();
            h.fn(event, data, h.context);
            lock.lock();
        }
        releaseLocked(camera, true);
    });
}

// --- properties ------------------------------------------------------------------

std::vector<EdsInt32> SimulatorSdk::descriptionLocked(const Camera *camera, EdsPropertyID id) const {
    if (auto it = camera->overrides.find(id); it != camera->overrides.end())
        return it->second;
    const PropertySpec *spec = specOf(id);
    if (!spec || !spec->values)
        return {};
    const auto ae = camera->props.at(kEdsPropID_AEMode).value;
    // In bulb the shutter speed is the bulb setting alone.
    if (id == kEdsPropID_Tv && ae == kAEBulb)
        return {EdsInt32(kTvBulb)};
    return spec->offered(ae) ? *spec->values : std::vector<EdsInt32>{};
}

EdsError SimulatorSdk::changeValueLocked(Camera *camera, EdsPropertyID id, EdsUInt32 value, bool fromBody) {
    auto it = camera->props.find(id);
    if (it == camera->props.end())
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    Prop &prop = it->second;
    if (prop.type == kEdsDataType_String || prop.type == kEdsDataType_Time)
        return EDS_ERR_INVALID_PARAMETER;
    if (!fromBody) {
        const PropertySpec *spec = specOf(id);
        if (spec && spec->access == Access::ReadOnly)
            return EDS_ERR_NOT_SUPPORTED;
        if (spec && spec->access == Access::Listed) {
            const auto allowed = descriptionLocked(camera, id);
            if (std::find(allowed.begin(), allowed.end(), EdsInt32(value)) == allowed.end())
                return EDS_ERR_INVALID_PARAMETER;
        }
        if (id == kEdsPropID_SaveTo && (value < kEdsSaveTo_Camera || value > kEdsSaveTo_Both))
            return EDS_ERR_INVALID_PARAMETER;
    }
    if (prop.value == value)
        return EDS_ERR_OK;

    std::map<EdsPropertyID, std::vector<EdsInt32>> before;
    if (id == kEdsPropID_AEMode)
        for (const PropertySpec *dep : aeDependent())
            before[dep->id] = descriptionLocked(camera, dep->id);

    const EdsUInt32 old = prop.value;
    prop.value = value;
    postPropertyEvent(camera, kEdsPropertyEvent_PropertyChanged, id);

    if (id == kEdsPropID_AEMode) {
        for (const PropertySpec *spec : aeDependent()) {
            const EdsPropertyID dep = spec->id;
            const EdsUInt32 fallback = *spec->aeFallback;
            const auto now = descriptionLocked(camera, dep);
            if (now != before[dep])
                postPropertyEvent(camera, kEdsPropertyEvent_PropertyDescChanged, dep);
            Prop &p = camera->props.at(dep);
            if (!now.empty() && std::find(now.begin(), now.end(), EdsInt32(p.value)) == now.end()) {
                p.value = std::find(now.begin(), now.end(), EdsInt32(fallback)) != now.end()
                              ? fallback
                              : EdsUInt32(now.front());
                postPropertyEvent(camera, kEdsPropertyEvent_PropertyChanged, dep);
            }
        }
    }
    if (id == kEdsPropID_Evf_OutputDevice && (value & kEdsEvfOutputDevice_PC) &&
        !(old & kEdsEvfOutputDevice_PC)) {
        camera->evfStart = dispatch::now();
        camera->evfLastFrame = -1;
    }
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::changeStringLocked(Camera *camera, EdsPropertyID id, const std::string &value) {
    auto it = camera->props.find(id);
    if (it == camera->props.end())
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    if (it->second.type != kEdsDataType_String)
        return EDS_ERR_INVALID_PARAMETER;
    if (it->second.text != value) {
        it->second.text = value;
        postPropertyEvent(camera, kEdsPropertyEvent_PropertyChanged, id);
    }
    return EDS_ERR_OK;
}

// --- SDK: life cycle and camera list -----------------------------------------------

EdsError SimulatorSdk::EdsInitializeSDK() {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsInitializeSDK"))
        return e;
    initialized_ = true;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsTerminateSDK() {
    {
        Lock lock(mutex_);
        if (EdsError e = takeInjection("EdsTerminateSDK"))
            return e;
        initialized_ = false;
        addedHandler_ = nullptr;
        addedContext_ = nullptr;
        for (Camera *c : attached_) {
            c->session = false;
            c->uiLocks = 0;
        }
    }
    // Like the real library, no work of the body goes on past the end: a shot
    // still being rendered on the event queue would otherwise use the image
    // codecs while the application is torn down around it.
    dispatch::drainPumpingMainLoop(events_);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetCameraAddedHandler(EdsCameraAddedHandler handler, EdsVoid *context) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetCameraAddedHandler"))
        return e;
    addedHandler_ = handler;
    addedContext_ = context;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsGetCameraList(EdsCameraListRef *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetCameraList"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    if (!initialized_)
        return EDS_ERR_INTERNAL_ERROR;
    auto *list = new CameraList;
    addObject(list, false);
    for (Camera *c : attached_) {
        retainLocked(c, true);
        list->cameras.push_back(c);
    }
    *out = toRef(list);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsGetChildCount(EdsBaseRef ref, EdsUInt32 *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetChildCount"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    if (auto *list = find<CameraList>(ref)) {
        *out = EdsUInt32(list->cameras.size());
        return EDS_ERR_OK;
    }
    if (find<Camera>(ref) || find<DirItem>(ref)) {
        *out = 0;
        return EDS_ERR_OK;
    }
    return EDS_ERR_INVALID_HANDLE;
}

EdsError SimulatorSdk::EdsGetChildAtIndex(EdsBaseRef ref, EdsInt32 index, EdsBaseRef *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetChildAtIndex"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *list = find<CameraList>(ref);
    if (!list)
        return EDS_ERR_INVALID_HANDLE;
    if (index < 0 || size_t(index) >= list->cameras.size())
        return EDS_ERR_INVALID_INDEX;
    Camera *c = list->cameras[size_t(index)];
    retainLocked(c, false);
    *out = toRef(c);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsGetDeviceInfo(EdsCameraRef ref, EdsDeviceInfo *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetDeviceInfo"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    std::memset(out, 0, sizeof *out);
    std::strncpy(out->szPortName, c->port.c_str(), EDS_MAX_NAME - 1);
    std::strncpy(out->szDeviceDescription, c->model.c_str(), EDS_MAX_NAME - 1);
    out->deviceSubType = c->subtype;
    return EDS_ERR_OK;
}

EdsUInt32 SimulatorSdk::EdsRetain(EdsBaseRef ref) {
    Lock lock(mutex_);
    auto *o = find<Object>(ref);
    if (!o)
        return kInvalidCount;
    return retainLocked(o, false);
}

EdsUInt32 SimulatorSdk::EdsRelease(EdsBaseRef ref) {
    Lock lock(mutex_);
    auto *o = find<Object>(ref);
    if (!o)
        return kInvalidCount;
    if (o->refs <= o->internal) {
        // The host gives back a count it never had; keep the simulator's own.
        Logger::setError(QStringLiteral("simulator: EdsRelease of %1 without a count held by the host")
                             .arg(quintptr(ref), 0, 16));
        return kInvalidCount;
    }
    return releaseLocked(o, false);
}

// --- SDK: sessions and handlers ---------------------------------------------------------

EdsError SimulatorSdk::EdsOpenSession(EdsCameraRef ref) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsOpenSession"))
        return e;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    if (!c->attached)
        return EDS_ERR_DEVICE_NOT_FOUND;
    if (c->session)
        return kErrSessionAlreadyOpen;
    c->session = true;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsCloseSession(EdsCameraRef ref) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsCloseSession"))
        return e;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    if (!c->session)
        return EDS_ERR_SESSION_NOT_OPEN;
    c->session = false;
    c->uiLocks = 0;
    c->shutter = kEdsCameraCommand_ShutterButton_OFF;
    c->bulb = false;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetCameraStateEventHandler(EdsCameraRef ref, EdsStateEvent event,
                                                     EdsStateEventHandler handler, EdsVoid *context) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetCameraStateEventHandler"))
        return e;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    c->stateHandler = {handler, handler ? context : nullptr, event};
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetPropertyEventHandler(EdsCameraRef ref, EdsPropertyEvent event,
                                                  EdsPropertyEventHandler handler, EdsVoid *context) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetPropertyEventHandler"))
        return e;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    c->propertyHandler = {handler, handler ? context : nullptr, event};
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetObjectEventHandler(EdsCameraRef ref, EdsObjectEvent event,
                                                EdsObjectEventHandler handler, EdsVoid *context) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetObjectEventHandler"))
        return e;
    auto *c = find<Camera>(ref);
    if (!c)
        return EDS_ERR_INVALID_HANDLE;
    c->objectHandler = {handler, handler ? context : nullptr, event};
    return EDS_ERR_OK;
}

// --- SDK: properties -------------------------------------------------------------------

namespace {

EdsUInt32 sizeOf(const Prop &p) {
    switch (p.type) {
    case kEdsDataType_String:
        return EdsUInt32(p.text.size() + 1);
    case kEdsDataType_Time:
        return EdsUInt32(sizeof(EdsTime));
    default:
        return 4;
    }
}

EdsTime timeRecord(const QDateTime &t) {
    const QDate d = t.date();
    const QTime tm = t.time();
    return EdsTime{EdsUInt32(d.year()),
                   EdsUInt32(d.month()),
                   EdsUInt32(d.day()),
                   EdsUInt32(tm.hour()),
                   EdsUInt32(tm.minute()),
                   EdsUInt32(tm.second()),
                   0};
}

} // namespace

EdsError SimulatorSdk::EdsGetPropertySize(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsDataType *outType,
                                          EdsUInt32 *outSize) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetPropertySize"))
        return e;
    if (!outType || !outSize)
        return EDS_ERR_INVALID_POINTER;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, true))
        return e;
    auto it = c->props.find(id);
    if (it == c->props.end())
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    *outType = it->second.type;
    *outSize = sizeOf(it->second);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsGetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsUInt32 size,
                                          EdsVoid *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetPropertyData"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, true))
        return e;
    auto it = c->props.find(id);
    if (it == c->props.end())
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    const Prop &p = it->second;
    if (size < sizeOf(p))
        return EDS_ERR_INVALID_LENGTH;
    switch (p.type) {
    case kEdsDataType_String:
        std::memcpy(out, p.text.c_str(), p.text.size() + 1);
        break;
    case kEdsDataType_Time: {
        const EdsTime t = timeRecord(cameraNow(c->clockOffsetMs));
        std::memcpy(out, &t, sizeof t);
        break;
    }
    default:
        std::memcpy(out, &p.value, 4);
        break;
    }
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsUInt32 size,
                                          const EdsVoid *in) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetPropertyData"))
        return e;
    if (!in)
        return EDS_ERR_INVALID_POINTER;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, true))
        return e;
    auto it = c->props.find(id);
    if (it == c->props.end())
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    if (isReadOnlyForHost(id))
        return EDS_ERR_NOT_SUPPORTED;
    switch (it->second.type) {
    case kEdsDataType_String: {
        const char *text = static_cast<const char *>(in);
        return changeStringLocked(c, id, std::string(text, strnlen(text, size)));
    }
    case kEdsDataType_Time: {
        if (size < sizeof(EdsTime))
            return EDS_ERR_INVALID_LENGTH;
        EdsTime t;
        std::memcpy(&t, in, sizeof t);
        const QDateTime wanted(QDate(int(t.year), int(t.month), int(t.day)),
                               QTime(int(t.hour), int(t.minute), int(t.second)));
        if (!wanted.isValid())
            return EDS_ERR_INVALID_PARAMETER;
        c->clockOffsetMs = QDateTime::currentDateTime().msecsTo(wanted);
        postPropertyEvent(c, kEdsPropertyEvent_PropertyChanged, id);
        return EDS_ERR_OK;
    }
    default: {
        if (size < 4)
            return EDS_ERR_INVALID_LENGTH;
        EdsUInt32 value;
        std::memcpy(&value, in, 4);
        return changeValueLocked(c, id, value, false);
    }
    }
}

EdsError SimulatorSdk::EdsGetPropertyDesc(EdsBaseRef ref, EdsPropertyID id, EdsPropertyDesc *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetPropertyDesc"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, true))
        return e;
    if (!c->props.count(id))
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    const auto values = descriptionLocked(c, id);
    std::memset(out, 0, sizeof *out);
    out->form = 0;
    out->access = isReadOnlyForHost(id) ? 0 : 1;
    out->numElements = EdsInt32(std::min<size_t>(values.size(), std::size(out->propDesc)));
    std::copy_n(values.begin(), out->numElements, out->propDesc);
    return EDS_ERR_OK;
}

// --- SDK: commands -------------------------------------------------------------------------

void SimulatorSdk::startBulb(Camera *camera) {
    camera->bulb = true;
    camera->bulbStart = dispatch::now();
}

void SimulatorSdk::endBulb(Camera *camera) {
    camera->bulb = false;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(dispatch::now() - camera->bulbStart);
    postStateEvent(camera, kEdsStateEvent_BulbExposureTime, EdsUInt32(std::max<int64_t>(0, seconds.count())));
    shootLocked(camera);
}

EdsError SimulatorSdk::EdsSendCommand(EdsCameraRef ref, EdsCameraCommand command, EdsInt32 param) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSendCommand", commandName(command)))
        return e;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, true))
        return e;
    const bool bulbMode =
        c->props.at(kEdsPropID_AEMode).value == kAEBulb || c->props.at(kEdsPropID_Tv).value == kTvBulb;
    const bool liveView = c->props.at(kEdsPropID_Evf_OutputDevice).value & kEdsEvfOutputDevice_PC;
    switch (command) {
    case kEdsCameraCommand_TakePicture:
        if (c->bulb || c->shutter == kEdsCameraCommand_ShutterButton_Completely)
            return EDS_ERR_DEVICE_BUSY;
        shootLocked(c);
        return EDS_ERR_OK;
    case kEdsCameraCommand_ExtendShutDownTimer:
        return EDS_ERR_OK;
    case kEdsCameraCommand_BulbStart:
        if (!bulbMode)
            return kErrOperationRefused;
        if (c->bulb)
            return EDS_ERR_DEVICE_BUSY;
        startBulb(c);
        return EDS_ERR_OK;
    case kEdsCameraCommand_BulbEnd:
        if (!c->bulb)
            return kErrOperationRefused;
        endBulb(c);
        return EDS_ERR_OK;
    case kEdsCameraCommand_PressShutterButton:
        switch (param) {
        case kEdsCameraCommand_ShutterButton_OFF:
        case kEdsCameraCommand_ShutterButton_Halfway:
        case kEdsCameraCommand_ShutterButton_Halfway_NonAF:
            if (c->bulb) // letting go ends a bulb exposure
                endBulb(c);
            // Focusing on a half press reports its result, as bodies do.
            if (param == kEdsCameraCommand_ShutterButton_Halfway &&
                c->shutter == kEdsCameraCommand_ShutterButton_OFF &&
                c->props.at(kEdsPropID_AFMode).value != kAFManual)
                postStateEvent(c, kEdsStateEvent_AfResult, 1);
            c->shutter = param == kEdsCameraCommand_ShutterButton_OFF
                             ? kEdsCameraCommand_ShutterButton_OFF
                             : kEdsCameraCommand_ShutterButton_Halfway;
            return EDS_ERR_OK;
        case kEdsCameraCommand_ShutterButton_Completely:
        case kEdsCameraCommand_ShutterButton_Completely_NonAF:
            if (c->shutter != kEdsCameraCommand_ShutterButton_Completely) {
                c->shutter = kEdsCameraCommand_ShutterButton_Completely;
                if (bulbMode)
                    startBulb(c);
                else
                    shootLocked(c);
            }
            return EDS_ERR_OK;
        default:
            return EDS_ERR_INVALID_PARAMETER;
        }
    case kEdsCameraCommand_DoEvfAf:
        if (!liveView)
            return kErrOperationRefused;
        if (param != 0 && param != 1)
            return EDS_ERR_INVALID_PARAMETER;
        if (param == 1 && c->props.at(kEdsPropID_AFMode).value == kAFManual)
            return EDS_ERR_TAKE_PICTURE_AF_NG;
        return EDS_ERR_OK;
    case kEdsCameraCommand_DriveLensEvf:
        if (!liveView)
            return kErrOperationRefused;
        switch (param) {
        case 0x1:
        case 0x2:
        case 0x3:
        case 0x8001:
        case 0x8002:
        case 0x8003:
            return EDS_ERR_OK;
        default:
            return EDS_ERR_INVALID_PARAMETER;
        }
    case kEdsCameraCommand_DoClickWBEvf:
        if (!liveView)
            return kErrOperationRefused;
        return EDS_ERR_OK;
    default:
        return EDS_ERR_NOT_SUPPORTED;
    }
}

EdsError SimulatorSdk::EdsSendStatusCommand(EdsCameraRef ref, EdsCameraStatusCommand command, EdsInt32) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSendStatusCommand"))
        return e;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, false))
        return e;
    switch (command) {
    case kEdsCameraStatusCommand_UILock:
        ++c->uiLocks;
        return EDS_ERR_OK;
    case kEdsCameraStatusCommand_UIUnLock:
        c->uiLocks = std::max(0, c->uiLocks - 1);
        return EDS_ERR_OK;
    default:
        return EDS_ERR_NOT_SUPPORTED;
    }
}

EdsError SimulatorSdk::EdsSetCapacity(EdsCameraRef ref, EdsCapacity capacity) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetCapacity"))
        return e;
    auto *c = find<Camera>(ref);
    if (EdsError e = checkCamera(c, true, false))
        return e;
    if (capacity.bytesPerSector <= 0 || capacity.numberOfFreeClusters < 0)
        return EDS_ERR_INVALID_PARAMETER;
    c->capacity = capacity;
    return EDS_ERR_OK;
}

// --- shots ------------------------------------------------------------------------------------

void SimulatorSdk::shootLocked(Camera *camera) {
    const unsigned shotNumber = ++shots_;
    camera->fileCounter = camera->fileCounter % 9999 + 1;
    fileCounters_[camera->model] = camera->fileCounter;
    if (closing_)
        return;
    // Where the shot goes is decided when it is taken, not when it is written.
    if (!(camera->props.at(kEdsPropID_SaveTo).value & kEdsSaveTo_Host))
        return; // on the card only: the host is not told
    retainLocked(camera, true);
    post([this, camera, shotNumber, file = camera->fileCounter, ext = shotExtension_, bytes = shotBytes_,
          model = camera->model, offset = camera->clockOffsetMs] {
        deliverShot(camera, shotNumber, file, ext, bytes, model, offset);
    });
}

void SimulatorSdk::deliverShot(Camera *camera, unsigned shotNumber, unsigned fileNumber,
                               std::string extension, uint64_t bytes, std::string model,
                               int64_t clockOffsetMs) {
    {
        Lock lock(mutex_);
        if (closing_ || !initialized_) {
            releaseLocked(camera, true);
            return;
        }
    }
    const QDateTime when = cameraNow(clockOffsetMs);
    const QString fileName = QStringLiteral("IMG_%1.%2")
                                 .arg(fileNumber, 4, 10, QLatin1Char('0'))
                                 .arg(QString::fromStdString(extension));
    const QString modelName = QString::fromStdString(model);
    const auto render = [&] {
        const QByteArray jpeg = renderShotJpeg(shotNumber, when, modelName, fileName);
        return extension == "CR2" ? makeRawFile(jpeg, bytes, modelName) : padJpeg(jpeg, bytes);
    };
    QByteArray data, stamp;
    qsizetype stampAt = -1;
    Lock lock(mutex_);
    if (stampedShots_) {
        ShotPicture &p = picture_;
        if (p.data.isEmpty() || p.extension != extension || p.bytes != bytes || p.model != model) {
            lock.unlock();
            ShotPicture fresh{extension, model, bytes, render(), -1};
            fresh.stampAt = shotStampOffset(fresh.data, kStampLength);
            lock.lock();
            p = std::move(fresh);
        }
        data = p.data; // shared, not copied
        stampAt = p.stampAt;
        stamp = QStringLiteral("BRIX SHOT %1")
                    .arg(shotNumber, kStampLength - 10, 10, QLatin1Char('0'))
                    .toLatin1();
    }
    if (stampAt < 0) { // drawn afresh: its own number and time are in the picture
        lock.unlock();
        data = render();
        lock.lock();
    }
    if (closing_ || !camera->attached || data.isEmpty()) {
        if (data.isEmpty())
            Logger::setError(QStringLiteral("simulator: could not render shot %1").arg(shotNumber));
        releaseLocked(camera, true);
        return;
    }
    auto *item = new DirItem;
    addObject(item, true); // the camera's pending list
    retainLocked(camera, true);
    item->camera = camera;
    item->data = std::move(data);
    item->stamp = std::move(stamp);
    item->stampAt = stampAt;
    item->fileName = fileName.toStdString();
    item->format = extension == "CR2" ? kFormatCr2 : kFormatJpeg;
    item->dateTime = EdsUInt32(when.toSecsSinceEpoch());
    camera->pending.push_back(item);

    retainLocked(item, true); // lent to the handler for the call
    const auto h = camera->objectHandler;
    if (h.wants(kEdsObjectEvent_DirItemRequestTransfer)) {
        lock.unlock();
        h.fn(kEdsObjectEvent_DirItemRequestTransfer, toRef(item), h.context);
        lock.lock();
    }
    releaseLocked(item, true);
    releaseLocked(camera, true);
}

EdsError SimulatorSdk::EdsGetDirectoryItemInfo(EdsDirectoryItemRef ref, EdsDirectoryItemInfo *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsGetDirectoryItemInfo"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *item = find<DirItem>(ref);
    if (!item)
        return EDS_ERR_INVALID_HANDLE;
    std::memset(out, 0, sizeof *out);
    out->size = EdsUInt64(item->data.size());
    out->isFolder = 0;
    std::strncpy(out->szFileName, item->fileName.c_str(), EDS_MAX_NAME - 1);
    out->format = item->format;
    out->dateTime = item->dateTime;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsCreateMemoryStreamFromPointer(EdsVoid *buffer, EdsUInt64 size, EdsStreamRef *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsCreateMemoryStreamFromPointer"))
        return e;
    if (!out || (!buffer && size > 0))
        return EDS_ERR_INVALID_POINTER;
    auto *s = new Stream;
    s->buffer = static_cast<unsigned char *>(buffer);
    s->capacity = size;
    addObject(s, false);
    *out = toRef(s);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsSetProgressCallback(EdsBaseRef ref, EdsProgressCallback fn,
                                              EdsProgressOption option, EdsVoid *context) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsSetProgressCallback"))
        return e;
    auto *s = find<Stream>(ref);
    if (!s)
        return EDS_ERR_INVALID_HANDLE;
    if (option > kEdsProgressOption_Periodically)
        return EDS_ERR_INVALID_PARAMETER;
    s->progress = fn;
    s->progressOption = option;
    s->progressContext = context;
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsDownload(EdsDirectoryItemRef itemRef, EdsUInt64 readSize, EdsStreamRef streamRef) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsDownload"))
        return e;
    auto *item = find<DirItem>(itemRef);
    auto *stream = find<Stream>(streamRef);
    if (!item || !stream)
        return EDS_ERR_INVALID_HANDLE;
    if (!item->camera->attached)
        return EDS_ERR_COMM_DISCONNECTED;
    if (readSize > EdsUInt64(item->data.size()))
        return EDS_ERR_INVALID_LENGTH;
    if (stream->capacity - stream->position < readSize)
        return EDS_ERR_STREAM_END_OF_STREAM;
    const QByteArray data = item->data; // shared, not copied
    const QByteArray stamp = item->stamp;
    const qsizetype stampAt = item->stampAt;
    const double rate = transferRate_;
    unsigned char *dest = stream->buffer + stream->position;
    const auto fn = stream->progress;
    const auto option = fn ? stream->progressOption : kEdsProgressOption_NoReport;
    EdsVoid *context = stream->progressContext;
    stream->position += readSize;
    lock.unlock();

    // The transfer goes in slices, reporting after each as a camera does.
    const EdsUInt64 slice = std::max<EdsUInt64>(readSize / 20, 16 * 1024);
    const auto started = std::chrono::steady_clock::now();
    EdsUInt32 reported = 0;
    EdsUInt64 done = 0;
    do {
        const EdsUInt64 n = std::min(slice, readSize - done);
        if (n)
            std::memcpy(dest + done, data.constData() + done, n);
        if (stampAt >= 0) { // the part of the shot's number that falls in this slice
            const EdsUInt64 from = std::max<EdsUInt64>(done, EdsUInt64(stampAt));
            const EdsUInt64 to = std::min<EdsUInt64>(done + n, EdsUInt64(stampAt + stamp.size()));
            if (from < to)
                std::memcpy(dest + from, stamp.constData() + (from - EdsUInt64(stampAt)), to - from);
        }
        done += n;
        if (rate > 0)
            std::this_thread::sleep_until(started + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                        std::chrono::duration<double>(double(done) / rate)));
        const EdsUInt32 percent = readSize ? EdsUInt32(done * 100 / readSize) : 100;
        const bool report = option == kEdsProgressOption_Periodically
                                ? percent != reported
                                : (option == kEdsProgressOption_Done && done == readSize);
        if (report) {
            reported = percent;
            EdsBool cancel = 0;
            fn(percent, context, &cancel);
            if (cancel)
                return EDS_ERR_OPERATION_CANCELLED;
        }
    } while (done < readSize);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsDownloadComplete(EdsDirectoryItemRef ref) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsDownloadComplete"))
        return e;
    auto *item = find<DirItem>(ref);
    if (!item)
        return EDS_ERR_INVALID_HANDLE;
    if (!item->completed) {
        item->completed = true;
        auto &pending = item->camera->pending;
        auto it = std::find(pending.begin(), pending.end(), item);
        if (it != pending.end()) {
            pending.erase(it);
            releaseLocked(item, true);
        }
    }
    return EDS_ERR_OK;
}

// --- live view ---------------------------------------------------------------------------------

EdsError SimulatorSdk::EdsCreateEvfImageRef(EdsStreamRef streamRef, EdsEvfImageRef *out) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsCreateEvfImageRef"))
        return e;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    auto *stream = find<Stream>(streamRef);
    if (!stream)
        return EDS_ERR_INVALID_HANDLE;
    auto *evf = new EvfImage;
    addObject(evf, false);
    retainLocked(stream, true);
    evf->stream = stream;
    *out = toRef(evf);
    return EDS_ERR_OK;
}

EdsError SimulatorSdk::EdsDownloadEvfImage(EdsCameraRef cameraRef, EdsEvfImageRef evfRef) {
    Lock lock(mutex_);
    if (EdsError e = takeInjection("EdsDownloadEvfImage"))
        return e;
    auto *c = find<Camera>(cameraRef);
    if (EdsError e = checkCamera(c, true, false))
        return e;
    auto *evf = find<EvfImage>(evfRef);
    if (!evf)
        return EDS_ERR_INVALID_HANDLE;
    if (!(c->props.at(kEdsPropID_Evf_OutputDevice).value & kEdsEvfOutputDevice_PC))
        return EDS_ERR_OBJECT_NOTREADY;
    const double elapsed = std::chrono::duration<double>(dispatch::now() - c->evfStart).count();
    const auto due = int64_t(std::floor(std::max(0.0, elapsed) * evfRate_));
    if (due <= c->evfLastFrame)
        return EDS_ERR_OBJECT_NOTREADY;
    c->evfLastFrame = due;
    const QString model = QString::fromStdString(c->model);
    retainLocked(evf, true);
    lock.unlock();

    const QByteArray frame = renderLiveViewJpeg(uint64_t(due), model);

    lock.lock();
    EdsError result = EDS_ERR_OK;
    Stream *s = evf->stream;
    if (frame.isEmpty())
        result = EDS_ERR_INTERNAL_ERROR;
    else if (s->capacity - s->position < EdsUInt64(frame.size()))
        result = EDS_ERR_STREAM_END_OF_STREAM;
    else {
        std::memcpy(s->buffer + s->position, frame.constData(), size_t(frame.size()));
        s->position += EdsUInt64(frame.size());
        evf->frameSize = EdsUInt64(frame.size());
    }
    releaseLocked(evf, true);
    return result;
}

// --- control --------------------------------------------------------------------------------------

int SimulatorSdk::plug(const std::string &model, int subtype) {
    Lock lock(mutex_);
    auto *c = new Camera;
    c->model = model.empty() ? defaultModel_ : model;
    c->subtype = subtype >= 0 ? EdsUInt32(subtype) : (isLegacyModelName(c->model) ? 0u : 1u);
    c->port = "usb:001," + std::to_string(nextPort_++);
    c->fileCounter = fileCounters_[c->model];
    const bool legacy = c->subtype == 0;
    for (const auto &spec : kProperties)
        c->props[spec.id] = Prop{spec.type, spec.initial, spec.text ? spec.text : ""};
    c->props[kEdsPropID_ProductName].text = c->model;
    c->props[kEdsPropID_FirmwareVersion].text = legacy ? "1.1.1" : "1.2.3";

    addObject(c, true); // the bus's count
    attached_.push_back(c);
    Logger::setDebug(QStringLiteral("simulator: plugged in \"%1\" (subtype %2) on %3")
                         .arg(QString::fromStdString(c->model))
                         .arg(c->subtype)
                         .arg(QString::fromStdString(c->port)));
    if (initialized_ && addedHandler_ && !closing_) {
        post([this] {
            Lock l(mutex_);
            const auto fn = addedHandler_;
            EdsVoid *context = addedContext_;
            if (closing_ || !fn || !initialized_)
                return;
            l.unlock();
            fn(context);
        });
    }
    return int(attached_.size());
}

void SimulatorSdk::detachLocked(Camera *c) {
    c->attached = false;
    attached_.erase(std::find(attached_.begin(), attached_.end(), c));
    if (c->session)
        postStateEvent(c, kEdsStateEvent_Shutdown, 0);
    c->bulb = false;
    c->shutter = kEdsCameraCommand_ShutterButton_OFF;
    for (DirItem *item : std::exchange(c->pending, {}))
        releaseLocked(item, true);
    Logger::setDebug(QStringLiteral("simulator: unplugged \"%1\" from %2")
                         .arg(QString::fromStdString(c->model), QString::fromStdString(c->port)));
    releaseLocked(c, true); // the bus's count
}

bool SimulatorSdk::unplug() {
    Lock lock(mutex_);
    if (attached_.empty())
        return false;
    detachLocked(attached_.back());
    return true;
}

int SimulatorSdk::attachedCount() const {
    Lock lock(mutex_);
    return int(attached_.size());
}

bool SimulatorSdk::pressShutter() {
    Lock lock(mutex_);
    Camera *c = activeCameraLocked();
    if (!c)
        return false;
    shootLocked(c);
    return true;
}

EdsError SimulatorSdk::setProperty(EdsPropertyID id, EdsUInt32 value) {
    Lock lock(mutex_);
    Camera *c = activeCameraLocked();
    if (!c)
        return EDS_ERR_DEVICE_NOT_FOUND;
    return changeValueLocked(c, id, value, true);
}

EdsError SimulatorSdk::setStringProperty(EdsPropertyID id, const std::string &value) {
    Lock lock(mutex_);
    Camera *c = activeCameraLocked();
    if (!c)
        return EDS_ERR_DEVICE_NOT_FOUND;
    return changeStringLocked(c, id, value);
}

EdsError SimulatorSdk::setSupportedValues(EdsPropertyID id, const std::vector<EdsInt32> &values) {
    Lock lock(mutex_);
    Camera *c = activeCameraLocked();
    if (!c)
        return EDS_ERR_DEVICE_NOT_FOUND;
    if (!c->props.count(id))
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    if (values.size() > std::size(EdsPropertyDesc{}.propDesc))
        return EDS_ERR_INVALID_LENGTH;
    c->overrides[id] = values;
    postPropertyEvent(c, kEdsPropertyEvent_PropertyDescChanged, id);
    return EDS_ERR_OK;
}

QVariant SimulatorSdk::property(EdsPropertyID id) const {
    Lock lock(mutex_);
    Camera *c = activeCameraLocked();
    if (!c)
        return {};
    auto it = c->props.find(id);
    if (it == c->props.end())
        return {};
    switch (it->second.type) {
    case kEdsDataType_String:
        return QString::fromStdString(it->second.text);
    case kEdsDataType_Time:
        return cameraNow(c->clockOffsetMs).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    default:
        return QVariant::fromValue(uint(it->second.value));
    }
}

bool SimulatorSdk::injectError(const std::string &operation, EdsError code, unsigned count) {
    std::string name = operation;
    const bool isCommand = kCommandNames.count(name) != 0;
    if (!isCommand) {
        if (name.rfind("Eds", 0) != 0)
            name = "Eds" + name;
        if (std::find_if(std::begin(kOperations), std::end(kOperations),
                         [&](const char *op) { return name == op; }) == std::end(kOperations))
            return false;
    }
    Lock lock(mutex_);
    if (count == 0 || code == EDS_ERR_OK)
        injections_.erase(name);
    else
        injections_[name] = Injection{code, count};
    return true;
}

bool SimulatorSdk::setShotFormat(const std::string &extension, uint64_t bytes) {
    const QString ext = QString::fromStdString(extension).toUpper();
    if (ext != QLatin1String("JPG") && ext != QLatin1String("CR2"))
        return false;
    Lock lock(mutex_);
    shotExtension_ = ext.toStdString();
    shotBytes_ = bytes;
    return true;
}

void SimulatorSdk::setLiveViewRate(double framesPerSecond) {
    if (!(framesPerSecond > 0))
        return;
    Lock lock(mutex_);
    evfRate_ = framesPerSecond;
}

void SimulatorSdk::setStampedShots(bool on) {
    Lock lock(mutex_);
    stampedShots_ = on;
    if (!on)
        picture_ = {};
}

void SimulatorSdk::setTransferRate(double bytesPerSecond) {
    Lock lock(mutex_);
    transferRate_ = bytesPerSecond > 0 ? bytesPerSecond : 0;
}

SimulatorControl::ShotBuffer SimulatorSdk::shotBuffer() const {
    Lock lock(mutex_);
    ShotBuffer b;
    std::unordered_set<const char *> files;
    if (!picture_.data.isEmpty()) {
        files.insert(picture_.data.constData());
        b.bytes += uint64_t(picture_.data.size());
    }
    for (const Camera *c : attached_) {
        for (const DirItem *item : c->pending) {
            ++b.shots;
            if (files.insert(item->data.constData()).second)
                b.bytes += uint64_t(item->data.size());
        }
    }
    return b;
}

unsigned SimulatorSdk::shotCount() const {
    Lock lock(mutex_);
    return shots_;
}

long SimulatorSdk::callerReferenceCount() const {
    Lock lock(mutex_);
    return totalRefs_ - internalRefs_;
}

long SimulatorSdk::liveObjectCount() const {
    Lock lock(mutex_);
    return long(objects_.size());
}

} // namespace sim
} // namespace brix::eds
