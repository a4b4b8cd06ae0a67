#include "MainWindow.h"

#include "BundleInfo.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QMenuBar>
#include <QVBoxLayout>

namespace brix {

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent) {
    setWindowTitle(QStringLiteral("%1 (v%2)").arg(bundle::kName, bundle::kShortVersion));
    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    status_ = new QLabel(QStringLiteral("[No Camera Found]"), central);
    status_->setAlignment(Qt::AlignCenter);
    layout->addWidget(status_);
    setCentralWidget(central);

    QMenu *file = menuBar()->addMenu(QStringLiteral("&File"));
    QAction *quit = file->addAction(QStringLiteral("&Quit"));
    quit->setShortcut(QKeySequence::Quit);
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit);
    resize(420, 300);
}

} // namespace brix
