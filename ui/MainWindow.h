// MainWindow: the station's window and its window controller. It shows what the
// controllers hold (camera panel, status line, last shot with its histogram,
// live view, download progress, counters) and forwards the operator's actions.
// Closing it or choosing Quit never closes anything directly: after 100 ms a
// sheet asks whether to quit, quit and relaunch, or stay.
//
// Threads: main thread only.
// Ownership: the controllers are owned by the caller and outlive the window;
// the window owns its widgets and the sheet while it is shown.
#pragma once

#include "NotificationCenter.h"
#include "WindowModeController.h"

#include <QMainWindow>

#include <memory>
#include <vector>

class QComboBox;
class QDialog;
class QHBoxLayout;
class QSplitter;
class QStackedWidget;
class QToolButton;
class QLabel;
class QProgressBar;
class QPushButton;
class QTabWidget;

namespace brix {

class CameraPanelModel;
class CameraPanelView;
class HistogramController;
class ImageView;
class LiveViewController;
class MiniSize3IconView;
class ViewController;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    static constexpr const char *kQuitAppNotification = "quitAppNotification";
    static constexpr double kConfirmDelaySeconds = 0.1;
    static constexpr double kSheetEndDelaySeconds = 0.01;

    MainWindow(ViewController &viewController, CameraPanelModel &panel, LiveViewController &liveView,
               HistogramController &histogram, QWidget *parent = nullptr);
    ~MainWindow() override;

    // The controller registered under `identifier`, or nullptr.
    static QDialog *instantiateControllerWithIdentifier(const QString &identifier, QWidget *parent);

    void windowDidLoad();
    void ibHandleCloseWindow();
    // Always false: the sheet decides.
    bool windowShouldClose();
    void ibConfirmQuit();

    QTabWidget *ibTabView() const { return tabs_; }
    // Lets `modes` size and place this window (full size, mini sizes, icon)
    // and adds the disclosure button and the mini size list. `modes` outlives
    // the window.
    void setWindowModes(WindowModeController &modes);
    MiniSize3IconView *iconView() const { return fMiniSize3IconView_; }
    CameraPanelView *panelView() const { return panelView_; }

signals:
    void takePictureRequested();
    void quitConfirmed();
    void quitAndRelaunchRequested();
    void sendAllItemsInHotFolderRequested();
    // The scan-timer button: starts the hot folder's scan timer, then suspends
    // and resumes it in turn.
    void scanTimerToggleRequested();

protected:
    void closeEvent(QCloseEvent *event) override;
    // Sees the application's quit request (a signal asking the station to
    // end): the window then lets itself be closed without the sheet.
    bool eventFilter(QObject *watched, QEvent *event) override;
    void moveEvent(QMoveEvent *event) override;
    void changeEvent(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;

private:
    QWidget *buildPanelTab();
    QWidget *buildPreferencesTab();
    QWidget *buildMorePrefsTab();
    QWidget *buildShotColumn();
    QString objectDescription() const;
    class ModeHost;
    friend class ModeHost;
    void ensureMiniSize3IconViewInContent();
    void applyWindowFlags();

    ViewController &vc_;
    CameraPanelModel &panel_;
    LiveViewController &live_;
    HistogramController &histogram_;
    QTabWidget *tabs_ = nullptr;
    CameraPanelView *panelView_ = nullptr;
    QLabel *status_ = nullptr;
    QLabel *onlineDot_ = nullptr;
    ImageView *imageView_ = nullptr;
    ImageView *liveFrame_ = nullptr;
    QLabel *liveRate_ = nullptr;
    QPushButton *liveButton_ = nullptr;
    QProgressBar *progress_ = nullptr;
    QLabel *downloadCount_ = nullptr;
    QLabel *savedCount_ = nullptr;
    std::vector<NotificationCenter::Token> tokens_;
    // Window modes.
    QHBoxLayout *statusRow_ = nullptr;
    QSplitter *split_ = nullptr;
    QWidget *bottomBar_ = nullptr;
    QStackedWidget *stack_ = nullptr;
    QToolButton *disclosure_ = nullptr;
    QComboBox *miniSizes_ = nullptr;
    MiniSize3IconView *fMiniSize3IconView_ = nullptr;
    WindowModeController *modes_ = nullptr;
    std::unique_ptr<WindowModeController::Host> modeHost_;
    bool fCameraOnlineKVORegistered_ = false;
    bool movableByBackground_ = true;
    bool titleShown_ = true;
    bool resizable_ = true;
    bool windowButtonsShown_ = true;
    int shownMode_ = 0;
    bool applicationQuitting_ = false;
};

} // namespace brix
