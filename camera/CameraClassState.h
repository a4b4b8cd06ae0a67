// Internal to the camera code: the class-wide state of OKVA_CanonCamera (SDK,
// camera list and its locks, current camera, live cameras by handler context)
// and the bridge to the name and display tables of camera/sdk.
//
// Threads: any; each field says what guards it. The state lives for the process.
#pragma once

#include "NamedLock.h"
#include "OKVA_CanonCamera.h"

#include <QList>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace brix {

struct CameraClassState {
    static CameraClassState &get();

    // The process's SDK; replaced only by initialize().
    std::mutex sdkMutex;
    std::shared_ptr<eds::EdsSdk> sdk;
    // Bumped by initialize(): list updates started under an older SDK drop their result.
    std::atomic<uint64_t> generation{0};
    bool observingQuit = false; // guarded by sdkMutex

    // The camera list. The list lock is the one readers, updates and camera
    // destruction take; the disappearance event removes a camera without it,
    // so the list itself is also kept under a short data mutex.
    NamedLock listLock{QStringLiteral("listLock")};
    NamedLock updateLock{QStringLiteral("updateLock")};
    std::atomic<bool> missedUpdate{false};
    std::mutex listMutex;
    QList<CameraPtr> list;

    std::mutex currentMutex;
    CameraPtr current;

    // The SDK's event callbacks under way. When the application terminates the
    // gate closes: callbacks that arrive later do nothing, and termination
    // waits for those still running, so that none reaches an object of the
    // application (observer, delegate) after it is gone.
    class CallbackGate {
    public:
        bool enter();
        void leave();
        void open();
        // On the main thread its event loop keeps turning while it waits: a
        // running callback may be waiting for the main thread.
        void closeAndWait();

    private:
        std::mutex m_;
        std::condition_variable idle_;
        int running_ = 0;
        bool closed_ = false;
    };
    CallbackGate callbacks;
    bool terminated = false; // guarded by sdkMutex: the SDK is terminated once
    // One SDK callback passing the gate, for its length.
    class CallbackPass {
    public:
        CallbackPass();
        ~CallbackPass();
        CallbackPass(const CallbackPass &) = delete;
        CallbackPass &operator=(const CallbackPass &) = delete;
        explicit operator bool() const { return entered_; }

    private:
        bool entered_;
    };

    // Cameras alive, by the context pointer the SDK hands back to the handlers,
    // so that an event that races with a camera's destruction finds nothing.
    std::mutex registryMutex;
    std::unordered_map<const OKVA_CanonCamera *, std::weak_ptr<OKVA_CanonCamera>> registry;

    std::shared_ptr<eds::EdsSdk> currentSdk() {
        std::lock_guard lk(sdkMutex);
        return sdk;
    }
    CameraPtr currentCamera() {
        std::lock_guard lk(currentMutex);
        return current;
    }
    void setCurrent(CameraPtr camera) {
        CameraPtr previous;
        {
            std::lock_guard lk(currentMutex);
            previous = std::move(current);
            current = std::move(camera);
        }
        // `previous` is let go here, outside the mutex.
    }
    QList<CameraPtr> listCopy() {
        std::lock_guard lk(listMutex);
        return list;
    }
};

namespace cameratables {
// Texts of the SDK's numbers: error code, property name, data-type name, and
// the display text of a property value.
QString errorText(eds::EdsError code);
QString propertyName(eds::EdsPropertyID propertyID);
QString dataTypeName(eds::EdsDataType type);
QString displayText(eds::EdsPropertyID propertyID, eds::EdsUInt32 value);
} // namespace cameratables

} // namespace brix
