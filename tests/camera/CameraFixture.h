// Shared set-up of the camera tests: a fresh simulated camera installed as the
// camera class's SDK, and a record of every camera notification with the
// thread it was delivered on.
#pragma once

#include "ForwardingSdk.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"
#include "SimulatorControl.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace brix::test {

struct Posted {
    Notification note;
    bool onMain = false;
    CameraPtr camera() const { return OKVA_CanonCamera::fromVariant(note.object); }
};

class CameraFixture : public ::testing::Test {
protected:
    // Bodies attached when the simulator starts.
    virtual int initialCameras() const { return 1; }
    // Lets a test put a recording SDK between the camera class and the simulator.
    virtual std::shared_ptr<eds::EdsSdk> wrap(std::shared_ptr<eds::EdsSdk> simulator) { return simulator; }

    void SetUp() override {
        // The main queue sets itself up on the thread that first posts to it;
        // make that the main thread rather than a camera thread.
        dispatch::mainQueue()->async([] {});
        qputenv("BRIX_SIM_CAMERAS", QByteArray::number(initialCameras()));
        std::string why;
        std::shared_ptr<eds::EdsSdk> sim(eds::createSimulatorSdk(&why));
        ASSERT_TRUE(sim) << why;
        simulator = sim;
        control = eds::simulatorControl(*sim);
        ASSERT_NE(control, nullptr);
        token = NotificationCenter::defaultCenter().addObserver({}, {}, [this](const Notification &n) {
            if (!n.name.startsWith(QLatin1String("OKVA_CanonCamera")))
                return;
            std::lock_guard lk(m);
            posted.push_back(Posted{n, dispatch::isMainThread()});
        });
        beforeInitialize();
        sdk = wrap(sim);
        OKVA_CanonCamera::initialize(sdk);
    }

    void TearDown() override {
        OKVA_CanonCamera::initialize(nullptr);
        control = nullptr;
        // The simulator waits for its event deliveries when it goes, and a
        // delivery may be waiting for the main thread: let it go elsewhere
        // while the main loop keeps running.
        auto gone = std::make_shared<std::atomic<bool>>(false);
        dispatch::detachThread("sim-teardown",
                               [s = std::move(simulator), d = std::move(sdk), gone]() mutable {
                                   d.reset();
                                   s.reset();
                                   *gone = true;
                               });
        waitFor([&] { return gone->load(); });
        NotificationCenter::defaultCenter().removeObserver(token);
        QCoreApplication::processEvents();
        qunsetenv("BRIX_SIM_CAMERAS");
    }

    virtual void beforeInitialize() {}

    std::vector<Posted> named(const QString &name) {
        std::lock_guard lk(m);
        std::vector<Posted> out;
        for (const auto &p : posted)
            if (p.note.name == name)
                out.push_back(p);
        return out;
    }
    std::size_t count(const QString &name) { return named(name).size(); }
    void clearPosted() {
        std::lock_guard lk(m);
        posted.clear();
    }

    bool waitFor(const std::function<bool()> &done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        return processEventsUntil(done, timeout);
    }
    // Runs the main loop for a while for work that must NOT happen.
    void settle(std::chrono::milliseconds span = std::chrono::milliseconds(300)) {
        QElapsedTimer t;
        t.start();
        processEventsUntil([&] { return t.elapsed() >= span.count(); }, span + std::chrono::seconds(1));
    }

    // The cameras of the list once it holds `n`.
    QList<CameraPtr> waitForCameras(int n) {
        QList<CameraPtr> list;
        waitFor([&] {
            auto c = OKVA_CanonCamera::cameras();
            if (c && c->size() == n) {
                list = *c;
                return true;
            }
            return false;
        });
        return list;
    }

    std::shared_ptr<eds::EdsSdk> simulator;
    std::shared_ptr<eds::EdsSdk> sdk;
    eds::SimulatorControl *control = nullptr;
    NotificationCenter::Token token = 0;
    std::mutex m;
    std::vector<Posted> posted;
};

// The same, with the first listed camera loaded before the test begins.
class LoadedCameraFixture : public CameraFixture {
protected:
    void SetUp() override {
        CameraFixture::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        const auto list = waitForCameras(1);
        ASSERT_EQ(list.size(), 1);
        camera = list.first();
        ASSERT_TRUE(camera->load());
        // Loading switches saving to the host; the body answers with a change
        // event that reads the value again. Waiting for it keeps that read from
        // meeting an error a test injects next.
        ASSERT_TRUE(waitFor([&] {
            for (const auto &p : named(kOKVA_CanonCameraPropertyDidChange))
                if (p.note.userInfo.value(kOKVA_CanonCameraPropertyName).toString() ==
                    QLatin1String("SaveTo"))
                    return true;
            return false;
        }));
    }
    void TearDown() override {
        camera.reset(); // before the simulator goes
        CameraFixture::TearDown();
    }

    CameraPtr camera;
};

// A delegate whose answer the test sets.
class TestDelegate : public OKVA_CanonCameraDelegate {
public:
    bool cancelDownloadForProgress(eds::EdsUInt32) override {
        asked.fetch_add(1);
        return cancel.load();
    }
    std::atomic<bool> cancel{false};
    std::atomic<int> asked{0};
};

} // namespace brix::test
