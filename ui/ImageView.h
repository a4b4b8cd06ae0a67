// ImageView: shows one image scaled to fit, keeping its proportions. Used for
// the last shot and for live-view frames.
//
// Threads: main thread.
// Ownership: a widget owned by its parent; it keeps a copy of the image it shows.
#pragma once

#include <QImage>
#include <QWidget>

namespace brix {

class ImageView : public QWidget {
    Q_OBJECT
public:
    explicit ImageView(QWidget *parent = nullptr);
    // Smooth scaling costs more per frame; live view draws without it.
    void setSmooth(bool smooth) { smooth_ = smooth; }
    void setImage(const QImage &image);
    QImage image() const { return image_; }
    void setPlaceholder(const QString &text);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QImage image_;
    QString placeholder_;
    bool smooth_ = true;
};

} // namespace brix
