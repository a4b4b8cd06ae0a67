// The camera object, its command queue, discovery, download and live view,
// run against the simulated camera; and what needs no camera: the conversions
// between dates and time records, and the battery level's display text (the
// texts are dictionary keys elsewhere, so a wrong one is a real fault).
#include "CameraClassState.h"
#include "CameraFixture.h"
#include "LogCapture.h"
#include "OKVA_CanonCamera.h"
#include "PropertyDisplay.h"

#include <QImage>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

using namespace brix;
using namespace brix::eds;
using namespace brix::test;

namespace {

const QStringList kPropertyKeys = {kOKVA_CanonCameraPropertyName, kOKVA_CanonCameraProperty,
                                   kOKVA_CanonCameraPropertyID, kOKVA_CanonCameraPropertyValue};

// The last property-change notification for the property, if any.
std::optional<Posted> lastChange(const std::vector<Posted> &all, const QString &name) {
    std::optional<Posted> found;
    for (const auto &p : all)
        if (p.note.userInfo.value(kOKVA_CanonCameraPropertyName).toString() == name)
            found = p;
    return found;
}

} // namespace

// --- discovery -------------------------------------------------------------------------

// Counts camera-list reads, i.e. list updates that ran.
class CountingSdk : public ForwardingSdk {
public:
    using ForwardingSdk::ForwardingSdk;
    EdsError EdsGetCameraList(EdsCameraListRef *out) override {
        listReads.fetch_add(1);
        return ForwardingSdk::EdsGetCameraList(out);
    }
    std::atomic<int> listReads{0};
};

class Discovery : public CameraFixture {
protected:
    std::shared_ptr<EdsSdk> wrap(std::shared_ptr<EdsSdk> sim) override {
        counting = std::make_shared<CountingSdk>(sim);
        return counting;
    }
    std::shared_ptr<CountingSdk> counting;
};

TEST_F(Discovery, StartUpListsTheCameraUpdatesDuringAnUpdateAreCaughtUpOnceAndListOnlyNewCameras) {
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraListDidUpdate) == 1; }));
    const Posted update = named(kOKVA_CanonCameraListDidUpdate).front();
    EXPECT_TRUE(update.onMain);
    EXPECT_EQ(update.note.object, OKVA_CanonCamera::classObject());

    const auto list = waitForCameras(1);
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0]->description(), QString::fromUtf8(kSimulatorDefaultModel));
    EXPECT_FALSE(list[0]->isLegacyModel());
    EXPECT_FALSE(list[0]->isLoaded());
    ASSERT_TRUE(waitFor([&] { return CameraClassState::get().updateLock.tryLock(); }));
    CameraClassState::get().updateLock.unlock();
    ASSERT_EQ(counting->listReads.load(), 1);

    // While the list is being changed, asking for it answers nothing; and
    // holding its lock keeps the next update inside its run.
    auto &listLock = CameraClassState::get().listLock;
    ASSERT_TRUE(listLock.tryLock());
    EXPECT_FALSE(OKVA_CanonCamera::cameras().has_value());
    OKVA_CanonCamera::updateCameraList();
    ASSERT_TRUE(waitFor([&] { return counting->listReads.load() == 2; }));
    for (int i = 0; i < 3; ++i)
        OKVA_CanonCamera::updateCameraListAsync(); // each skipped at once
    EXPECT_EQ(counting->listReads.load(), 2);
    listLock.unlock();

    EXPECT_TRUE(waitFor([&] { return counting->listReads.load() == 3; }));
    settle();
    EXPECT_EQ(counting->listReads.load(), 3);
    EXPECT_FALSE(CameraClassState::get().missedUpdate.load());
    // The update held back found the listed body again, which is not new: it
    // emptied the list and told nobody. So the catch-up found the body new.
    EXPECT_TRUE(waitFor([&] {
        auto c = OKVA_CanonCamera::cameras();
        return c && c->size() == 1;
    }));
    EXPECT_EQ(count(kOKVA_CanonCameraListDidUpdate), 2u);
}

// --- session and properties -----------------------------------------------------------

using Session = CameraFixture;

TEST_F(Session, LoadOpensOneSessionAndReadsTheSettingsInOrderUnloadHandsTheCameraBack) {
    const auto list = waitForCameras(1);
    ASSERT_EQ(list.size(), 1);
    CameraPtr camera = list[0];
    clearPosted();

    ASSERT_TRUE(camera->load());
    // Everything up to here was posted synchronously on this (the main) thread.
    const auto loaded = named(kOKVA_CanonCameraDidLoad);
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded[0].camera(), camera);
    EXPECT_EQ(OKVA_CanonCamera::currentCamera(), camera);
    EXPECT_EQ(control->property(kEdsPropID_SaveTo).toUInt(), kEdsSaveTo_Host);

    QStringList order;
    const auto changes = named(kOKVA_CanonCameraPropertyDidChange);
    for (const auto &p : changes)
        order << p.note.userInfo.value(kOKVA_CanonCameraPropertyName).toString();
    EXPECT_EQ(order.mid(0, 18),
              (QStringList{"AEMode", "AFMode", "Av", "Tv", "ISOSpeed", "WhiteBalance", "ExposureCompensation",
                           "DriveMode", "MeteringMode", "ImageQuality", "BatteryLevel", "BatteryQuality",
                           "FirmwareVersion", "LensName", "Copyright", "OwnerName", "Artist", "DateTime"}));

    const auto ae = lastChange(changes, "AEMode");
    ASSERT_TRUE(ae);
    EXPECT_EQ(ae->note.userInfoOrder, kPropertyKeys);
    EXPECT_EQ(ae->note.userInfo.value(kOKVA_CanonCameraProperty).toString(), "Manual Exposure");
    EXPECT_EQ(ae->note.userInfo.value(kOKVA_CanonCameraPropertyID).toUInt(), kEdsPropID_AEMode);
    EXPECT_EQ(ae->note.userInfo.value(kOKVA_CanonCameraPropertyValue).toUInt(), 3u);
    const auto battery = lastChange(changes, "BatteryLevel");
    ASSERT_TRUE(battery);
    EXPECT_EQ(battery->note.userInfo.value(kOKVA_CanonCameraProperty).toString(), "85 %");
    // Text values carry no raw value: the user info ends before its key.
    const auto firmware = lastChange(changes, "FirmwareVersion");
    ASSERT_TRUE(firmware);
    EXPECT_EQ(firmware->note.userInfoOrder, kPropertyKeys.mid(0, 3));
    EXPECT_EQ(firmware->note.userInfo.value(kOKVA_CanonCameraProperty).toString(), "1.2.3");
    const auto owner = lastChange(changes, "OwnerName");
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->note.userInfoOrder, kPropertyKeys.mid(0, 3)); // an empty text is still a value

    // A modern body is never asked for its UI lock: a failing status command
    // would break every read and write if it were sent.
    ASSERT_TRUE(control->injectError("EdsSendStatusCommand", EDS_ERR_DEVICE_BUSY, 100));
    EXPECT_TRUE(camera->waitForCameraLock(3.0));
    EXPECT_EQ(camera->valueForPropertyID(kEdsPropID_ISOSpeed, 0).toUInt(), 0x48u);
    EXPECT_TRUE(camera->setValue(0x50u, kEdsPropID_ISOSpeed, 0));

    // Loading the current camera again opens nothing.
    EXPECT_TRUE(camera->load());
    EXPECT_EQ(count(kOKVA_CanonCameraDidLoad), 1u);

    ASSERT_TRUE(camera->unload());
    EXPECT_FALSE(camera->isLoaded());
    EXPECT_EQ(OKVA_CanonCamera::currentCamera(), nullptr);
    ASSERT_EQ(count(kOKVA_CanonCameraDidUnload), 1u);
    EXPECT_EQ(named(kOKVA_CanonCameraDidUnload)[0].camera(), camera);
    EXPECT_EQ(control->property(kEdsPropID_SaveTo).toUInt(), kEdsSaveTo_Camera);
    // Only the current camera unloads.
    EXPECT_FALSE(camera->unload());
}

using SecondCamera = LoadedCameraFixture;

TEST_F(SecondCamera, LoadingItUnloadsTheFirst) {
    // The update after the plug lists only the camera it had not seen.
    control->plug("Canon EOS R5");
    ASSERT_TRUE(waitFor([&] {
        auto c = OKVA_CanonCamera::cameras();
        return c && c->size() == 1 && c->first()->description() == "Canon EOS R5";
    }));
    CameraPtr second = OKVA_CanonCamera::cameras()->first();
    EXPECT_FALSE(camera->isEqual(second));
    ASSERT_TRUE(second->load());
    EXPECT_FALSE(camera->isLoaded());
    EXPECT_EQ(OKVA_CanonCamera::currentCamera(), second);
    EXPECT_EQ(count(kOKVA_CanonCameraDidUnload), 1u);
}

using Properties = LoadedCameraFixture;

TEST_F(Properties, BodyChangesReachTheMainThreadWithValueAndSupportedValues) {
    clearPosted();

    ASSERT_EQ(control->setProperty(kEdsPropID_Av, 0x38), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] {
        auto c = lastChange(named(kOKVA_CanonCameraPropertyDidChange), "Av");
        return c && c->note.userInfo.value(kOKVA_CanonCameraPropertyValue).toUInt() == 0x38;
    }));
    const auto av = *lastChange(named(kOKVA_CanonCameraPropertyDidChange), "Av");
    EXPECT_TRUE(av.onMain);
    EXPECT_EQ(av.camera(), camera);
    EXPECT_EQ(av.note.userInfoOrder, kPropertyKeys);
    EXPECT_EQ(av.note.userInfo.value(kOKVA_CanonCameraProperty).toString(), "8");

    // Program AE changes what Tv and Av offer: descriptions arrive and are kept.
    ASSERT_EQ(control->setProperty(kEdsPropID_AEMode, 0), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] {
        for (const auto &p : named(kOKVA_CanonCameraPropertiesDidChange))
            if (p.note.userInfo.value(kOKVA_CanonCameraPropertyID).toUInt() == kEdsPropID_Tv)
                return true;
        return false;
    }));
    for (const auto &p : named(kOKVA_CanonCameraPropertiesDidChange)) {
        EXPECT_TRUE(p.onMain);
        EXPECT_EQ(p.note.userInfoOrder,
                  (QStringList{kOKVA_CanonCameraPropertyName, kOKVA_CanonCameraProperties,
                               kOKVA_CanonCameraPropertyID}));
        const auto id = p.note.userInfo.value(kOKVA_CanonCameraPropertyID).toUInt();
        const auto cached = camera->cachedSupportedValuesForPropertyID(id);
        ASSERT_TRUE(cached);
        EXPECT_EQ(QVariant(*cached), p.note.userInfo.value(kOKVA_CanonCameraProperties));
    }
}

TEST_F(Properties, EqualDisplayTextsCollapseTextsAreWrittenAsTheirNumbersAndTheClockRoundTrips) {
    // 0 and 0x99 both read "Auto"; the later one stays.
    ASSERT_EQ(control->setSupportedValues(kEdsPropID_ISOSpeed, {0x48, 0, 0x50, 0x99}), EDS_ERR_OK);
    const auto iso = camera->supportedValuesForPropertyID(kEdsPropID_ISOSpeed);
    ASSERT_TRUE(iso);
    EXPECT_EQ(iso->size(), 3);
    EXPECT_EQ(iso->value("Auto").toUInt(), 0x99u);
    EXPECT_EQ(iso->value("ISO 200").toUInt(), 0x50u);

    EXPECT_TRUE(camera->setStringValue("ISO 200", kEdsPropID_ISOSpeed));
    EXPECT_EQ(control->property(kEdsPropID_ISOSpeed).toUInt(), 0x50u);
    EXPECT_TRUE(camera->setStringValue("1/125", kEdsPropID_Tv));
    EXPECT_EQ(control->property(kEdsPropID_Tv).toUInt(), 0x70u);
    // A text that no value shows is written as text, which a number property refuses.
    EXPECT_FALSE(camera->setStringValue("1/7", kEdsPropID_Tv));
    EXPECT_EQ(control->property(kEdsPropID_Tv).toUInt(), 0x70u);

    EXPECT_TRUE(camera->setStringValue(QString::fromUtf8("© Lumetra"), kEdsPropID_Copyright));
    EXPECT_EQ(control->property(kEdsPropID_Copyright).toString(), QString::fromUtf8("© Lumetra"));

    // The clock goes both ways; values of the wrong kind are refused.
    const QDateTime when(QDate(2026, 5, 17), QTime(14, 30, 5), Qt::LocalTime);
    ASSERT_TRUE(camera->setCameraClock(when));
    EXPECT_EQ(camera->cameraClock().toDateTime(), when);

    EXPECT_FALSE(camera->setValue(QString("5.6"), kEdsPropID_Av, 0));
    EXPECT_FALSE(camera->setValue(when, kEdsPropID_Av, 0));
    EXPECT_FALSE(camera->setValue(42, kEdsPropID_OwnerName, 0));
    EXPECT_FALSE(camera->setValue(QVariant(), kEdsPropID_ISOSpeed, 0));
}

TEST_F(Properties, FailedReadsGiveNothingAndPostNothing) {
    clearPosted();
    ASSERT_TRUE(control->injectError("EdsGetPropertyData", EDS_ERR_DEVICE_BUSY, 1));
    EXPECT_FALSE(camera->valueForPropertyID(kEdsPropID_Av, 0).isValid());
    EXPECT_EQ(camera->valueForPropertyID(kEdsPropID_Av, 0).toUInt(), 0x30u);

    // A change whose value cannot be read still tells, with the name only.
    ASSERT_TRUE(control->injectError("EdsGetPropertySize", EDS_ERR_COMM_DISCONNECTED, 1));
    camera->updateValueForPropertyID(kEdsPropID_Tv);
    const auto tv = lastChange(named(kOKVA_CanonCameraPropertyDidChange), "Tv");
    ASSERT_TRUE(tv);
    EXPECT_EQ(tv->note.userInfoOrder, QStringList{kOKVA_CanonCameraPropertyName});

    ASSERT_TRUE(control->injectError("EdsGetPropertyDesc", EDS_ERR_DEVICE_BUSY, 1));
    const auto none = camera->supportedValuesForPropertyID(kEdsPropID_Tv);
    EXPECT_FALSE(none.has_value());
    camera->setSupportedValues(none, kEdsPropID_Tv);
    EXPECT_EQ(count(kOKVA_CanonCameraPropertiesDidChange), 0u);
}

// --- legacy models ---------------------------------------------------------------------

class LegacyModel : public LoadedCameraFixture {
protected:
    int initialCameras() const override { return 0; }
    void beforeInitialize() override { control->plug("Canon EOS 30D"); }
};

TEST_F(LegacyModel, PropertyAccessAndCommandsGoThroughTheCameraUiLock) {
    EXPECT_TRUE(camera->isLegacyModel());
    // The body answers only while its controls are locked, so values read at
    // load prove the lock was taken (and given back: the next read works too).
    const auto ae = lastChange(named(kOKVA_CanonCameraPropertyDidChange), "AEMode");
    ASSERT_TRUE(ae);
    EXPECT_EQ(ae->note.userInfoOrder, kPropertyKeys);
    EXPECT_EQ(camera->valueForPropertyID(kEdsPropID_ISOSpeed, 0).toUInt(), 0x48u);

    ASSERT_TRUE(control->injectError("EdsSendStatusCommand", EDS_ERR_DEVICE_BUSY, 1));
    EXPECT_FALSE(camera->valueForPropertyID(kEdsPropID_ISOSpeed, 0).isValid());
    ASSERT_TRUE(control->injectError("EdsSendStatusCommand", EDS_ERR_DEVICE_BUSY, 1));
    EXPECT_FALSE(camera->supportedValuesForPropertyID(kEdsPropID_ISOSpeed).has_value());
    ASSERT_TRUE(control->injectError("EdsSendStatusCommand", EDS_ERR_DEVICE_BUSY, 1));
    EXPECT_FALSE(camera->setValue(0x50u, kEdsPropID_ISOSpeed, 0));
    EXPECT_EQ(control->property(kEdsPropID_ISOSpeed).toUInt(), 0x48u);

    camera->takePicture();
    camera->performNextQueuedCameraCommand();
    EXPECT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 1; }));

    // Live view is not offered on these bodies.
    camera->liveViewBegin();
    EXPECT_EQ(control->property(kEdsPropID_Evf_OutputDevice).toUInt(), 0u);
}

// --- commands ---------------------------------------------------------------------------------

using Commands = LoadedCameraFixture;

TEST_F(Commands, EachPerformSendsOneQueuedCommandAFailedOnePostsItsErrorTheDirectPathOnlyLogs) {
    camera->takePicture();
    camera->takePicture();
    auto queued = camera->queuedCommands();
    ASSERT_TRUE(queued);
    ASSERT_EQ(queued->size(), 2);
    EXPECT_EQ(queued->at(0).value(kCommandDescription).toString(), "Take a picture");
    EXPECT_EQ(queued->at(0).value(kCommandNumber).toUInt(), 0u);

    camera->performNextQueuedCameraCommand();
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 1; }));
    EXPECT_EQ(camera->queuedCommands()->size(), 1);
    settle();
    EXPECT_EQ(control->shotCount(), 1u);

    camera->pressShutterHalf();
    camera->releaseShutter();
    queued = camera->queuedCommands();
    ASSERT_EQ(queued->size(), 3);
    EXPECT_EQ(queued->at(1).value(kCommandDescription).toString(), "Press Shutter Button halfway");
    EXPECT_EQ(queued->at(1).value(kCommandParam).toULongLong(), 1u);
    EXPECT_EQ(queued->at(2).value(kCommandDescription).toString(), "Release Shutter Button");

    // The second picture fails: the error is posted with the command.
    ASSERT_TRUE(control->injectError("TakePicture", EDS_ERR_TAKE_PICTURE_AF_NG, 1));
    camera->performNextQueuedCameraCommand();
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraCommandError) == 1; }));
    const Posted failed = named(kOKVA_CanonCameraCommandError)[0];
    EXPECT_TRUE(failed.onMain);
    EXPECT_EQ(failed.camera(), camera);
    EXPECT_EQ(failed.note.userInfoOrder,
              (QStringList{kOKVA_CanonCameraCommandDictionary, kOKVA_CanonCameraCommandErrorKey}));
    const QVariantMap command = failed.note.userInfo.value(kOKVA_CanonCameraCommandDictionary).toMap();
    EXPECT_EQ(command.value(kCommandDescription).toString(), "Take a picture");
    const auto error = failed.note.userInfo.value(kOKVA_CanonCameraCommandErrorKey).value<ErrorValue>();
    EXPECT_EQ(error, (ErrorValue{"EdsError", EDS_ERR_TAKE_PICTURE_AF_NG, "take picture af ng"}));
    EXPECT_EQ(control->shotCount(), 1u);

    ASSERT_TRUE(control->injectError("TakePicture", EDS_ERR_DEVICE_BUSY, 1));
    EXPECT_EQ(camera->performCameraCommand(kEdsCameraCommand_TakePicture, 0), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(camera->performCameraCommand(kEdsCameraCommand_TakePicture, 0), EDS_ERR_OK);
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 2; }));
    settle();
    EXPECT_EQ(count(kOKVA_CanonCameraCommandError), 1u);
}

TEST_F(Commands, LensDriveAndZoomTakeOnlyTheirValues) {
    // Every lens drive that reaches the body fails, so each one sent is seen.
    ASSERT_TRUE(control->injectError("DriveLensEvf", 0xA005, 100));
    for (EdsUInt32 bad : {0u, 4u, 0x8000u, 0x8004u})
        camera->liveViewDriveAF(bad);
    EXPECT_TRUE(camera->queuedCommands()->isEmpty());
    camera->liveViewDriveAF(0x8003);
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraCommandError) == 1; }));
    settle();
    ASSERT_EQ(count(kOKVA_CanonCameraCommandError), 1u);
    const QVariantMap sent = named(kOKVA_CanonCameraCommandError)[0]
                                 .note.userInfo.value(kOKVA_CanonCameraCommandDictionary)
                                 .toMap();
    EXPECT_EQ(sent.value(kCommandNumber).toUInt(), kEdsCameraCommand_DriveLensEvf);
    EXPECT_EQ(sent.value(kCommandParam).toUInt(), 0x8003u);

    camera->liveViewSetZoom(2);
    EXPECT_EQ(control->property(kEdsPropID_Evf_Zoom).toUInt(), 1u);
    camera->liveViewSetZoom(10);
    EXPECT_EQ(control->property(kEdsPropID_Evf_Zoom).toUInt(), 10u);
}

// --- download ----------------------------------------------------------------------------------

using Download = LoadedCameraFixture;

TEST_F(Download, AShotArrivesOffTheMainThreadAfterProgressACancelledOrFailedOnePostsNothing) {
    TestDelegate delegate;
    camera->setDelegate(&delegate);
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 1; }));
    const Posted shot = named(kOKVA_CanonCameraPhotoDataAvailable)[0];
    EXPECT_FALSE(shot.onMain);
    EXPECT_EQ(shot.camera(), camera);
    EXPECT_EQ(shot.note.userInfoOrder,
              (QStringList{kOKVA_CanonCameraPhotoData, kOKVA_CanonCameraPhotoFilename}));
    EXPECT_EQ(shot.note.userInfo.value(kOKVA_CanonCameraPhotoFilename).toString(), "IMG_0001.JPG");
    // The bytes are the body's own (CameraUnderLoad checks them); here, a picture.
    const QByteArray data = shot.note.userInfo.value(kOKVA_CanonCameraPhotoData).toByteArray();
    EXPECT_FALSE(QImage::fromData(data).isNull());

    const auto progress = named(kOKVA_CanonCameraDownloadProgress);
    ASSERT_FALSE(progress.empty());
    unsigned previous = 0;
    for (const auto &p : progress) {
        EXPECT_TRUE(p.onMain);
        const unsigned percent = p.note.userInfo.value(kOKVA_CanonCameraDownloadProgressPercent).toUInt();
        EXPECT_GE(percent, previous);
        previous = percent;
    }
    EXPECT_EQ(previous, 100u);
    const int asked = delegate.asked.load();
    EXPECT_EQ(asked, int(progress.size()));

    // A transfer the delegate cancels is asked about once and posts nothing.
    delegate.cancel = true;
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return delegate.asked.load() > asked; }));
    camera->setDelegate(nullptr);

    // One transfer fails; one shot's size cannot be read, so it must not be
    // taken as an empty file (nor freed on the camera as if downloaded).
    ASSERT_TRUE(control->injectError("EdsDownload", EDS_ERR_COMM_DISCONNECTED, 1));
    ASSERT_TRUE(control->injectError("EdsGetDirectoryItemInfo", EDS_ERR_COMM_DISCONNECTED, 1));
    for (int shot = 0; shot < 3; ++shot)
        ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 2; }));
    settle();
    ASSERT_EQ(count(kOKVA_CanonCameraPhotoDataAvailable), 2u);
    EXPECT_EQ(
        named(kOKVA_CanonCameraPhotoDataAvailable)[1].note.userInfo.value(kOKVA_CanonCameraPhotoFilename),
        "IMG_0005.JPG");
    EXPECT_EQ(delegate.asked.load(), asked + 1);
}

TEST_F(Download, AShotWhoseSaveStallsHoldsBackNoCameraEvents) {
    // A save folder that does not answer: the shot's observer waits until released.
    std::mutex m;
    std::condition_variable cv;
    bool release = false, stalled = false;
    auto token = NotificationCenter::defaultCenter().addObserver(kOKVA_CanonCameraPhotoDataAvailable, {},
                                                                 [&](const Notification &) {
                                                                     std::unique_lock lk(m);
                                                                     stalled = true;
                                                                     cv.wait(lk, [&] { return release; });
                                                                 });
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lk(m);
        return stalled;
    }));
    // Property changes and the unplug still reach the station meanwhile.
    ASSERT_EQ(control->setProperty(kEdsPropID_Av, 0x38), EDS_ERR_OK);
    control->unplug();
    const bool delivered = waitFor([&] { return count(kOKVA_CanonCameraDidUnload) == 1; });
    {
        std::lock_guard lk(m);
        release = true;
    }
    cv.notify_all();
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_TRUE(delivered) << "the unplug waited for the stalled save";
}

TEST_F(Download, ABusyBodyIsAskedAgainAndAShotGivenUpIsLoggedByName) {
    LogCapture log;
    // Three failures: the fourth try brings the shot.
    ASSERT_TRUE(control->injectError("EdsDownload", EDS_ERR_DEVICE_BUSY, 3));
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 1; }));
    // Four: the shot is given up, and the log says which and why.
    ASSERT_TRUE(control->injectError("EdsDownloadComplete", EDS_ERR_DEVICE_BUSY, 4));
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return log.text().contains("not saved"); }));
    settle();
    EXPECT_EQ(count(kOKVA_CanonCameraPhotoDataAvailable), 1u);
    EXPECT_TRUE(
        log.text().contains("shot \"IMG_0002.JPG\" not saved: error 0x81 (device busy) completing its "
                            "download after 4 attempt(s)"))
        << log.text().constData();
}

// --- disappearance -----------------------------------------------------------------------------

using Disappearance = LoadedCameraFixture;

TEST_F(Disappearance, UnplugTellsTheMainThreadAPlugLoadsAgainAndAListUpdateSwallowsNoLaterUnplug) {
    clearPosted();

    // What the station does: let the vanished camera go, load a new one when listed.
    auto &center = NotificationCenter::defaultCenter();
    auto onUnload = center.addObserver(kOKVA_CanonCameraDidUnload, {}, [](const Notification &n) {
        CameraPtr gone = OKVA_CanonCamera::fromVariant(n.object);
        if (gone && gone == OKVA_CanonCamera::currentCamera())
            gone->unload();
    });
    auto onList = center.addObserver(kOKVA_CanonCameraListDidUpdate, {}, [](const Notification &) {
        auto list = OKVA_CanonCamera::cameras();
        if (list && !list->isEmpty() && !OKVA_CanonCamera::currentCamera())
            list->first()->load();
    });

    ASSERT_TRUE(control->unplug());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraDidUnload) >= 1; }));
    const Posted gone = named(kOKVA_CanonCameraDidUnload)[0];
    EXPECT_TRUE(gone.onMain);
    EXPECT_EQ(gone.camera(), camera);
    EXPECT_FALSE(camera->isLoaded());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraListDidUpdate) >= 1; }));
    EXPECT_EQ(OKVA_CanonCamera::currentCamera(), nullptr);

    ASSERT_EQ(control->plug(""), 1);
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraAdded) == 1; }));
    const Posted added = named(kOKVA_CanonCameraAdded)[0];
    EXPECT_TRUE(added.onMain);
    EXPECT_FALSE(added.note.object.isValid());
    ASSERT_TRUE(waitFor([&] { return OKVA_CanonCamera::currentCamera() != nullptr; }));
    CameraPtr again = OKVA_CanonCamera::currentCamera();
    EXPECT_TRUE(again->isLoaded());
    EXPECT_NE(again, camera);

    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 1; }));
    EXPECT_EQ(named(kOKVA_CanonCameraPhotoDataAvailable)[0].camera(), again);

    // An update now makes a second object for the same body and drops it
    // again; that does not swallow the next disappearance.
    OKVA_CanonCamera::updateCameraList();
    ASSERT_TRUE(waitFor([&] {
        auto c = OKVA_CanonCamera::cameras();
        return c && c->isEmpty();
    }));
    clearPosted();
    ASSERT_TRUE(control->unplug());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraDidUnload) == 1; }));
    EXPECT_EQ(named(kOKVA_CanonCameraDidUnload)[0].camera(), again);
    EXPECT_FALSE(again->isLoaded());
    center.removeObserver(onUnload);
    center.removeObserver(onList);
}

// A camera-list update that runs while the session is being opened, as one
// started by a camera-added event can.
class UpdateWhileOpeningSdk : public ForwardingSdk {
public:
    using ForwardingSdk::ForwardingSdk;
    EdsError EdsOpenSession(EdsCameraRef camera) override {
        // After the start-up update has let go of its lock, or this one would be skipped.
        auto &updateLock = CameraClassState::get().updateLock;
        updateLock.lock();
        updateLock.unlock();
        OKVA_CanonCamera::updateCameraListAsync();
        return ForwardingSdk::EdsOpenSession(camera);
    }
};

class DisappearanceAfterLoadRace : public LoadedCameraFixture {
protected:
    std::shared_ptr<EdsSdk> wrap(std::shared_ptr<EdsSdk> sim) override {
        return std::make_shared<UpdateWhileOpeningSdk>(sim);
    }
};

TEST_F(DisappearanceAfterLoadRace, AListUpdateDuringLoadDoesNotSwallowTheDisappearance) {
    clearPosted();
    ASSERT_TRUE(control->unplug());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraDidUnload) == 1; }));
    EXPECT_EQ(named(kOKVA_CanonCameraDidUnload)[0].camera(), camera);
    EXPECT_FALSE(camera->isLoaded());
}

// --- live view ------------------------------------------------------------------------------------

using LiveView = LoadedCameraFixture;

TEST_F(LiveView, BeginStreamsDecodedFramesAndEndStopsTheLoop) {
    control->setLiveViewRate(60);
    clearPosted();
    camera->liveViewBegin();
    EXPECT_EQ(control->property(kEdsPropID_Evf_Mode).toUInt(), kEdsEvfMode_Enabled);
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraLiveViewImageUpdate) >= 3; }));
    EXPECT_TRUE(camera->isLiveViewRunning());
    for (const auto &p : named(kOKVA_CanonCameraLiveViewImageUpdate)) {
        EXPECT_TRUE(p.onMain);
        const QImage frame = p.note.userInfo.value(kOKVA_CanonCameraLiveViewImage).value<QImage>();
        EXPECT_EQ(frame.size(), QSize(1024, 680));
    }
    // A second loop while one runs returns at once.
    camera->downloadLiveViewImage();

    camera->liveViewEnd();
    ASSERT_TRUE(waitFor([&] { return !camera->isLiveViewRunning(); }));
    ASSERT_TRUE(waitFor([&] {
        if (!camera->liveViewLock().tryLock())
            return false;
        camera->liveViewLock().unlock();
        return true;
    }));
    EXPECT_EQ(control->property(kEdsPropID_Evf_OutputDevice).toUInt() & kEdsEvfOutputDevice_PC, 0u);
    // The output device is live view's business, not a setting change.
    EXPECT_FALSE(lastChange(named(kOKVA_CanonCameraPropertyDidChange), "Evf_OutputDevice").has_value());
}

TEST(CameraTimeRecord, RoundTripWithMillisecondsInvalidRecordsAndTheWeekBasedYear) {
    EdsTime record{2024, 3, 7, 13, 45, 9, 250};
    const QDateTime date = OKVA_CanonCamera::dateForEDSTime(&record);
    ASSERT_TRUE(date.isValid());
    const QDateTime local = date.toLocalTime();
    EXPECT_EQ(local.date(), QDate(2024, 3, 7));
    EXPECT_EQ(local.time(), QTime(13, 45, 9, 250));

    EdsTime back{};
    OKVA_CanonCamera::EDSTime(&back, date);
    EXPECT_EQ(std::memcmp(&back, &record, sizeof record), 0);

    EdsTime impossible{2024, 2, 30, 0, 0, 0, 0};
    EXPECT_FALSE(OKVA_CanonCamera::dateForEDSTime(&impossible).isValid());
    EXPECT_FALSE(OKVA_CanonCamera::dateForEDSTime(nullptr).isValid());

    // Nothing is written for a value that is not a date.
    EdsTime untouched{1, 2, 3, 4, 5, 6, 7};
    OKVA_CanonCamera::EDSTime(&untouched, QString("2024-03-07"));
    EXPECT_EQ(untouched.year, 1u);
    EXPECT_EQ(untouched.milliseconds, 7u);
    OKVA_CanonCamera::EDSTime(nullptr, date); // and nothing breaks without a record

    // 30 December 2024 falls in week 1 of 2025: the record says 2025.
    EdsTime lateDecember{};
    OKVA_CanonCamera::EDSTime(&lateDecember, QDateTime(QDate(2024, 12, 30), QTime(12, 0), Qt::LocalTime));
    EXPECT_EQ(lateDecember.year, 2025u);
    EXPECT_EQ(lateDecember.day, 30u);
}

TEST(DisplayTables, BatteryLevelIsSignedWithMainsPower) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFF), "AC Power");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 100), "100 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFE), "-2 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryQuality, 4), "unknown");
}
