// libEDSDK-sim.so: a test library that exports Canon's C functions over the
// simulated camera, so that the edsdk backend can be run, through its real
// dlopen path, without Canon's library.
//
// It behaves like the real library on a platform without a message loop:
// events raised by the simulator are only queued here, and the application's
// handlers are called from inside EdsGetEvent, on the thread that calls it.
// Everything else forwards to the simulator. The simulator is made on the
// first EdsInitializeSDK (or BrixSimulatorControl) and dropped by
// EdsTerminateSDK.
//
// Threads: any; the state below is guarded by one mutex, never held while
// the simulator or an application handler runs.
#include "Dispatch.h"
#include "EdsdkAbi.h"
#include "SimulatorControl.h"

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>

using namespace brix::eds;

namespace {

// Answer of every call made while no simulator runs.
constexpr EdsError kNotInitialised = EDS_ERR_INTERNAL_ERROR;
constexpr EdsUInt32 kInvalidCount = 0xFFFFFFFF;

enum Kind { kAdded, kState, kProperty, kObject };

struct Registration {
    Kind kind = kAdded;
    void *handler = nullptr; // the application's, cast back by kind
    void *context = nullptr;
    uint64_t generation = 0;
};

struct Event {
    Registration *registration = nullptr;
    uint64_t generation = 0;
    EdsUInt32 event = 0;
    EdsUInt32 a = 0;
    EdsUInt32 b = 0;
    EdsBaseRef ref = nullptr; // retained while queued
};

struct State {
    std::mutex mutex;
    std::shared_ptr<EdsSdk> sim;
    std::deque<Event> pending;
    std::map<std::tuple<EdsBaseRef, int, EdsUInt32>, std::unique_ptr<Registration>> registrations;
};

// Never destroyed: the simulator's threads may call in during process exit.
State &state() {
    static State *s = new State;
    return *s;
}

std::shared_ptr<EdsSdk> sim() {
    std::lock_guard lock(state().mutex);
    return state().sim;
}

std::shared_ptr<EdsSdk> ensureSim() {
    std::lock_guard lock(state().mutex);
    if (!state().sim)
        state().sim = createSimulatorSdk();
    return state().sim;
}

Registration *registration(EdsBaseRef ref, Kind kind, EdsUInt32 event, void *handler, void *context) {
    std::lock_guard lock(state().mutex);
    auto &slot = state().registrations[{ref, kind, event}];
    if (!slot)
        slot = std::make_unique<Registration>();
    slot->kind = kind;
    slot->handler = handler;
    slot->context = context;
    ++slot->generation;
    return slot.get();
}

// Queues an event for the next EdsGetEvent. Dropped when its handler has
// gone or the simulator is being torn down; an object reference is retained
// while it waits. The simulator never holds its own lock while it calls us,
// so calling it under ours cannot deadlock.
void enqueue(Registration *reg, EdsUInt32 event, EdsUInt32 a, EdsUInt32 b, EdsBaseRef ref) {
    std::lock_guard lock(state().mutex);
    if (!state().sim || !reg->handler)
        return;
    if (ref)
        state().sim->EdsRetain(ref);
    state().pending.push_back({reg, reg->generation, event, a, b, ref});
}

// The simulator calls these on its own event thread; they only queue.
EdsError queueAdded(EdsVoid *context) {
    enqueue(static_cast<Registration *>(context), 0, 0, 0, nullptr);
    return EDS_ERR_OK;
}
EdsError queueState(EdsStateEvent event, EdsUInt32 data, EdsVoid *context) {
    enqueue(static_cast<Registration *>(context), event, data, 0, nullptr);
    return EDS_ERR_OK;
}
EdsError queueProperty(EdsPropertyEvent event, EdsPropertyID id, EdsUInt32 param, EdsVoid *context) {
    enqueue(static_cast<Registration *>(context), event, id, param, nullptr);
    return EDS_ERR_OK;
}
EdsError queueObject(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
    enqueue(static_cast<Registration *>(context), event, 0, 0, ref);
    return EDS_ERR_OK;
}

brix::dispatch::ManualClock &manualClock() {
    static auto *clock = new brix::dispatch::ManualClock;
    return *clock;
}

} // namespace

extern "C" {

// The simulator's control, for tests that drive the simulated body.
__attribute__((visibility("default"))) SimulatorControl *BrixSimulatorControl(void) {
    auto s = ensureSim();
    return s ? simulatorControl(*s) : nullptr;
}

// Events waiting for the next EdsGetEvent, so tests can tell "queued" from
// "delivered".
__attribute__((visibility("default"))) unsigned BrixSimulatorPendingEvents(void) {
    std::lock_guard lock(state().mutex);
    return unsigned(state().pending.size());
}

// The library's own timers (live-view frames) on a manual clock, so tests
// decide when the next frame is due; `on` = 0 gives the real clock back.
// This library keeps its own copy of the timer service, apart from the program's.
__attribute__((visibility("default"))) void BrixSimulatorUseManualClock(int on) {
    brix::dispatch::setClock(on ? &manualClock() : nullptr);
}

__attribute__((visibility("default"))) void BrixSimulatorAdvanceClock(double seconds) {
    manualClock().advanceSeconds(seconds);
}

EdsError EdsInitializeSDK(void) {
    auto s = ensureSim();
    return s ? s->EdsInitializeSDK() : kNotInitialised;
}

EdsError EdsTerminateSDK(void) {
    std::shared_ptr<EdsSdk> s;
    std::deque<Event> events;
    {
        std::lock_guard lock(state().mutex);
        s = std::move(state().sim);
        events.swap(state().pending);
        for (auto &[key, reg] : state().registrations) {
            reg->handler = nullptr;
            ++reg->generation;
        }
    }
    if (!s)
        return kNotInitialised;
    for (const Event &e : events) // the references they held
        if (e.ref)
            s->EdsRelease(e.ref);
    return s->EdsTerminateSDK();
}

EdsError EdsGetEvent(void) {
    auto s = sim();
    if (!s)
        return kNotInitialised;
    std::deque<Event> events;
    {
        std::lock_guard lock(state().mutex);
        events.swap(state().pending);
    }
    for (const Event &e : events) {
        Registration now;
        {
            std::lock_guard lock(state().mutex);
            if (e.registration->generation == e.generation)
                now = *e.registration;
        }
        if (now.handler) {
            switch (now.kind) {
            case kAdded:
                reinterpret_cast<EdsCameraAddedHandler>(now.handler)(now.context);
                break;
            case kState:
                reinterpret_cast<EdsStateEventHandler>(now.handler)(e.event, e.a, now.context);
                break;
            case kProperty:
                reinterpret_cast<EdsPropertyEventHandler>(now.handler)(e.event, e.a, e.b, now.context);
                break;
            case kObject:
                reinterpret_cast<EdsObjectEventHandler>(now.handler)(e.event, e.ref, now.context);
                break;
            }
        }
        if (e.ref)
            s->EdsRelease(e.ref);
    }
    return EDS_ERR_OK;
}

EdsError EdsSetCameraAddedHandler(EdsCameraAddedHandler handler, EdsVoid *context) {
    auto s = ensureSim();
    if (!s)
        return kNotInitialised;
    Registration *reg = registration(nullptr, kAdded, 0, reinterpret_cast<void *>(handler), context);
    return s->EdsSetCameraAddedHandler(handler ? &queueAdded : nullptr, handler ? reg : nullptr);
}

EdsError EdsSetCameraStateEventHandler(EdsCameraRef camera, EdsStateEvent event, EdsStateEventHandler handler,
                                       EdsVoid *context) {
    auto s = sim();
    if (!s)
        return kNotInitialised;
    Registration *reg = registration(camera, kState, event, reinterpret_cast<void *>(handler), context);
    return s->EdsSetCameraStateEventHandler(camera, event, handler ? &queueState : nullptr,
                                            handler ? reg : nullptr);
}

EdsError EdsSetPropertyEventHandler(EdsCameraRef camera, EdsPropertyEvent event,
                                    EdsPropertyEventHandler handler, EdsVoid *context) {
    auto s = sim();
    if (!s)
        return kNotInitialised;
    Registration *reg = registration(camera, kProperty, event, reinterpret_cast<void *>(handler), context);
    return s->EdsSetPropertyEventHandler(camera, event, handler ? &queueProperty : nullptr,
                                         handler ? reg : nullptr);
}

EdsError EdsSetObjectEventHandler(EdsCameraRef camera, EdsObjectEvent event, EdsObjectEventHandler handler,
                                  EdsVoid *context) {
    auto s = sim();
    if (!s)
        return kNotInitialised;
    Registration *reg = registration(camera, kObject, event, reinterpret_cast<void *>(handler), context);
    return s->EdsSetObjectEventHandler(camera, event, handler ? &queueObject : nullptr,
                                       handler ? reg : nullptr);
}

// The rest forwards unchanged.
#define BRIX_FORWARD(ret, name, params, args, fallback)                                                      \
    ret name params {                                                                                        \
        auto s = sim();                                                                                      \
        return s ? s->name args : fallback;                                                                  \
    }

BRIX_FORWARD(EdsError, EdsGetCameraList, (EdsCameraListRef * out), (out), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetChildCount, (EdsBaseRef ref, EdsUInt32 *out), (ref, out), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetChildAtIndex, (EdsBaseRef ref, EdsInt32 index, EdsBaseRef *out),
             (ref, index, out), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetDeviceInfo, (EdsCameraRef camera, EdsDeviceInfo *out), (camera, out),
             kNotInitialised)
BRIX_FORWARD(EdsUInt32, EdsRetain, (EdsBaseRef ref), (ref), kInvalidCount)
BRIX_FORWARD(EdsUInt32, EdsRelease, (EdsBaseRef ref), (ref), kInvalidCount)
BRIX_FORWARD(EdsError, EdsOpenSession, (EdsCameraRef camera), (camera), kNotInitialised)
BRIX_FORWARD(EdsError, EdsCloseSession, (EdsCameraRef camera), (camera), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetPropertySize,
             (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsDataType *type, EdsUInt32 *size),
             (ref, id, param, type, size), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetPropertyData,
             (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size, EdsVoid *data),
             (ref, id, param, size, data), kNotInitialised)
BRIX_FORWARD(EdsError, EdsSetPropertyData,
             (EdsBaseRef ref, EdsPropertyID id, EdsInt32 param, EdsUInt32 size, const EdsVoid *data),
             (ref, id, param, size, data), kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetPropertyDesc, (EdsBaseRef ref, EdsPropertyID id, EdsPropertyDesc *desc),
             (ref, id, desc), kNotInitialised)
BRIX_FORWARD(EdsError, EdsSendCommand, (EdsCameraRef camera, EdsCameraCommand command, EdsInt32 param),
             (camera, command, param), kNotInitialised)
BRIX_FORWARD(EdsError, EdsSendStatusCommand,
             (EdsCameraRef camera, EdsCameraStatusCommand command, EdsInt32 param), (camera, command, param),
             kNotInitialised)
BRIX_FORWARD(EdsError, EdsSetCapacity, (EdsCameraRef camera, EdsCapacity capacity), (camera, capacity),
             kNotInitialised)
BRIX_FORWARD(EdsError, EdsGetDirectoryItemInfo, (EdsDirectoryItemRef item, EdsDirectoryItemInfo *info),
             (item, info), kNotInitialised)
BRIX_FORWARD(EdsError, EdsCreateMemoryStreamFromPointer,
             (EdsVoid * buffer, EdsUInt64 size, EdsStreamRef *out), (buffer, size, out), kNotInitialised)
BRIX_FORWARD(EdsError, EdsSetProgressCallback,
             (EdsBaseRef ref, EdsProgressCallback callback, EdsProgressOption option, EdsVoid *context),
             (ref, callback, option, context), kNotInitialised)
BRIX_FORWARD(EdsError, EdsDownload, (EdsDirectoryItemRef item, EdsUInt64 size, EdsStreamRef stream),
             (item, size, stream), kNotInitialised)
BRIX_FORWARD(EdsError, EdsDownloadComplete, (EdsDirectoryItemRef item), (item), kNotInitialised)
BRIX_FORWARD(EdsError, EdsCreateEvfImageRef, (EdsStreamRef stream, EdsEvfImageRef *out), (stream, out),
             kNotInitialised)
BRIX_FORWARD(EdsError, EdsDownloadEvfImage, (EdsCameraRef camera, EdsEvfImageRef image), (camera, image),
             kNotInitialised)

#undef BRIX_FORWARD

} // extern "C"
