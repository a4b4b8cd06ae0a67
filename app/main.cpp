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
#include "OKVA_CanonCamera.h"
#include "Paths.h"
#include "Preferences.h"
#include "Relaunch.h"
#include "Scheduling.h"
#include "SignalWatcher.h"
#include "SimulatorControl.h"
#include "SystemInfo.h"
#include "ViewController.h"
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
    // and the signals reach only the signalfd.
    SignalWatcher::blockTerminationSignals();
    dispatch::setMainThread();

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

    // From here on the error stream, ours and every library's, goes to the rotating log.
    Logger::setLogFile(Logger::defaultLogFileWithinSubdirectory(QStringLiteral("Brix")));
    OKVA_SystemInfo::logCurrentSystemInfo();

    SignalWatcher signalWatcher;
    QObject::connect(&signalWatcher, &SignalWatcher::terminationRequested, app.get(), [](int signalNumber) {
        Logger::setError(QStringLiteral("received signal %1, quitting").arg(signalNumber));
        // exit, not quit: a quit request goes through the window's close
        // confirmation, and a signal must end the station without a question.
        QCoreApplication::exit(0);
    });

    Logger::setError(QStringLiteral("%1 %2 starting (%3)")
                         .arg(bundle::kName, bundle::kShortVersion,
                              options.headless ? QStringLiteral("headless") : QStringLiteral("window")));

    // The camera backend; the simulator is also driven from outside over D-Bus.
    std::string backendWhy;
    std::unique_ptr<eds::EdsSdk> cameraSdk = eds::createSdk(options.cameraBackend.toStdString(), &backendWhy);
    std::unique_ptr<QObject> simulatorControl;
    if (!cameraSdk) {
        Logger::setError(QStringLiteral("camera backend \"%1\" is not available: %2")
                             .arg(options.cameraBackend.isEmpty()
                                      ? qEnvironmentVariable("BRIX_CAMERA_BACKEND", QStringLiteral("auto"))
                                      : options.cameraBackend,
                                  QString::fromStdString(backendWhy)));
    } else {
        Logger::setError(QStringLiteral("camera backend: %1").arg(QLatin1String(cameraSdk->backendName())));
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

    // Factory values under the user's own.
    Preferences::standard().registerFactoryDefaults();

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
    QObject::connect(
        &viewController, &ViewController::photoSaved, &viewController,
        [](const QString &path) {
            interapp::mySendBrixXNotification2(path);
            interapp::mySendPreviewerAppNotificationWithFilePath(path);
        },
        Qt::DirectConnection);

    // The camera object is made by the view's start sequence (the start control).
    std::shared_ptr<eds::EdsSdk> sdk(std::move(cameraSdk));
    viewController.setCameraControls(&panel);
    viewController.setCameraStarter([&sdk] { return sdk && OKVA_CanonCamera::initialize(sdk); });
    QObject::connect(&viewController, &ViewController::terminateRequested, app.get(),
                     [] { QCoreApplication::exit(0); });

    // Remembered camera settings: put back on every connection, with or without a window.
    CameraSettings cameraSettings(panel, Preferences::standard(),
                                  [&delegate] { return delegate.currentCamera(); });
    QObject::connect(&viewController, &ViewController::cameraConnected, &cameraSettings,
                     &CameraSettings::loadSettingsOnConnection);
    QObject::connect(&viewController, &ViewController::viewStarting, &cameraSettings,
                     &CameraSettings::clearOldPreferenceKey);
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
                         [arguments] { Relaunch::quitAndRelaunch(arguments); });
        QObject::connect(
            window.get(), &MainWindow::sendAllItemsInHotFolderRequested, &viewController, [&viewController] {
                const QVariant folder = viewController.getPathToSavePhotos();
                Scheduling::performAsyncGlobal([folder] { hotfolder::sendAllItemsInHotFolder(folder); });
            });
        viewController.setModifierQuery([] { return QGuiApplication::queryKeyboardModifiers(); });
        // The settings buttons sit at the foot of the camera panel.
        if (auto *panelView = window->findChild<CameraPanelView *>())
            if (auto *form = qobject_cast<QFormLayout *>(panelView->layout()))
                form->addRow(new CameraSettingsView(cameraSettings, panelView));
        window->show();
        probe = WindowProbe::exportIfRequested(*window, panel, viewController);
    }
    viewController.viewDidLoad();

    const int status = app->exec();

    // Shots already downloaded are written and announced before the end.
    ViewController::metadataQueue()->sync([] {});
    if (viewController.cameraObjectExists())
        OKVA_CanonCamera::applicationWillTerminate(QStringLiteral("application will terminate"));
    QCoreApplication::processEvents();
    Preferences::standard().synchronize();
    Logger::setError(QStringLiteral("%1 ended with status %2").arg(bundle::kName).arg(status));
    Logger::flush();
    probe.reset();
    window.reset();
    simulatorControl.reset();
    return status;
}
