// The camera under load from several threads at once: bursts of shots from the
// body, commands from many threads, unplugging in the middle of a transfer,
// settings changing on the body while the station loads and unloads.
#include "CameraFixture.h"

#include <QCryptographicHash>

#include <set>
#include <thread>

using namespace brix;
using namespace brix::eds;
using namespace brix::test;

// Read by the thread sanitizer at start-up (unused elsewhere). Qt and glibc
// are not built with it: Qt hands posted events over through its own futex
// locks and glibc's tzset guards its zone data with an internal lock, and the
// sanitizer sees neither, so memory passed that way looks raced.
extern "C" const char *__tsan_default_suppressions() {
    return "called_from_lib:libQt6Core.so.6\n"
           "race:tzset_internal\n";
}

namespace {

// Records, as each transfer ends, the bytes the SDK wrote and the file's name,
// and counts the commands sent.
class RecordingSdk : public ForwardingSdk {
public:
    using ForwardingSdk::ForwardingSdk;

    EdsError EdsCreateMemoryStreamFromPointer(EdsVoid *buffer, EdsUInt64 size, EdsStreamRef *out) override {
        const EdsError err = ForwardingSdk::EdsCreateMemoryStreamFromPointer(buffer, size, out);
        if (err == EDS_ERR_OK && out) {
            std::lock_guard lk(m);
            buffers[*out] = static_cast<const char *>(buffer);
        }
        return err;
    }
    EdsError EdsGetDirectoryItemInfo(EdsDirectoryItemRef item, EdsDirectoryItemInfo *info) override {
        const EdsError err = ForwardingSdk::EdsGetDirectoryItemInfo(item, info);
        if (err == EDS_ERR_OK) {
            std::lock_guard lk(m);
            names[item] = QString::fromUtf8(info->szFileName);
        }
        return err;
    }
    EdsError EdsDownload(EdsDirectoryItemRef item, EdsUInt64 size, EdsStreamRef stream) override {
        const EdsError err = ForwardingSdk::EdsDownload(item, size, stream);
        if (err == EDS_ERR_OK) {
            std::lock_guard lk(m);
            transfers.push_back({names[item], QByteArray(buffers[stream], qsizetype(size))});
        }
        return err;
    }
    EdsError EdsSendCommand(EdsCameraRef camera, EdsCameraCommand command, EdsInt32 param) override {
        commandsSent.fetch_add(1);
        return ForwardingSdk::EdsSendCommand(camera, command, param);
    }

    std::mutex m;
    std::map<EdsBaseRef, const char *> buffers;
    std::map<EdsBaseRef, QString> names;
    std::vector<std::pair<QString, QByteArray>> transfers;
    std::atomic<int> commandsSent{0};
};

class CameraUnderLoad : public LoadedCameraFixture {
protected:
    std::shared_ptr<EdsSdk> wrap(std::shared_ptr<EdsSdk> sim) override {
        recording = std::make_shared<RecordingSdk>(sim);
        return recording;
    }
    std::shared_ptr<RecordingSdk> recording;
};

} // namespace

TEST_F(CameraUnderLoad, ABurstOfFiftyShotsArrivesWholeAndInOrder) {
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(
        waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == 50; }, std::chrono::seconds(120)));

    const auto shots = named(kOKVA_CanonCameraPhotoDataAvailable);
    std::lock_guard lk(recording->m); // the body is done: nothing waits for it
    const auto &transfers = recording->transfers;
    ASSERT_EQ(transfers.size(), 50u);
    std::set<QByteArray> digests;
    for (int i = 0; i < 50; ++i) {
        const QVariantMap &info = shots[i].note.userInfo;
        const QByteArray data = info.value(kOKVA_CanonCameraPhotoData).toByteArray();
        const QString expectedName = QStringLiteral("IMG_%1.JPG").arg(i + 1, 4, 10, QLatin1Char('0'));
        EXPECT_EQ(info.value(kOKVA_CanonCameraPhotoFilename).toString(), expectedName);
        EXPECT_EQ(transfers[i].first, expectedName);
        EXPECT_TRUE(data == transfers[i].second) << "shot " << i + 1 << " differs from what the camera sent";
        EXPECT_TRUE(data.startsWith("\xFF\xD8") && data.endsWith("\xFF\xD9")) << "shot " << i + 1;
        digests.insert(QCryptographicHash::hash(data, QCryptographicHash::Sha1));
    }
    EXPECT_EQ(digests.size(), 50u);
    // Streams were all given back: the only count still held is the camera's own.
    EXPECT_EQ(control->callerReferenceCount(), 1);
}

TEST_F(CameraUnderLoad, TakePictureFromManyThreadsSendsEachCommandOnce) {
    constexpr int kThreads = 8;
    constexpr int kEach = 5;
    // Each on its own thread, while the main loop keeps delivering.
    auto left = std::make_shared<std::atomic<int>>(kThreads);
    for (int t = 0; t < kThreads; ++t)
        dispatch::detachThread("test-worker", [camera = camera, left] {
            for (int i = 0; i < kEach; ++i) {
                camera->takePicture();
                camera->performNextQueuedCameraCommand();
            }
            left->fetch_sub(1);
        });
    ASSERT_TRUE(waitFor([&] { return left->load() == 0; }, std::chrono::seconds(60)));
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraPhotoDataAvailable) == kThreads * kEach; },
                        std::chrono::seconds(120)));
    settle();
    EXPECT_EQ(recording->commandsSent.load(), kThreads * kEach);
    EXPECT_EQ(control->shotCount(), unsigned(kThreads * kEach));
    EXPECT_EQ(count(kOKVA_CanonCameraCommandError), 0u);
    EXPECT_TRUE(camera->queuedCommands()->isEmpty());
}

TEST_F(CameraUnderLoad, UnplugDuringATransferPostsNothingForThatShot) {
    ASSERT_TRUE(control->setShotFormat("JPG", 8 * 1024 * 1024));
    auto &center = NotificationCenter::defaultCenter();
    std::atomic<bool> pulled{false};
    auto onProgress = center.addObserver(kOKVA_CanonCameraDownloadProgress, {}, [&](const Notification &) {
        if (pulled.exchange(true))
            return;
        control->unplug();
        // The simulated body finishes a transfer it has begun; a real one that
        // vanishes cannot confirm it, which is what the camera code sees here.
        control->injectError("EdsDownloadComplete", EDS_ERR_COMM_DISCONNECTED, 1);
    });
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraDidUnload) == 1; }));
    settle(std::chrono::milliseconds(500));
    center.removeObserver(onProgress);
    EXPECT_TRUE(pulled.load());
    EXPECT_EQ(count(kOKVA_CanonCameraPhotoDataAvailable), 0u);
    EXPECT_FALSE(camera->isLoaded());
    // The vanished camera still answers, with errors, and nothing breaks.
    EXPECT_FALSE(camera->valueForPropertyID(kEdsPropID_Av, 0).isValid());
    camera->takePicture();
    camera->performNextQueuedCameraCommand();
    EXPECT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraCommandError) == 1; }));
}

TEST_F(CameraUnderLoad, SettingsChangingOnTheBodyWhileTheStationReloads) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    dispatch::detachThread("test-body", [control = control, done] {
        static const EdsUInt32 kAvs[] = {0x20, 0x28, 0x30, 0x38};
        for (int i = 0; i < 400; ++i) {
            control->setProperty(kEdsPropID_Av, kAvs[i % 4]);
            std::this_thread::yield();
        }
        *done = true;
    });
    for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(camera->unload());
        settle(std::chrono::milliseconds(20));
        EXPECT_TRUE(camera->load());
        settle(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(waitFor([&] { return done->load(); }, std::chrono::seconds(60)));
    settle();
    // After the storm the last reported value is the body's.
    const auto value = camera->valueForPropertyID(kEdsPropID_Av, 0);
    EXPECT_EQ(value.toUInt(), control->property(kEdsPropID_Av).toUInt());
    EXPECT_TRUE(camera->isLoaded());
}

// Quitting in the middle of a download: the will-terminate step waits for the
// transfer under way, whose shot still arrives, and lets no later event reach
// the application, whose objects are about to go.
TEST_F(CameraUnderLoad, TerminationWaitsForTheDownloadUnderWayAndLetsNoLaterEventThrough) {
    ASSERT_TRUE(control->setShotFormat("JPG", 8 * 1024 * 1024));
    ASSERT_TRUE(control->pressShutter());
    // Each further progress report needs the main thread, which is here.
    ASSERT_TRUE(waitFor([&] { return count(kOKVA_CanonCameraDownloadProgress) >= 1; }));
    OKVA_CanonCamera::applicationWillTerminate(QStringLiteral("quit during a download"));
    EXPECT_EQ(count(kOKVA_CanonCameraPhotoDataAvailable), 1u);

    clearPosted();
    ASSERT_TRUE(control->pressShutter());
    ASSERT_TRUE(control->unplug());
    settle();
    EXPECT_TRUE(posted.empty()) << posted.front().note.name.toStdString();
}
