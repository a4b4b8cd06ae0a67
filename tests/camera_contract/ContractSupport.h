// The pieces of the backend contract suite that other tests may share: the
// Backend record that describes a backend, recorders for the callbacks, and
// the fixture of a session on a backend's first camera.
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
        char kind; // 's' state, 'p' property, 'o' object
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

// One backend made, initialised and, once openFirstCamera() ran, with a session
// on a camera whose callbacks go to log_; everything is given back at the end
// and the references are checked to balance.
class SdkSession : public ::testing::Test {
protected:
    virtual const Backend &backend() const = 0;

    void SetUp() override {
        sdk_ = backend().make();
        ASSERT_TRUE(sdk_);
        log_.sdk = sdk_.get();
        ASSERT_EQ(sdk_->EdsInitializeSDK(), EDS_ERR_OK);
    }

    void TearDown() override {
        if (sdk_) { // unless the test ended it itself
            if (camera_) {
                sdk_->EdsSetCameraStateEventHandler(camera_.get(), kEdsStateEvent_All, nullptr, nullptr);
                sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All, nullptr, nullptr);
                sdk_->EdsSetObjectEventHandler(camera_.get(), kEdsObjectEvent_All, nullptr, nullptr);
                if (sessionOpen_)
                    sdk_->EdsCloseSession(camera_.get());
            }
            for (EdsBaseRef item : log_.items)
                sdk_->EdsRelease(item);
            log_.items.clear();
            camera_.reset();
            if (backend().callerReferences) {
                EXPECT_EQ(backend().callerReferences(*sdk_), 0) << "references were not balanced";
            }
            sdk_->EdsTerminateSDK();
            sdk_.reset();
        }
        if (backend().done)
            backend().done();
    }

    // The camera at `index` of the list, with a session and all three handlers.
    void openFirstCamera(int index = 0) {
        EdsCameraListHandle list;
        ASSERT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_OK);
        EdsUInt32 count = 0;
        ASSERT_EQ(sdk_->EdsGetChildCount(list.get(), &count), EDS_ERR_OK);
        ASSERT_GT(count, EdsUInt32(index)) << "the contract needs one camera attached";
        ASSERT_EQ(sdk_->EdsGetChildAtIndex(list.get(), index, camera_.receive(*sdk_)), EDS_ERR_OK);
        ASSERT_EQ(
            sdk_->EdsSetCameraStateEventHandler(camera_.get(), kEdsStateEvent_All, &EventLog::onState, &log_),
            EDS_ERR_OK);
        ASSERT_EQ(sdk_->EdsOpenSession(camera_.get()), EDS_ERR_OK);
        sessionOpen_ = true;
        ASSERT_EQ(sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All,
                                                   &EventLog::onProperty, &log_),
                  EDS_ERR_OK);
        ASSERT_EQ(
            sdk_->EdsSetObjectEventHandler(camera_.get(), kEdsObjectEvent_All, &EventLog::onObject, &log_),
            EDS_ERR_OK);
    }

    EdsError setUInt32(EdsPropertyID id, EdsUInt32 value) {
        return sdk_->EdsSetPropertyData(camera_.get(), id, 0, sizeof value, &value);
    }
    EdsError send(EdsCameraCommand command, EdsInt32 param = 0) {
        return sdk_->EdsSendCommand(camera_.get(), command, param);
    }
    EdsUInt32 getUInt32(EdsPropertyID id) {
        EdsUInt32 value = 0xDEADBEEF;
        EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), id, 0, sizeof value, &value), EDS_ERR_OK);
        return value;
    }

    // Saves to the host and takes one picture; returns the offered item (owned by log_).
    EdsBaseRef shootToHost() {
        EXPECT_EQ(setUInt32(kEdsPropID_SaveTo, kEdsSaveTo_Host), EDS_ERR_OK);
        EXPECT_EQ(sdk_->EdsSetCapacity(camera_.get(), EdsCapacity{0x7FFFFFFF, 512, 1}), EDS_ERR_OK);
        const size_t before = items();
        EXPECT_EQ(send(kEdsCameraCommand_TakePicture), EDS_ERR_OK);
        EXPECT_TRUE(waitForItems(before + 1));
        std::lock_guard lock(log_.mutex);
        return log_.items.size() > before ? log_.items.back() : nullptr;
    }
    size_t items() {
        std::lock_guard lock(log_.mutex);
        return log_.items.size();
    }
    bool waitForItems(size_t n) {
        return test::processEventsUntil([&] { return items() >= n; }, std::chrono::seconds(30));
    }

    // Downloads `item` into `bytes`, sized for it unless `room` gives the
    // stream fewer bytes; the SDK's answer.
    EdsError transfer(EdsBaseRef item, QByteArray &bytes, Progress *progress = nullptr, EdsUInt64 room = 0,
                      EdsDirectoryItemInfo *itemInfo = nullptr) {
        EdsDirectoryItemInfo own{};
        EdsDirectoryItemInfo &info = itemInfo ? *itemInfo : own;
        EXPECT_EQ(sdk_->EdsGetDirectoryItemInfo(item, &info), EDS_ERR_OK);
        if (!room) {
            room = info.size;
            bytes = QByteArray(qsizetype(room), '\0');
        }
        EdsStreamHandle stream;
        EXPECT_EQ(sdk_->EdsCreateMemoryStreamFromPointer(bytes.data(), room, stream.receive(*sdk_)),
                  EDS_ERR_OK);
        if (progress) {
            EXPECT_EQ(sdk_->EdsSetProgressCallback(stream.get(), &Progress::callback,
                                                   kEdsProgressOption_Periodically, progress),
                      EDS_ERR_OK);
        }
        return sdk_->EdsDownload(item, info.size, stream.get());
    }
    // A download as the station makes it: the body lets the shot go once told.
    QByteArray download(EdsBaseRef item, EdsDirectoryItemInfo *info = nullptr) {
        QByteArray bytes;
        EXPECT_EQ(transfer(item, bytes, nullptr, 0, info), EDS_ERR_OK);
        EXPECT_EQ(sdk_->EdsDownloadComplete(item), EDS_ERR_OK);
        return bytes;
    }

    std::unique_ptr<EdsSdk> sdk_;
    EventLog log_;
    EdsCameraHandle camera_;
    bool sessionOpen_ = false;
};

} // namespace brix::eds::contract
