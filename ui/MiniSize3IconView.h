// MiniSize3IconView: what the window shows in icon mode. The application icon
// fills the square above a 14-point strip that holds the camera's status dot, a
// 9-point circle with a black border, green while a camera is connected and red
// otherwise, and a thin ring around the dot while a shot is downloading. The
// tool tip says what the dot means right now.
//
// The view paints the icon and the dot itself, so every click inside it
// reaches its own mouse handling. A press and release without a modifier is
// a click (a double click expands the window); with Control or Meta held, a
// drag of more than 3 points moves the window, following the pointer. Clicks
// are taken even while the window is not the active one: X11 delivers them
// and the view never asks for activation first.
//
// Threads: main thread only.
// Ownership: owned by its parent widget; onClickExpand is copied.
#pragma once

#include <QIcon>
#include <QPoint>
#include <QPointF>
#include <QWidget>

#include <functional>

namespace brix {

class MiniSize3IconView : public QWidget {
    Q_OBJECT
public:
    static constexpr double kStripHeight = 14.0;
    static constexpr double kDotDiameter = 9.0;
    static constexpr double kDotBottom = 2.5;
    static constexpr double kIconInset = 4.0;
    static constexpr double kDragThreshold = 3.0;
    static constexpr double kRingWidth = 1.5;

    explicit MiniSize3IconView(QWidget *parent = nullptr);

    bool cameraConnected() const { return cameraConnected_; }
    void setCameraConnected(bool connected);
    // The camera's name, or the status text that says why none is connected.
    void setStatusText(const QString &text);
    // Download progress in percent; negative hides the ring.
    void setDownloadProgress(double percent);
    void setOnClickExpand(std::function<void()> expand) { onClickExpand_ = std::move(expand); }
    // Where a move of the window cannot be done by the program (native
    // Wayland), a drag with the modifier hands the move to the compositor.
    void setSystemMoveOnly(bool systemMove) { systemMoveOnly_ = systemMove; }

    // The dot's rectangle in the view's coordinates.
    QRectF dotRect() const;

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void beginPress(QMouseEvent *event, int clickCount);
    void updateToolTip();

    QIcon icon_;
    bool cameraConnected_ = false;
    QString statusText_;
    double progress_ = -1.0;
    std::function<void()> onClickExpand_;
    bool systemMoveOnly_ = false;
    // The press under way.
    bool pressed_ = false;
    QPointF pressScreenPos_;
    QPoint pressWindowOrigin_;
    bool pressWithModifier_ = false;
    bool dragged_ = false;
    bool systemMoveStarted_ = false;
    int clickCount_ = 0;
};

} // namespace brix
