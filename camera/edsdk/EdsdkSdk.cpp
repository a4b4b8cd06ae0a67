#include "EdsdkSdk.h"

#include "Dispatch.h"
#include "Logger.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <tuple>

namespace brix::eds {

namespace {

inline constexpr const char *kPumpError = "EdsGetEvent returned error 0X%1";
inline constexpr const char *kTerminatedOnRelease =
    "edsdk backend released with the SDK still initialised; terminating it";

class Core;

// One handler registration as the application made it. The library is given
// our trampoline with the record as its context; the record lives as long as
// the backend, so a late call from the library never sees freed memory.
struct Registration {
    Core *core = nullptr;
    // Guarded by Core::regMutex_.
    EdsCameraAddedHandler added = nullptr;
    EdsStateEventHandler state = nullptr;
    EdsPropertyEventHandler property = nullptr;
    EdsObjectEventHandler object = nullptr;
    void *context = nullptr;
    uint64_t generation = 0;
};

struct ProgressRecord {
    Core *core = nullptr;
    // Guarded by Core::regMutex_.
    EdsProgressCallback callback = nullptr;
    void *context = nullptr;
};

// A library call handed to the library's queue by another thread. While it
// runs, the library may ask, through the progress trampoline, for the
// caller's progress callback to be run on the caller's thread.
struct Job {
    std::function<void()> run;
    bool done = false;
    bool progressPending = false;
    bool progressAnswered = false;
    EdsProgressCallback progressCallback = nullptr;
    void *progressContext = nullptr;
    EdsUInt32 percent = 0;
    EdsBool cancel = 0;
    EdsError progressResult = EDS_ERR_OK;
};

class Core : public std::enable_shared_from_this<Core> {
public:
    explicit Core(std::unique_ptr<EdsdkLibrary> library)
        : library_(std::move(library)), f(library_->functions()),
          sdkQueue_(dispatch::makeSerialQueue(kEdsdkQueueLabel)),
          eventQueue_(dispatch::makeSerialQueue(kEdsdkEventQueueLabel)) {}

    const std::string &path() const { return library_->path(); }

    bool onSdkQueue() const { return dispatch::currentQueue() == sdkQueue_.get(); }
    bool onEventQueue() const { return dispatch::currentQueue() == eventQueue_.get(); }

    // Runs `fn` on the library's queue and returns its result; inline when
    // already there. A waiting caller runs progress callbacks meant for it.
    template <class F> auto call(F &&fn) -> decltype(fn()) {
        using R = decltype(fn());
        if (onSdkQueue())
            return fn();
        R result{};
        Job job;
        job.run = [&] { result = fn(); };
        std::unique_lock lock(mutex_);
        mailbox_.push_back(&job);
        // The library's thread may be waiting inside a progress callback.
        cv_.notify_all();
        lock.unlock();
        sdkQueue_->async([self = shared_from_this()] { self->drainMailbox(); });
        lock.lock();
        while (!job.done) {
            if (job.progressPending) {
                job.progressPending = false;
                const EdsProgressCallback callback = job.progressCallback;
                void *context = job.progressContext;
                const EdsUInt32 percent = job.percent;
                lock.unlock();
                EdsBool cancel = 0;
                const EdsError r = callback(percent, context, &cancel);
                lock.lock();
                job.cancel = cancel;
                job.progressResult = r;
                job.progressAnswered = true;
                cv_.notify_all();
                continue;
            }
            cv_.wait(lock);
        }
        return result;
    }

    // --- on the library's queue -------------------------------------------

    EdsError initialize() {
        const EdsError r = f.EdsInitializeSDK();
        if (r == EDS_ERR_OK) {
            if (!initialized_)
                ++epoch_;
            initialized_ = true;
            if (!pumping_) {
                pumping_ = true;
                armPump();
            }
        }
        return r;
    }

    EdsError terminate() {
        stopPump();
        invalidateAll();
        const EdsError r = f.EdsTerminateSDK();
        if (initialized_)
            ++epoch_;
        initialized_ = false;
        return r;
    }

    bool initialized() const { return initialized_; }

    void stopPump() {
        pumping_ = false;
        if (pumpTimer_) {
            dispatch::cancelTimer(pumpTimer_);
            pumpTimer_ = 0;
        }
    }

    // --- registrations -------------------------------------------------------

    Registration *registration(EdsBaseRef ref, int kind, EdsUInt32 event) {
        std::lock_guard lock(regMutex_);
        auto &slot = registrations_[{ref, kind, event}];
        if (!slot) {
            slot = std::make_unique<Registration>();
            slot->core = this;
        }
        return slot.get();
    }

    template <class Assign> void update(Registration *reg, void *context, Assign assign) {
        std::lock_guard lock(regMutex_);
        assign(*reg);
        reg->context = context;
        ++reg->generation;
    }

    ProgressRecord *progressRecord(EdsBaseRef ref, EdsProgressCallback callback, void *context) {
        std::lock_guard lock(regMutex_);
        auto &slot = progress_[ref];
        if (!slot) {
            slot = std::make_unique<ProgressRecord>();
            slot->core = this;
        }
        slot->callback = callback;
        slot->context = context;
        return slot.get();
    }

    // A reference the library freed may come back at the same address as a
    // new stream: forget what was registered for it.
    void forget(EdsBaseRef ref) {
        std::lock_guard lock(regMutex_);
        progress_.erase(ref);
    }

    void invalidateAll() {
        std::lock_guard lock(regMutex_);
        for (auto &[key, reg] : registrations_) {
            reg->added = nullptr;
            reg->state = nullptr;
            reg->property = nullptr;
            reg->object = nullptr;
            reg->context = nullptr;
            ++reg->generation;
        }
        for (auto &[key, record] : progress_) {
            record->callback = nullptr;
            record->context = nullptr;
        }
    }

    uint64_t generationOf(const Registration *reg) {
        std::lock_guard lock(regMutex_);
        return reg->generation;
    }

    // The registration as it is now, or an empty copy when it changed since
    // the event was queued.
    Registration current(const Registration *reg, uint64_t generation) {
        std::lock_guard lock(regMutex_);
        if (reg->generation != generation)
            return {};
        return *reg;
    }

    // --- trampolines: called by the library inside EdsGetEvent or EdsDownload

    static EdsError onCameraAdded(EdsVoid *context) {
        auto *reg = static_cast<Registration *>(context);
        Core *core = reg->core;
        const uint64_t generation = core->generationOf(reg);
        core->deliver([core, reg, generation] {
            const Registration now = core->current(reg, generation);
            if (now.added)
                now.added(now.context);
        });
        return EDS_ERR_OK;
    }

    static EdsError onStateEvent(EdsStateEvent event, EdsUInt32 data, EdsVoid *context) {
        auto *reg = static_cast<Registration *>(context);
        Core *core = reg->core;
        const uint64_t generation = core->generationOf(reg);
        core->deliver([core, reg, generation, event, data] {
            const Registration now = core->current(reg, generation);
            if (now.state)
                now.state(event, data, now.context);
        });
        return EDS_ERR_OK;
    }

    static EdsError onPropertyEvent(EdsPropertyEvent event, EdsPropertyID propertyID, EdsUInt32 param,
                                    EdsVoid *context) {
        auto *reg = static_cast<Registration *>(context);
        Core *core = reg->core;
        const uint64_t generation = core->generationOf(reg);
        core->deliver([core, reg, generation, event, propertyID, param] {
            const Registration now = core->current(reg, generation);
            if (now.property)
                now.property(event, propertyID, param, now.context);
        });
        return EDS_ERR_OK;
    }

    static EdsError onObjectEvent(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
        auto *reg = static_cast<Registration *>(context);
        Core *core = reg->core;
        const uint64_t generation = core->generationOf(reg);
        // The reference must outlive the hop to the event queue.
        if (ref)
            core->f.EdsRetain(ref);
        const uint64_t epoch = core->epoch_;
        core->deliver([core, reg, generation, event, ref, epoch] {
            const Registration now = core->current(reg, generation);
            if (now.object)
                now.object(event, ref, now.context);
            if (ref)
                core->call([core, ref, epoch] {
                    // After EdsTerminateSDK the library has freed every object itself.
                    if (core->initialized_ && core->epoch_ == epoch)
                        core->f.EdsRelease(ref);
                    return 0;
                });
        });
        return EDS_ERR_OK;
    }

    static EdsError onProgress(EdsUInt32 percent, EdsVoid *context, EdsBool *outCancel) {
        auto *record = static_cast<ProgressRecord *>(context);
        Core *core = record->core;
        EdsProgressCallback callback;
        void *callbackContext;
        {
            std::lock_guard lock(core->regMutex_);
            callback = record->callback;
            callbackContext = record->context;
        }
        if (!callback)
            return EDS_ERR_OK;
        std::unique_lock lock(core->mutex_);
        Job *job = core->currentJob_;
        if (!job) {
            lock.unlock();
            return callback(percent, callbackContext, outCancel);
        }
        job->progressCallback = callback;
        job->progressContext = callbackContext;
        job->percent = percent;
        job->progressAnswered = false;
        job->progressPending = true;
        core->cv_.notify_all();
        // Serve other callers meanwhile: the caller's callback may wait for a
        // thread that is itself waiting for a library call.
        while (!job->progressAnswered) {
            if (!core->mailbox_.empty()) {
                core->runPending(lock);
                continue;
            }
            core->cv_.wait(lock);
        }
        if (outCancel)
            *outCancel = job->cancel;
        return job->progressResult;
    }

    const dispatch::QueuePtr &sdkQueue() const { return sdkQueue_; }
    const dispatch::QueuePtr &eventQueue() const { return eventQueue_; }

private:
    void deliver(std::function<void()> task) {
        eventQueue_->async([self = shared_from_this(), task = std::move(task)] { task(); });
    }

    void drainMailbox() {
        std::unique_lock lock(mutex_);
        runPending(lock);
    }

    void runPending(std::unique_lock<std::mutex> &lock) {
        while (!mailbox_.empty()) {
            Job *job = mailbox_.front();
            mailbox_.pop_front();
            Job *outer = currentJob_;
            currentJob_ = job;
            lock.unlock();
            job->run();
            lock.lock();
            currentJob_ = outer;
            // The caller may return and free the job as soon as the lock drops.
            job->done = true;
            cv_.notify_all();
        }
    }

    void armPump() {
        std::weak_ptr<Core> weak = weak_from_this();
        pumpTimer_ = dispatch::after(kEdsdkEventPeriod, sdkQueue_, [weak] {
            if (auto self = weak.lock())
                self->pump();
        });
    }

    void pump() {
        if (!pumping_)
            return;
        const EdsError r = f.EdsGetEvent();
        if (r != EDS_ERR_OK && r != lastPumpError_)
            Logger::setError(QString::fromLatin1(kPumpError).arg(QString::number(r, 16).toUpper()));
        lastPumpError_ = r;
        if (pumping_)
            armPump();
    }

    std::unique_ptr<EdsdkLibrary> library_;

public:
    const EdsdkFunctions &f;

private:
    dispatch::QueuePtr sdkQueue_;
    dispatch::QueuePtr eventQueue_;

    // Jobs waiting for the library's queue, and progress hand-offs.
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Job *> mailbox_;
    Job *currentJob_ = nullptr;

    std::mutex regMutex_;
    std::map<std::tuple<EdsBaseRef, int, EdsUInt32>, std::unique_ptr<Registration>> registrations_;
    std::map<EdsBaseRef, std::unique_ptr<ProgressRecord>> progress_;

    // On the library's queue only.
    bool initialized_ = false;
    bool pumping_ = false;
    uint64_t pumpTimer_ = 0;
    uint64_t epoch_ = 0;
    EdsError lastPumpError_ = EDS_ERR_OK;
};

enum Kind { kAdded, kState, kProperty, kObject };

class EdsdkSdk final : public EdsSdk {
public:
    explicit EdsdkSdk(std::unique_ptr<EdsdkLibrary> library)
        : core_(std::make_shared<Core>(std::move(library))) {}

    ~EdsdkSdk() override {
        core_->call([this] {
            core_->stopPump();
            if (core_->initialized()) {
                Logger::setDebug(QString::fromLatin1(kTerminatedOnRelease));
                core_->terminate();
            }
            core_->invalidateAll();
            return 0;
        });
        // Events already handed over are dropped by the invalidation; wait for
        // one that may be running so that no handler outlives its backend. It
        // may itself be waiting for the main thread, so the main thread keeps
        // its event loop turning while it waits.
        if (core_->onEventQueue())
            return;
        dispatch::drainPumpingMainLoop(core_->eventQueue());
    }

    const char *backendName() const override { return "edsdk"; }
    const char *libraryPath() const override { return core_->path().c_str(); }

    EdsError EdsInitializeSDK() override {
        return core_->call([this] { return core_->initialize(); });
    }
    EdsError EdsTerminateSDK() override {
        return core_->call([this] { return core_->terminate(); });
    }

    EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler handler, EdsVoid *context) override {
        Registration *reg = core_->registration(nullptr, kAdded, 0);
        core_->update(reg, context, [handler](Registration &r) { r.added = handler; });
        return core_->call([&] {
            return core_->f.EdsSetCameraAddedHandler(handler ? &Core::onCameraAdded : nullptr,
                                                     handler ? reg : nullptr);
        });
    }

    EdsError EdsGetCameraList(EdsCameraListRef *out) override {
        return core_->call([&] { return core_->f.EdsGetCameraList(out); });
    }
    EdsError EdsGetChildCount(EdsBaseRef ref, EdsUInt32 *out) override {
        return core_->call([&] { return core_->f.EdsGetChildCount(ref, out); });
    }
    EdsError EdsGetChildAtIndex(EdsBaseRef ref, EdsInt32 index, EdsBaseRef *out) override {
        return core_->call([&] { return core_->f.EdsGetChildAtIndex(ref, index, out); });
    }
    EdsError EdsGetDeviceInfo(EdsCameraRef camera, EdsDeviceInfo *out) override {
        return core_->call([&] { return core_->f.EdsGetDeviceInfo(camera, out); });
    }

    EdsUInt32 EdsRetain(EdsBaseRef ref) override {
        return core_->call([&] { return core_->f.EdsRetain(ref); });
    }
    EdsUInt32 EdsRelease(EdsBaseRef ref) override {
        const EdsUInt32 count = core_->call([&] { return core_->f.EdsRelease(ref); });
        if (count == 0)
            core_->forget(ref);
        return count;
    }

    EdsError EdsOpenSession(EdsCameraRef camera) override {
        return core_->call([&] { return core_->f.EdsOpenSession(camera); });
    }
    EdsError EdsCloseSession(EdsCameraRef camera) override {
        return core_->call([&] { return core_->f.EdsCloseSession(camera); });
    }

    EdsError EdsSetCameraStateEventHandler(EdsCameraRef camera, EdsStateEvent event,
                                           EdsStateEventHandler handler, EdsVoid *context) override {
        Registration *reg = core_->registration(camera, kState, event);
        core_->update(reg, context, [handler](Registration &r) { r.state = handler; });
        return core_->call([&] {
            return core_->f.EdsSetCameraStateEventHandler(
                camera, event, handler ? &Core::onStateEvent : nullptr, handler ? reg : nullptr);
        });
    }
    EdsError EdsSetPropertyEventHandler(EdsCameraRef camera, EdsPropertyEvent event,
                                        EdsPropertyEventHandler handler, EdsVoid *context) override {
        Registration *reg = core_->registration(camera, kProperty, event);
        core_->update(reg, context, [handler](Registration &r) { r.property = handler; });
        return core_->call([&] {
            return core_->f.EdsSetPropertyEventHandler(
                camera, event, handler ? &Core::onPropertyEvent : nullptr, handler ? reg : nullptr);
        });
    }
    EdsError EdsSetObjectEventHandler(EdsCameraRef camera, EdsObjectEvent event,
                                      EdsObjectEventHandler handler, EdsVoid *context) override {
        Registration *reg = core_->registration(camera, kObject, event);
        core_->update(reg, context, [handler](Registration &r) { r.object = handler; });
        return core_->call([&] {
            return core_->f.EdsSetObjectEventHandler(camera, event, handler ? &Core::onObjectEvent : nullptr,
                                                     handler ? reg : nullptr);
        });
    }

    EdsError EdsGetPropertySize(EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsDataType *type,
                                EdsUInt32 *size) override {
        return core_->call([&] { return core_->f.EdsGetPropertySize(ref, id, param, type, size); });
    }
    EdsError EdsGetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size,
                                EdsVoid *data) override {
        return core_->call([&] { return core_->f.EdsGetPropertyData(ref, id, param, size, data); });
    }
    EdsError EdsSetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size,
                                const EdsVoid *data) override {
        return core_->call([&] { return core_->f.EdsSetPropertyData(ref, id, param, size, data); });
    }
    EdsError EdsGetPropertyDesc(EdsBaseRef ref, EdsPropertyID id, EdsPropertyDesc *desc) override {
        return core_->call([&] { return core_->f.EdsGetPropertyDesc(ref, id, desc); });
    }

    EdsError EdsSendCommand(EdsCameraRef camera, EdsCameraCommand command, EdsInt32 param) override {
        return core_->call([&] { return core_->f.EdsSendCommand(camera, command, param); });
    }
    EdsError EdsSendStatusCommand(EdsCameraRef camera, EdsCameraStatusCommand command,
                                  EdsInt32 param) override {
        return core_->call([&] { return core_->f.EdsSendStatusCommand(camera, command, param); });
    }
    EdsError EdsSetCapacity(EdsCameraRef camera, EdsCapacity capacity) override {
        return core_->call([&] { return core_->f.EdsSetCapacity(camera, capacity); });
    }

    EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef item, EdsDirectoryItemInfo *info) override {
        return core_->call([&] { return core_->f.EdsGetDirectoryItemInfo(item, info); });
    }
    EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *buffer, EdsUInt64 size, EdsStreamRef *out) override {
        return core_->call([&] { return core_->f.EdsCreateMemoryStreamFromPointer(buffer, size, out); });
    }
    EdsError EdsSetProgressCallback(EdsBaseRef ref, EdsProgressCallback callback, EdsProgressOption option,
                                    EdsVoid *context) override {
        ProgressRecord *record = core_->progressRecord(ref, callback, context);
        return core_->call([&] {
            return core_->f.EdsSetProgressCallback(ref, callback ? &Core::onProgress : nullptr, option,
                                                   callback ? record : nullptr);
        });
    }
    EdsError EdsDownload(EdsDirectoryItemRef item, EdsUInt64 size, EdsStreamRef stream) override {
        return core_->call([&] { return core_->f.EdsDownload(item, size, stream); });
    }
    EdsError EdsDownloadComplete(EdsDirectoryItemRef item) override {
        return core_->call([&] { return core_->f.EdsDownloadComplete(item); });
    }

    EdsError EdsCreateEvfImageRef(EdsStreamRef stream, EdsEvfImageRef *out) override {
        return core_->call([&] { return core_->f.EdsCreateEvfImageRef(stream, out); });
    }
    EdsError EdsDownloadEvfImage(EdsCameraRef camera, EdsEvfImageRef image) override {
        return core_->call([&] { return core_->f.EdsDownloadEvfImage(camera, image); });
    }

private:
    std::shared_ptr<Core> core_;
};

} // namespace

std::unique_ptr<EdsSdk> createEdsdkSdk(std::unique_ptr<EdsdkLibrary> library) {
    if (!library)
        return nullptr;
    return std::make_unique<EdsdkSdk>(std::move(library));
}

std::unique_ptr<EdsSdk> createEdsdkSdk(std::string *why) {
    return createEdsdkSdk(EdsdkLibrary::open(why));
}

} // namespace brix::eds
