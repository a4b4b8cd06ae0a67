#include "HistogramController.h"

#include "Scheduling.h"

#include <QPointer>

namespace brix {

Histogram Histogram::ofImage(const QImage &image) {
    Histogram h;
    if (image.isNull())
        return h;
    const QImage rgb = image.format() == QImage::Format_RGB32 || image.format() == QImage::Format_ARGB32
                           ? image
                           : image.convertToFormat(QImage::Format_RGB32);
    for (int y = 0; y < rgb.height(); ++y) {
        const auto *line = reinterpret_cast<const QRgb *>(rgb.constScanLine(y));
        for (int x = 0; x < rgb.width(); ++x) {
            const QRgb p = line[x];
            // Rec. 709 weights in 1/256ths.
            const int luma = (54 * qRed(p) + 183 * qGreen(p) + 19 * qBlue(p)) >> 8;
            ++h.bins[luma];
        }
    }
    h.pixels = quint64(rgb.width()) * quint64(rgb.height());
    if (h.pixels) {
        h.clippedBlack = double(h.bins[0]) / double(h.pixels);
        h.clippedWhite = double(h.bins[255]) / double(h.pixels);
    }
    return h;
}

HistogramController::HistogramController(QObject *parent) : QObject(parent) {}

HistogramController::~HistogramController() {
    ++*generation_;
}

void HistogramController::setImage(const QImage &image) {
    const quint64 mine = ++*generation_;
    QPointer<HistogramController> self(this);
    Scheduling::performAsyncGlobal([self, image, mine, generation = generation_] {
        if (generation->load() != mine)
            return;
        Histogram h = Histogram::ofImage(image);
        Scheduling::performAsyncOnMainQueue([self, h = std::move(h), mine, generation] {
            if (!self || generation->load() != mine)
                return;
            self->histogram_ = h;
            emit self->histogramChanged();
        });
    });
}

} // namespace brix
