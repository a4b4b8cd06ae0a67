#include "MainWindow.h"

#include "BundleInfo.h"
#include "CameraPanelModel.h"
#include "CameraPanelView.h"
#include "HistogramController.h"
#include "HistogramView.h"
#include "ImageView.h"
#include "LiveViewController.h"
#include "Logger.h"
#include "Preferences.h"
#include "Scheduling.h"
#include "ShouldQuitViewController.h"
#include "ViewController.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabWidget>
#include <QVBoxLayout>

namespace brix {

namespace {

template <class W> W *named(W *widget, const char *objectName, const QString &accessibleName) {
    widget->setObjectName(QString::fromLatin1(objectName));
    widget->setAccessibleName(accessibleName);
    return widget;
}

const QColor kOnline(52, 199, 89);
const QColor kOffline(255, 59, 48);

} // namespace

MainWindow::MainWindow(ViewController &viewController, CameraPanelModel &panel, LiveViewController &liveView,
                       HistogramController &histogram, QWidget *parent)
    : QMainWindow(parent), vc_(viewController), panel_(panel), live_(liveView), histogram_(histogram) {
    setObjectName(QStringLiteral("mainwindow"));
    setAccessibleName(QString::fromLatin1(bundle::kName));
    Preferences::standard().bind(
        QStringLiteral("values.%1").arg(QLatin1String(pref::kWindowTitleName)), this,
        [this](const QVariant &v) {
            const QString title = v.toString();
            setWindowTitle(title.isEmpty()
                               ? QStringLiteral("%1 (v%2)").arg(bundle::kName, bundle::kShortVersion)
                               : title);
        });

    auto *central = named(new QWidget(this), "mainview", QStringLiteral("Main view"));
    auto *layout = new QVBoxLayout(central);

    // The camera line: what the station knows about the camera, at a glance.
    statusRow_ = new QHBoxLayout;
    auto *statusRow = statusRow_;
    onlineDot_ = named(new QLabel(central), "cameraonline", QStringLiteral("Camera online"));
    onlineDot_->setFixedSize(14, 14);
    status_ = named(new QLabel(central), "camerastatus", QStringLiteral("Camera status"));
    QFont big = status_->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    status_->setFont(big);
    statusRow->addWidget(onlineDot_);
    statusRow->addWidget(status_, 1);
    layout->addLayout(statusRow);
    Preferences::standard().bind(QStringLiteral("values.%1").arg(QLatin1String(pref::kNameOfCameraFound)),
                                 status_, [this](const QVariant &v) { status_->setText(v.toString()); });
    auto showOnline = [this] {
        const bool on = vc_.fCameraOnline();
        onlineDot_->setStyleSheet(
            QStringLiteral("background: %1; border-radius: 7px;").arg((on ? kOnline : kOffline).name()));
        onlineDot_->setAccessibleDescription(on ? QStringLiteral("online") : QStringLiteral("offline"));
    };
    connect(&vc_, &ViewController::fCameraOnlineChanged, this, showOnline);
    showOnline();

    auto *split = split_ =
        named(new QSplitter(Qt::Horizontal, central), "mainsplit", QStringLiteral("Main view panes"));
    tabs_ = named(new QTabWidget(split), "ibTabView", QStringLiteral("Tabs"));
    tabs_->addTab(buildPanelTab(), QStringLiteral("Camera"));
    tabs_->addTab(buildPreferencesTab(), QStringLiteral("Preferences"));
    tabs_->addTab(buildMorePrefsTab(), QStringLiteral("More"));
    split->addWidget(tabs_);
    split->addWidget(buildShotColumn());
    split->setStretchFactor(1, 1);
    layout->addWidget(split, 1);

    QStringList identifiers;
    for (int i = 0; i < tabs_->count(); ++i)
        identifiers << tabs_->widget(i)->objectName();
    vc_.setTabIdentifiers(identifiers);
    auto selectTab = [this] {
        for (int i = 0; i < tabs_->count(); ++i)
            if (tabs_->widget(i)->objectName() == vc_.selectedTabIdentifier())
                tabs_->setCurrentIndex(i);
    };
    connect(&vc_, &ViewController::selectedTabIdentifierChanged, this, selectTab);
    connect(tabs_, &QTabWidget::currentChanged, this, [this](int index) {
        if (QWidget *page = tabs_->widget(index))
            vc_.tabViewWillSelectTabViewItem(page->objectName());
    });

    // Download progress and the counters.
    bottomBar_ = named(new QWidget(central), "bottombar", QStringLiteral("Download progress and counters"));
    auto *bottom = new QHBoxLayout(bottomBar_);
    bottom->setContentsMargins(0, 0, 0, 0);
    progress_ = named(new QProgressBar(central), "progress", QStringLiteral("Download progress"));
    progress_->setRange(0, 100);
    downloadCount_ = named(new QLabel(central), "downloadcount", QStringLiteral("Shots downloaded"));
    savedCount_ = named(new QLabel(central), "savedcount", QStringLiteral("Shots saved"));
    bottom->addWidget(progress_, 1);
    bottom->addWidget(downloadCount_);
    bottom->addWidget(savedCount_);
    layout->addWidget(bottomBar_);
    auto showProgress = [this] {
        progress_->setValue(int(vc_.progressValue()));
        // Hidden without giving up its place, so the window does not jump.
        QSizePolicy policy = progress_->sizePolicy();
        policy.setRetainSizeWhenHidden(true);
        progress_->setSizePolicy(policy);
        progress_->setVisible(vc_.progressVisible());
    };
    connect(&vc_, &ViewController::progressChanged, this, showProgress);
    showProgress();
    auto showCounts = [this] {
        downloadCount_->setText(QStringLiteral("Downloaded: %1").arg(vc_.fDownloadCount()));
        savedCount_->setText(QStringLiteral("Saved: %1").arg(vc_.fSavedCount()));
    };
    connect(&vc_, &ViewController::fDownloadCountChanged, this, showCounts);
    connect(&vc_, &ViewController::fSavedCountChanged, this, showCounts);
    showCounts();

    // The icon mode's view joins the stack when first needed.
    stack_ = named(new QStackedWidget(this), "contentstack", QStringLiteral("Window content"));
    stack_->addWidget(central);
    setCentralWidget(stack_);

    QMenu *file = menuBar()->addMenu(QStringLiteral("&File"));
    QAction *openSave = file->addAction(QStringLiteral("Open Save Folder"));
    connect(openSave, &QAction::triggered, this, [this] { vc_.doRevealItem1(); });
    QAction *showLog = file->addAction(QStringLiteral("Show Log File"));
    connect(showLog, &QAction::triggered, this, [this] { vc_.doRevealItem2(); });
    file->addSeparator();
    QAction *quit = file->addAction(QStringLiteral("&Quit"));
    quit->setObjectName(QStringLiteral("quitaction"));
    quit->setShortcut(QKeySequence::Quit);
    connect(quit, &QAction::triggered, this,
            [] { NotificationCenter::defaultCenter().post(QString::fromLatin1(kQuitAppNotification)); });
    resize(1100, 720);
    qApp->installEventFilter(this);
    windowDidLoad();
}

MainWindow::~MainWindow() {
    if (modes_)
        modes_->setHost(nullptr);
    Logger::setError(QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("dealloc")));
    for (auto token : tokens_)
        NotificationCenter::defaultCenter().removeObserver(token);
}

QString MainWindow::objectDescription() const {
    return QStringLiteral("<MyWindowController: 0x%1>").arg(quintptr(this), 0, 16);
}

QWidget *MainWindow::buildPanelTab() {
    auto *page = named(new QWidget, CameraPanelModel::kPanelTabIdentifier, QStringLiteral("Camera"));
    auto *layout = new QVBoxLayout(page);
    panelView_ = new CameraPanelView(panel_, page);
    connect(panelView_, &CameraPanelView::startCameraRequested, this, [this] { vc_.ibStartCameraButton(); });
    connect(&panel_, &CameraPanelModel::controlChanged, this, [this] { live_.noteActivity(); });
    layout->addWidget(panelView_);
    auto *take = named(new QPushButton(QStringLiteral("Take Picture"), page), "takepicture",
                       QStringLiteral("Take picture"));
    take->setMinimumHeight(40);
    connect(take, &QPushButton::clicked, this, &MainWindow::takePictureRequested);
    layout->addWidget(take);
    layout->addStretch(1);
    return page;
}

QWidget *MainWindow::buildPreferencesTab() {
    auto *page =
        named(new QWidget, CameraPanelModel::kPreferencesTabIdentifier, QStringLiteral("Preferences"));
    auto *form = new QFormLayout(page);
    auto *folder = named(new QLineEdit(page), "savefolder", QStringLiteral("Save folder"));
    folder->setReadOnly(true);
    Preferences::standard().bind(QStringLiteral("values.%1").arg(QLatin1String(pref::kSaveFolderPath)),
                                 folder, [folder](const QVariant &v) { folder->setText(v.toString()); });
    form->addRow(QStringLiteral("Save folder"), folder);
    auto *reveal1 = named(new QPushButton(QStringLiteral("Open Save Folder"), page), "revealsavefolder",
                          QStringLiteral("Open save folder"));
    connect(reveal1, &QPushButton::clicked, this, [this] { vc_.doRevealItem1(); });
    auto *reveal2 = named(new QPushButton(QStringLiteral("Show Log File"), page), "reveallog",
                          QStringLiteral("Show log file"));
    connect(reveal2, &QPushButton::clicked, this, [this] { vc_.doRevealItem2(); });
    auto *both = named(new QPushButton(QStringLiteral("Open Both"), page), "revealboth",
                       QStringLiteral("Open save and log folders"));
    connect(both, &QPushButton::clicked, this, [this] { vc_.ibTestButton(); });
    auto *row = new QHBoxLayout;
    row->addWidget(reveal1);
    row->addWidget(reveal2);
    row->addWidget(both);
    form->addRow(row);
    auto *send = named(new QPushButton(QStringLiteral("Send All Images to Previewer"), page), "sendhotfolder",
                       QStringLiteral("Send all images in the save folder to the previewer"));
    connect(send, &QPushButton::clicked, this, &MainWindow::sendAllItemsInHotFolderRequested);
    form->addRow(send);
    auto *scan = named(new QPushButton(QStringLiteral("Start/Stop Folder Scan Timer"), page), "scantimer",
                       QStringLiteral("Start, suspend or resume the save folder's scan timer"));
    connect(scan, &QPushButton::clicked, this, &MainWindow::scanTimerToggleRequested);
    form->addRow(scan);
    return page;
}

QWidget *MainWindow::buildMorePrefsTab() {
    auto *page =
        named(new QWidget, CameraPanelModel::kMorePrefsTabIdentifier, QStringLiteral("More preferences"));
    auto *form = new QFormLayout(page);
    auto *idle = named(new QDoubleSpinBox(page), "liveviewidle",
                       QStringLiteral("Live view pauses after idle minutes"));
    idle->setRange(0, 240);
    idle->setDecimals(0);
    idle->setSpecialValueText(QStringLiteral("never"));
    const QString idleKey = QString::fromLatin1(LiveViewController::kPrefLiveViewIdleMinutes);
    Preferences::standard().bind(idleKey, idle, [idle](const QVariant &v) {
        const QSignalBlocker block(idle);
        idle->setValue(v.isValid() ? v.toDouble() : LiveViewController::kDefaultIdleMinutes);
    });
    connect(idle, &QDoubleSpinBox::valueChanged, this,
            [idleKey](double minutes) { Preferences::standard().setFloat(minutes, idleKey); });
    form->addRow(QStringLiteral("Pause live view after (minutes idle)"), idle);
    auto *notify = named(new QCheckBox(QStringLiteral("Report errors as desktop notifications"), page),
                         "prefernotifications", QStringLiteral("Report errors as desktop notifications"));
    const QString notifyKey = QString::fromLatin1(pref::kPreferNotificationsOverModalAlerts);
    Preferences::standard().bind(notifyKey, notify, [notify](const QVariant &v) {
        const QSignalBlocker block(notify);
        notify->setChecked(v.toBool());
    });
    connect(notify, &QCheckBox::toggled, this,
            [notifyKey](bool on) { Preferences::standard().setBool(on, notifyKey); });
    form->addRow(notify);
    auto *info = named(new QLabel(page), "longinfo", QStringLiteral("Version"));
    Preferences::standard().bind(QString::fromLatin1(pref::kLongInfoString), info,
                                 [info](const QVariant &v) { info->setText(v.toString()); });
    form->addRow(QStringLiteral("Version"), info);
    return page;
}

QWidget *MainWindow::buildShotColumn() {
    auto *column = named(new QWidget, "shotcolumn", QStringLiteral("Last shot and live view"));
    auto *layout = new QVBoxLayout(column);
    imageView_ = named(new ImageView(column), "ibImageView", QStringLiteral("Last shot"));
    imageView_->setPlaceholder(QStringLiteral("No shot yet"));
    layout->addWidget(imageView_, 3);
    // The wallpaper fills the image view until the first shot.
    connect(&vc_, &ViewController::fPathToWallpaperChanged, this, [this] {
        if (vc_.displayImage().isNull())
            imageView_->setImage(vc_.fPathToWallpaper().isEmpty() ? QImage()
                                                                  : QImage(vc_.fPathToWallpaper()));
    });
    connect(&vc_, &ViewController::displayImageChanged, this, [this] {
        imageView_->setImage(vc_.displayImage());
        histogram_.setImage(vc_.displayImage());
    });
    auto *hist = named(new HistogramView(histogram_, column), "histogram",
                       QStringLiteral("Histogram of the last shot"));
    layout->addWidget(hist, 1);

    auto *liveRow = new QHBoxLayout;
    liveButton_ = named(new QPushButton(column), "liveviewbutton", QStringLiteral("Start or stop live view"));
    liveRate_ = named(new QLabel(column), "liveviewrate", QStringLiteral("Live view frame rate"));
    liveRow->addWidget(liveButton_);
    liveRow->addWidget(liveRate_, 1);
    layout->addLayout(liveRow);
    liveFrame_ = named(new ImageView(column), "liveview", QStringLiteral("Live view"));
    liveFrame_->setSmooth(false);
    layout->addWidget(liveFrame_, 3);
    connect(liveButton_, &QPushButton::clicked, &live_, &LiveViewController::toggle);
    auto showState = [this] {
        liveButton_->setText(live_.running() ? QStringLiteral("Stop Live View")
                                             : QStringLiteral("Start Live View"));
        liveFrame_->setPlaceholder(live_.stateText());
        if (!live_.running())
            liveFrame_->setImage(QImage());
        liveRate_->setText(live_.running() ? QStringLiteral("%1 fps").arg(live_.framesPerSecond(), 0, 'f', 1)
                                           : live_.stateText());
    };
    connect(&live_, &LiveViewController::runningChanged, this, showState);
    connect(&live_, &LiveViewController::frameChanged, this, [this] {
        liveFrame_->setImage(live_.frame());
        liveRate_->setText(QStringLiteral("%1 fps").arg(live_.framesPerSecond(), 0, 'f', 1));
    });
    showState();
    return column;
}

QDialog *MainWindow::instantiateControllerWithIdentifier(const QString &identifier, QWidget *parent) {
    if (identifier == QLatin1String(ShouldQuitViewController::kIdentifier))
        return new ShouldQuitViewController(parent);
    return nullptr;
}

void MainWindow::windowDidLoad() {
    tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
        QString::fromLatin1(kQuitAppNotification), {}, [this](const Notification &) {
            Scheduling::performInlineOnMainQueue([this] { ibHandleCloseWindow(); });
        }));
}

void MainWindow::ibHandleCloseWindow() {
    Logger::setError(
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("ibHandleCloseWindow:")));
    close();
}

void MainWindow::closeEvent(QCloseEvent *event) {
    event->setAccepted(applicationQuitting_ || windowShouldClose());
}

bool MainWindow::eventFilter(QObject *watched, QEvent *event) {
    if (watched == qApp && event->type() == QEvent::Quit)
        applicationQuitting_ = true;
    return QMainWindow::eventFilter(watched, event);
}

bool MainWindow::windowShouldClose() {
    Logger::setError(
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("windowShouldClose:")));
    QPointer<MainWindow> self(this);
    Scheduling::afterDelayOnGlobalQueuePerformBlock(kConfirmDelaySeconds, [self] {
        Scheduling::performAsyncOnMainQueue([self] {
            if (self)
                self->ibConfirmQuit();
        });
    });
    return false;
}

void MainWindow::ibConfirmQuit() {
    const QLatin1String op("ibConfirmQuit:");
    Logger::setError(QStringLiteral("Inside %1 => %2...").arg(objectDescription(), op));
    QDialog *sheet =
        instantiateControllerWithIdentifier(QString::fromLatin1(ShouldQuitViewController::kIdentifier), this);
    if (!sheet)
        return;
    Logger::setError(QStringLiteral("Inside %1 => %2...NSViewController = %3")
                         .arg(objectDescription(), op, sheet->objectName()));
    sheet->setWindowModality(Qt::WindowModal);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> self(this);
    connect(sheet, &QDialog::finished, this, [self, op](int code) {
        Scheduling::afterDelay(kSheetEndDelaySeconds, dispatch::mainQueue(), [self, op, code] {
            if (!self)
                return;
            Logger::setError(QStringLiteral("Inside %1 => %2... return code = %3")
                                 .arg(self->objectDescription(), op)
                                 .arg(code));
            if (code == ShouldQuitViewController::kReturnQuit) {
                Logger::setError(QStringLiteral("Inside %1 => %2...Will terminate app...")
                                     .arg(self->objectDescription(), op));
                emit self->quitConfirmed();
            } else if (code == ShouldQuitViewController::kReturnQuitRelaunch) {
                Logger::setError(QStringLiteral("Inside %1 => %2...Will Quit and Relaunch")
                                     .arg(self->objectDescription(), op));
                emit self->quitAndRelaunchRequested();
            }
        });
    });
    sheet->open();
}

} // namespace brix
