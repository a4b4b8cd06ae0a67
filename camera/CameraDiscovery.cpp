// The camera class: SDK start-up and termination, the camera-added handler and
// the camera list with its updates.
#include "CameraClassState.h"
#include "CameraText.h"
#include "Dispatch.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"

#include <QCoreApplication>

#include <chrono>
#include <dlfcn.h>
#include <thread>

namespace brix {

using namespace eds;
using cameratables::errorText;
using cameratext::logf;

namespace {
constexpr const char kLogLoadedFrom[] = "EDSDK loaded from: %s";
constexpr const char kLogLoadedNoPath[] = "EDSDK loaded but dladdr() could not resolve its path";
constexpr const char kLogInitError[] = "error %x initializing EDSDK";
constexpr const char kLogNoSdk[] = "no camera SDK backend to start: cameras stay unavailable";
constexpr const char kLogTerminateError[] = "error %x terminating EDSDK";
constexpr const char kLogAddedHandlerError[] = "error %x registering for addedCamera callback";
constexpr const char kLogWillTerminate[] = "OKVA_CanonCamera catching applicationWillTerminate! %@";
constexpr const char kLogAddedSelf[] = "self = %p and real self class = %@";
constexpr const char kLogAdded[] = "a camera was added!";
constexpr const char kLogSkipping[] = "skipping this camera list update while another update is in session";
constexpr const char kLogListError[] = "error 0X%X (%s) getting camera list";
constexpr const char kLogCountError[] = "error 0X%X (%s) getting camera child count";
constexpr const char kLogDetected[] = "Detected %u camera%s in %.3f sec";
constexpr const char kLogChildError[] = "error 0X%X (%s) getting child camera at index %d";
constexpr const char kLogNullChild[] = "error: received a NULL camera ref for child at index %d!";
constexpr const char kLogNewCamera[] = "detected new camera %@";
constexpr const char kLogWaitingList[] = "waiting for thread lock on thread: %@\nbackstack:%@";
constexpr const char kLogGotList[] = "got a lock after waiting %.2f seconds";
constexpr const char kLogListTimeout[] = "failed to get a lock after waiting %.2f seconds";
constexpr const char kLogUpdating[] =
    "got the update thread lock and now detecting cameras on thread: %@\nbackstack:%@";
constexpr const char kLogUnlockingUpdate[] = "unlocking update lock";
constexpr const char kLogCatchUp[] = "catching up on missed update";

constexpr const char kClassName[] = "OKVA_CanonCamera";
constexpr const char kQuitNotificationName[] = "QCoreApplication::aboutToQuit";
constexpr double kListLockSeconds = 60.0;
// Longer than one live-view pass (a frame download and its decoding).
constexpr double kLiveViewStopSeconds = 3.0;

// The context handed to the camera-added handler: the class itself.
char gClassContext;

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Where the code behind the SDK interface lives: the backend's library, or,
// for a backend built into the program, the program itself.
void logSdkLocation(const EdsSdk &sdk) {
    const char *path = sdk.libraryPath();
    if (path && *path) {
        logf(kLogLoadedFrom, path);
        return;
    }
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&logSdkLocation), &info) != 0 && info.dli_fname && *info.dli_fname)
        logf(kLogLoadedFrom, info.dli_fname);
    else
        logf(kLogLoadedNoPath);
}

} // namespace

bool OKVA_CanonCamera::initialize(std::shared_ptr<EdsSdk> sdk) {
    auto &st = CameraClassState::get();
    // A new SDK replaces the old one: its camera is let go and its list dropped.
    if (CameraPtr current = st.currentCamera()) {
        current->unload();
        st.setCurrent(nullptr);
    }
    st.generation.fetch_add(1);
    QList<CameraPtr> dropped;
    {
        std::lock_guard lk(st.listMutex);
        dropped.swap(st.list);
    }
    dropped.clear();
    {
        std::lock_guard lk(st.sdkMutex);
        st.sdk = sdk;
        st.terminated = false;
    }
    st.callbacks.open();
    if (!sdk) {
        logf(kLogNoSdk);
        return false;
    }

    logSdkLocation(*sdk);
    const EdsError err = sdk->EdsInitializeSDK();
    if (err != EDS_ERR_OK) {
        logf(kLogInitError, err);
    } else if (auto *app = QCoreApplication::instance()) {
        std::lock_guard lk(st.sdkMutex);
        if (!st.observingQuit) {
            st.observingQuit = true;
            QObject::connect(app, &QCoreApplication::aboutToQuit, app,
                             [] { applicationWillTerminate(QString::fromUtf8(kQuitNotificationName)); });
        }
    }
    const EdsError herr = sdk->EdsSetCameraAddedHandler(&cameraAddedHandler, &gClassContext);
    if (herr != EDS_ERR_OK)
        logf(kLogAddedHandlerError, herr);
    updateCameraList();
    return err == EDS_ERR_OK;
}

std::shared_ptr<EdsSdk> OKVA_CanonCamera::sdk() {
    return CameraClassState::get().currentSdk();
}

void OKVA_CanonCamera::applicationWillTerminate(const QString &notification) {
    logf(kLogWillTerminate, notification);
    auto &st = CameraClassState::get();
    // From here on no SDK event reaches the application, and the ones under
    // way (a download, say) finish before the application goes on quitting.
    st.callbacks.closeAndWait();
    // A live-view loop still turning would decode its next frame while the
    // application is torn down around it: it is stopped and waited for first.
    if (CameraPtr camera = st.currentCamera()) {
        camera->liveViewRunning_ = false;
        if (camera->liveViewLock_.lockBeforeSeconds(kLiveViewStopSeconds))
            camera->liveViewLock_.unlock();
    }
    std::shared_ptr<EdsSdk> sdk;
    {
        std::lock_guard lk(st.sdkMutex);
        if (st.terminated)
            return;
        st.terminated = true;
        sdk = st.sdk;
    }
    if (!sdk)
        return;
    const EdsError err = sdk->EdsTerminateSDK();
    if (err != EDS_ERR_OK)
        logf(kLogTerminateError, err);
}

EdsError OKVA_CanonCamera::cameraAddedHandler(void *context) {
    CameraClassState::CallbackPass pass;
    if (!pass)
        return EDS_ERR_OK;
    logf(kLogAddedSelf, static_cast<const void *>(context), kClassName);
    updateCameraList();
    NotificationCenter::defaultCenter().postOnMainNoWait(
        Notification{kOKVA_CanonCameraAdded, QVariant(), {}, {}});
    logf(kLogAdded);
    return EDS_ERR_OK;
}

std::optional<QList<CameraPtr>> OKVA_CanonCamera::cameras() {
    auto &st = CameraClassState::get();
    if (!st.listLock.tryLock())
        return std::nullopt;
    QList<CameraPtr> copy = st.listCopy();
    st.listLock.unlock();
    return copy;
}

void OKVA_CanonCamera::updateCameraList() {
    dispatch::detachThread("camera-list", [] { updateCameraListAsync(); });
}

void OKVA_CanonCamera::updateCameraListAtDate(const QDateTime &date) {
    const qint64 ms = QDateTime::currentDateTime().msecsTo(date);
    if (ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    updateCameraList();
}

void OKVA_CanonCamera::updateCameraListAsync() {
    auto &st = CameraClassState::get();
    if (!st.updateLock.tryLock()) {
        st.missedUpdate = true;
        logf(kLogSkipping);
        return;
    }
    const uint64_t generation = st.generation.load();
    auto sdk = st.currentSdk();

    // Steps 1-5: the cameras the SDK sees that the list does not hold yet.
    QList<CameraPtr> newCameras;
    const auto start = std::chrono::steady_clock::now();
    EdsCameraListHandle listRef;
    EdsError err = sdk ? sdk->EdsGetCameraList(listRef.receive(*sdk)) : EDS_ERR_DEVICE_NOT_FOUND;
    if (err != EDS_ERR_OK) {
        logf(kLogListError, err, errorText(err));
    } else {
        EdsUInt32 count = 0;
        err = sdk->EdsGetChildCount(listRef.get(), &count);
        if (err != EDS_ERR_OK) {
            logf(kLogCountError, err, errorText(err));
        } else {
            logf(kLogDetected, count, count == 1 ? "" : "s", secondsSince(start));
            const QList<CameraPtr> known = st.listCopy();
            for (EdsInt32 index = EdsInt32(count) - 1; index >= 0; --index) {
                EdsCameraHandle child; // released at the end of each pass; the camera holds its own count
                err = sdk->EdsGetChildAtIndex(listRef.get(), index, child.receive(*sdk));
                if (err != EDS_ERR_OK) {
                    logf(kLogChildError, err, errorText(err), index);
                    break;
                }
                if (!child) {
                    logf(kLogNullChild, index);
                    continue;
                }
                if (CameraPtr camera = initWithCameraRef(child.get())) {
                    const bool listed = std::any_of(known.begin(), known.end(), [&](const CameraPtr &c) {
                        return c && c->isEqual(*camera);
                    });
                    if (!listed) {
                        logf(kLogNewCamera, camera->description());
                        newCameras.append(camera);
                    }
                }
            }
        }
        listRef.reset();
    }

    // Step 6: the list lock.
    bool locked = st.listLock.tryLock();
    if (!locked) {
        logf(kLogWaitingList, cameratext::currentThreadDescription(), cameratext::callStackReturnAddresses());
        const auto waitStart = std::chrono::steady_clock::now();
        locked = st.listLock.lockBeforeSeconds(kListLockSeconds);
        if (locked)
            logf(kLogGotList, secondsSince(waitStart));
        else
            logf(kLogListTimeout, secondsSince(waitStart));
    }

    // Step 7: the replacement rule. Cameras let go here are destroyed after the
    // list lock is released (their destruction takes it).
    QList<CameraPtr> replaced;
    if (locked) {
        logf(kLogUpdating, cameratext::currentThreadDescription(), cameratext::callStackReturnAddresses());
        bool changed = false;
        if (generation == st.generation.load()) {
            std::lock_guard lk(st.listMutex);
            if (newCameras.isEmpty()) {
                replaced.swap(st.list);
            } else if (!std::equal(newCameras.cbegin(), newCameras.cend(), st.list.cbegin(), st.list.cend(),
                                   [](const CameraPtr &a, const CameraPtr &b) { return a->isEqual(b); })) {
                replaced.swap(st.list);
                st.list = newCameras;
                changed = true;
            }
        }
        st.listLock.unlock();
        if (changed)
            NotificationCenter::defaultCenter().postOnMainNoWait(
                Notification{kOKVA_CanonCameraListDidUpdate, classObject(), {}, {}});
    }
    replaced.clear();
    newCameras.clear();

    // Step 8.
    logf(kLogUnlockingUpdate);
    st.updateLock.unlock();
    if (st.missedUpdate.exchange(false)) {
        logf(kLogCatchUp);
        updateCameraList();
    }
}

} // namespace brix
