#include "LiveViewController.h"

#include "Logger.h"
#include "Preferences.h"
#include "Scheduling.h"

#include <QPointer>

namespace brix {

namespace {
// Frames within this window make up the shown rate.
constexpr qint64 kRateWindowMs = 1000;
} // namespace

LiveViewController::LiveViewController(QObject *parent) : QObject(parent) {
    clock_.start();
    restartTimer_.setSingleShot(true);
    restartTimer_.setInterval(int(kRestartSeconds * 1000));
    idleTimer_.setSingleShot(true);
    connect(&restartTimer_, &QTimer::timeout, this, [this] {
        if (!running_)
            return;
        Logger::setError(QStringLiteral("live view renewed before the camera's time limit"));
        endOnCamera();
        if (!beginOnCamera())
            setRunning(false, QStringLiteral("Live view stopped: the camera refused to restart it"));
        else
            restartTimer_.start();
    });
    connect(&idleTimer_, &QTimer::timeout, this, [this] {
        if (!running_)
            return;
        Logger::setError(QStringLiteral("live view paused after %1 s without activity").arg(idleSeconds()));
        endOnCamera();
        setRunning(false, QStringLiteral("Live view paused (idle)"));
    });
    auto &center = NotificationCenter::defaultCenter();
    tokens_.push_back(
        center.addObserver(kOKVA_CanonCameraLiveViewImageUpdate, {}, [this](const Notification &n) {
            frameArrived(n.userInfo.value(kOKVA_CanonCameraLiveViewImage).value<QImage>());
        }));
    QPointer<LiveViewController> self(this);
    tokens_.push_back(
        center.addObserver(kOKVA_CanonCameraPhotoDataAvailable, {}, [self](const Notification &) {
            Scheduling::performAsyncOnMainQueue([self] {
                if (self)
                    self->shotArrived();
            });
        }));
    tokens_.push_back(center.addObserver(kOKVA_CanonCameraDidUnload, {}, [self](const Notification &) {
        Scheduling::performAsyncOnMainQueue([self] {
            if (self && self->running_)
                self->setRunning(false, QStringLiteral("Live view off (camera gone)"));
        });
    }));
}

LiveViewController::~LiveViewController() {
    for (auto token : tokens_)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void LiveViewController::setTimings(double restartSeconds, double idleSeconds) {
    restartTimer_.setInterval(int(restartSeconds * 1000));
    idleOverride_ = idleSeconds;
}

double LiveViewController::idleSeconds() const {
    if (idleOverride_ >= 0)
        return idleOverride_;
    const QVariant minutes =
        Preferences::standard().objectForKey(QString::fromLatin1(kPrefLiveViewIdleMinutes));
    bool ok = false;
    const double m = minutes.toDouble(&ok);
    return (ok ? m : kDefaultIdleMinutes) * 60.0;
}

bool LiveViewController::beginOnCamera() {
    const CameraPtr camera = cameraProvider_ ? cameraProvider_() : CameraPtr();
    if (!camera || camera->isLegacyModel())
        return false;
    camera->liveViewBegin();
    return true;
}

void LiveViewController::endOnCamera() {
    if (const CameraPtr camera = cameraProvider_ ? cameraProvider_() : CameraPtr())
        camera->liveViewEnd();
}

void LiveViewController::setRunning(bool running, const QString &state) {
    running_ = running;
    stateText_ = state;
    if (!running) {
        restartTimer_.stop();
        idleTimer_.stop();
        fps_ = 0.0;
        frameTimes_.clear();
    }
    emit runningChanged();
}

void LiveViewController::start() {
    resumeAfterCapture_ = false;
    if (!beginOnCamera()) {
        Logger::setError(QStringLiteral("live view not started: no camera that offers it"));
        setRunning(false, QStringLiteral("Live view unavailable"));
        return;
    }
    Logger::setError(QStringLiteral("live view started"));
    setRunning(true, QStringLiteral("Live view on"));
    restartTimer_.start();
    noteActivity();
}

void LiveViewController::stop() {
    resumeAfterCapture_ = false;
    if (running_) {
        endOnCamera();
        Logger::setError(QStringLiteral("live view stopped"));
    }
    setRunning(false, QStringLiteral("Live view off"));
}

void LiveViewController::noteActivity() {
    const double idle = idleSeconds();
    if (running_ && idle > 0)
        idleTimer_.start(int(idle * 1000));
}

void LiveViewController::pauseForCapture() {
    noteActivity();
    if (!running_)
        return;
    endOnCamera();
    setRunning(false, QStringLiteral("Live view paused for the shot"));
    resumeAfterCapture_ = true;
}

void LiveViewController::shotArrived() {
    if (!resumeAfterCapture_)
        return;
    start();
}

void LiveViewController::frameArrived(const QImage &image) {
    if (image.isNull() || !running_)
        return;
    frame_ = image;
    ++framesShown_;
    const qint64 now = clock_.elapsed();
    frameTimes_.push_back(now);
    while (!frameTimes_.empty() && frameTimes_.front() <= now - kRateWindowMs)
        frameTimes_.pop_front();
    fps_ = double(frameTimes_.size()) * 1000.0 / double(kRateWindowMs);
    emit frameChanged();
}

} // namespace brix
