// The camera object: creation, session, events, properties, locks, time records.
#include "OKVA_CanonCamera.h"

#include "CameraClassState.h"
#include "CameraText.h"
#include "DateFormat.h"
#include "Dispatch.h"
#include "NotificationCenter.h"

#include <QDate>
#include <QTime>
#include <QTimeZone>

#include <algorithm>
#include <cstring>
#include <sys/statvfs.h>
#include <vector>

namespace brix {

using namespace eds;
using cameratables::dataTypeName;
using cameratables::displayText;
using cameratables::errorText;
using cameratables::propertyName;
using cameratext::logf;

namespace {
constexpr const char kLogRetain[] = "retaining a camera with \"after-retain\" retain count of %u";
constexpr const char kLogRelease[] = "releasing a camera with \"after-release\" retain count of %u";
constexpr const char kLogDeviceInfoError[] = "got error %x trying to get device info for camera %p";
constexpr const char kLogModel[] = "loaded camera model \"%@\" (type %d)";
constexpr const char kLogSetStateHandler[] = "set cameraStateEvent callback";
constexpr const char kLogSetStateHandlerError[] =
    "error %x trying to set cameraEventCallback callback for %@";
constexpr const char kLogLoadStart[] = "%@-%@... start....";
constexpr const char kLogOpened[] = "opened a session with %@";
constexpr const char kLogOpenError[] = "error %x trying to open a session with %@";
constexpr const char kLogCloseError[] = "error %d trying to close a session with %@";
constexpr const char kLogSetProperty[] = "set propertyEventCallback";
constexpr const char kLogSetPropertyError[] = "error %x trying to set propertyEventCallback callback for %@";
constexpr const char kLogSetObject[] = "set objectEventCallback";
constexpr const char kLogSetObjectError[] = "error %x trying to set objectEventCallback callback for %@";
constexpr const char kLogClearedState[] = "cleared the cameraStateEventCallback";
constexpr const char kLogClearedProperty[] = "cleared the propertyEventCallback";
constexpr const char kLogClearedObject[] = "cleared the objectEventCallback";
constexpr const char kLogClearStateError[] = "error %x trying to clear cameraEventCallback callback for %@";
constexpr const char kLogClearPropertyError[] =
    "error %x trying to clear propertyEventCallback callback for %@";
constexpr const char kLogClearObjectError[] = "error %x trying to clear objectEventCallback callback for %@";
constexpr const char kLogDestination[] = "Inside %@ => %@...dest = [%i]";
constexpr const char kLogFsStats[] = "file system stats:\n block size:%ld\n free blocks:%ld";
constexpr const char kLogCapacityError[] = "set capacity failed with error %x";
constexpr const char kLogDisappeared[] = "camera %@ has disappeared (was shutdown or unplugged)";
constexpr const char kLogJobStatus[] = "camera %@ job status changed (%u)";
constexpr const char kLogShutdownSoon[] = "camera %@ shutdown timer soon (%u)";
constexpr const char kLogShutdownUpdate[] = "camera %@ shutdown timer update (%u)";
constexpr const char kLogCaptureError[] = "camera %@ reported a capture error (%u)";
constexpr const char kLogJobStatusHasChanged[] = "camera %@ job status has changed";
constexpr const char kLogUnknownCameraEvent[] = "received camera event %x for camera %@";
constexpr const char kLogDescChanged[] = "camera %@ property %s (%u) description changed (p=%x)";
constexpr const char kLogUnknownPropertyEvent[] = "received unknown property event %x for camera %@";
constexpr const char kLogRequestDownload[] = "camera %@ requests that obj (%p) be downloaded";
constexpr const char kLogUnknownObjectEvent[] = "received object event %x for camera %@";
constexpr const char kLogAboutToGet[] = "about to get value for property (%u) (0x%x) %s";
constexpr const char kLogGotValue[] = "got value %@ for %s (data type %s (%u); size %u)";
constexpr const char kLogSizeError[] = "error %x (%s) getting property size for %s";
constexpr const char kLogDataError[] = "error %x (%s) getting property data for %s";
constexpr const char kLogAboutToSet[] = "about to set value (%@) for property %s";
constexpr const char kLogAboutToSetIn[] = "%@-%@ => about to set value (%@) for property %s";
constexpr const char kLogSetValue[] = "set value (%@) for property %s";
constexpr const char kLogSetValueError[] = "error %x (%s) setting value (%@) for property %s";
constexpr const char kLogUsedKey[] = "used key %@ for dict %@ from properties %@";
constexpr const char kLogPropertyChanged[] = "camera %@ property %s (%x, p=%x) changed to %@";
constexpr const char kLogAboutToGetSupported[] = "about to get supported values for property (%u) %s";
constexpr const char kLogDescError[] = "error %x getting proper description for property %u";
constexpr const char kLogNumElements[] = "info.numElements = %i";
constexpr const char kLogFoundSupported[] = "found %u supported properties for %s (propID 0x%x)";
constexpr const char kLogObject[] = "%@";
constexpr const char kLogFoundProperties[] = "%@-%@ => Found Properties = %@";
constexpr const char kLogNoUiLock[] = "%@-%@ => UNABLE to get Lock???? waitForCameraLock failed...";
constexpr const char kLogBareSetError[] = "EdsSetPropertyData returned error %x";
constexpr const char kLogBareSet[] = "EdsSetPropertyData for PropertyID %x is set";
constexpr const char kLogWaitingLock[] = "waiting %.1f secs for %@ lock on thread %@ %@";
constexpr const char kLogGotLock[] = "got %@ lock after waiting %.2f seconds";
constexpr const char kLogLockTimeout[] = "timed out waiting for %@ lock";
constexpr const char kLogUiLockError[] = "error 0X%X (%s) unlocking camera UI";

constexpr EdsDataType kTimeType = kEdsDataType_Time;

bool isStringProperty(EdsPropertyID id) {
    return id == kEdsPropID_ProductName || id == kEdsPropID_OwnerName || id == kEdsPropID_Copyright;
}

bool isNumber(const QVariant &v) {
    switch (v.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Long:
    case QMetaType::ULong:
        return true;
    default:
        return false;
    }
}

// The 32-bit unsigned number of a value: negative values wrap, fractions are cut.
EdsUInt32 unsignedValue(const QVariant &v) {
    if (v.typeId() == QMetaType::Double || v.typeId() == QMetaType::Float)
        return static_cast<EdsUInt32>(static_cast<long long>(v.toDouble()));
    if (v.typeId() == QMetaType::ULongLong || v.typeId() == QMetaType::ULong)
        return static_cast<EdsUInt32>(v.toULongLong());
    return static_cast<EdsUInt32>(v.toLongLong());
}

} // namespace

// --- class-wide state --------------------------------------------------------------

namespace {
// Log lines describe a camera (in a notification, a list) by its model name.
[[maybe_unused]] const bool kCamerasDescribeAsText = QMetaType::registerConverter<CameraPtr, QString>(
    [](const CameraPtr &camera) { return camera ? camera->description() : QStringLiteral("(null)"); });
} // namespace

CameraClassState &CameraClassState::get() {
    static auto *state = new CameraClassState; // process lifetime: detached threads may outlive main()
    return *state;
}

namespace {
// Callbacks this thread is running: a wait for the callbacks under way made
// from inside one must not wait for itself.
thread_local int tCallbacksOnThisThread = 0;
} // namespace

bool CameraClassState::CallbackGate::enter() {
    std::lock_guard lk(m_);
    if (closed_)
        return false;
    ++running_;
    return true;
}

void CameraClassState::CallbackGate::leave() {
    bool wake;
    {
        std::lock_guard lk(m_);
        wake = --running_ == 0 && closed_;
    }
    if (wake) {
        idle_.notify_all();
        dispatch::mainQueue()->async([] {}); // lets a wait on the main thread look again
    }
}

void CameraClassState::CallbackGate::open() {
    std::lock_guard lk(m_);
    closed_ = false;
}

void CameraClassState::CallbackGate::closeAndWait() {
    const int own = tCallbacksOnThisThread;
    auto settled = [&] { return running_ <= own; };
    std::unique_lock lk(m_);
    closed_ = true;
    if (!dispatch::isMainThread()) {
        idle_.wait(lk, settled);
        return;
    }
    lk.unlock();
    dispatch::waitPumpingMainLoop([&] {
        std::lock_guard relock(m_);
        return settled();
    });
}

CameraClassState::CallbackPass::CallbackPass() : entered_(get().callbacks.enter()) {
    if (entered_)
        ++tCallbacksOnThisThread;
}

CameraClassState::CallbackPass::~CallbackPass() {
    if (!entered_)
        return;
    --tCallbacksOnThisThread;
    get().callbacks.leave();
}

bool OKVA_CanonCameraDelegate::cancelDownloadForProgress(EdsUInt32) {
    return false;
}

CameraPtr OKVA_CanonCamera::currentCamera() {
    return CameraClassState::get().currentCamera();
}

QVariant OKVA_CanonCamera::classObject() {
    return QVariant::fromValue(OKVA_CanonCameraClass{});
}

CameraPtr OKVA_CanonCamera::fromVariant(const QVariant &object) {
    return object.canConvert<CameraPtr>() ? object.value<CameraPtr>() : CameraPtr();
}

QVariant OKVA_CanonCamera::toVariant() {
    return QVariant::fromValue(shared_from_this());
}

CameraPtr OKVA_CanonCamera::cameraForContext(void *context) {
    auto &st = CameraClassState::get();
    std::lock_guard lk(st.registryMutex);
    auto it = st.registry.find(static_cast<const OKVA_CanonCamera *>(context));
    return it == st.registry.end() ? CameraPtr() : it->second.lock();
}

// --- creation and destruction ---------------------------------------------------------

OKVA_CanonCamera::OKVA_CanonCamera(std::shared_ptr<EdsSdk> sdk) : sdk_(std::move(sdk)) {}

CameraPtr OKVA_CanonCamera::initWithCameraRef(EdsCameraRef cameraRef) {
    if (!cameraRef)
        return nullptr;
    auto sdk = CameraClassState::get().currentSdk();
    if (!sdk)
        return nullptr;
    CameraPtr camera(new OKVA_CanonCamera(sdk));
    camera->cameraRef_ = cameraRef;
    {
        auto &st = CameraClassState::get();
        std::lock_guard lk(st.registryMutex);
        st.registry[camera.get()] = camera;
    }
    logf(kLogRetain, sdk->EdsRetain(cameraRef));
    camera->cameraHandle_ = EdsCameraHandle::adopt(*sdk, cameraRef);

    EdsDeviceInfo info{};
    const EdsError err = sdk->EdsGetDeviceInfo(cameraRef, &info);
    if (err != EDS_ERR_OK) {
        logf(kLogDeviceInfoError, err, static_cast<const void *>(cameraRef));
        return camera;
    }
    camera->modelName_ =
        QString::fromUtf8(info.szDeviceDescription,
                          qsizetype(strnlen(info.szDeviceDescription, sizeof info.szDeviceDescription)));
    camera->subType_ = static_cast<int32_t>(info.deviceSubType);
    logf(kLogModel, camera->modelName_, camera->subType_);
    const EdsError herr =
        sdk->EdsSetCameraStateEventHandler(cameraRef, kEdsStateEvent_All, &stateEventHandler, camera.get());
    if (herr == EDS_ERR_OK) {
        camera->ownsStateHandler_ = true;
        logf(kLogSetStateHandler);
    } else {
        logf(kLogSetStateHandlerError, herr, camera->modelName_);
    }
    return camera;
}

OKVA_CanonCamera::~OKVA_CanonCamera() {
    auto &st = CameraClassState::get();
    unload(); // only the current camera unloads, and the current camera is never destroyed
    {
        std::lock_guard lk(st.registryMutex);
        st.registry.erase(this);
    }
    // A list update makes a second object for every camera it sees, and the
    // SDK keeps one state handler per camera: the newest object took it over.
    // Hand it to another object of the same body (the loaded one first, but
    // also one still opening its session and not yet current), so that its
    // disappearance still arrives.
    if (ownsStateHandler_ && cameraRef_) {
        if (CameraPtr heir = otherObjectForBody(cameraRef_, sdk_.get())) {
            sdk_->EdsSetCameraStateEventHandler(cameraRef_, kEdsStateEvent_All, &stateEventHandler,
                                                heir.get());
            heir->ownsStateHandler_ = true;
        }
    }
    if (cameraHandle_)
        logf(kLogRelease, cameraHandle_.reset());
    if (st.listLock.tryLock())
        st.listLock.unlock();
}

// --- session ---------------------------------------------------------------------------------

bool OKVA_CanonCamera::load() {
    logf(kLogLoadStart, description(), "load");
    auto &st = CameraClassState::get();
    CameraPtr current = st.currentCamera();
    if (current.get() == this)
        return loaded_;
    if (current && !current->unload())
        return loaded_;
    const EdsError err = sdk_->EdsOpenSession(cameraRef_);
    if (err != EDS_ERR_OK) {
        logf(kLogOpenError, err, description());
        return loaded_;
    }
    st.setCurrent(shared_from_this());
    loaded_ = true;
    logf(kLogOpened, description());
    NotificationCenter::defaultCenter().post(Notification{kOKVA_CanonCameraDidLoad, toVariant(), {}, {}});
    startNotifications();
    setDestination(kEdsSaveTo_Host);
    getDeviceProperties();
    return loaded_;
}

bool OKVA_CanonCamera::unload() {
    auto &st = CameraClassState::get();
    {
        std::lock_guard lk(st.currentMutex);
        if (st.current.get() != this)
            return false;
    }
    // Keeps this camera alive until the end even when the class lets it go below.
    CameraPtr self = shared_from_this();
    stopNotifications();
    setDestination(kEdsSaveTo_Camera);
    liveViewEnd();
    st.setCurrent(nullptr);
    const EdsError err = sdk_->EdsCloseSession(cameraRef_);
    if (err != EDS_ERR_OK) {
        logf(kLogCloseError, err, description());
        return false;
    }
    loaded_ = false;
    NotificationCenter::defaultCenter().post(Notification{kOKVA_CanonCameraDidUnload, toVariant(), {}, {}});
    return true;
}

void OKVA_CanonCamera::startNotifications() {
    EdsError err =
        sdk_->EdsSetPropertyEventHandler(cameraRef_, kEdsPropertyEvent_All, &propertyEventHandler, this);
    if (err == EDS_ERR_OK)
        logf(kLogSetProperty);
    else
        logf(kLogSetPropertyError, err, description());
    err = sdk_->EdsSetObjectEventHandler(cameraRef_, kEdsObjectEvent_All, &objectEventHandler, this);
    if (err == EDS_ERR_OK)
        logf(kLogSetObject);
    else
        logf(kLogSetObjectError, err, description());
}

void OKVA_CanonCamera::stopNotifications() {
    EdsError err = sdk_->EdsSetCameraStateEventHandler(cameraRef_, kEdsStateEvent_All, nullptr, nullptr);
    if (err == EDS_ERR_OK) {
        ownsStateHandler_ = false;
        logf(kLogClearedState);
    } else {
        logf(kLogClearStateError, err, description());
    }
    err = sdk_->EdsSetPropertyEventHandler(cameraRef_, kEdsPropertyEvent_All, nullptr, nullptr);
    if (err == EDS_ERR_OK)
        logf(kLogClearedProperty);
    else
        logf(kLogClearPropertyError, err, description());
    err = sdk_->EdsSetObjectEventHandler(cameraRef_, kEdsObjectEvent_All, nullptr, nullptr);
    if (err == EDS_ERR_OK)
        logf(kLogClearedObject);
    else
        logf(kLogClearObjectError, err, description());
}

bool OKVA_CanonCamera::setDestination(EdsUInt32 destination) {
    logf(kLogDestination, description(), "setDestination", destination);
    const bool ok = setValue(QVariant::fromValue(destination), kEdsPropID_SaveTo, 0);
    setHostStorageCapacityAtPath(QString(), true);
    return ok;
}

bool OKVA_CanonCamera::setHostStorageCapacityAtPath(const QString &path, bool reset) {
    const QByteArray where = path.isEmpty() ? QByteArray("/") : path.toUtf8();
    struct statvfs fs {};
    long blockSize = 0;
    long freeBlocks = 0;
    if (statvfs(where.constData(), &fs) == 0) {
        blockSize = static_cast<long>(fs.f_bsize);
        freeBlocks = static_cast<long>(fs.f_bfree);
    }
    logf(kLogFsStats, blockSize, freeBlocks);
    EdsCapacity capacity{};
    // The record holds signed 32-bit counts; a larger disk reports the most it can.
    capacity.numberOfFreeClusters = static_cast<EdsInt32>(std::min<long>(freeBlocks, INT32_MAX));
    capacity.bytesPerSector = static_cast<EdsInt32>(std::min<long>(blockSize, INT32_MAX));
    capacity.reset = reset ? 1 : 0;
    const EdsError err = sdk_->EdsSetCapacity(cameraRef_, capacity);
    if (err != EDS_ERR_OK) {
        logf(kLogCapacityError, err);
        return false;
    }
    return true;
}

// --- events -----------------------------------------------------------------------------------

void OKVA_CanonCamera::letGoOffEventThread(CameraPtr camera) {
    // The camera may hold the last reference to its SDK, and an SDK cannot be
    // torn down on the thread that is delivering its events.
    if (camera && camera.use_count() == 1)
        dispatch::globalQueue()->async([camera = std::move(camera)]() mutable { camera.reset(); });
}

CameraPtr OKVA_CanonCamera::otherObjectForBody(EdsCameraRef cameraRef, const EdsSdk *sdk) {
    auto sameBody = [&](const CameraPtr &c) {
        return c && c->cameraRef_ == cameraRef && c->sdk_.get() == sdk;
    };
    auto &st = CameraClassState::get();
    if (CameraPtr current = st.currentCamera(); sameBody(current))
        return current;
    std::vector<CameraPtr> alive; // let go outside the mutex: a last reference destroys its camera
    {
        std::lock_guard lk(st.registryMutex);
        for (const auto &entry : st.registry)
            alive.push_back(entry.second.lock());
    }
    auto found = std::find_if(alive.begin(), alive.end(), sameBody);
    return found == alive.end() ? nullptr : *found;
}

EdsError OKVA_CanonCamera::stateEventHandler(EdsStateEvent event, EdsUInt32 data, void *context) {
    CameraClassState::CallbackPass pass;
    if (!pass)
        return EDS_ERR_OK;
    CameraPtr camera = cameraForContext(context);
    // The handler may still be held by a second object a list update made for
    // the loaded body: the body's state is the loaded camera's business.
    if (camera) {
        if (CameraPtr current = currentCamera(); current && current != camera &&
                                                 current->cameraRef_ == camera->cameraRef_ &&
                                                 current->sdk_ == camera->sdk_)
            camera = std::move(current);
    }
    const EdsError err = camera ? camera->processCameraEvent(event, data) : EDS_ERR_OK;
    letGoOffEventThread(std::move(camera));
    return err;
}

EdsError OKVA_CanonCamera::propertyEventHandler(EdsPropertyEvent event, EdsPropertyID id, EdsUInt32 param,
                                                void *context) {
    CameraClassState::CallbackPass pass;
    if (!pass)
        return EDS_ERR_OK;
    CameraPtr camera = cameraForContext(context);
    const EdsError err = camera ? camera->processPropertyEvent(event, id, param) : EDS_ERR_OK;
    letGoOffEventThread(std::move(camera));
    return err;
}

EdsError OKVA_CanonCamera::objectEventHandler(EdsObjectEvent event, EdsBaseRef ref, void *context) {
    CameraClassState::CallbackPass pass;
    if (!pass)
        return EDS_ERR_OK;
    CameraPtr camera = cameraForContext(context);
    const EdsError err = camera ? camera->processObjectEvent(event, ref) : EDS_ERR_OK;
    letGoOffEventThread(std::move(camera));
    return err;
}

EdsError OKVA_CanonCamera::processCameraEvent(EdsStateEvent event, EdsUInt32 eventData) {
    switch (event) {
    case kEdsStateEvent_Shutdown: {
        logf(kLogDisappeared, description());
        loaded_ = false;
        sdk_->EdsCloseSession(cameraRef_);
        auto &st = CameraClassState::get();
        QList<CameraPtr> removed; // let go outside the data mutex
        {
            std::lock_guard lk(st.listMutex);
            for (auto it = st.list.begin(); it != st.list.end();) {
                if (*it && (*it)->isEqual(*this)) {
                    removed.append(*it);
                    it = st.list.erase(it);
                } else {
                    ++it;
                }
            }
        }
        auto &center = NotificationCenter::defaultCenter();
        center.postOnMainNoWait(Notification{kOKVA_CanonCameraDidUnload, toVariant(), {}, {}});
        center.postOnMainNoWait(Notification{kOKVA_CanonCameraListDidUpdate, classObject(), {}, {}});
        break;
    }
    case kEdsStateEvent_JobStatusChanged:
        logf(kLogJobStatus, description(), eventData);
        break;
    case kEdsStateEvent_WillSoonShutDown:
        logf(kLogShutdownSoon, description(), eventData);
        break;
    case kEdsStateEvent_ShutDownTimerUpdate:
        logf(kLogShutdownUpdate, description(), eventData);
        break;
    case kEdsStateEvent_CaptureError:
        logf(kLogCaptureError, description(), eventData);
        break;
    case kEdsStateEvent_AfResult:
    case kEdsStateEvent_BulbExposureTime:
        logf(kLogJobStatusHasChanged, description());
        break;
    default:
        logf(kLogUnknownCameraEvent, event, description());
        break;
    }
    return EDS_ERR_OK;
}

EdsError OKVA_CanonCamera::processPropertyEvent(EdsPropertyEvent event, EdsPropertyID propertyID,
                                                EdsUInt32 parameter) {
    if (event == kEdsPropertyEvent_PropertyChanged) {
        propertyDidChange(propertyID, parameter);
    } else if (event == kEdsPropertyEvent_PropertyDescChanged) {
        logf(kLogDescChanged, description(), propertyName(propertyID), propertyID, parameter);
        setSupportedValues(supportedValuesForPropertyID(propertyID), propertyID);
    } else {
        logf(kLogUnknownPropertyEvent, event, description());
    }
    return EDS_ERR_OK;
}

EdsError OKVA_CanonCamera::processObjectEvent(EdsObjectEvent event, EdsBaseRef object) {
    if (event == kEdsObjectEvent_DirItemRequestTransfer) {
        logf(kLogRequestDownload, description(), static_cast<const void *>(object));
        // The event thread only hands the item over: a download waits while the
        // shots before it are still being saved, and state and property events
        // (an unplug among them) must keep flowing meanwhile.
        auto item = std::make_shared<EdsDirectoryItemHandle>(EdsDirectoryItemHandle::retain(*sdk_, object));
        downloadQueue_->async([self = shared_from_this(), item]() mutable {
            {
                // Termination waits for a download under way, and none starts after it.
                CameraClassState::CallbackPass pass;
                if (pass)
                    self->downloadObject(item->get());
            }
            item.reset(); // while the camera, and so its SDK, is still held
            letGoOffEventThread(std::move(self));
        });
    } else {
        logf(kLogUnknownObjectEvent, event, description());
    }
    return EDS_ERR_OK;
}

// --- properties ------------------------------------------------------------------------------

QVariant OKVA_CanonCamera::valueForPropertyID(EdsPropertyID propertyID, EdsInt32 parameter) {
    const QString name = propertyName(propertyID);
    logf(kLogAboutToGet, 0u, propertyID, name);
    QVariant value;
    if (!waitForCameraLock(3.0))
        return value;
    EdsDataType type = kEdsDataType_Unknown;
    EdsUInt32 size = 0;
    EdsError err = sdk_->EdsGetPropertySize(cameraRef_, propertyID, parameter, &type, &size);
    if (err != EDS_ERR_OK) {
        logf(kLogSizeError, err, errorText(err), name);
    } else {
        // Integers are read as a whole 64-bit word and time records as a whole
        // record whatever size the camera reports, so the buffer holds at least
        // that much, zero-filled beyond what the camera writes.
        std::vector<unsigned char> buffer(std::max<std::size_t>({std::size_t(size), sizeof(uint64_t),
                                                                 type == kTimeType ? sizeof(EdsTime) : 0}),
                                          0);
        err = sdk_->EdsGetPropertyData(cameraRef_, propertyID, parameter, size, buffer.data());
        if (err != EDS_ERR_OK) {
            logf(kLogDataError, err, errorText(err), name);
        } else {
            switch (type) {
            case kEdsDataType_String: {
                const auto *text = reinterpret_cast<const char *>(buffer.data());
                value = QString::fromUtf8(text, qsizetype(strnlen(text, size)));
                break;
            }
            case kEdsDataType_Int8:
            case kEdsDataType_Int16:
            case kEdsDataType_Int32: {
                int64_t word = 0;
                std::memcpy(&word, buffer.data(), sizeof word);
                value = QVariant::fromValue(qint64(word));
                break;
            }
            case kEdsDataType_UInt8:
            case kEdsDataType_UInt16:
            case kEdsDataType_UInt32: {
                uint64_t word = 0;
                std::memcpy(&word, buffer.data(), sizeof word);
                value = QVariant::fromValue(quint64(word));
                break;
            }
            case kEdsDataType_Time: {
                EdsTime time{};
                std::memcpy(&time, buffer.data(), sizeof time);
                const QDateTime date = dateForEDSTime(&time);
                if (date.isValid())
                    value = date;
                break;
            }
            default:
                break;
            }
            logf(kLogGotValue, value, name, dataTypeName(type), type, size);
        }
    }
    unlockCameraLock();
    return value;
}

bool OKVA_CanonCamera::setValue(const QVariant &value, EdsPropertyID propertyID, EdsInt32 parameter) {
    const QString name = propertyName(propertyID);
    logf(kLogAboutToSet, value, name);
    logf(kLogAboutToSetIn, description(), "setValue", value, name);
    QByteArray bytes;
    if (isStringProperty(propertyID)) {
        if (value.typeId() == QMetaType::QString) {
            bytes = value.toString().toUtf8();
            bytes.append('\0'); // the SDK takes the terminating NUL as part of the size
        }
    } else if (propertyID == kEdsPropID_DateTime) {
        if (value.typeId() == QMetaType::QDateTime) {
            EdsTime time{};
            EDSTime(&time, value);
            bytes = QByteArray(reinterpret_cast<const char *>(&time), sizeof time);
        }
    } else if (isNumber(value)) {
        const EdsUInt32 number = unsignedValue(value);
        bytes = QByteArray(reinterpret_cast<const char *>(&number), sizeof number);
    }
    if (bytes.isEmpty())
        return false;
    if (!waitForCameraLock(3.0))
        return false;
    const EdsError err = sdk_->EdsSetPropertyData(cameraRef_, propertyID, parameter, EdsUInt32(bytes.size()),
                                                  bytes.constData());
    if (err == EDS_ERR_OK)
        logf(kLogSetValue, value, name);
    else
        logf(kLogSetValueError, err, errorText(err), value, name);
    unlockCameraLock();
    return err == EDS_ERR_OK;
}

bool OKVA_CanonCamera::setStringValue(const QString &text, EdsPropertyID propertyID) {
    if (propertyID == kEdsPropID_OwnerName || propertyID == kEdsPropID_Artist ||
        propertyID == kEdsPropID_Copyright)
        return setValue(text, propertyID, 0);
    std::optional<QVariantMap> values = cachedSupportedValuesForPropertyID(propertyID);
    if (!values)
        values = supportedValuesForPropertyID(propertyID);
    const QVariant found = values ? values->value(text) : QVariant();
    logf(kLogUsedKey, text, found, values ? QVariant(*values) : QVariant());
    return setValue(found.isValid() ? found : QVariant(text), propertyID, 0);
}

void OKVA_CanonCamera::propertyDidChange(EdsPropertyID propertyID, EdsUInt32 parameter) {
    if (propertyID == kEdsPropID_Evf_OutputDevice) {
        const EdsUInt32 device = liveViewOutputDevice();
        if ((device & kEdsEvfOutputDevice_PC) && !liveViewRunning_)
            startLiveView();
        else if (!(device & kEdsEvfOutputDevice_PC) && liveViewRunning_)
            stopLiveView();
        return;
    }
    const QVariant value = valueForPropertyID(propertyID, EdsInt32(parameter));
    QVariant shown = value;
    QVariant raw;
    if (isNumber(value)) {
        shown = displayText(propertyID, unsignedValue(value));
        raw = value;
    }
    const QString name = propertyName(propertyID);
    logf(kLogPropertyChanged, description(), name, propertyID, parameter, shown);
    UserInfoBuilder info;
    info.add(kOKVA_CanonCameraPropertyName, name)
        .add(kOKVA_CanonCameraProperty, shown)
        .add(kOKVA_CanonCameraPropertyID, QVariant::fromValue(quint32(propertyID)))
        .add(kOKVA_CanonCameraPropertyValue, raw);
    NotificationCenter::defaultCenter().postOnMainAndWait(
        info.make(kOKVA_CanonCameraPropertyDidChange, toVariant()));
}

void OKVA_CanonCamera::updateValueForPropertyID(EdsPropertyID propertyID) {
    propertyDidChange(propertyID, 0);
}

std::optional<QVariantMap> OKVA_CanonCamera::supportedValuesForPropertyID(EdsPropertyID propertyID) {
    const QString name = propertyName(propertyID);
    logf(kLogAboutToGetSupported, propertyID, name);
    if (!waitForCameraLock(3.0)) {
        logf(kLogNoUiLock, description(), "supportedValuesForPropertyID");
        return std::nullopt;
    }
    EdsPropertyDesc desc{};
    const EdsError err = sdk_->EdsGetPropertyDesc(cameraRef_, propertyID, &desc);
    unlockCameraLock();
    if (err != EDS_ERR_OK) {
        logf(kLogDescError, err, propertyID);
        logf(kLogDescError, err, propertyID);
        return std::nullopt;
    }
    logf(kLogNumElements, desc.numElements);
    QVariantMap values;
    const int count = std::clamp<int>(desc.numElements, 0, int(std::size(desc.propDesc)));
    for (int i = 0; i < count; ++i) {
        const EdsUInt32 v = static_cast<EdsUInt32>(desc.propDesc[i]);
        values.insert(displayText(propertyID, v), QVariant::fromValue(quint32(v))); // equal texts: later wins
    }
    logf(kLogFoundSupported, unsigned(values.size()), name, propertyID);
    logf(kLogFoundSupported, unsigned(values.size()), name, propertyID);
    if (!values.isEmpty()) {
        logf(kLogObject, QVariant(values));
        logf(kLogFoundProperties, description(), "supportedValuesForPropertyID", QVariant(values));
    }
    return values;
}

void OKVA_CanonCamera::setSupportedValues(const std::optional<QVariantMap> &values,
                                          EdsPropertyID propertyID) {
    if (!values)
        return;
    const QString name = propertyName(propertyID);
    {
        std::lock_guard lk(cacheMutex_);
        supportedValues_.insert(name, *values);
    }
    UserInfoBuilder info;
    info.add(kOKVA_CanonCameraPropertyName, name)
        .add(kOKVA_CanonCameraProperties, *values)
        .add(kOKVA_CanonCameraPropertyID, QVariant::fromValue(quint32(propertyID)));
    NotificationCenter::defaultCenter().postOnMainAndWait(
        info.make(kOKVA_CanonCameraPropertiesDidChange, toVariant()));
}

std::optional<QVariantMap>
OKVA_CanonCamera::cachedSupportedValuesForPropertyID(EdsPropertyID propertyID) const {
    const QString name = propertyName(propertyID);
    std::lock_guard lk(cacheMutex_);
    auto it = supportedValues_.find(name);
    if (it == supportedValues_.end())
        return std::nullopt;
    return *it;
}

void OKVA_CanonCamera::getDeviceProperties() {
    static constexpr EdsPropertyID kOrder[] = {
        kEdsPropID_AEMode,
        kEdsPropID_AFMode,
        kEdsPropID_Av,
        kEdsPropID_Tv,
        kEdsPropID_ISOSpeed,
        kEdsPropID_WhiteBalance,
        kEdsPropID_ExposureCompensation,
        kEdsPropID_DriveMode,
        kEdsPropID_MeteringMode,
        kEdsPropID_ImageQuality,
        kEdsPropID_BatteryLevel,
        kEdsPropID_BatteryQuality,
        kEdsPropID_FirmwareVersion,
        kEdsPropID_LensName,
        kEdsPropID_Copyright,
        kEdsPropID_OwnerName,
        kEdsPropID_Artist,
        kEdsPropID_DateTime,
    };
    for (EdsPropertyID id : kOrder)
        propertyDidChange(id, 0);
}

QVariant OKVA_CanonCamera::cameraClock() {
    return valueForPropertyID(kEdsPropID_DateTime, 0);
}

bool OKVA_CanonCamera::setCameraClock(const QDateTime &date) {
    return setValue(date, kEdsPropID_DateTime, 0);
}

bool OKVA_CanonCamera::setOwnerName(const QString &name) {
    return setValue(name, kEdsPropID_OwnerName, 0);
}

EdsError OKVA_CanonCamera::setProperty(EdsBaseRef ref, EdsPropertyID propertyID, EdsInt32 parameter,
                                       EdsUInt32 size, const void *data) {
    const EdsError err = sdk_->EdsSetPropertyData(ref, propertyID, parameter, size, data);
    if (err != EDS_ERR_OK)
        logf(kLogBareSetError, err);
    else
        logf(kLogBareSet, propertyID);
    return err;
}

// --- locks ------------------------------------------------------------------------------------

bool OKVA_CanonCamera::getLock(NamedLock &lock, std::chrono::steady_clock::time_point beforeDate) {
    if (lock.tryLock())
        return true;
    const auto start = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(beforeDate - start).count();
    logf(kLogWaitingLock, seconds, lock.name(), cameratext::currentThreadDescription(),
         cameratext::callStackReturnAddresses());
    if (lock.lockBeforeSeconds(seconds)) {
        logf(kLogGotLock, lock.name(),
             std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        return true;
    }
    logf(kLogLockTimeout, lock.name());
    return false;
}

bool OKVA_CanonCamera::waitForCameraLock(double) {
    if (!isLegacyModel())
        return true;
    const EdsError err = sdk_->EdsSendStatusCommand(cameraRef_, kEdsCameraStatusCommand_UILock, 0);
    if (err != EDS_ERR_OK) {
        logf(kLogUiLockError, err, errorText(err));
        return false;
    }
    return true;
}

void OKVA_CanonCamera::unlockCameraLock() {
    if (!isLegacyModel())
        return;
    const EdsError err = sdk_->EdsSendStatusCommand(cameraRef_, kEdsCameraStatusCommand_UIUnLock, 0);
    if (err != EDS_ERR_OK)
        logf(kLogUiLockError, err, errorText(err));
}

// --- time records -------------------------------------------------------------------------------

QDateTime OKVA_CanonCamera::dateForEDSTime(const EdsTime *time) {
    if (!time)
        return QDateTime();
    // The record carries no zone: it is read with the zone offset in force now.
    const QString zone = DateFormat::format(QDateTime::currentDateTime(), QStringLiteral("Z"));
    // "+HHMM" / "-HHMM"
    int offset = 0;
    if (zone.size() == 5 && (zone[0] == QLatin1Char('+') || zone[0] == QLatin1Char('-'))) {
        offset = (zone.mid(1, 2).toInt() * 3600 + zone.mid(3, 2).toInt() * 60) *
                 (zone[0] == QLatin1Char('-') ? -1 : 1);
    }
    const QDate day(int(time->year), int(time->month), int(time->day));
    const QTime clock(int(time->hour), int(time->minute), int(time->second));
    if (!day.isValid() || !clock.isValid() || time->year > 9999)
        return QDateTime();
    QDateTime date(day, clock, QTimeZone(offset));
    if (time->milliseconds != 0)
        date = date.addMSecs(qint64(time->milliseconds));
    return date.toLocalTime();
}

void OKVA_CanonCamera::EDSTime(EdsTime *time, const QVariant &date) {
    if (!time || date.typeId() != QMetaType::QDateTime)
        return;
    const QDateTime when = date.toDateTime();
    auto field = [&when](const char *pattern) {
        return EdsUInt32(DateFormat::format(when, QString::fromLatin1(pattern)).toUInt());
    };
    time->year = field("YYYY");
    time->month = field("MM");
    time->day = field("dd");
    time->hour = field("HH");
    time->minute = field("mm");
    time->second = field("ss");
    time->milliseconds = field("SSS");
}

} // namespace brix
