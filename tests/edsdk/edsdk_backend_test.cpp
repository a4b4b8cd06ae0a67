// Finding and refusing libEDSDK.so (the station must start, and answer "not
// available" with a clear log line, whatever is or is not installed), and the
// backend over libEDSDK-sim.so: found through BRIX_EDSDK_PATH, its events reach
// the application only through the EdsGetEvent pump, on the backend's event
// queue, and events for a handler cleared meanwhile are dropped; and the
// backend contract over that library: the same cases the simulator passes
// in-process, now across the C interface and the EdsGetEvent pump.
#include "ContractSuite.h"
#include "EdsdkLibrary.h"
#include "EdsdkSdk.h"
#include "LogCapture.h"
#include "SimLibrary.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

using namespace brix;
using namespace brix::eds;

namespace {

// Points the loader at a path for one scope (the test environment sets none).
struct LibraryPath {
    explicit LibraryPath(const QString &path) { qputenv(kEdsdkPathVariable, path.toUtf8()); }
    ~LibraryPath() { qunsetenv(kEdsdkPathVariable); }
};

} // namespace

TEST(EdsdkLoader, MissingLibraryIsRefusedWithTheReasonAndTheBackendIsNotAvailable) {
    QTemporaryDir dir;
    const QString missing = dir.filePath("nowhere/libEDSDK.so");
    LibraryPath env(missing);
    // Nothing beside the test program or on the loader's path either, on a
    // machine without Canon's library.
    test::LogCapture log;
    std::string why;
    EXPECT_EQ(createEdsdkSdk(&why), nullptr);
    EXPECT_NE(why.find(missing.toStdString()), std::string::npos) << why;
    EXPECT_NE(why.find(kEdsdkLibraryName), std::string::npos) << why;
    const std::string text = log.text().toStdString();
    EXPECT_NE(text.find("EDSDK could not be loaded from " + missing.toStdString() + ": "), std::string::npos)
        << text;
    EXPECT_NE(text.find("EDSDK not available: "), std::string::npos) << text;
    EXPECT_EQ(text.find("EDSDK loaded"), std::string::npos) << text;

    // The chooser says the same for an explicit request.
    EXPECT_EQ(createSdk("edsdk", &why), nullptr);
    EXPECT_NE(why.find("not available"), std::string::npos) << why;
}

TEST(EdsdkLoader, LibraryLackingAFunctionIsRefusedAlsoWhenFoundThroughTheFolder) {
    std::string why;
    EXPECT_EQ(EdsdkLibrary::openFile(BRIX_EDSDK_INCOMPLETE_LIBRARY, &why), nullptr);
    // The log line naming it is checked with the station (StationOnTheSimulator).
    EXPECT_NE(why.find("EdsDownloadEvfImage"), std::string::npos) << why;

    // Found through BRIX_EDSDK_PATH as a folder, it is refused the same way
    // and the search goes on (to nothing, here).
    QTemporaryDir dir;
    ASSERT_TRUE(QFile::link(BRIX_EDSDK_INCOMPLETE_LIBRARY, dir.filePath(kEdsdkLibraryName)));
    LibraryPath env(dir.path());
    EXPECT_EQ(createEdsdkSdk(&why), nullptr);
    EXPECT_NE(why.find(QDir(dir.path()).filePath(kEdsdkLibraryName).toStdString() +
                       ": the function EdsDownloadEvfImage is missing"),
              std::string::npos)
        << why;
}

#ifdef BRIX_EDSDK_SIM_LIBRARY

using brix::test::SimLibrary;

namespace brix::eds::contract {

INSTANTIATE_TEST_SUITE_P(Edsdk, EdsContract, ::testing::Values(SimLibrary::backend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract

namespace {

// A session whose event pump ticks only when the test says: the manual clock
// is in place before the session starts the pump, and until it has ended.
class EdsdkSession : public test::SimLibrarySession {
protected:
    EdsdkSession() { dispatch::setClock(&clock); }
    ~EdsdkSession() override { dispatch::setClock(nullptr); }
    // One pump period, once the library holds `events` events.
    void pumpOnce(unsigned events = 1) {
        ASSERT_TRUE(test::processEventsUntil([&] { return SimLibrary::pendingEvents() >= events; }));
        clock.advance(kEdsdkEventPeriod);
    }
    dispatch::ManualClock clock;
};

struct AddedProbe {
    std::atomic<int> calls{0};
    std::string label;
};

EdsError onAdded(EdsVoid *context) {
    auto *probe = static_cast<AddedProbe *>(context);
    probe->label = dispatch::currentQueueLabel();
    ++probe->calls;
    return EDS_ERR_OK;
}

} // namespace

TEST(EdsdkBackend, IsFoundThroughTheFolderInTheEnvironmentAndSaysWhereItLoadedFrom) {
    QTemporaryDir dir;
    const QString link = QDir(dir.path()).filePath(kEdsdkLibraryName);
    ASSERT_TRUE(QFile::link(BRIX_EDSDK_SIM_LIBRARY, link));
    std::unique_ptr<EdsSdk> chosen, automatic;
    test::LogCapture log;
    std::string why;
    {
        LibraryPath env(dir.path());
        chosen = createSdk("edsdk", &why);
        automatic = createSdk("auto", &why);
    }

    ASSERT_NE(chosen, nullptr) << why;
    EXPECT_STREQ(chosen->backendName(), "edsdk");
    // The path the dynamic loader gives for the image: the link, unless an
    // earlier test in this process loaded the same file under another name.
    const std::string path = chosen->libraryPath();
    EXPECT_TRUE(path == link.toStdString() || path == BRIX_EDSDK_SIM_LIBRARY ||
                path.find("/test_edsdk-") != std::string::npos)
        << path;
    EXPECT_NE(log.text().toStdString().find("EDSDK loaded from: " + path + "\n"), std::string::npos)
        << log.text().toStdString();
    // `auto` prefers Canon's library when it loads.
    ASSERT_NE(automatic, nullptr);
    EXPECT_STREQ(automatic->backendName(), "edsdk");
}

TEST_F(EdsdkSession, EventsArriveOnlyThroughThePumpOnTheEventQueue) {
    AddedProbe probe;
    ASSERT_EQ(sdk_->EdsSetCameraAddedHandler(&onAdded, &probe), EDS_ERR_OK);
    SimulatorControl *control = SimLibrary::control();

    const int before = control->attachedCount();
    EXPECT_EQ(control->plug("Canon EOS R6", -1), before + 1);
    // The library holds the event until the next EdsGetEvent...
    ASSERT_TRUE(test::processEventsUntil([] { return SimLibrary::pendingEvents() >= 1; }));
    EXPECT_EQ(probe.calls.load(), 0);
    // ...which the pump makes one period later.
    clock.advance(kEdsdkEventPeriod);
    ASSERT_TRUE(test::processEventsUntil([&] { return probe.calls.load() == 1; }));
    EXPECT_EQ(probe.label, kEdsdkEventQueueLabel);

    // The pump keeps ticking.
    control->plug("Canon EOS R5", -1);
    pumpOnce();
    ASSERT_TRUE(test::processEventsUntil([&] { return probe.calls.load() == 2; }));

    EXPECT_EQ(sdk_->EdsTerminateSDK(), EDS_ERR_OK);
    // After termination the pump stops asking: nothing more is delivered.
    clock.advance(kEdsdkEventPeriod * 10);
    EXPECT_EQ(probe.calls.load(), 2);
}

namespace {

struct PropertyProbe {
    std::atomic<int> calls{0};
    std::promise<void> entered;
    std::shared_future<void> release;
};

EdsError onProperty(EdsPropertyEvent, EdsPropertyID, EdsUInt32, EdsVoid *context) {
    auto *probe = static_cast<PropertyProbe *>(context);
    if (probe->calls++ == 0) {
        probe->entered.set_value();
        probe->release.wait();
    }
    return EDS_ERR_OK;
}

} // namespace

TEST_F(EdsdkSession, EventsQueuedForAHandlerThatIsClearedAreDropped) {
    openFirstCamera();
    PropertyProbe probe;
    std::promise<void> release;
    probe.release = release.get_future().share();
    ASSERT_EQ(sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All, &onProperty, &probe),
              EDS_ERR_OK);
    AddedProbe marker;
    ASSERT_EQ(sdk_->EdsSetCameraAddedHandler(&onAdded, &marker), EDS_ERR_OK);

    // Two changes on the body, both handed to the event queue by one pump tick.
    SimulatorControl *control = SimLibrary::control();
    const unsigned waiting = SimLibrary::pendingEvents();
    EXPECT_EQ(control->setStringProperty(kEdsPropID_OwnerName, "first"), EDS_ERR_OK);
    EXPECT_EQ(control->setStringProperty(kEdsPropID_OwnerName, "second"), EDS_ERR_OK);
    pumpOnce(waiting + 2);
    // The first is being handled; the second waits behind it.
    ASSERT_EQ(probe.entered.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    // Clearing does not wait for the handler that runs...
    EXPECT_EQ(sdk_->EdsSetPropertyEventHandler(camera_.get(), kEdsPropertyEvent_All, nullptr, nullptr),
              EDS_ERR_OK);
    release.set_value();
    // ...and the waiting event is dropped: a later event arrives, the property handler is not called again.
    control->plug("", -1);
    pumpOnce();
    ASSERT_TRUE(test::processEventsUntil([&] { return marker.calls.load() == 1; }));
    EXPECT_EQ(probe.calls.load(), 1);
}

#endif
