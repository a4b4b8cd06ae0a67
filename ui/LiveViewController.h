// LiveViewController: the live view shown in the window. Starts and stops the
// camera's live view on the operator's request, keeps the newest frame and the
// frame rate, steps aside for a capture and comes back after it, restarts the
// stream before the body's own 30-minute cut-off, and pauses it after a spell
// without operator activity (the sensor heats and the battery drains while it
// runs).
//
// Threads: main thread. Frames arrive there through the notification centre;
// the end of a shot is hopped there from the camera's delivering thread.
// Ownership: owns its observers and timers; holds the frame it shows.
#pragma once

#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"

#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <vector>

namespace brix {

class LiveViewController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool running READ running NOTIFY runningChanged)
    Q_PROPERTY(QImage frame READ frame NOTIFY frameChanged)
    Q_PROPERTY(double framesPerSecond READ framesPerSecond NOTIFY frameChanged)
    Q_PROPERTY(QString stateText READ stateText NOTIFY runningChanged)

public:
    // Minutes without operator activity before live view pauses itself.
    static constexpr const char *kPrefLiveViewIdleMinutes = "prefLiveViewIdleMinutes";
    static constexpr double kDefaultIdleMinutes = 10.0;
    // The body ends live view after 30 minutes; the stream is renewed before that.
    static constexpr double kRestartSeconds = 25 * 60.0;

    explicit LiveViewController(QObject *parent = nullptr);
    ~LiveViewController() override;

    void setCameraProvider(std::function<CameraPtr()> provider) { cameraProvider_ = std::move(provider); }
    // Tests shorten the restart period and the idle time (seconds; 0 = never).
    void setTimings(double restartSeconds, double idleSeconds);

    bool running() const { return running_; }
    QImage frame() const { return frame_; }
    double framesPerSecond() const { return fps_; }
    QString stateText() const { return stateText_; }
    // Frames shown since start (for the benchmark and the log).
    quint64 framesShown() const { return framesShown_; }

    void start();
    void stop();
    void toggle() { running_ ? stop() : start(); }
    // The operator did something: the idle count starts again.
    void noteActivity();
    // A shot is about to be taken: live view steps aside until it has arrived.
    void pauseForCapture();

signals:
    void runningChanged();
    void frameChanged();

private:
    void frameArrived(const QImage &image);
    void shotArrived();
    void setRunning(bool running, const QString &state);
    bool beginOnCamera();
    void endOnCamera();
    double idleSeconds() const;

    std::function<CameraPtr()> cameraProvider_;
    bool running_ = false;
    bool resumeAfterCapture_ = false;
    QString stateText_ = QStringLiteral("Live view off");
    QImage frame_;
    double fps_ = 0.0;
    quint64 framesShown_ = 0;
    QElapsedTimer clock_;
    std::deque<qint64> frameTimes_;
    QTimer restartTimer_;
    QTimer idleTimer_;
    double idleOverride_ = -1.0;
    std::vector<NotificationCenter::Token> tokens_;
};

} // namespace brix
