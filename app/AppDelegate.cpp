#include "AppDelegate.h"

#include "CameraPanelModel.h"
#include "Describe.h"
#include "InterAppNotifications.h"
#include "Logger.h"
#include "PropertyDisplay.h"
#include "Scheduling.h"
#include "SystemSound.h"


#include <algorithm>

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

} // namespace

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
    // Nothing in the station posts it; its handler never existed.
    localTokens_.push_back(
        center.addObserver(QStringLiteral("notifictionStartPhotoSession"), {}, [](const Notification &) {}));

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
        std::sort(titles.begin(), titles.end(), [](const QString &a, const QString &b) { return numericCompare(a, b) < 0; });
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
