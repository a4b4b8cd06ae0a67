// MainWindow: the window modes applied to the real window. The controller
// decides frames, limits and what is shown; this part turns that into Qt
// window flags, geometry and visible widgets.
#include "MainWindow.h"

#include "CameraPanelModel.h"
#include "MiniSize3IconView.h"
#include "Preferences.h"
#include "ViewController.h"

#include <QApplication>
#include <QComboBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QMenuBar>
#include <QMouseEvent>
#include <QScreen>
#include <QSignalBlocker>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabWidget>
#include <QToolButton>
#include <QWindow>

namespace brix {

using Mode = WindowModeController::Mode;

class MainWindow::ModeHost : public WindowModeController::Host {
public:
    explicit ModeHost(MainWindow &w) : w_(w) {}

    QRect frame() const override { return w_.frameGeometry(); }
    void setFrame(const QRect &frame) override {
        // The controller's frames include the decorations; Qt places the client area.
        const QRect outer = w_.frameGeometry();
        const QRect inner = w_.geometry();
        const QMargins decorations(inner.left() - outer.left(), inner.top() - outer.top(),
                                   outer.right() - inner.right(), outer.bottom() - inner.bottom());
        w_.setGeometry(frame.marginsRemoved(decorations));
    }
    QRect screenGeometry() const override {
        const QScreen *screen = QGuiApplication::primaryScreen();
        return screen ? screen->geometry() : QRect();
    }
    QRect availableGeometry() const override {
        const QScreen *screen = QGuiApplication::primaryScreen();
        return screen ? screen->availableGeometry() : QRect();
    }
    QSize minimumSize() const override { return w_.minimumSize(); }
    QSize maximumSize() const override { return w_.maximumSize(); }
    void setSizeLimits(const QSize &minimum, const QSize &maximum) override {
        // Opened up first, so the new minimum never meets the old maximum.
        w_.setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
        w_.setMinimumSize(minimum);
        w_.setMaximumSize(maximum);
    }
    bool isMovableByBackground() const override { return w_.movableByBackground_; }
    void setMovableByBackground(bool movable) override { w_.movableByBackground_ = movable; }
    bool isTitleShown() const override { return w_.titleShown_; }
    void setTitleShown(bool shown) override {
        w_.titleShown_ = shown;
        w_.applyWindowFlags();
    }
    void setResizable(bool resizable) override {
        w_.resizable_ = resizable;
        w_.applyWindowFlags();
    }
    void setWindowButtonsShown(bool shown) override {
        w_.windowButtonsShown_ = shown;
        w_.applyWindowFlags();
    }
    void showContent(Mode mode) override {
        w_.shownMode_ = int(mode);
        if (mode == Mode::Icon) {
            w_.ensureMiniSize3IconViewInContent();
            w_.stack_->setCurrentWidget(w_.fMiniSize3IconView_);
        } else {
            w_.stack_->setCurrentIndex(0);
        }
        // The mini strip keeps the camera line and the disclosure button.
        const bool full = mode == Mode::FullSize;
        w_.menuBar()->setVisible(full);
        w_.split_->setVisible(full);
        w_.bottomBar_->setVisible(full);
        w_.applyWindowFlags();
    }
    QRect tabVisibleRect() const override { return w_.tabs_->visibleRegion().boundingRect(); }
    void resignMain() override {
        if (QWidget *focus = QApplication::focusWidget(); focus && focus->window() == &w_)
            focus->clearFocus();
    }
    bool canPlaceItself() const override {
        return !QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
    }

private:
    MainWindow &w_;
};

void MainWindow::applyWindowFlags() {
    const bool icon = shownMode_ == int(Mode::Icon);
    Qt::WindowFlags flags = Qt::Window;
    if (icon || !titleShown_)
        flags |= Qt::FramelessWindowHint;
    // The icon keeps the camera's state in sight over the booth's other windows.
    if (icon)
        flags |= Qt::WindowStaysOnTopHint;
    if (!windowButtonsShown_ || !resizable_) {
        flags |= Qt::CustomizeWindowHint | Qt::WindowTitleHint;
        if (windowButtonsShown_)
            flags |= Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint;
    }
    if (flags == windowFlags())
        return;
    const bool visible = isVisible();
    const QPoint place = frameGeometry().topLeft();
    setWindowFlags(flags);
    move(place);
    // A flag change hides the window.
    if (visible)
        show();
}

void MainWindow::ensureMiniSize3IconViewInContent() {
    if (fMiniSize3IconView_)
        return;
    fMiniSize3IconView_ = new MiniSize3IconView(stack_);
    stack_->addWidget(fMiniSize3IconView_);
    fMiniSize3IconView_->setSystemMoveOnly(modeHost_ && !modeHost_->canPlaceItself());
    fMiniSize3IconView_->setOnClickExpand([this] {
        if (modes_)
            modes_->expandToFullSize();
    });
    if (!fCameraOnlineKVORegistered_) {
        fCameraOnlineKVORegistered_ = true;
        auto showOnline = [this] { fMiniSize3IconView_->setCameraConnected(vc_.fCameraOnline()); };
        connect(&vc_, &ViewController::fCameraOnlineChanged, fMiniSize3IconView_, showOnline);
        showOnline();
    }
    Preferences::standard().bind(
        QStringLiteral("values.%1").arg(QLatin1String(pref::kNameOfCameraFound)), fMiniSize3IconView_,
        [view = fMiniSize3IconView_](const QVariant &v) { view->setStatusText(v.toString()); });
    auto showProgress = [this] {
        fMiniSize3IconView_->setDownloadProgress(vc_.progressVisible() ? vc_.progressValue() : -1.0);
    };
    connect(&vc_, &ViewController::progressChanged, fMiniSize3IconView_, showProgress);
    showProgress();
}

void MainWindow::setWindowModes(WindowModeController &modes) {
    modes_ = &modes;
    modeHost_ = std::make_unique<ModeHost>(*this);
    modes.setHost(modeHost_.get());

    disclosure_ = new QToolButton(this);
    disclosure_->setObjectName(QStringLiteral("ibDisclosureButton"));
    disclosure_->setAccessibleName(QStringLiteral("Full size or mini size"));
    disclosure_->setToolTip(QStringLiteral("Mini size; Ctrl-click for the full window"));
    disclosure_->setCheckable(true);
    disclosure_->setArrowType(Qt::DownArrow);
    auto showState = [this] {
        const QSignalBlocker block(disclosure_);
        disclosure_->setChecked(modes_->disclosureState());
        disclosure_->setArrowType(modes_->disclosureState() ? Qt::DownArrow : Qt::RightArrow);
    };
    showState();
    connect(&modes, &WindowModeController::disclosureStateChanged, disclosure_, showState);
    connect(disclosure_, &QToolButton::clicked, this, [this](bool on) {
        modes_->ibDisclosureButton(on, QGuiApplication::queryKeyboardModifiers(),
                                   QRectF(disclosure_->geometry()), QRectF(disclosure_->rect()));
    });
    statusRow_->addWidget(disclosure_);

    // The operator's choice of mini size, on the preferences tab.
    miniSizes_ = new QComboBox(this);
    miniSizes_->setObjectName(QStringLiteral("fMiniPanelSizes"));
    miniSizes_->setAccessibleName(QStringLiteral("Mini window size"));
    auto showList = [this] {
        const QSignalBlocker block(miniSizes_);
        miniSizes_->clear();
        for (const QVariant &v : modes_->miniSizes())
            miniSizes_->addItem(
                v.toMap().value(QLatin1String(WindowModeController::kDisplayName)).toString());
        miniSizes_->setCurrentIndex(modes_->selectedRow());
    };
    connect(&modes, &WindowModeController::miniSizesChanged, miniSizes_, showList);
    connect(&modes, &WindowModeController::selectedRowChanged, miniSizes_, [this] {
        const QSignalBlocker block(miniSizes_);
        miniSizes_->setCurrentIndex(modes_->selectedRow());
    });
    connect(miniSizes_, &QComboBox::activated, this, [this](int row) { modes_->ibClickSelectMiniSize(row); });
    showList();
    for (int i = 0; i < tabs_->count(); ++i)
        if (auto *form = qobject_cast<QFormLayout *>(tabs_->widget(i)->layout());
            form &&
            tabs_->widget(i)->objectName() == QLatin1String(CameraPanelModel::kPreferencesTabIdentifier))
            form->addRow(QStringLiteral("Mini window size"), miniSizes_);
}

void MainWindow::moveEvent(QMoveEvent *event) {
    QMainWindow::moveEvent(event);
    if (modes_)
        modes_->windowDidMove();
}

void MainWindow::changeEvent(QEvent *event) {
    QMainWindow::changeEvent(event);
    if (modes_ && event->type() == QEvent::ActivationChange && isActiveWindow())
        modes_->windowDidBecomeKey();
}

void MainWindow::mousePressEvent(QMouseEvent *event) {
    // A window without its title bar is dragged by its background.
    if (modes_ && movableByBackground_ && !titleShown_ && event->button() == Qt::LeftButton &&
        windowHandle() && windowHandle()->startSystemMove()) {
        event->accept();
        return;
    }
    QMainWindow::mousePressEvent(event);
}

} // namespace brix
