// HistogramController: the luminance histogram of the last shot, with the share
// of pixels clipped to black and to white. Computed on a global queue from the
// shot as decoded for display; the result is published on the main thread.
//
// Threads: setImage and the properties on the main thread; the counting runs
// on a global queue. A newer shot supersedes a count still running.
// Ownership: holds its last result.
#pragma once

#include <QImage>
#include <QObject>
#include <QVector>

#include <atomic>
#include <memory>

namespace brix {

struct Histogram {
    QVector<quint32> bins = QVector<quint32>(256, 0); // luminance 0..255
    quint64 pixels = 0;
    double clippedBlack = 0.0; // share of pixels at 0
    double clippedWhite = 0.0; // share of pixels at 255

    static Histogram ofImage(const QImage &image);
};

class HistogramController : public QObject {
    Q_OBJECT
public:
    explicit HistogramController(QObject *parent = nullptr);
    ~HistogramController() override;

    const Histogram &histogram() const { return histogram_; }
    void setImage(const QImage &image);

signals:
    void histogramChanged();

private:
    Histogram histogram_;
    std::shared_ptr<std::atomic<quint64>> generation_ = std::make_shared<std::atomic<quint64>>(0);
};

} // namespace brix
