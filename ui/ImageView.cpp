#include "ImageView.h"

#include <QPainter>

namespace brix {

ImageView::ImageView(QWidget *parent) : QWidget(parent) {
    setMinimumSize(160, 120);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void ImageView::setImage(const QImage &image) {
    image_ = image;
    update();
}

void ImageView::setPlaceholder(const QString &text) {
    placeholder_ = text;
    update();
}

void ImageView::paintEvent(QPaintEvent *) {
    QPainter p(this);
    p.fillRect(rect(), QColor(30, 30, 30));
    if (image_.isNull()) {
        p.setPen(QColor(160, 160, 160));
        p.drawText(rect(), Qt::AlignCenter, placeholder_);
        return;
    }
    const QSize fitted = image_.size().scaled(size(), Qt::KeepAspectRatio);
    const QRect target(QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2), fitted);
    p.setRenderHint(QPainter::SmoothPixmapTransform, smooth_);
    p.drawImage(target, image_);
}

} // namespace brix
