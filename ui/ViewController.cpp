#include "ViewController.h"

#include "BundleInfo.h"
#include "DateFormat.h"
#include "Logger.h"
#include "OKVA_CanonCamera.h"
#include "Paths.h"
#include "Preferences.h"
#include "Scheduling.h"

#include <QBuffer>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QStorageInfo>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

namespace brix {

namespace {

constexpr const char *kShotNamePattern = "YYYYMMddHHmmssSSS";
constexpr const char *kFallbackQueueLabel = "com.lumetra.brixcanoncapture";
// The window's image view is small: decoding at most this size keeps a shot of
// 30 megapixels from holding the queue for a full decode.
constexpr int kDisplayMaxEdge = 1600;

QString describeObject(const void *object, const char *className) {
    return QStringLiteral("<%1: 0x%2>").arg(QLatin1String(className)).arg(quintptr(object), 0, 16);
}

QString systemError(const char *what, int code) {
    return QStringLiteral("%1: %2").arg(QLatin1String(what), QString::fromLocal8Bit(std::strerror(code)));
}

// Writes the shot under its temporary name and renames it into place, so a
// sibling never sees half a file. No flush to the disk per shot: it would
// halve the burst rate, and the rename still never exposes a torn file.
// The file is first given all of its room at once: a full disk is known
// before a byte is written, and the file system maps the shot in one go
// instead of reserving its blocks page by page as the bytes come (a third of
// the write's time on ext4). A file system that cannot preallocate is simply
// written. *code is the errno of the failure, which tells a full disk from
// other faults.
bool writeShot(const QString &path, const QByteArray &bytes, QString *error, int *code) {
    error->clear();
    *code = 0;
    auto fail = [&](const char *what, int err) {
        *error = systemError(what, err);
        *code = err;
    };
    const QByteArray temporary = QFile::encodeName(ViewController::temporaryPathFor(path));
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        fail("open", errno);
        return false;
    }
    if (!bytes.isEmpty() && ::fallocate(fd, 0, 0, off_t(bytes.size())) != 0 &&
        (errno == ENOSPC || errno == EDQUOT)) {
        fail("fallocate", errno);
        ::close(fd);
        ::unlink(temporary.constData());
        return false;
    }
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            fail("write", n < 0 ? errno : ENOSPC);
            break;
        }
        done += n;
    }
    if (::close(fd) != 0 && error->isEmpty())
        fail("close", errno);
    if (error->isEmpty() && ::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0)
        fail("rename", errno);
    if (error->isEmpty())
        return true;
    ::unlink(temporary.constData());
    return false;
}

} // namespace

ViewController::ViewController(QObject *parent) : QObject(parent) {}

ViewController::~ViewController() {
    for (auto token : localTokens_)
        NotificationCenter::defaultCenter().removeObserver(token);
    for (auto token : distributedTokens_)
        DistributedNotificationCenter::defaultCenter().removeObserver(token);
}

QString ViewController::objectDescription() const {
    return describeObject(this, "ViewController");
}

dispatch::QueuePtr ViewController::metadataQueue() {
    static dispatch::QueuePtr *queue = [] {
        QString label = QString::fromLatin1(bundle::kIdentifier);
        if (label.isEmpty())
            label = QString::fromLatin1(kFallbackQueueLabel);
        label += QStringLiteral(".queue1");
        Logger::setError(QStringLiteral("identifier = %1").arg(label));
        return new dispatch::QueuePtr(
            Scheduling::dispatchQueueSerialWithDebugLabel(label, kSpinBeforeSleeping));
    }();
    return *queue;
}

void ViewController::setupNotifications() {
    Logger::setError(
        QStringLiteral("%1-%2.....").arg(objectDescription(), QLatin1String("setupNotifications")));
    auto &local = NotificationCenter::defaultCenter();
    localTokens_.push_back(local.addObserver(kOKVA_CanonCameraPhotoDataAvailable, {},
                                             [this](const Notification &n) { newPhoto(n); }));
    localTokens_.push_back(local.addObserver(kOKVA_CanonCameraDownloadProgress, {},
                                             [this](const Notification &n) { downloadProgress(n); }));
    distributedTokens_.push_back(DistributedNotificationCenter::defaultCenter().addObserver(
        QStringLiteral("brixXNotification"),
        [this](const DistributedNotificationCenter::Message &m) { cameraStatusChanged(m); }));
    localTokens_.push_back(local.addObserver(kOKVA_CanonCameraDidUnload, {},
                                             [this](const Notification &n) { cameraDisappeared(n); }));
    localTokens_.push_back(
        local.addObserver(QString::fromLatin1(kOpenPrefsNotification), {}, [this](const Notification &) {
            Scheduling::performAsyncOnMainQueue([this] { emit showFullSizeRequested(); });
        }));
}

// --- shots -------------------------------------------------------------------

void ViewController::newPhoto(const Notification &notification) {
    {
        dispatch::spinUntil(kSpinBeforeSleeping, [&] {
            std::lock_guard lk(flowMutex_);
            return shotsInFlight_ < kMaxShotsInFlight;
        });
        std::unique_lock lk(flowMutex_);
        flowCv_.wait(lk, [&] { return shotsInFlight_ < kMaxShotsInFlight; });
        ++shotsInFlight_;
    }
    metadataQueue()->async([this, info = notification.userInfo]() mutable {
        incrementDownloadCount();
        const QString cameraName = info.value(kOKVA_CanonCameraPhotoFilename).toString();
        Logger::setError(QStringLiteral("recieved new photo %1").arg(cameraName));
        imageDict_ = std::move(info); // the only holder of the shot's bytes from here on
        {
            QBuffer buffer;
            buffer.setData(imageDict_.value(kOKVA_CanonCameraPhotoData).toByteArray());
            buffer.open(QIODevice::ReadOnly);
            QImageReader reader(&buffer);
            const QSize size = reader.size(); // from the header; no decode
            Logger::setError(QStringLiteral("updating image well with (%1, %2) image")
                                 .arg(double(qMax(0, size.width())), 0, 'f', 0)
                                 .arg(double(qMax(0, size.height())), 0, 'f', 0));
            QImage image;
            if (displaysImages_ && size.isValid()) {
                if (size.width() > kDisplayMaxEdge || size.height() > kDisplayMaxEdge)
                    reader.setScaledSize(size.scaled(kDisplayMaxEdge, kDisplayMaxEdge, Qt::KeepAspectRatio));
                image = reader.read();
            }
            updateDisplayImage(image.isNull() ? QVariant() : QVariant(image));
        }
        incrementSavedCount();
        saveImage(QVariant());
        // The bytes are on the disk: their buffer goes before the camera may
        // download the next shot, so the station holds at most two.
        imageDict_.remove(kOKVA_CanonCameraPhotoData);
        clearProgressIndicator();
        {
            std::lock_guard lk(flowMutex_);
            --shotsInFlight_;
        }
        flowCv_.notify_all();
    });
}

void ViewController::updateDisplayImage(const QVariant &image) {
    if (image.metaType().id() != QMetaType::QImage)
        return;
    Scheduling::performAsyncOnMainQueue([this, img = image.value<QImage>()] {
        displayImage_ = img;
        emit displayImageChanged();
    });
}

void ViewController::incrementDownloadCount() {
    Scheduling::performAsyncOnMainQueue([this] {
        ++downloadCount_;
        emit fDownloadCountChanged();
    });
}

void ViewController::incrementSavedCount() {
    Scheduling::performAsyncOnMainQueue([this] {
        ++savedCount_;
        emit fSavedCountChanged();
    });
}

void ViewController::saveImage(const QVariant &) {
    processPhotoData(imageDict_);
}

void ViewController::processPhotoData(const QVariantMap &info) {
    const QString cameraName = info.value(kOKVA_CanonCameraPhotoFilename).toString();
    const QString folder = getPathToSavePhotos();
    const QString extension = QFileInfo(cameraName).suffix().toLower();
    // Two shots in one millisecond, or a name already on disk (from before a
    // restart), take the next free millisecond: a shot never replaces another.
    QDateTime when = now_();
    if (lastShotTime_.isValid() && when <= lastShotTime_)
        when = lastShotTime_.addMSecs(1);
    QString path;
    for (;; when = when.addMSecs(1)) {
        path =
            folder + '/' + DateFormat::format(when, QString::fromLatin1(kShotNamePattern)) + '.' + extension;
        if (!QFileInfo::exists(path))
            break;
    }
    lastShotTime_ = when;
    Logger::setError(QStringLiteral("saving camera image  \"%1\" to \"%2\"").arg(cameraName, path));

    // Written beside the target and renamed into place, so a sibling never sees
    // half a file; a full disk is waited for once before the shot is given up.
    const QByteArray bytes = info.value(kOKVA_CanonCameraPhotoData).toByteArray();
    QString error;
    int code = 0;
    bool ok = writeShot(path, bytes, &error, &code);
    const bool full = !ok && (code == ENOSPC || code == EDQUOT);
    if (full && waitForSpace(folder, bytes.size()))
        ok = writeShot(path, bytes, &error, &code);
    if (!ok) {
        Logger::setError(QStringLiteral("failed to save image to path %1 with error = %2").arg(path, error));
        const bool stayedFull = full && (code == ENOSPC || code == EDQUOT);
        const QString why = stayedFull ? QStringLiteral("the disk stayed full (%1) writing %2")
                                       : QStringLiteral("%1 writing %2");
        Logger::setError(kShotNotSavedFormat.arg(cameraName, why.arg(error, path)));
        return;
    }
    Logger::setError(QStringLiteral("SAVED FILE %1 Valid")
                         .arg(isValidJPEGFile(path) ? QStringLiteral("IS") : QStringLiteral("Is NOT")));
    emit photoSaved(path);
}

bool ViewController::waitForSpace(const QString &folder, qint64 bytes) {
    // Room for the shot and its folder entry; a full disk is often freed by a
    // sibling moving shots away, so the shot waits a while before it is lost.
    const qint64 needed = bytes + 64 * 1024;
    auto hasRoom = [&] {
        QStorageInfo storage(folder);
        storage.refresh();
        return !storage.isValid() || storage.bytesAvailable() < 0 || storage.bytesAvailable() >= needed;
    };
    if (hasRoom())
        return true; // freed since the write failed: try again at once
    static const int limitMs = [] {
        bool ok = false;
        const double s = qEnvironmentVariable("BRIX_DISK_FULL_WAIT_SECONDS").toDouble(&ok);
        return ok && s >= 0 ? int(s * 1000) : kDiskFullWaitMs;
    }();
    Logger::setError(QStringLiteral("no room for %1 bytes in %2: waiting up to %3 ms for space")
                         .arg(bytes)
                         .arg(folder)
                         .arg(limitMs));
    QElapsedTimer waited;
    waited.start();
    while (!hasRoom()) {
        if (waited.elapsed() >= limitMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    Logger::setError(QStringLiteral("space in %1 again after %2 ms").arg(folder).arg(waited.elapsed()));
    return true;
}

void ViewController::downloadProgress(const Notification &notification) {
    const double percent = notification.userInfo.value(kOKVA_CanonCameraDownloadProgressPercent).toDouble();
    Scheduling::performAsyncOnMainQueue([this, percent] {
        Logger::setError(QStringLiteral("percent = %1").arg(percent, 4, 'f', 2));
        progressAnimating_ = true;
        progressValue_ = percent;
        progressVisible_ = true;
        emit progressChanged();
    });
}

void ViewController::clearProgressIndicator() {
    // The pause lets the bar show 100 before it goes.
    Scheduling::afterDelay(0.010, dispatch::mainQueue(), [this] {
        Logger::setError(
            QStringLiteral("%1-%2...").arg(objectDescription(), QLatin1String("clearProgressIndicator")));
        progressValue_ = 0.0;
        progressAnimating_ = false;
        progressVisible_ = false;
        emit progressChanged();
    });
}

QString ViewController::temporaryPathFor(const QString &path) {
    const QFileInfo target(path);
    return target.path() + QStringLiteral("/.") + target.fileName() + QLatin1String(kTemporarySuffix);
}

bool ViewController::isValidJPEGFile(const QString &path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly) || f.size() < 2 || !f.seek(f.size() - 2))
        return false;
    const QByteArray tail = f.read(2);
    return tail.size() == 2 && uchar(tail[0]) == 0xFF && uchar(tail[1]) == 0xD9;
}

// --- save folder -------------------------------------------------------------

QString ViewController::getPathToSavePhotos() const {
    const QVariant stored = Preferences::standard().objectForKey(QString::fromLatin1(kPrefSaveFolderPath));
    return stored.metaType().id() == QMetaType::QString ? stored.toString() : QString();
}

QString ViewController::resolvedSaveFolder() {
    const QString stored = Preferences::standard().stringForKey(QString::fromLatin1(kPrefSaveFolderPath));
    return Paths::standardizePath(stored.isNull() ? QString::fromLatin1(kDefaultSaveFolder)
                                                  : stored.trimmed());
}

bool ViewController::createSavePhotosFolder() {
    QString stored = Preferences::standard().stringForKey(QString::fromLatin1(kPrefSaveFolderPath));
    if (stored.isNull())
        stored = QString::fromLatin1(kDefaultSaveFolder);
    const QString standardized = resolvedSaveFolder();
    if (!QFileInfo::exists(standardized))
        QDir().mkpath(standardized);
    if (standardized.compare(stored, Qt::CaseInsensitive) != 0) {
        Scheduling::performAsyncOnMainQueue([standardized] {
            Preferences::standard().setObject(standardized, QString::fromLatin1(kPrefSaveFolderPath));
        });
    }
    return true;
}

// --- camera status -----------------------------------------------------------

void ViewController::setCameraOnline(bool online) {
    if (cameraOnline_ == online)
        return;
    cameraOnline_ = online;
    emit fCameraOnlineChanged();
}

void ViewController::setStatusText(const QString &text) {
    Preferences::standard().setObject(text, QString::fromLatin1(kPrefNameOfCameraFound));
}

void ViewController::cameraStatusChanged(const DistributedNotificationCenter::Message &message) {
    // The same channel also carries new-file announcements, which say nothing
    // about the camera; only messages with a status change the status line.
    if (!message.userInfo.contains(QStringLiteral("cameraStatus")))
        return;
    Scheduling::performAsyncOnMainQueue([this, message] {
        Logger::setError(
            QStringLiteral("%1-%2.....").arg(objectDescription(), QLatin1String("cameraStatusChanged")));
        Logger::setError(QStringLiteral("OKVA_CanonCameraAdded!"));
        const QString name = message.userInfo.value(QStringLiteral("camerName")).toString();
        const bool connected = message.userInfo.value(QStringLiteral("cameraStatus")).toBool();
        QString text;
        if (connected) {
            text = name;
            setCameraOnline(true);
            emit cameraConnected();
        } else {
            text = name.isEmpty() ? QString::fromLatin1(kNoCameraFound)
                                  : QStringLiteral("%1 - DISCONNECTED").arg(name);
            setCameraOnline(false);
        }
        setStatusText(text);
    });
}

void ViewController::cameraDisappeared(const Notification &notification) {
    const bool withCamera = notification.object.isValid() && !notification.object.isNull();
    Scheduling::performAsyncOnMainQueue([this, withCamera, name = notification.name] {
        Logger::setError(
            QStringLiteral("%1-%2.....").arg(objectDescription(), QLatin1String("cameraDisappeared")));
        setCameraOnline(false);
        Logger::setError(QStringLiteral("OKVA_CanonCameraDisappeared: %1").arg(name));
        if (withCamera) {
            setStatusText(QString::fromLatin1(kCameraDisconnected));
        } else {
            Logger::setError(QStringLiteral("NO camera found at starutp...: %1").arg(name));
            setStatusText(QString::fromLatin1(kNoCanonCameraFound));
        }
    });
}

} // namespace brix
