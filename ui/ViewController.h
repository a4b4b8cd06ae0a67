// ViewController: the controller of the main window's view. It takes every shot
// the camera downloads, counts it, saves it into the save folder under a
// 17-digit time-stamp name, checks it and has it announced; it drives the
// download progress bar, owns the save folder, and keeps the camera status
// text and the camera-online flag. It holds no widgets: the window binds to its
// properties and signals, and the headless station runs it without a window.
//
// Threads: properties are changed on the main thread only (their signals are
// emitted there). Shot jobs run one at a time, in arrival order, on the serial
// metadata queue; photoSaved is emitted on that queue. Notification handlers may
// be called on any thread; they only enqueue.
// Ownership: the controller owns its observers and removes them when destroyed.
#pragma once

#include "CameraControls.h"
#include "Dispatch.h"
#include "DistributedNotificationCenter.h"
#include "NotificationCenter.h"

#include <QDateTime>
#include <QImage>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace brix {

class ViewController : public QObject {
    Q_OBJECT
    Q_PROPERTY(qint64 fDownloadCount READ fDownloadCount NOTIFY fDownloadCountChanged)
    Q_PROPERTY(qint64 fSavedCount READ fSavedCount NOTIFY fSavedCountChanged)
    Q_PROPERTY(bool fCameraOnline READ fCameraOnline NOTIFY fCameraOnlineChanged)
    Q_PROPERTY(double progressValue READ progressValue NOTIFY progressChanged)
    Q_PROPERTY(bool progressVisible READ progressVisible NOTIFY progressChanged)
    Q_PROPERTY(QImage displayImage READ displayImage NOTIFY displayImageChanged)
    Q_PROPERTY(QString selectedTabIdentifier READ selectedTabIdentifier NOTIFY selectedTabIdentifierChanged)
    Q_PROPERTY(QString fPathToWallpaper READ fPathToWallpaper NOTIFY fPathToWallpaperChanged)

public:
    static constexpr const char *kDefaultSaveFolder = "~/Users/Shared/CanonFolder";
    static constexpr const char *kPrefSaveFolderPath = "prefSaveFolderPath";
    static constexpr const char *kPrefNameOfCameraFound = "prefNameOfCameraFound";
    static constexpr const char *kNoCameraConnectedAtStartup = "< No Camera Connected At Startup >";
    static constexpr const char *kNoCameraFound = "< NO Camera Found >";
    static constexpr const char *kCameraDisconnected = "< Camera Disconnected >";
    static constexpr const char *kNoCanonCameraFound = "< NO Canon Camera Found >";
    static constexpr const char *kOpenPrefsNotification = "openPrefsNotification";
    // The shot being written. The camera downloads the next one meanwhile and
    // hands it over when this one is on the disk.
    static constexpr int kMaxShotsInFlight = 1;
    // In a burst the camera's thread waits for the save of the shot before
    // and the saving queue for the next shot, each for a few milliseconds. A
    // thread that sleeps that long on a virtual machine waits as long again
    // for its processor to wake, so both look a while before they sleep.
    static constexpr std::chrono::microseconds kSpinBeforeSleeping{5000};
    // A shot is written as a hidden file beside its final name, "." + name +
    // this suffix, and renamed into place: one left behind is a partial write.
    static constexpr const char *kTemporarySuffix = ".part";
    static QString temporaryPathFor(const QString &path);

    explicit ViewController(QObject *parent = nullptr);
    ~ViewController() override;

    // The serial queue on which shots are handled.
    static dispatch::QueuePtr metadataQueue();

    qint64 fDownloadCount() const { return downloadCount_; }
    qint64 fSavedCount() const { return savedCount_; }
    bool fCameraOnline() const { return cameraOnline_; }
    double progressValue() const { return progressValue_; }
    bool progressVisible() const { return progressVisible_; }
    bool progressAnimating() const { return progressAnimating_; }
    QImage displayImage() const { return displayImage_; }

    // Decoding shots for display costs time a headless station does not need to
    // spend; the window turns it on.
    void setDisplaysImages(bool on) { displaysImages_ = on; }

    // Observes the camera's and the siblings' notifications.
    void setupNotifications();

    // --- shots ---
    void newPhoto(const Notification &notification);
    void downloadProgress(const Notification &notification);
    void updateDisplayImage(const QVariant &image);
    void incrementDownloadCount();
    void incrementSavedCount();
    void saveImage(const QVariant &ignored);
    void processPhotoData(const QVariantMap &info);
    void clearProgressIndicator();

    // --- save folder ---
    // The stored preference, or a null QString.
    QString getPathToSavePhotos() const;
    // The stored save folder (or the default), trimmed and standardized, as
    // createSavePhotosFolder() makes and stores it.
    static QString resolvedSaveFolder();
    bool createSavePhotosFolder();

    // --- camera status ---
    void cameraStatusChanged(const DistributedNotificationCenter::Message &message);
    void cameraDisappeared(const Notification &notification);

    // Last two bytes FF D9. A file shorter than two bytes is not valid.
    static bool isValidJPEGFile(const QString &path);

    // How long a shot waits for a full disk to get room before it is lost
    // ($BRIX_DISK_FULL_WAIT_SECONDS overrides it).
    static constexpr int kDiskFullWaitMs = 15000;
    // After a write failed for lack of space: waits until the folder has room
    // for `bytes` (true, at once if some was freed meanwhile), or false when
    // none came in time.
    static bool waitForSpace(const QString &folder, qint64 bytes);

    // The time that names shots; the wall clock unless a test sets another.
    void setClock(std::function<QDateTime()> now) { now_ = std::move(now); }

    // --- view set-up (the window's and the headless station's start) ---
    static constexpr const char *kDefaultTabIdentifier = "preferences";
    // The panel, whose start control (tag 1111) starts the camera.
    void setCameraControls(CameraControls *controls) { controls_ = controls; }
    // Creates the camera object once; true when it exists afterwards.
    void setCameraStarter(std::function<bool()> starter) { cameraStarter_ = std::move(starter); }
    // The modifier keys held now (none without a display).
    void setModifierQuery(std::function<Qt::KeyboardModifiers()> query) { modifiers_ = std::move(query); }
    // Opens a folder or file in the desktop (QDesktopServices unless set).
    void setUrlOpener(std::function<bool(const QUrl &)> opener) { openUrl_ = std::move(opener); }
    // Shows a file selected in the desktop's file viewer.
    void setFileRevealer(std::function<bool(const QString &)> revealer) { revealFile_ = std::move(revealer); }
    // The tabs the window offers, by identifier, in order.
    void setTabIdentifiers(const QStringList &identifiers) { tabIdentifiers_ = identifiers; }
    QString selectedTabIdentifier() const { return selectedTab_; }
    bool cameraObjectExists() const { return cameraStarted_; }
    // The application's loop has ended: a start still queued (the start-up
    // sequence runs a little after launch) must not open a camera any more.
    void applicationWillTerminate() { quitting_ = true; }

    // --- wallpaper ---
    static constexpr const char *kWallpaperPath = "/Users/Shared/BrixCanonCapture/Wallpaper.jpg";
    static QString getwallpaperpath();
    // Tests point the wallpaper elsewhere (before viewDidLoad).
    void setWallpaperPathForTesting(const QString &path) { wallpaperPath_ = path; }
    // The wallpaper file while it exists, else a null QString.
    QString fPathToWallpaper() const { return pathToWallpaper_; }
    void setwallpaperstuff();
    void setupwallpapermonitor();
    // A batch of changed paths from the wallpaper's folder.
    void wallpaperFolderChanged(const QStringList &changedPaths);

    void viewDidLoad();
    void doMoreOfViewDidLoad();
    void ibStartCameraButton();
    void selectIntialTabviewItem();
    // The operator or the window selected a tab.
    void tabViewWillSelectTabViewItem(const QString &identifier);
    void ibTestButton();
    void doRevealItem1();
    void doRevealItem2();

signals:
    void selectedTabIdentifierChanged();
    void fPathToWallpaperChanged();
    // The start sequence reached the window's size set-up (mini size and its list).
    void windowSizeSetupRequested();
    // "Terminate App" was chosen in the start-up question.
    void terminateRequested();
    // The camera status turned to connected (main thread).
    void cameraConnected();
    // View start-up reached the point where old preference keys are migrated.
    void viewStarting();

signals:
    void fDownloadCountChanged();
    void fSavedCountChanged();
    void fCameraOnlineChanged();
    void progressChanged();
    void displayImageChanged();
    // A shot was written; emitted on the metadata queue, in order. The shell
    // announces it to the sibling applications.
    void photoSaved(const QString &path);
    void showFullSizeRequested();

private:
    QString objectDescription() const;
    void setCameraOnline(bool online);
    void setStatusText(const QString &text);

    QVariantMap imageDict_; // only on the metadata queue
    qint64 downloadCount_ = 0;
    qint64 savedCount_ = 0;
    bool cameraOnline_ = false;
    double progressValue_ = 0.0;
    bool progressVisible_ = false;
    bool progressAnimating_ = false;
    QImage displayImage_;
    std::atomic<bool> displaysImages_{false};
    // Shots accepted but not yet saved. The camera's download queue, which
    // delivers them, waits while this is at its limit, so a burst faster than
    // the disk stays in the camera instead of piling up in memory here; the
    // camera's events go on meanwhile.
    std::mutex flowMutex_;
    std::condition_variable flowCv_;
    int shotsInFlight_ = 0;
    std::function<QDateTime()> now_ = [] { return QDateTime::currentDateTime(); };
    // The time that named the last shot (metadata queue only).
    QDateTime lastShotTime_;
    std::vector<NotificationCenter::Token> localTokens_;
    std::vector<DistributedNotificationCenter::Token> distributedTokens_;

    // view set-up
    CameraControls *controls_ = nullptr;
    std::function<bool()> cameraStarter_;
    bool cameraStarted_ = false;
    bool quitting_ = false;
    std::function<Qt::KeyboardModifiers()> modifiers_;
    std::function<bool(const QUrl &)> openUrl_;
    std::function<bool(const QString &)> revealFile_;
    QStringList tabIdentifiers_;
    QString selectedTab_;
    QString wallpaperPath_;
    QString pathToWallpaper_;
    QObject *fwallpapermonitor_ = nullptr;
};

} // namespace brix
