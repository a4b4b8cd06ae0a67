// The station's window. Holds no logic: it shows what the controllers say and
// forwards the operator's actions.
//
// Threads: main thread only.
#pragma once

#include <QMainWindow>

class QLabel;

namespace brix {

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget *parent = nullptr);

private:
    QLabel *status_ = nullptr;
};

} // namespace brix
