#include "MiniSize3IconView.h"

#include "BundleInfo.h"
#include "Paths.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWindow>

#include <cmath>

namespace brix {

namespace {

const QColor kGreen(52, 199, 89);
const QColor kRed(255, 59, 48);

QIcon applicationIcon() {
    const QString name = QString::fromLatin1(bundle::kIdentifier);
    return QIcon::fromTheme(name, QIcon(Paths::resourcePath(name + QStringLiteral(".svg"))));
}

} // namespace

MiniSize3IconView::MiniSize3IconView(QWidget *parent) : QWidget(parent), icon_(applicationIcon()) {
    setObjectName(QStringLiteral("MiniSize3IconView"));
    setAccessibleName(QStringLiteral("Station icon with camera status dot"));
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Window);
    updateToolTip();
}

void MiniSize3IconView::setCameraConnected(bool connected) {
    if (cameraConnected_ == connected)
        return;
    cameraConnected_ = connected;
    updateToolTip();
    update();
}

void MiniSize3IconView::setStatusText(const QString &text) {
    statusText_ = text;
    updateToolTip();
}

void MiniSize3IconView::setDownloadProgress(double percent) {
    if (progress_ == percent)
        return;
    progress_ = percent;
    update();
}

void MiniSize3IconView::updateToolTip() {
    QString tip;
    if (cameraConnected_)
        tip = QStringLiteral("Green: %1 is connected")
                  .arg(statusText_.isEmpty() ? QStringLiteral("a camera") : statusText_);
    else
        tip = QStringLiteral("Red: no camera connected%1")
                  .arg(statusText_.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(statusText_));
    tip += QStringLiteral("\nDouble-click for the full window; Ctrl-drag to move it");
    setToolTip(tip);
    setAccessibleDescription(cameraConnected_ ? QStringLiteral("online") : QStringLiteral("offline"));
}

QRectF MiniSize3IconView::dotRect() const {
    // Centred in the bottom strip, 2.5 points above the bottom edge.
    return {(width() - kDotDiameter) / 2.0, height() - kDotBottom - kDotDiameter, kDotDiameter, kDotDiameter};
}

void MiniSize3IconView::paintEvent(QPaintEvent *) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF iconArea(kIconInset, kIconInset, width() - 2 * kIconInset,
                          height() - kStripHeight - kIconInset);
    if (iconArea.width() > 0 && iconArea.height() > 0) {
        // Scaled proportionally, centred in its area.
        const int side = int(std::min(iconArea.width(), iconArea.height()));
        const QPixmap pixmap = icon_.pixmap(QSize(side, side), devicePixelRatioF());
        QSizeF drawn = pixmap.deviceIndependentSize();
        drawn.scale(iconArea.size(), Qt::KeepAspectRatio);
        const QRectF target(iconArea.center() - QPointF(drawn.width() / 2, drawn.height() / 2), drawn);
        p.drawPixmap(target, pixmap, pixmap.rect());
    }
    const QRectF dot = dotRect();
    p.setPen(QPen(Qt::black, 1.0));
    p.setBrush(cameraConnected_ ? kGreen : kRed);
    p.drawEllipse(dot.adjusted(0.5, 0.5, -0.5, -0.5));
    if (progress_ >= 0) {
        // A thin ring just outside the dot, filling clockwise from the top.
        const double gap = 1.0 + kRingWidth / 2;
        const QRectF ring = dot.adjusted(-gap, -gap, gap, gap);
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(palette().color(QPalette::Highlight), kRingWidth, Qt::SolidLine, Qt::FlatCap));
        const double percent = std::clamp(progress_, 0.0, 100.0);
        p.drawArc(ring, 90 * 16, -int(std::lround(percent / 100.0 * 360 * 16)));
    }
}

void MiniSize3IconView::beginPress(QMouseEvent *event, int clickCount) {
    pressed_ = true;
    pressScreenPos_ = event->globalPosition();
    pressWindowOrigin_ = window()->frameGeometry().topLeft();
    pressWithModifier_ = bool(event->modifiers() & (Qt::ControlModifier | Qt::MetaModifier));
    dragged_ = false;
    systemMoveStarted_ = false;
    clickCount_ = clickCount;
}

void MiniSize3IconView::mousePressEvent(QMouseEvent *event) {
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    beginPress(event, 1);
    event->accept();
}

void MiniSize3IconView::mouseDoubleClickEvent(QMouseEvent *event) {
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    beginPress(event, 2);
    event->accept();
}

void MiniSize3IconView::mouseMoveEvent(QMouseEvent *event) {
    if (!pressed_ || !(event->buttons() & Qt::LeftButton))
        return;
    const QPointF travel = event->globalPosition() - pressScreenPos_;
    if (std::abs(travel.x()) > kDragThreshold || std::abs(travel.y()) > kDragThreshold)
        dragged_ = true;
    if (!dragged_ || !pressWithModifier_)
        return;
    if (systemMoveOnly_) {
        if (!systemMoveStarted_ && window()->windowHandle())
            systemMoveStarted_ = window()->windowHandle()->startSystemMove();
        return;
    }
    window()->move(pressWindowOrigin_ + travel.toPoint());
    event->accept();
}

void MiniSize3IconView::mouseReleaseEvent(QMouseEvent *event) {
    if (!pressed_ || event->button() != Qt::LeftButton)
        return;
    pressed_ = false;
    if (!pressWithModifier_ && !dragged_ && clickCount_ >= 2 && onClickExpand_)
        onClickExpand_();
    event->accept();
}

} // namespace brix
