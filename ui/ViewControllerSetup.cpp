// ViewController: what happens when the view loads (the start sequence), the
// first tab, and the reveal actions.
#include "AlertHelper.h"
#include "Logger.h"
#include "Paths.h"
#include "Preferences.h"
#include "Scheduling.h"
#include "ViewController.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>

#include <thread>

namespace brix {

namespace {

constexpr double kOptionQuestionDelay = 0.3;

QString logFilePath() {
    return Logger::defaultLogFileWithinSubdirectory(QStringLiteral("Brix")).toLocalFile();
}

// The desktop's file manager, asked over its freedesktop interface to show the
// file selected.
bool showItemInFileManager(const QString &path) {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
    return reply.type() == QDBusMessage::ReplyMessage;
}

} // namespace

void ViewController::viewDidLoad() {
    const QString me =
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("viewDidLoad"));
    Logger::setError(me);
    setupwallpapermonitor();
    const Qt::KeyboardModifiers held = modifiers_ ? modifiers_() : Qt::NoModifier;
    if (held & Qt::AltModifier) {
        Logger::setError(QStringLiteral("Option key is down - should give user Alert to terminate..."));
        Scheduling::afterDelay(kOptionQuestionDelay, dispatch::mainQueue(), [this] {
            const bool goOn = AlertHelper::presentBlockingConfirmation(
                QStringLiteral("Quit App?"), QStringLiteral("Proceed with the operation?"),
                QStringLiteral("Continue"), QStringLiteral("Terminate App"));
            if (goOn) {
                Logger::setError(QStringLiteral("do continue forward...."));
                doMoreOfViewDidLoad();
            } else {
                Logger::setError(QStringLiteral("terminate"));
                emit terminateRequested();
            }
        });
        return;
    }
    Logger::setError(QStringLiteral("Option key is not down"));
    doMoreOfViewDidLoad();
}

void ViewController::doMoreOfViewDidLoad() {
    Logger::setError(
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("doMoreOfViewDidLoad")));
    Scheduling::performAsyncGlobal([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        Scheduling::performAsyncOnMainQueue([this] {
            createSavePhotosFolder();
            Logger::setError(
                QStringLiteral("%1-%2...").arg(objectDescription(), QLatin1String("doMoreOfViewDidLoad")));
            ibStartCameraButton();
        });
    });
    Scheduling::performAsyncGlobal([this] {
        Scheduling::performAsyncOnMainQueue([this] {
            setStatusText(QString::fromLatin1(kNoCameraConnectedAtStartup));
            emit windowSizeSetupRequested();
            clearProgressIndicator();
            setCameraOnline(false);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    });
    emit viewStarting();
    selectIntialTabviewItem();
}

QString ViewController::getwallpaperpath() {
    return QString::fromLatin1(kWallpaperPath);
}

void ViewController::setwallpaperstuff() {
    const QString path = wallpaperPath_.isEmpty() ? getwallpaperpath() : wallpaperPath_;
    Scheduling::performAsyncOnMainQueue([this, path] {
        // Cleared first, so that a replaced file of the same name is shown afresh.
        pathToWallpaper_.clear();
        emit fPathToWallpaperChanged();
        if (QFileInfo::exists(path)) {
            pathToWallpaper_ = path;
            emit fPathToWallpaperChanged();
        }
    });
}

void ViewController::setupwallpapermonitor() {
    if (fwallpapermonitor_)
        return;
    const QString path = wallpaperPath_.isEmpty() ? getwallpaperpath() : wallpaperPath_;
    const QString folder = Paths::standardizePath(QFileInfo(path).path()) + '/';
    // inotify through Qt: the folder catches the file appearing and going, the
    // file itself its rewrites in place.
    auto *watcher = new QFileSystemWatcher(this);
    fwallpapermonitor_ = watcher;
    auto rewatch = [watcher, folder, path] {
        if (!watcher->directories().contains(QDir::cleanPath(folder)) && QFileInfo(folder).isDir())
            watcher->addPath(folder);
        if (!watcher->files().contains(path) && QFileInfo::exists(path))
            watcher->addPath(path);
    };
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, [this, path, rewatch](const QString &) {
        rewatch();
        wallpaperFolderChanged({path});
    });
    connect(watcher, &QFileSystemWatcher::fileChanged, this, [this, rewatch](const QString &file) {
        rewatch();
        wallpaperFolderChanged({file});
    });
    rewatch();
    setwallpaperstuff();
}

void ViewController::wallpaperFolderChanged(const QStringList &changedPaths) {
    const QString path = wallpaperPath_.isEmpty() ? getwallpaperpath() : wallpaperPath_;
    if (!changedPaths.contains(path))
        return;
    Logger::setError(QStringLiteral("we need to handle..."));
    setwallpaperstuff();
}

void ViewController::ibStartCameraButton() {
    Logger::setError(
        QStringLiteral("%1-%2.....").arg(objectDescription(), QLatin1String("ibStartCameraButton:")));
    const PanelControl *control = controls_ ? controls_->viewWithTag(1111) : nullptr;
    if (!control)
        return;
    Scheduling::performAsyncOnMainQueue([this] {
        if (cameraStarted_) {
            Logger::setError(QStringLiteral("%1-%2.....nothing to do - already setup...")
                                 .arg(objectDescription(), QLatin1String("ibStartCameraButton:")));
            return;
        }
        if (quitting_) {
            Logger::setError(QStringLiteral("%1-%2.....the station is quitting; no camera is started")
                                 .arg(objectDescription(), QLatin1String("ibStartCameraButton:")));
            return;
        }
        cameraStarted_ = cameraStarter_ && cameraStarter_();
        if (cameraStarted_)
            setupNotifications();
    });
}

void ViewController::selectIntialTabviewItem() {
    const QLatin1String op("selectIntialTabviewItem");
    Logger::setError(QStringLiteral("Inside %1 => %2...").arg(objectDescription(), op));
    QString identifier = Preferences::standard()
                             .stringForKey(QString::fromLatin1(pref::kDefaultMainTabviewItemIdentifier))
                             .trimmed();
    if (identifier.isEmpty())
        identifier = QString::fromLatin1(kDefaultTabIdentifier);
    if (!tabIdentifiers_.contains(identifier)) {
        Logger::setError(QStringLiteral("Inside %1 => %2...FAILED indexOfTabViewItemWithIdentifier:[%3]...")
                             .arg(objectDescription(), op, identifier));
        return;
    }
    tabViewWillSelectTabViewItem(identifier);
}

void ViewController::tabViewWillSelectTabViewItem(const QString &identifier) {
    if (identifier == selectedTab_)
        return;
    Logger::setError(
        QStringLiteral("Inside %1 => %2...[%3]")
            .arg(objectDescription(), QLatin1String("tabView:willSelectTabViewItem:"), identifier));
    selectedTab_ = identifier;
    emit selectedTabIdentifierChanged();
}

void ViewController::ibTestButton() {
    const QString folder = getPathToSavePhotos();
    Logger::setError(QStringLiteral("%1-%2... opening path1 = %3....")
                         .arg(objectDescription(), QLatin1String("ibTestButton:"), folder));
    auto open = openUrl_ ? openUrl_ : [](const QUrl &url) { return QDesktopServices::openUrl(url); };
    open(QUrl::fromLocalFile(folder));
    const QString logFolder = QFileInfo(logFilePath()).path();
    Logger::setError(QStringLiteral("%1-%2... opening path2 = %3....")
                         .arg(objectDescription(), QLatin1String("ibTestButton:"), logFolder));
    open(QUrl::fromLocalFile(logFolder));
}

void ViewController::doRevealItem1() {
    const QLatin1String op("doRevealItem1:");
    const QString folder = getPathToSavePhotos();
    Logger::setError(QStringLiteral("Inside %1 => %2...").arg(objectDescription(), op));
    Logger::setError(QStringLiteral("%1-%2... opening path1 = %3....").arg(objectDescription(), op, folder));
    auto open = openUrl_ ? openUrl_ : [](const QUrl &url) { return QDesktopServices::openUrl(url); };
    open(QUrl::fromLocalFile(folder));
}

void ViewController::doRevealItem2() {
    const QString path = logFilePath();
    if (QFileInfo::exists(path)) {
        auto reveal = revealFile_ ? revealFile_ : showItemInFileManager;
        if (reveal(path))
            return;
    }
    auto open = openUrl_ ? openUrl_ : [](const QUrl &url) { return QDesktopServices::openUrl(url); };
    const QString folder = QFileInfo(path).path();
    if (!open(QUrl::fromLocalFile(folder)))
        Logger::setError(QStringLiteral("%1-%2... opening path2 = %3....FAILED??????.....")
                             .arg(objectDescription(), QLatin1String("doRevealItem2:"), folder));
}

} // namespace brix
