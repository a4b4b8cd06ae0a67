#include "HistogramView.h"

#include "HistogramController.h"

#include <QPainter>

#include <algorithm>

namespace brix {

HistogramView::HistogramView(HistogramController &controller, QWidget *parent)
    : QWidget(parent), controller_(controller) {
    setMinimumSize(256, 90);
    connect(&controller, &HistogramController::histogramChanged, this, [this] {
        setAccessibleDescription(clippingText());
        update();
    });
}

QString HistogramView::clippingText() const {
    const Histogram &h = controller_.histogram();
    if (!h.pixels)
        return QStringLiteral("No shot yet");
    return QStringLiteral("Clipped: %1 % black, %2 % white")
        .arg(h.clippedBlack * 100.0, 0, 'f', 1)
        .arg(h.clippedWhite * 100.0, 0, 'f', 1);
}

void HistogramView::paintEvent(QPaintEvent *) {
    QPainter p(this);
    p.fillRect(rect(), QColor(20, 20, 20));
    const Histogram &h = controller_.histogram();
    const int textHeight = fontMetrics().height() + 2;
    const QRect bars = rect().adjusted(2, 2, -2, -textHeight);
    const quint32 peak = *std::max_element(h.bins.begin(), h.bins.end());
    if (peak && bars.height() > 0) {
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(200, 200, 200));
        for (int i = 0; i < 256; ++i) {
            const int x0 = bars.left() + i * bars.width() / 256;
            const int x1 = bars.left() + (i + 1) * bars.width() / 256;
            const int hgt = int(double(h.bins[i]) / peak * bars.height());
            p.setBrush(i == 0 || i == 255 ? QColor(255, 59, 48) : QColor(200, 200, 200));
            p.drawRect(x0, bars.bottom() - hgt, std::max(1, x1 - x0), hgt);
        }
    }
    p.setPen(QColor(200, 200, 200));
    p.drawText(rect().adjusted(4, 0, -4, 0), Qt::AlignBottom | Qt::AlignLeft, clippingText());
}

} // namespace brix
