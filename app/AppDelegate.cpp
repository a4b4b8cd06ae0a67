#include "AppDelegate.h"

#include "BundleInfo.h"
#include "CameraPanelModel.h"
#include "Describe.h"
#include "InterAppNotifications.h"
#include "Logger.h"
#include "Preferences.h"
#include "PropertyDisplay.h"
#include "Scheduling.h"
#include "SingleInstance.h"
#include "SystemInfo.h"
#include "SystemSound.h"
#include "ViewController.h"
#include "Watchdog.h"

#include <QApplication>
#include <QFile>
#include <QMessageBox>

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

namespace brix {

namespace {

// A list update that found the list busy is tried again after this long.
constexpr double kBusyListRetrySeconds = 0.25;

QString describeCameras(const QList<CameraPtr> &cameras) {
    QVariantList names;
    for (const auto &c : cameras)
        names << QVariant(c ? c->description() : QStringLiteral("(null)"));
    return describe(names);
}

// Runs of digits compare by their value, everything else without regard to
// case: "ISO 125" before "ISO 1000", whatever the locale (QCollator's numeric
// mode is not available in the C locale).
int numericCompare(const QString &a, const QString &b) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            qsizetype ei = i, ej = j;
            while (ei < a.size() && a[ei].isDigit())
                ++ei;
            while (ej < b.size() && b[ej].isDigit())
                ++ej;
            const QStringView da = QStringView(a).mid(i, ei - i), db = QStringView(b).mid(j, ej - j);
            // Without leading zeros, the longer run is the larger number.
            const auto trim = [](QStringView v) {
                while (v.size() > 1 && v.front() == u'0')
                    v = v.mid(1);
                return v;
            };
            const QStringView ta = trim(da), tb = trim(db);
            if (ta.size() != tb.size())
                return ta.size() < tb.size() ? -1 : 1;
            if (const int c = ta.compare(tb); c != 0)
                return c;
            i = ei;
            j = ej;
            continue;
        }
        const QChar ca = a[i].toCaseFolded(), cb = b[j].toCaseFolded();
        if (ca != cb)
            return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    return (a.size() - i) < (b.size() - j) ? -1 : ((a.size() - i) > (b.size() - j) ? 1 : 0);
}

QString cameraText(const CameraPtr &camera) {
    return camera ? camera->description() : QStringLiteral("(null)");
}

constexpr const char *kClassName = "AppDelegate";
constexpr const char *kBanner = "%1->%2 ===================================================================";
// The alert of the single-instance rule stays switched off: a photo station
// left alone must not wait on a button; the beep and the log line stand for it.
constexpr bool kShowDuplicateInstanceAlert = false;
// The station is 64-bit only: the 32-bit label is never chosen.
constexpr const char *kLable1Text = "64bit";
constexpr const char *kRunningModeText = "64bit mode";
constexpr const char *kUnknownVersion = "Unknown???";

// Process-wide start-up state (main thread).
bool gDidOnceAlready = false;
bool gAutorelaunched = false;
SingleInstance *gSingleInstance = nullptr; // lives for the process

QString banner(const char *operation) {
    return QString::fromLatin1(kBanner).arg(QLatin1String(kClassName), QLatin1String(operation));
}

// The system beep: the window's own with a window, the theme's bell without one.
void beep() {
    if (qobject_cast<QApplication *>(QCoreApplication::instance()))
        QApplication::beep();
    SystemSound::beep();
}

// What the release tool reports: product name and version, and the kernel's build.
QString operatingSystemText() {
    QFile f(QStringLiteral("/etc/os-release"));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    QString name, version;
    for (const QByteArray &raw : f.readAll().split('\n')) {
        const QString line = QString::fromUtf8(raw);
        auto value = [&](const QString &prefix) {
            QString v = line.mid(prefix.size());
            if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
                v = v.mid(1, v.size() - 2);
            return v;
        };
        if (line.startsWith(QLatin1String("NAME=")))
            name = value(QStringLiteral("NAME="));
        else if (line.startsWith(QLatin1String("VERSION_ID=")))
            version = value(QStringLiteral("VERSION_ID="));
    }
    struct utsname uts;
    const QString build = ::uname(&uts) == 0 ? QString::fromLocal8Bit(uts.release) : QString();
    return QStringLiteral("ProductName:\t%1\nProductVersion:\t%2\nBuildVersion:\t%3\n")
        .arg(name, version, build);
}

QString hardwareModelText() {
    const QString model =
        OKVA_SystemInfo::sysctlValuesForKeys({QStringLiteral("hw.model")}).value(QStringLiteral("hw.model"));
    return model.isEmpty() ? QString() : QStringLiteral("hw.model: %1\n").arg(model);
}

} // namespace

// --- start-up and shutdown -----------------------------------------------------

bool AppDelegate::didOnceAlready() {
    return gDidOnceAlready;
}
bool AppDelegate::autorelaunched() {
    return gAutorelaunched;
}
SingleInstance *AppDelegate::singleInstance() {
    return gSingleInstance;
}

void AppDelegate::initialize(const QStringList &arguments) {
    if (gDidOnceAlready) {
        Logger::setError(QStringLiteral("Inside %1 => %2...ALREADY gDidOnceAlready....")
                             .arg(QLatin1String(kClassName), QLatin1String("initialize")));
        return;
    }
    gDidOnceAlready = true;

    Logger::setLogFile(Logger::defaultLogFileWithinSubdirectory(QStringLiteral("Brix")));
    OKVA_SystemInfo::logCurrentSystemInfo();
    Logger::setError(banner("initialize"));

    checkForDuplicateRunningInstances();

    Logger::setError(QStringLiteral("\n\n"));
    Logger::setError(banner("initialize"));
    const QString os = operatingSystemText();
    if (!os.isEmpty())
        Logger::setError(os);
    const QString model = hardwareModelText();
    if (!model.isEmpty())
        Logger::setError(model);
    Logger::setError(QStringLiteral("RunningMode: %1").arg(QLatin1String(kRunningModeText)));
    Logger::setError(banner("initialize"));
    Logger::setError(QStringLiteral("\n\n"));

    Logger::setError(QStringLiteral("args = %1").arg(describe(QVariant(arguments))));
    for (const QString &arg : arguments) {
        if (arg.compare(QLatin1String("-fromlaunchagent"), Qt::CaseInsensitive) == 0) {
            Logger::setError(QStringLiteral("App Launched From LaunchAgent..."));
        } else if (arg.compare(QLatin1String("-frombrixpreview"), Qt::CaseInsensitive) == 0) {
            Logger::setError(QStringLiteral("App Launched From BrixPreviewer.app..."));
        } else if (arg.compare(QLatin1String(Watchdog::kRelaunchArgument), Qt::CaseInsensitive) == 0) {
            Logger::setError(QStringLiteral("App Launched From WatchDog..."));
            gAutorelaunched = true;
            beep();
        }
    }

    // Factory values under the user's own; without the resource, none.
    Preferences::standard().registerFactoryDefaults();
}

void AppDelegate::checkForDuplicateRunningInstances() {
    gSingleInstance = new SingleInstance;
    QObject::connect(gSingleInstance, &SingleInstance::activateRequested, gSingleInstance, [](qint64 pid) {
        Logger::setError(
            QStringLiteral("Inside %1 => %2...another instance (pid %3) asked us to come forward")
                .arg(QLatin1String(kClassName), QLatin1String("Activate"))
                .arg(pid));
    });
    if (gSingleInstance->claim())
        return;
    const pid_t other = gSingleInstance->otherPid();
    beep();
    Logger::setError(QStringLiteral("Inside %1 => %2...Another Instance of this app is already running...")
                         .arg(QLatin1String(kClassName), QLatin1String("checkForDuplicateRunningInstances")));
    if constexpr (kShowDuplicateInstanceAlert) {
        const QStringList texts = duplicateInstanceAlertTexts();
        QMessageBox alert;
        alert.setText(texts[0]);
        alert.setInformativeText(texts[1]);
        alert.addButton(texts[2], QMessageBox::AcceptRole);
        alert.exec();
    }
    const bool activated = gSingleInstance->activateOther();
    Logger::setError(QStringLiteral("the running copy (pid %1) %2")
                         .arg(other)
                         .arg(activated ? QStringLiteral("was asked to come forward")
                                        : QStringLiteral("could not be asked to come forward")));
    Logger::flush();
    ::_exit(0);
}

QStringList AppDelegate::duplicateInstanceAlertTexts() {
    return {QStringLiteral("!!! Another Instance of This App is Already Running !!!"),
            QStringLiteral("Only One Instance of this app can be running at the same time.\n\nThis App PID = "
                           "(myPID)\nExisting Running App PID = (existingrunningapp!.processIdentifier)\n\n"),
            QStringLiteral("OK")};
}

// The variant that told an older version from a newer one; nothing calls it.
QStringList AppDelegate::olderVersionAlertTexts(const QString &otherName) {
    return {
        QStringLiteral("!!! An OLDER Version of %1 is Running !!!").arg(otherName),
        QStringLiteral("Quit the Older Version or This Newer Version??"),
        QStringLiteral("Quit \"%1\"").arg(otherName),
        QStringLiteral("Quit This Version"),
        QStringLiteral(
            "already running an instance of our app bundleIdentifier or older/debug bundlerIdentifier..."),
        QStringLiteral("com.lumetra.BRIX-XML")};
}

void AppDelegate::createScanTimer() {
    if (fTimer) {
        currentCameraDispatchQueue()->async([this, timer = fTimer] {
            if (fTimerStatus.compare(QLatin1String(kTimerRunning), Qt::CaseInsensitive) != 0) {
                timer->resume();
                fTimerStatus = QLatin1String(kTimerRunning);
                Logger::setError(QStringLiteral("Inside %1 => %2... timer RUNNING...")
                                     .arg(objectDescription(), QLatin1String("createScanTimer")));
            } else {
                timer->suspend();
                fTimerStatus = QLatin1String(kTimerSuspended);
                Logger::setError(QStringLiteral("Inside %1 => %2... timer SUSPENDED...")
                                     .arg(objectDescription(), QLatin1String("createScanTimer")));
            }
        });
        return;
    }
    const double seconds =
        Preferences::standard().floatForKey(QLatin1String(pref::kScanForNewImageInSeconds));
    if (!(seconds > 0))
        return;
    fTimer = std::make_shared<ScanTimer>(currentCameraDispatchQueue(), dispatch::secondsToNanos(seconds));
    currentCameraDispatchQueue()->async([timer = fTimer] { timer->resume(); });
}

dispatch::QueuePtr AppDelegate::currentCameraDispatchQueue() {
    // A function-local static: concurrent first callers get the same queue.
    static const dispatch::QueuePtr queue =
        Scheduling::dispatchQueueSerialWithDebugLabel(QLatin1String(kCurrentCameraQueueLabel));
    return queue;
}

QVariantMap AppDelegate::bundleInfo() {
    return {{QStringLiteral("CFBundleName"), QLatin1String(bundle::kName)},
            {QStringLiteral("CFBundleExecutable"), QLatin1String(bundle::kName)},
            {QStringLiteral("CFBundleIdentifier"), QLatin1String(bundle::kIdentifier)},
            {QStringLiteral("CFBundleShortVersionString"), QLatin1String(bundle::kShortVersion)},
            {QStringLiteral("CFBundleVersion"), QLatin1String(bundle::kBundleVersion)},
            {QStringLiteral("DTXcode"), QLatin1String(bundle::kCompiler)},
            {QStringLiteral("DTSDKName"), QLatin1String(bundle::kSDKName)}};
}

void AppDelegate::applicationWillFinishLaunching() {
    Logger::setError(QStringLiteral("Inside %1 => %2...")
                         .arg(objectDescription(), QLatin1String("applicationWillFinishLaunching:")));
    Watchdog::autoRelaunchUnless(4, 30.0, [](unsigned, double) { return false; });
}

void AppDelegate::applicationDidFinishLaunching() {
    fControlKeyPressed = false;
    setupWindowTitle();
}

void AppDelegate::setupWindowTitle(const QVariantMap &info) {
    Logger::setError(QStringLiteral("myappinfo = %1").arg(describe(QVariant(info))));
    const QString name = info.value(QStringLiteral("CFBundleName")).toString();
    QString version = info.value(QStringLiteral("CFBundleShortVersionString")).toString();
    if (version.isEmpty())
        version = QLatin1String(kUnknownVersion);
    Preferences &prefs = Preferences::standard();
    prefs.setObject(QString::fromLatin1(kLable1Text), QLatin1String(pref::kLable1String));
    const QString longInfo = QStringLiteral("%1 v%2 xc-%3 sdk-%4")
                                 .arg(name, version, info.value(QStringLiteral("DTXcode")).toString(),
                                      info.value(QStringLiteral("DTSDKName")).toString());
    prefs.setObject(longInfo, QLatin1String(pref::kLongInfoString));
    // Both title writes stay, in this order; the second wins.
    prefs.setObject(QStringLiteral("%1 (v%2)").arg(name, version) +
                        QStringLiteral(" %1").arg(prefs.stringForKey(QLatin1String(pref::kLable1String))),
                    QLatin1String(pref::kWindowTitleName));
    prefs.setObject(longInfo, QLatin1String(pref::kWindowTitleName));
}

void AppDelegate::ibOpenPrefsAction() {
    Logger::setError(
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("ibOpenPrefsAction:")));
    NotificationCenter::defaultCenter().post(QLatin1String(ViewController::kOpenPrefsNotification));
}

void AppDelegate::ibHandleCommandQuit() {
    Logger::setError(
        QStringLiteral("Inside %1 => %2...").arg(objectDescription(), QLatin1String("ibHandleCommandQuit:")));
    NotificationCenter::defaultCenter().post(QLatin1String(kQuitAppNotification));
}

AppDelegate::AppDelegate(QObject *parent) : QObject(parent) {}

AppDelegate::~AppDelegate() {
    for (auto token : localTokens_)
        NotificationCenter::defaultCenter().removeObserver(token);
    for (auto token : distributedTokens_)
        DistributedNotificationCenter::defaultCenter().removeObserver(token);
    if (currentCamera_)
        currentCamera_->setDelegate(nullptr);
}

QString AppDelegate::objectDescription() const {
    return QStringLiteral("<AppDelegate: 0x%1>").arg(quintptr(this), 0, 16);
}

const std::vector<eds::EdsPropertyID> &AppDelegate::panelProperties() {
    return CameraPanelModel::panelProperties();
}

void AppDelegate::awakeFromNib() {
    auto &center = NotificationCenter::defaultCenter();
    auto observe = [&](const QString &name, void (AppDelegate::*handler)(const Notification &)) {
        localTokens_.push_back(
            center.addObserver(name, {}, [this, handler](const Notification &n) { (this->*handler)(n); }));
    };
    observe(kOKVA_CanonCameraAdded, &AppDelegate::cameraAdded);
    observe(kOKVA_CanonCameraDidLoad, &AppDelegate::cameraDidLoad);
    observe(kOKVA_CanonCameraListDidUpdate, &AppDelegate::cameraListUpdated);
    observe(kOKVA_CanonCameraDidUnload, &AppDelegate::cameraDisappeared);
    observe(kOKVA_CanonCameraPropertiesDidChange, &AppDelegate::cameraPropertiesChanged);
    observe(kOKVA_CanonCameraPropertyDidChange, &AppDelegate::cameraPropertyChanged);
    // Registered without a handler of their own: delivery does nothing.
    localTokens_.push_back(
        center.addObserver(kOKVA_CanonCameraLiveViewImageUpdate, {}, [](const Notification &) {}));
    localTokens_.push_back(
        center.addObserver(kOKVA_CanonCameraCommandError, {}, [](const Notification &) {}));
    // Nothing in the station posts it; a sibling that does only gets a log line.
    localTokens_.push_back(
        center.addObserver(QLatin1String(kStartPhotoSessionNotification), {}, [this](const Notification &) {
            Logger::setError(
                QStringLiteral("Inside %1 => %2...no photo session to start")
                    .arg(objectDescription(), QLatin1String("handleDoStartPhotoSessionNotification:")));
        }));

    distributedTokens_.push_back(DistributedNotificationCenter::defaultCenter().addObserver(
        QString::fromLatin1(interapp::kNikonAppNotification),
        [this](const DistributedNotificationCenter::Message &m) { handleDistributedNotification(m); }));
}

bool AppDelegate::cancelDownloadForProgress(eds::EdsUInt32) {
    return false;
}

// --- camera panel ----------------------------------------------------------

void AppDelegate::takePicture() {
    SystemSound::play(QStringLiteral("Grab"));
    if (currentCamera_) {
        currentCamera_->takePicture();
        currentCamera_->performNextQueuedCameraCommand();
    }
}

void AppDelegate::cameraListUpdated(const Notification &) {
    Logger::setError(QStringLiteral("OKVA_CanonCameraListDidUpdate!"));
    std::optional<QList<CameraPtr>> cameras = OKVA_CanonCamera::cameras();
    if (!cameras) {
        // The list is being rebuilt right now; look again shortly rather than
        // miss a camera that is there.
        Scheduling::afterDelay(kBusyListRetrySeconds, dispatch::mainQueue(), [this] {
            cameraListUpdated(Notification{kOKVA_CanonCameraListDidUpdate, {}, {}, {}});
        });
        return;
    }
    Logger::setError(QStringLiteral("now cameras = %1").arg(describeCameras(*cameras)));
    updateCameraPopupWithCameras(*cameras);
    if (!cameras->isEmpty() && !currentCamera_)
        setCurrentCamera(cameras->first());
}

void AppDelegate::updateCameraPopupWithCameras(const QList<CameraPtr> &) {
    Logger::setError(QStringLiteral("%1-%2... does nothing....")
                         .arg(objectDescription(), QLatin1String("updateCameraPopupWithCameras:")));
}

void AppDelegate::cameraAdded(const Notification &) {
    Logger::setError(QStringLiteral("OKVA_CanonCameraAdded!"));
    const QString list = describeCameras(OKVA_CanonCamera::cameras().value_or(QList<CameraPtr>{}));
    Logger::setError(QStringLiteral("now cameras = %1").arg(list));
    Logger::setError(QStringLiteral("now cameras = %1").arg(list));
}

void AppDelegate::setCurrentCamera(const CameraPtr &camera) {
    Logger::setError(QStringLiteral("setting current camera to %1").arg(cameraText(camera)));
    if (camera) {
        camera->load();
        return;
    }
    // Taken out first: unloading posts a did-unload that comes back here.
    CameraPtr old = std::move(currentCamera_);
    currentCamera_.reset();
    if (old) {
        old->unload();
        old->setDelegate(nullptr);
    }
    previousCamera_.reset();
    updateCameraProperties();
}

void AppDelegate::sendCameraStatus(const QString &name, unsigned status) {
    QVariantMap record{{interapp::kCamerName, name}, {interapp::kCameraStatus, status}};
    interapp::mySendBrixNikonNotification(&record);
    Logger::setError(QStringLiteral("%1: %2").arg(status == interapp::kCameraStatusAvailable
                                                      ? QStringLiteral("OKVA_CanonCameraDidLoad")
                                                      : QStringLiteral("OKVA_CanonCameraDisappeared"),
                                                  describe(record)));
}

void AppDelegate::cameraDidLoad(const Notification &notification) {
    Logger::setError(QStringLiteral("OKVA_CanonCameraDidLoad!"));
    CameraPtr camera = OKVA_CanonCamera::fromVariant(notification.object);
    if (!camera)
        return;
    previousCamera_ = currentCamera_;
    currentCamera_ = camera;
    camera->setDelegate(this);
    updateCameraProperties();
    Logger::setError(QStringLiteral("set current camera to \"%1\"!!").arg(camera->description()));
    floatingAlertWithString(QStringLiteral("%1\nAvailable!").arg(camera->description()));
    sendCameraStatus(camera->description(), interapp::kCameraStatusAvailable);
}

void AppDelegate::cameraDisappeared(const Notification &notification) {
    CameraPtr camera = OKVA_CanonCamera::fromVariant(notification.object);
    Logger::setError(QStringLiteral("OKVA_CanonCameraDisappeared: %1").arg(notification.name));
    if (camera) {
        floatingAlertWithString(QStringLiteral("%1\nDISCONNECTED!").arg(camera->description()));
        sendCameraStatus(camera->description(), interapp::kCameraStatusNone);
    } else {
        floatingAlertWithString(QStringLiteral("NO Camera Found!!!\nPlease Check Your Connection!"));
        QVariantMap record{{interapp::kCamerName, QStringLiteral("(null)")},
                           {interapp::kCameraStatus, interapp::kCameraStatusNone}};
        interapp::mySendBrixNikonNotification(&record);
        Logger::setError(QStringLiteral("NO camera found at starutp...: %1").arg(describe(record)));
    }
    if (camera && currentCamera_ && camera->isEqual(currentCamera_))
        setCurrentCamera(nullptr);
}

void AppDelegate::updateCameraProperties() {
    Logger::setError(
        QStringLiteral("%1-%2 .... ").arg(objectDescription(), QLatin1String("updateCameraProperties")));
    for (eds::EdsPropertyID id : panelProperties()) {
        std::optional<QVariantMap> values;
        if (currentCamera_)
            values = currentCamera_->supportedValuesForPropertyID(id);
        updateControlWithTagWithValues(id, values);
    }
}

void AppDelegate::cameraPropertiesChanged(const Notification &notification) {
    Logger::setError(QStringLiteral("OKVA_CanonCameraPropertiesDidChange for camera %1")
                         .arg(cameraText(OKVA_CanonCamera::fromVariant(notification.object))));
    const quint32 tag = notification.userInfo.value(kOKVA_CanonCameraPropertyID).toUInt();
    const QVariantMap values = notification.userInfo.value(kOKVA_CanonCameraProperties).toMap();
    Logger::setError(QStringLiteral("%1-%2 => tag[%3] = %4")
                         .arg(objectDescription(), QLatin1String("cameraPropertiesChanged:"))
                         .arg(tag)
                         .arg(describe(values)));
    updateControlWithTagWithValues(tag, values);
}

void AppDelegate::cameraPropertyChanged(const Notification &notification) {
    const quint32 tag = notification.userInfo.value(kOKVA_CanonCameraPropertyID).toUInt();
    Logger::setError(QStringLiteral("%1-%2 => tag = %3")
                         .arg(objectDescription(), QLatin1String("cameraPropertyChanged:"))
                         .arg(tag));
    const QVariant text = notification.userInfo.value(kOKVA_CanonCameraProperty);
    const QVariant raw = notification.userInfo.value(kOKVA_CanonCameraPropertyValue);
    const QString camera = cameraText(OKVA_CanonCamera::fromVariant(notification.object));
    if (tag == eds::kEdsPropID_AEMode) {
        setEnabledForAEMode(raw);
        floatingAlertWithString(QStringLiteral("%1\nAuto Exposure set to %2").arg(camera, text.toString()));
    } else if (tag == eds::kEdsPropID_BatteryLevel) {
        floatingAlertWithString(QStringLiteral("%1\nBATTERY LEVEL now %2").arg(camera, text.toString()));
    }
    updateControlWithTagWithValue(tag, text);
}

void AppDelegate::setEnabledForAEMode(const QVariant &value) {
    bool isNumber = false;
    const quint32 mode = value.toUInt(&isNumber);
    const quint32 m = isNumber ? mode : 0;
    const bool tv = m == 1 || m == 3;
    const bool av = m == 2 || m == 3;
    if (controls_) {
        controls_->setEnabled(eds::kEdsPropID_Tv, tv);
        controls_->setEnabled(eds::kEdsPropID_Av, av);
    }
}

void AppDelegate::updateControlWithTagWithValue(quint32 tag, const QVariant &value) {
    const QString me = objectDescription();
    const QLatin1String op("updateControlWithTag:withValue:");
    Logger::setError(QStringLiteral("%1-%2 => tag = %3").arg(me, op).arg(tag));
    const PanelControl *control = controls_ ? controls_->viewWithTag(tag) : nullptr;
    Logger::setError(QStringLiteral("%1-%2 => viewWithTag(%3) returned = %4")
                         .arg(me, op)
                         .arg(tag)
                         .arg(control ? control->description() : QStringLiteral("(null)")));
    const QString valueText = describe(value);
    if (tag == 0 || !control) {
        Logger::setError(
            QStringLiteral("failed to update control for tag (%1) with value %2").arg(tag).arg(valueText));
        Logger::setError(QStringLiteral("%1-%2 => failed to update control for tag (%3) with value %4")
                             .arg(me, op)
                             .arg(tag)
                             .arg(valueText));
        return;
    }
    Logger::setError(QStringLiteral("trying to update control %1 %2 (%3) with value %4")
                         .arg(control->description(), eds::stringNameForPropertyID(tag))
                         .arg(tag)
                         .arg(valueText));
    QString text;
    const int type = value.metaType().id();
    if (type == QMetaType::QString)
        text = value.toString();
    else if (value.isValid() && type != QMetaType::QVariantMap && type != QMetaType::QVariantList &&
             value.canConvert<quint32>())
        text = eds::stringForPropertyID(tag, value.toUInt());
    else
        return;
    if (control->kind != ControlKind::PopUp)
        return;
    Logger::setError(QStringLiteral("updating popup %1 (%2) with value %3")
                         .arg(control->description())
                         .arg(tag)
                         .arg(text));
    controls_->selectPopUpTitle(tag, text);
    controls_->setToolTip(tag, text);
}

void AppDelegate::updateControlWithTagWithValues(quint32 tag, const std::optional<QVariantMap> &values) {
    const PanelControl *control = controls_ ? controls_->controlWithTag(tag) : nullptr;
    if (!control)
        return;
    if (control->kind == ControlKind::PopUp) {
        QStringList titles = values ? values->keys() : QStringList{};
        std::sort(titles.begin(), titles.end(),
                  [](const QString &a, const QString &b) { return numericCompare(a, b) < 0; });
        const QString remembered = control->selectedTitle;
        controls_->setPopUpTitles(tag, titles);
        if (!titles.isEmpty() && titles.contains(remembered))
            controls_->selectPopUpTitle(tag, remembered);
    } else if (control->kind == ControlKind::TextField) {
        controls_->setText(tag, QString()); // a dictionary is not text: the field is cleared
    }
}

void AppDelegate::floatingAlertWithString(const QString &) {
    Logger::setError(QStringLiteral("%1-%2... does nothing....")
                         .arg(objectDescription(), QLatin1String("floatingAlertWithString:")));
}

// --- sibling requests --------------------------------------------------------

void AppDelegate::handleDistributedNotification(const DistributedNotificationCenter::Message &message) {
    const QString me = objectDescription();
    const QString op = QStringLiteral("handleDistributedNotification:");
    for (int i = 0; i < 3; ++i)
        Logger::setError(QString::fromLatin1(kSeparator));
    Logger::setError(QStringLiteral("Inside %1 => %2...").arg(me, op));
    Logger::setError(
        QStringLiteral("Inside %1 => %2...object = [%3]").arg(me, op, message.object.left(1000)));
    Logger::setError(
        QStringLiteral("Inside %1 => %2...userInfo = [%3]").arg(me, op, describe(message.userInfo)));
    if (message.userInfo.isEmpty())
        return;
    if (!message.userInfo.contains(interapp::kSenderApp)) {
        Logger::setError(QStringLiteral("=======NO SENDER APP================"));
        return;
    }
    const QVariant actionValue = message.userInfo.value(interapp::kAction);
    if (!actionValue.isValid())
        return;
    if (actionValue.metaType().id() != QMetaType::QString) {
        Logger::setError(QStringLiteral("ignored a request whose action is not text (%1)")
                             .arg(QLatin1String(actionValue.typeName())));
        return;
    }
    const QString action = actionValue.toString();
    if (action.compare(QLatin1String(interapp::kActionGrabImage), Qt::CaseInsensitive) == 0) {
        Scheduling::performAsyncOnMainQueue([this, me, op] {
            if (currentCamera_) {
                currentCamera_->takePicture();
                currentCamera_->performNextQueuedCameraCommand();
            }
            Logger::setError(QStringLiteral("Inside %1 => %2...sent grab comand").arg(me, op));
        });
    } else if (action.compare(QLatin1String(interapp::kActionRequestCameraStatus), Qt::CaseInsensitive) ==
               0) {
        Scheduling::performAsyncOnMainQueue([this, object = message.object] {
            QVariantMap reply;
            if (currentCamera_) {
                // The requester's own object string, as the siblings expect it back.
                reply.insert(interapp::kCamerName, object);
                reply.insert(interapp::kCameraStatus, interapp::kCameraStatusAvailable);
            } else {
                reply.insert(interapp::kCameraStatus, interapp::kCameraStatusNone);
            }
            interapp::mySendBrixNikonNotification(&reply);
        });
    } else if (action.compare(QLatin1String(interapp::kActionGetListOfImages), Qt::CaseInsensitive) == 0) {
        Scheduling::performAsyncOnMainQueue([] {});
    }
}

} // namespace brix
