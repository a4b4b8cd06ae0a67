// The window as an operator uses it, on the simulated camera: the objects are
// wired as the station wires them, the widgets are driven with QTest; and the
// remembered camera settings without a camera.
#include "AppDelegate.h"
#include "CameraPanelModel.h"
#include "CameraSettings.h"
#include "CameraSettingsFile.h"
#include "HistogramController.h"
#include "ImageView.h"
#include "LiveViewController.h"
#include "MainWindow.h"
#include "OKVA_CanonCamera.h"
#include "Preferences.h"
#include "ShouldQuitViewController.h"
#include "SimulatorControl.h"
#include "SystemSound.h"
#include "TestSupport.h"
#include "ViewController.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

using namespace brix;
using namespace std::chrono_literals;

namespace {

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        dispatch::mainQueue()->async([] {});
        std::string why;
        simulator = std::shared_ptr<eds::EdsSdk>(eds::createSimulatorSdk(&why));
        ASSERT_TRUE(simulator) << why;
        control = eds::simulatorControl(*simulator);
        panel.setCameraProvider([this] { return delegate.currentCamera(); });
        delegate.setControls(&panel);
        delegate.awakeFromNib();
        vc.setDisplaysImages(true);
        vc.setCameraControls(&panel);
        vc.setCameraStarter([this] { return OKVA_CanonCamera::initialize(simulator); });
        vc.setUrlOpener([this](const QUrl &url) {
            opened << url;
            return true;
        });
        live.setCameraProvider([this] { return delegate.currentCamera(); });
        window = std::make_unique<MainWindow>(vc, panel, live, histogram);
        QObject::connect(window.get(), &MainWindow::takePictureRequested, &delegate, [this] {
            live.pauseForCapture();
            delegate.takePicture();
        });
        window->show();
    }

    void TearDown() override {
        window.reset();
        OKVA_CanonCamera::initialize(nullptr);
        control = nullptr;
        auto gone = std::make_shared<std::atomic<bool>>(false);
        dispatch::detachThread("sim-teardown", [s = std::move(simulator), gone]() mutable {
            s.reset();
            *gone = true;
        });
        test::processEventsUntil([&] { return gone->load(); });
        test::drain(ViewController::metadataQueue());
        QCoreApplication::processEvents();
    }

    // Starts as the station does and waits for the panel to show the body.
    void startWithCamera() {
        vc.viewDidLoad();
        ASSERT_TRUE(test::processEventsUntil([&] { return !combo("Tv")->currentText().isEmpty(); }));
    }
    bool waitFor(const std::function<bool()> &done) {
        return test::processEventsUntil(done, std::chrono::seconds(20));
    }
    QComboBox *combo(const char *name) { return window->findChild<QComboBox *>(QLatin1String(name)); }
    QString text(const char *name) { return window->findChild<QLabel *>(QLatin1String(name))->text(); }
    // Picks the item with that text as a person would: open the list, move
    // to the item, press Return.
    void choose(QComboBox *box, const QString &title) {
        const int target = box->findText(title);
        ASSERT_GE(target, 0) << title.toStdString();
        QTest::mouseClick(box, Qt::LeftButton);
        ASSERT_TRUE(waitFor([&] { return box->view()->isVisible(); }));
        const int steps = target - box->view()->currentIndex().row();
        for (int i = 0; i < std::abs(steps); ++i)
            QTest::keyClick(box->view(), steps > 0 ? Qt::Key_Down : Qt::Key_Up);
        QTest::keyClick(box->view(), Qt::Key_Return);
    }
    ShouldQuitViewController *visibleSheet() {
        for (auto *s : window->findChildren<ShouldQuitViewController *>())
            if (s->isVisible())
                return s;
        return nullptr;
    }

    std::shared_ptr<eds::EdsSdk> simulator;
    eds::SimulatorControl *control = nullptr;
    AppDelegate delegate;
    CameraPanelModel panel;
    ViewController vc;
    LiveViewController live;
    HistogramController histogram;
    std::unique_ptr<MainWindow> window;
    QList<QUrl> opened;
};

} // namespace

TEST_F(WindowTest, PanelShowsTheBodyAndAChoiceReachesIt) {
    startWithCamera();
    QStringList statusLines;
    QObject::connect(&Preferences::standard(), &Preferences::valueChanged, window.get(),
                     [&](const QString &key, const QVariant &) {
                         if (key == pref::kNameOfCameraFound)
                             statusLines << text("camerastatus");
                     });
    ASSERT_TRUE(waitFor([&] { return text("camerastatus") == "Canon EOS 5D Mark IV"; }));
    // Pop-ups hold exactly the body's supported values, with its value selected.
    QComboBox *iso = combo("ISOSpeed");
    const auto supported = delegate.currentCamera()->supportedValuesForPropertyID(eds::kEdsPropID_ISOSpeed);
    ASSERT_TRUE(supported);
    EXPECT_EQ(iso->count(), supported->size());
    EXPECT_EQ(iso->currentText(), "ISO 100");
    EXPECT_LT(iso->findText("ISO 125"), iso->findText("ISO 1000")); // in numerical order
    for (QWidget *w : window->findChildren<QWidget *>())
        if (w->property("tag").isValid()) {
            EXPECT_FALSE(w->accessibleName().isEmpty()) << w->objectName().toStdString();
        }

    // The body's dial turned to Av: aperture usable, shutter speed not.
    control->setProperty(eds::kEdsPropID_AEMode, 2);
    ASSERT_TRUE(waitFor([&] { return !combo("Tv")->isEnabled() && combo("Av")->isEnabled(); }));

    // The operator picks ISO 400 in the pop-up: the body takes it.
    choose(iso, "ISO 400");
    ASSERT_TRUE(waitFor([&] { return control->property(eds::kEdsPropID_ISOSpeed).toUInt() == 0x58; }));
    EXPECT_EQ(iso->currentText(), "ISO 400");
    EXPECT_EQ(panel.selectedTitle(eds::kEdsPropID_ISOSpeed), "ISO 400");

    // A value the body refuses: the pop-up goes back to what the body has.
    control->injectError("EdsSetPropertyData", eds::EDS_ERR_DEVICE_BUSY, 1);
    choose(iso, "ISO 800");
    ASSERT_TRUE(waitFor([&] { return iso->currentText() == "ISO 400"; }));
    EXPECT_EQ(control->property(eds::kEdsPropID_ISOSpeed).toUInt(), 0x58u);

    // Unplugged: the status line says so (then the siblings' broadcast names
    // the camera that went), and the panel empties.
    control->unplug();
    ASSERT_TRUE(waitFor([&] { return statusLines.contains("< Camera Disconnected >"); }))
        << statusLines.join('|').toStdString();
    ASSERT_TRUE(waitFor([&] { return iso->count() == 0; }));
    ASSERT_TRUE(waitFor([&] { return text("camerastatus") == "Canon EOS 5D Mark IV - DISCONNECTED"; }));
    EXPECT_FALSE(vc.fCameraOnline());
}

TEST_F(WindowTest, ShotAppearsWithHistogramAndCountersAndLiveViewStepsAsideForIt) {
    startWithCamera();
    QTest::mouseClick(window->findChild<QPushButton *>("liveviewbutton"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return live.framesShown() >= 3; }));
    EXPECT_GT(live.framesPerSecond(), 0.0);
    EXPECT_TRUE(window->findChild<QLabel *>("liveviewrate")->text().endsWith("fps"));

    QTest::mouseClick(window->findChild<QPushButton *>("takepicture"), Qt::LeftButton);
    EXPECT_FALSE(live.running()); // stepped aside for the shot
    ASSERT_TRUE(waitFor([&] { return vc.fSavedCount() == 1 && !vc.displayImage().isNull(); }));
    EXPECT_EQ(text("downloadcount"), "Downloaded: 1");
    EXPECT_EQ(text("savedcount"), "Saved: 1");
    ASSERT_TRUE(waitFor([&] { return histogram.histogram().pixels > 0; }));
    EXPECT_EQ(histogram.histogram().pixels, quint64(vc.displayImage().width()) * vc.displayImage().height());
    ASSERT_TRUE(waitFor([&] { return live.running(); })); // and came back after it

    // The reveal action opens the save folder.
    QTest::mouseClick(window->findChild<QPushButton *>("revealsavefolder"), Qt::LeftButton);
    ASSERT_EQ(opened.size(), 1);
    EXPECT_EQ(opened[0].toLocalFile(), vc.getPathToSavePhotos());

    // Renewed before the body's limit, paused when nobody is around.
    live.setTimings(0.2, 0.6);
    live.noteActivity();
    const quint64 before = live.framesShown();
    ASSERT_TRUE(waitFor([&] { return !live.running(); }));
    EXPECT_GT(live.framesShown(), before);
    EXPECT_EQ(live.stateText(), "Live view paused (idle)");
}

// Closing and staying is the end-to-end test's (window_station_test.cpp).
TEST_F(WindowTest, QuitAndCloseAskFirstAndOnlyTheSheetQuits) {
    QSignalSpy quit(window.get(), &MainWindow::quitConfirmed);
    QSignalSpy relaunch(window.get(), &MainWindow::quitAndRelaunchRequested);
    // Quit from the menu asks as closing does; relaunch is its own choice.
    window->findChild<QAction *>("quitaction")->trigger();
    ASSERT_TRUE(waitFor([&] { return visibleSheet() != nullptr; }));
    QTest::mouseClick(visibleSheet()->findChild<QPushButton *>("confirmquitrelaunch"), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return relaunch.count() == 1; }));
    EXPECT_EQ(quit.count(), 0);

    EXPECT_FALSE(window->close()); // the close button never closes by itself
    EXPECT_TRUE(window->isVisible());
    ASSERT_TRUE(waitFor([&] { return visibleSheet() != nullptr; }));
    QPushButton *confirm = visibleSheet()->findChild<QPushButton *>("confirmquit");
    confirm->setObjectName("ConfirmQuit"); // identifiers compare without regard to case
    QTest::mouseClick(confirm, Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return quit.count() == 1; }));
}

TEST_F(WindowTest, AltHeldAtStartAsksBeforeAnythingStarts) {
    vc.setModifierQuery([] { return Qt::KeyboardModifiers(Qt::AltModifier); });
    QSignalSpy terminate(&vc, &ViewController::terminateRequested);
    QString asked;
    // The question runs its own loop; answer it from there.
    QTimer answer;
    QObject::connect(&answer, &QTimer::timeout, [&] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            asked = box->text();
            EXPECT_EQ(box->defaultButton()->text(), "Continue");
            box->findChild<QPushButton *>("cancel")->click();
        }
    });
    answer.start(20);
    vc.viewDidLoad();
    ASSERT_TRUE(waitFor([&] { return terminate.count() == 1; }));
    EXPECT_EQ(asked, "Quit App?");
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(100));
    EXPECT_FALSE(vc.cameraObjectExists());
}

TEST_F(WindowTest, WallpaperFollowsTheFileOnDiskUntilTheFirstShot) {
    const QString folder = test::testHome() + "/Shared/BrixCanonCapture";
    QDir().mkpath(folder);
    const QString path = folder + "/Wallpaper.jpg";
    auto writeWallpaper = [&](int width) {
        QImage image(width, 100, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        ASSERT_TRUE(image.save(folder + "/new.jpg"));
        ASSERT_TRUE(QFile::rename(folder + "/new.jpg", path) ||
                    (QFile::remove(path) && QFile::rename(folder + "/new.jpg", path)));
    };
    writeWallpaper(300);
    vc.setWallpaperPathForTesting(path);
    vc.viewDidLoad();
    auto *view = window->findChild<ImageView *>("ibImageView");
    ASSERT_TRUE(waitFor([&] { return view->image().width() == 300; }));
    writeWallpaper(200); // replaced under the same name
    ASSERT_TRUE(waitFor([&] { return view->image().width() == 200; }));
    QFile::remove(path);
    ASSERT_TRUE(waitFor([&] { return view->image().isNull(); }));
    EXPECT_TRUE(vc.fPathToWallpaper().isNull());
}

// Without a camera every remembered value is refused (one beep each), and the
// import answers reach the store as the user chose, each followed by a reload.
TEST(CameraSettings, SavesUnderTheFallbackNameMergesWholeModelsAndReloadsAfterEveryAnswer) {
    Preferences prefs(test::testHome() + "/settings-prefs.plist");
    CameraPanelModel panel;
    panel.selectPopUpTitle(1030, "1/125");
    CameraSettings settings(panel, prefs, [] { return CameraPtr(); });
    auto model = [](const QString &tv) { return QVariantMap{{"1030", tv}, {"1026", "ISO 400"}}; };

    settings.ibSaveSettings();
    const QVariantMap saved = prefs.dictionaryForKey(pref::kCanonSettings);
    EXPECT_EQ(saved.value("canoncamera").toMap().value("1030").toString(), "1/125");
    EXPECT_EQ(saved.value("version").toString(), "v2");

    prefs.setObject(QVariantMap{{"version", "v2"}, {"A", model("1/60")}, {"B", model("1/30")}},
                    pref::kCanonSettings);
    prefs.setObject("A", pref::kNameOfCameraFound);
    const int before = SystemSound::beepCount();
    settings.importSettings(QVariantMap{{"A", QVariantMap{{"1031", "+1"}}}}, CameraSettings::Merge);
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("B").toMap(), model("1/30"));
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("A").toMap(), (QVariantMap{{"1031", "+1"}}));
    ASSERT_TRUE(test::processEventsUntil([&] { return SystemSound::beepCount() == before + 1; }, 5s));

    // Cancel leaves the store alone and still applies A again.
    settings.importSettings(QVariantMap{{"A", model("1/8000")}}, CameraSettings::Cancel);
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("A").toMap(), (QVariantMap{{"1031", "+1"}}));
    ASSERT_TRUE(test::processEventsUntil([&] { return SystemSound::beepCount() == before + 2; }, 5s));

    // An unreadable file never empties the store, whatever the answer.
    settings.importSettings({}, CameraSettings::Overwrite);
    EXPECT_TRUE(prefs.dictionaryForKey(pref::kCanonSettings).contains("B"));

    // Refused: a wrong version, any case; accepted: no version at all.
    EXPECT_FALSE(CameraSettingsFile::isAcceptable(QVariantMap{{"version", "v1"}}));
    EXPECT_TRUE(CameraSettingsFile::isAcceptable(QVariantMap{{"version", "V2"}}));
}
