// The pieces of the backend contract suite that other tests may share: the
// Backend record that describes a backend, and recorders for the callbacks.
// Header-only; include it anywhere (ContractSuite.h only once per executable).
#pragma once

#include "EdsRef.h"
#include "EdsSdk.h"
#include "TestSupport.h"

#include <QByteArray>
#include <QImage>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace brix::eds::contract {

struct Backend {
    std::string name;
    std::function<std::unique_ptr<EdsSdk>()> make;
    // The shutter pressed on the body; false when it could not be.
    std::function<bool(EdsSdk &)> pressShutter;
    // The cable pulled from the camera that has the session.
    std::function<bool(EdsSdk &)> unplug;
    // The next `count` calls of `operation` fail with `code`.
    std::function<bool(EdsSdk &, const std::string &operation, EdsError code, unsigned count)> injectError;
    // References the host holds now (0 once everything is released).
    std::function<long(EdsSdk &)> callerReferences;
    // Lets live view produce its next frame (advances a clock, or waits).
    std::function<void()> nextFrame;
    // Runs after each case, once the sdk is gone.
    std::function<void()> done;
};

// Test names show the backend's name rather than the record's bytes.
inline void PrintTo(const Backend &backend, std::ostream *os) {
    *os << backend.name;
}

// Everything the backend called back, with the thread it called on.
struct EventLog {
    struct Event {
        char kind; // 's' state, 'p' property, 'o' object, 'a' camera added
        EdsUInt32 event;
        EdsUInt32 a;
        std::thread::id thread;
    };
    std::mutex mutex;
    std::vector<Event> events;
    std::vector<EdsBaseRef> items; // directory items offered, retained here
    EdsSdk *sdk = nullptr;

    void add(Event e) {
        std::lock_guard lock(mutex);
        events.push_back(e);
    }
    size_t count(char kind, EdsUInt32 event, EdsUInt32 a = 0xFFFFFFFF) {
        std::lock_guard lock(mutex);
        size_t n = 0;
        for (const auto &e : events)
            n += e.kind == kind && e.event == event && (a == 0xFFFFFFFF || e.a == a);
        return n;
    }
    std::vector<Event> snapshot() {
        std::lock_guard lock(mutex);
        return events;
    }

    static EdsError onState(EdsStateEvent event, EdsUInt32 data, EdsVoid *context) {
        static_cast<EventLog *>(context)->add({'s', event, data, std::this_thread::get_id()});
        return EDS_ERR_OK;
    }
    static EdsError onProperty(EdsPropertyEvent event, EdsPropertyID id, EdsUInt32, EdsVoid *context) {
        static_cast<EventLog *>(context)->add({'p', event, id, std::this_thread::get_id()});
        return EDS_ERR_OK;
    }
    static EdsError onObject(EdsObjectEvent event, EdsBaseRef ref, EdsVoid *context) {
        auto *log = static_cast<EventLog *>(context);
        if (event == kEdsObjectEvent_DirItemRequestTransfer) {
            log->sdk->EdsRetain(ref); // the reference is lent for the call
            std::lock_guard lock(log->mutex);
            log->items.push_back(ref);
        }
        log->add({'o', event, 0, std::this_thread::get_id()});
        return EDS_ERR_OK;
    }
    static EdsError onAdded(EdsVoid *context) {
        static_cast<EventLog *>(context)->add({'a', 0, 0, std::this_thread::get_id()});
        return EDS_ERR_OK;
    }
};

struct Progress {
    std::mutex mutex;
    std::vector<EdsUInt32> percents;
    std::vector<std::thread::id> threads;
    EdsUInt32 cancelAt = 1000;

    static EdsError callback(EdsUInt32 percent, EdsVoid *context, EdsBool *cancel) {
        auto *p = static_cast<Progress *>(context);
        std::lock_guard lock(p->mutex);
        p->percents.push_back(percent);
        p->threads.push_back(std::this_thread::get_id());
        if (cancel)
            *cancel = percent >= p->cancelAt;
        return EDS_ERR_OK;
    }
};

} // namespace brix::eds::contract
