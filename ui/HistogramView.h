// HistogramView: draws the histogram controller's luminance bars and the
// clipped shares under them.
//
// Threads: main thread.
// Ownership: a widget owned by its parent; the controller outlives it.
#pragma once

#include <QWidget>

namespace brix {

class HistogramController;

class HistogramView : public QWidget {
    Q_OBJECT
public:
    explicit HistogramView(HistogramController &controller, QWidget *parent = nullptr);
    // "Clipped: 0.4 % black, 2.1 % white", as the view shows it.
    QString clippingText() const;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    HistogramController &controller_;
};

} // namespace brix
