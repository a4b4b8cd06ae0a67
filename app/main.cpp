// BrixCanonCapture: entry point. Wires the station's objects together and runs
// the main loop, with or without the window.
#include "AppDelegate.h"
#include "BundleInfo.h"
#include "CameraPanelModel.h"
#include "CameraPanelView.h"
#include "CameraSettings.h"
#include "CameraSettingsView.h"
#include "CommandLine.h"
#include "Dispatch.h"
#include "EdsSdk.h"
#include "HistogramController.h"
#include "HotFolder.h"
#include "InterAppNotifications.h"
#include "LiveViewController.h"
#include "Logger.h"
#include "MainWindow.h"
#include "MemoryPolicy.h"
#include "OKVA_CanonCamera.h"
#include "OperatorConsole.h"
#include "Paths.h"
#include "Preferences.h"
#include "Scheduling.h"
#include "ShotJournal.h"
#include "SimulatorControl.h"
#include "SingleInstance.h"
#include "ViewController.h"
#include "Watchdog.h"
#include "WindowModeController.h"
#include "WindowProbe.h"
#include <QFormLayout>

#include <QApplication>
#include <QCoreApplication>
#include <QGuiApplication>

#include <cstdio>
#include <memory>

using namespace brix;

int main(int argc, char **argv) {
    // Before any thread exists, so that every thread inherits the blocked mask
    // and the signals reach only the signalfds of the main loop.
    Watchdog::blockCaughtSignals();
    dispatch::setMainThread();
    keepShotBuffersInTheHeap();

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const CommandLine options = CommandLine::parse(arguments);
    const QString program = arguments.isEmpty() ? QString(bundle::kName) : arguments.first().section('/', -1);

    if (options.help) {
        std::fputs(qPrintable(CommandLine::helpText(program)), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("%s %s\n", bundle::kName, bundle::kShortVersion);
        return 0;
    }
    if (!options.errors.isEmpty()) {
        for (const QString &e : options.errors)
            std::fprintf(stderr, "%s: %s\n", qPrintable(program), qPrintable(e));
        return 2;
    }

    std::unique_ptr<QCoreApplication> app;
    if (options.headless)
        app = std::make_unique<QCoreApplication>(argc, argv);
    else
        app = std::make_unique<QApplication>(argc, argv);
    QCoreApplication::setApplicationName(bundle::kName);
    QCoreApplication::setApplicationVersion(bundle::kShortVersion);

    // Start-up: from here on the error stream, ours and every library's, goes
    // to the rotating log. A second copy ends here, before any camera is opened.
    AppDelegate::initialize(arguments);

    Logger::setError(QStringLiteral("%1 %2 starting (%3)")
                         .arg(bundle::kName, bundle::kShortVersion,
                              options.headless ? QStringLiteral("headless") : QStringLiteral("window")));

    // Short lines for the operator on standard output; the log keeps everything.
    OperatorConsole console(options.quiet);

    // The camera backend; the simulator is also driven from outside over D-Bus.
    std::string backendWhy;
    std::unique_ptr<eds::EdsSdk> cameraSdk = eds::createSdk(options.cameraBackend.toStdString(), &backendWhy);
    std::unique_ptr<QObject> simulatorControl;
    if (!cameraSdk) {
        const QString requested = options.cameraBackend.isEmpty()
                                      ? qEnvironmentVariable("BRIX_CAMERA_BACKEND", QStringLiteral("auto"))
                                      : options.cameraBackend;
        Logger::setError(QStringLiteral("camera backend \"%1\" is not available: %2")
                             .arg(requested, QString::fromStdString(backendWhy)));
        console.backendUnavailable(requested, QString::fromStdString(backendWhy));
    } else {
        Logger::setError(QStringLiteral("camera backend: %1").arg(QLatin1String(cameraSdk->backendName())));
        console.backendStarted(QLatin1String(cameraSdk->backendName()));
        if (eds::simulatorControl(*cameraSdk)) {
            QString why;
            simulatorControl = eds::exportSimulatorControl(*cameraSdk, &why);
            if (simulatorControl)
                Logger::setError(QStringLiteral("simulator control on the session bus as %1")
                                     .arg(QLatin1String(eds::kSimulatorBusName)));
            else
                Logger::setError(QStringLiteral("simulator control not exported: %1").arg(why));
        }
    }

    // The delegate and the view controller listen before the camera class
    // starts, so that the first camera list is not missed.
    AppDelegate delegate;
    // The camera panel's state, with or without a window.
    CameraPanelModel panel;
    panel.setCameraProvider([&delegate] { return delegate.currentCamera(); });
    delegate.setControls(&panel);
    delegate.awakeFromNib();
    ViewController viewController;
    viewController.setDisplaysImages(!options.headless);
    // Each saved shot is announced, in order, from the queue that saved it.
    // The record of announced shots is staged before the announcement is
    // posted and put in place by one rename once the post has written it to
    // the bus: a kill before the write leaves the shot to the catch-up, and
    // only a kill between the write and the rename, microseconds apart, has
    // the catch-up announce it a second time.
    ShotJournal journal;
    IdleHeapTrim heapTrim;
    QObject::connect(
        &viewController, &ViewController::photoSaved, &viewController,
        [&console, &journal, &heapTrim](const QString &path) {
            interapp::mySendBrixXNotification2(
                path, [&journal, path] { journal.stage(path); }, [&journal] { journal.commit(); });
            interapp::mySendPreviewerAppNotificationWithFilePath(path);
            console.shotSaved(path);
            heapTrim.shotSaved();
        },
        Qt::DirectConnection);

    // Arms the watchdog (or leaves the station unmonitored, signals as usual).
    delegate.applicationWillFinishLaunching();
    Watchdog::releaseUncaughtSignals();

    // The camera object is made by the view's start sequence (the start control).
    std::shared_ptr<eds::EdsSdk> sdk(std::move(cameraSdk));
    viewController.setCameraControls(&panel);
    viewController.setTabIdentifiers(CameraPanelModel::tabIdentifiers());
    viewController.setCameraStarter([&sdk] { return sdk && OKVA_CanonCamera::initialize(sdk); });
    // Connected before the camera class connects its own end: whatever start
    // is still queued when the loop ends finds the view controller quitting.
    QObject::connect(app.get(), &QCoreApplication::aboutToQuit, &viewController,
                     [&viewController] { viewController.applicationWillTerminate(); });
    QObject::connect(&viewController, &ViewController::terminateRequested, app.get(),
                     [] { QCoreApplication::exit(0); });

    // Remembered camera settings: put back on every connection, with or without a window.
    CameraSettings cameraSettings(panel, Preferences::standard(),
                                  [&delegate] { return delegate.currentCamera(); });
    QObject::connect(&viewController, &ViewController::cameraConnected, &cameraSettings,
                     &CameraSettings::loadSettingsOnConnection);
    QObject::connect(&viewController, &ViewController::viewStarting, &cameraSettings,
                     &CameraSettings::clearOldPreferenceKey);
    if (SingleInstance *instance = AppDelegate::singleInstance())
        QObject::connect(instance, &SingleInstance::saveCameraSettingsRequested, &cameraSettings,
                         &CameraSettings::ibSaveSettings);
    if (!options.exportSettings.isEmpty()) {
        cameraSettings.clearOldPreferenceKey();
        const bool exported = cameraSettings.exportSettingsToPath(options.exportSettings);
        Logger::flush();
        return exported ? 0 : 1;
    }
    if (!options.importSettings.isEmpty()) {
        QVariantMap imported;
        QString description;
        if (cameraSettings.readImportFile(options.importSettings, &imported, &description))
            cameraSettings.importSettings(imported, options.importResponse);
        else
            Logger::setError(
                QStringLiteral("%1 %2").arg(QLatin1String(CameraSettings::kInvalidFileMessage), description));
    }

    LiveViewController liveView;
    liveView.setCameraProvider([&delegate] { return delegate.currentCamera(); });
    HistogramController histogram;
    WindowModeController windowModes(Preferences::standard());
    std::unique_ptr<MainWindow> window;
    std::unique_ptr<WindowProbe> probe;
    if (!options.headless) {
        window = std::make_unique<MainWindow>(viewController, panel, liveView, histogram);
        QObject::connect(window.get(), &MainWindow::takePictureRequested, &delegate, [&] {
            liveView.pauseForCapture();
            delegate.takePicture();
        });
        // The window never ends the process by itself: only a confirmed quit does.
        QObject::connect(window.get(), &MainWindow::quitConfirmed, app.get(),
                         [] { QCoreApplication::exit(0); });
        QObject::connect(window.get(), &MainWindow::quitAndRelaunchRequested, app.get(),
                         [] { Watchdog::quitAndRelaunch(); });
        QObject::connect(
            window.get(), &MainWindow::sendAllItemsInHotFolderRequested, &viewController, [&viewController] {
                const QVariant folder = viewController.getPathToSavePhotos();
                Scheduling::performAsyncGlobal([folder] { hotfolder::sendAllItemsInHotFolder(folder); });
            });
        QObject::connect(window.get(), &MainWindow::scanTimerToggleRequested, &delegate,
                         [&delegate] { delegate.createScanTimer(); });
        viewController.setModifierQuery([] { return QGuiApplication::queryKeyboardModifiers(); });
        // The settings buttons sit at the foot of the camera panel.
        if (auto *panelView = window->findChild<CameraPanelView *>())
            if (auto *form = qobject_cast<QFormLayout *>(panelView->layout()))
                form->addRow(new CameraSettingsView(cameraSettings, panelView));
        window->setWindowModes(windowModes);
        // Start-up puts the window into its mini size, then loads the size list.
        QObject::connect(&viewController, &ViewController::windowSizeSetupRequested, &windowModes,
                         [&windowModes] {
                             windowModes.ibDisclosureButton(std::nullopt, Qt::NoModifier);
                             windowModes.setupFMiniSizeStuff();
                         });
        QObject::connect(&viewController, &ViewController::showFullSizeRequested, &windowModes,
                         &WindowModeController::expandToFullSize);
        QObject::connect(&windowModes, &WindowModeController::initialTabRequested, &viewController,
                         &ViewController::selectIntialTabviewItem);
        window->show();
        probe = WindowProbe::exportIfRequested(*window, panel, viewController, windowModes);
    }
    // Shots the last run saved but did not announce go out first, before any
    // new shot is saved.
    ViewController::metadataQueue()->async([&viewController, &journal] {
        for (const QString &path : journal.catchUp(ViewController::resolvedSaveFolder()))
            emit viewController.photoSaved(path);
    });
    delegate.applicationDidFinishLaunching();
    viewController.viewDidLoad();

    const int status = app->exec();

    // On its way out the loop told the camera class, which waited for the SDK
    // callbacks under way and let no later one through, then ended the SDK:
    // no camera event reaches the objects below any more. Shots already
    // downloaded are written and announced before they go.
    ViewController::metadataQueue()->sync([] {});
    console.stopping();
    QCoreApplication::processEvents();
    Preferences::standard().synchronize();
    Logger::setError(QStringLiteral("%1 ended with status %2").arg(bundle::kName).arg(status));
    Logger::flush();
    probe.reset();
    window.reset();
    simulatorControl.reset();
    return status;
}
