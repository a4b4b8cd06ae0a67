#include "WindowModeController.h"

#include "Logger.h"
#include "Preferences.h"
#include "Scheduling.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace brix {

namespace {

constexpr QLatin1String kDisclosureOp("ibDisclosureButton:");

QString describe(const QVariant &value) {
    const QJsonDocument doc = value.typeId() == QMetaType::QVariantMap
                                  ? QJsonDocument(QJsonObject::fromVariantMap(value.toMap()))
                                  : QJsonDocument(QJsonArray::fromVariantList(value.toList()));
    return QString::fromUtf8(doc.toJson(QJsonDocument::Compact));
}

double numberOr(const QVariantMap &entry, const char *key, double fallback) {
    const QVariant v = entry.value(QLatin1String(key));
    bool ok = false;
    const double d = v.toDouble(&ok);
    return v.isValid() && ok ? d : fallback;
}

int points(double value) {
    return std::max(1, int(std::lround(value)));
}

} // namespace

WindowModeController::WindowModeController(Preferences &preferences, QObject *parent)
    : QObject(parent), prefs_(preferences) {}

WindowModeController::~WindowModeController() = default;

QString WindowModeController::objectDescription() const {
    return QStringLiteral("<WindowModeController: 0x%1>").arg(quintptr(this), 0, 16);
}

// --- the list ----------------------------------------------------------------

void WindowModeController::setupFMiniSizeStuff() {
    miniSizes_ = prefs_.arrayForKey(QString::fromLatin1(pref::kMiniSizesInfoArray));
    QVariantList defaults;
    for (const QVariant &v : std::as_const(miniSizes_))
        if (v.toMap().value(QLatin1String(kDisplayName)).toString().contains(QLatin1String(kDefaultMarker)))
            defaults << v;
    Logger::setError(QString::fromLatin1(kLogDefaultEntries).arg(describe(defaults)));
    emit miniSizesChanged();
    setupMiniPanelSizeStuff();
}

void WindowModeController::setupMiniPanelSizeStuff() {
    const QString stored = prefs_.stringForKey(QString::fromLatin1(pref::kSelectedMiniPanelSizeValue));
    if (stored.isEmpty())
        return;
    for (int row = 0; row < miniSizes_.size(); ++row) {
        const QString value = miniSizes_.at(row).toMap().value(QLatin1String(kSomeValue)).toString();
        if (!value.isEmpty() && value.compare(stored, Qt::CaseInsensitive) == 0) {
            if (selectedRow_ != row) {
                selectedRow_ = row;
                emit selectedRowChanged();
            }
            return;
        }
    }
}

void WindowModeController::ibClickSelectMiniSize(int row) {
    if (row < 0 || row >= miniSizes_.size()) {
        Logger::setError(QStringLiteral("Inside %1 => %2...no mini size in row %3")
                             .arg(objectDescription(), QLatin1String("ibClickSelectMiniSize:"))
                             .arg(row));
        return;
    }
    if (selectedRow_ != row) {
        selectedRow_ = row;
        emit selectedRowChanged();
    }
    const QVariantMap info = miniSizes_.at(row).toMap();
    const QString value = info.value(QLatin1String(kSomeValue)).toString();
    if (value.isEmpty())
        return;
    prefs_.setObject(value, QString::fromLatin1(pref::kSelectedMiniPanelSizeValue));
    Logger::setError(QString::fromLatin1(kLogSelectedInfo).arg(describe(info)));
}

// --- the selected entry -------------------------------------------------------

QVariantMap WindowModeController::getMiniPanelInfo() const {
    const QString stored = prefs_.stringForKey(QString::fromLatin1(pref::kSelectedMiniPanelSizeValue));
    if (stored.isEmpty())
        return {};
    // Read afresh: another station's tool may have changed the list.
    for (const QVariant &v : prefs_.arrayForKey(QString::fromLatin1(pref::kMiniSizesInfoArray))) {
        const QVariantMap entry = v.toMap();
        if (entry.value(QLatin1String(kSomeValue)).toString().compare(stored, Qt::CaseInsensitive) == 0)
            return entry;
    }
    return {};
}

double WindowModeController::getMiniWidth() const {
    return numberOr(getMiniPanelInfo(), kWidth, kDefaultMiniWidth);
}

double WindowModeController::getMiniVerticalOffset() const {
    return numberOr(getMiniPanelInfo(), kHeightOffset, kDefaultHeightOffset);
}

bool WindowModeController::isIconModeEntry(const QVariantMap &entry) {
    if (entry.value(QLatin1String(kIconMode)).toBool())
        return true;
    return entry.value(QLatin1String(kSomeValue))
               .toString()
               .compare(QLatin1String(kIconSomeValue), Qt::CaseInsensitive) == 0;
}

bool WindowModeController::isMiniSize3Selected() const {
    const QVariantMap info = getMiniPanelInfo();
    return !info.isEmpty() && isIconModeEntry(info);
}

QSizeF WindowModeController::miniSize3IconSize() const {
    const QVariantMap info = getMiniPanelInfo();
    return {numberOr(info, kWidth, kDefaultIconSide), numberOr(info, kHeight, kDefaultIconSide)};
}

std::optional<QPointF> WindowModeController::savedMiniSize3Origin() const {
    const QString text = prefs_.stringForKey(QString::fromLatin1(pref::kMiniSize3Position)).trimmed();
    if (text.isEmpty())
        return std::nullopt;
    const auto point = pointFromString(text);
    if (!point)
        Logger::setError(QString::fromLatin1(kLogBadStoredPoint).arg(text));
    return point;
}

void WindowModeController::saveMiniSize3Position(const QPointF &origin) {
    prefs_.setObject(pointString(origin), QString::fromLatin1(pref::kMiniSize3Position));
}

bool WindowModeController::forcedBottomRight() const {
    if (prefs_.boolForKey(QString::fromLatin1(pref::kForceWindowBottomRight)))
        return true;
    QString position = prefs_.stringForKey(QString::fromLatin1(pref::kForceWindowPosition)).trimmed();
    position.remove(QRegularExpression(QStringLiteral("\\s")));
    return position.compare(QLatin1String(kBottomRight), Qt::CaseInsensitive) == 0;
}

// --- modes ----------------------------------------------------------------------

void WindowModeController::setDisclosureState(bool on) {
    if (disclosureState_ == on)
        return;
    disclosureState_ = on;
    emit disclosureStateChanged();
}

void WindowModeController::setMode(Mode mode) {
    if (mode_ == mode)
        return;
    mode_ = mode;
    emit modeChanged();
}

void WindowModeController::ibDisclosureButton(std::optional<bool> senderState, Qt::KeyboardModifiers held,
                                              const QRectF &senderFrame, const QRectF &senderBounds) {
    Logger::setError(QString::fromLatin1(kLogButtonFrame).arg(rectString(senderFrame)));
    Logger::setError(QString::fromLatin1(kLogButtonBounds).arg(rectString(senderBounds)));
    Logger::setError(
        QString::fromLatin1(kLogTabVisibleRect).arg(rectString(host_ ? host_->tabVisibleRect() : QRect())));
    fControlKeyPressed_ = bool(held & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier));
    const bool on = senderState.value_or(false);
    Logger::setError(
        QString::fromLatin1(kLogButtonState).arg(on ? QLatin1String("ON") : QLatin1String("OFF")));
    const QString me = objectDescription();
    if (on) {
        if (!fControlKeyPressed_) {
            Logger::setError(QString::fromLatin1(kLogNotAllowed).arg(me, kDisclosureOp));
            // The button shows the state the window is really in.
            disclosureState_ = true;
            setDisclosureState(false);
            Logger::setError(QString::fromLatin1(kLogKeepingSmall).arg(me, kDisclosureOp));
            if (host_ && !host_->isTitleShown()) {
                Logger::setError(QString::fromLatin1(kLogStillSmallShow).arg(me, kDisclosureOp));
                ibShowTitleBar();
            } else {
                Logger::setError(QString::fromLatin1(kLogStillSmallHide).arg(me, kDisclosureOp));
                ibHideTitleBar();
            }
            return;
        }
        expandToFullSize();
        return;
    }
    setDisclosureState(false);
    applyMiniSize();
    if (host_)
        host_->resignMain();
}

void WindowModeController::ibShowTitleBar() {
    if (host_)
        host_->setTitleShown(true);
}

void WindowModeController::ibHideTitleBar() {
    if (host_)
        host_->setTitleShown(false);
}

void WindowModeController::expandToFullSize() {
    setDisclosureState(true);
    ibShowTitleBar();
    emit initialTabRequested();
    applyFullSize();
}

void WindowModeController::rememberLimitsOnce() {
    // Qt keeps a window inside its limits even when the program sets the frame,
    // so the plain mini sizes narrow the limits too; whichever small mode comes
    // first captures the full-size ones, and only that once.
    if (!host_ || fHasSavedMinMaxSize_)
        return;
    fSavedMinSize_ = host_->minimumSize();
    fSavedMaxSize_ = host_->maximumSize();
    fHasSavedMinMaxSize_ = true;
}

void WindowModeController::applyFullSize() {
    if (!host_) {
        setMode(Mode::FullSize);
        return;
    }
    // Already full: the operator's own frame stays.
    if (mode_ == Mode::FullSize)
        return;
    unregisterMiniSize3MoveObserverIfNeeded();
    host_->showContent(Mode::FullSize);
    if (fHasSavedMinMaxSize_)
        host_->setSizeLimits(fSavedMinSize_, fSavedMaxSize_);
    if (fHasSavedWindowMovable_)
        host_->setMovableByBackground(fSavedWindowMovable_);
    host_->setWindowButtonsShown(true);
    host_->setResizable(true);
    const QRect frame = fullFrame_.isValid() ? fullFrame_ : host_->frame();
    setMode(Mode::FullSize);
    if (host_->canPlaceItself())
        host_->setFrame(frame);
    else
        host_->setFrame(QRect(host_->frame().topLeft(), frame.size()));
}

void WindowModeController::applyMiniSize() {
    if (!host_) {
        setMode(isMiniSize3Selected() ? Mode::Icon : Mode::MiniSize);
        return;
    }
    if (mode_ == Mode::FullSize)
        fullFrame_ = host_->frame();
    rememberLimitsOnce();
    const QRect current = host_->frame();
    QSize size;
    QPoint topLeft;
    if (isMiniSize3Selected()) {
        const QSizeF icon = miniSize3IconSize();
        size = QSize(points(icon.width()), points(icon.height()));
        host_->setResizable(false);
        host_->setSizeLimits(size, size);
        if (!fHasSavedWindowMovable_) {
            fSavedWindowMovable_ = host_->isMovableByBackground();
            fHasSavedWindowMovable_ = true;
        }
        // The icon view moves the window itself.
        host_->setMovableByBackground(false);
        host_->setWindowButtonsShown(false);
        host_->showContent(Mode::Icon);
        setMode(Mode::Icon);
        if (const auto origin = savedMiniSize3Origin()) {
            topLeft = topLeftForStoredOrigin(*origin, size);
        } else {
            const QRect area = host_->availableGeometry();
            topLeft = QPoint(area.x() + area.width() - size.width() - kIconFirstPlaceInset,
                             area.y() + kIconFirstPlaceInset);
        }
        registerMiniSize3MoveObserverIfNeeded();
    } else {
        unregisterMiniSize3MoveObserverIfNeeded();
        if (fHasSavedWindowMovable_)
            host_->setMovableByBackground(fSavedWindowMovable_);
        host_->setWindowButtonsShown(true);
        // The strip's size is fixed by its entry.
        host_->setResizable(false);
        size = QSize(points(getMiniWidth()), points(kMiniHeightBase - getMiniVerticalOffset()));
        host_->setSizeLimits(size, size);
        host_->showContent(Mode::MiniSize);
        setMode(Mode::MiniSize);
        // The window keeps its lower-left corner.
        topLeft = QPoint(current.x(), current.y() + current.height() - size.height());
    }
    if (forcedBottomRight()) {
        const QRect area = host_->availableGeometry();
        topLeft = QPoint(area.x() + area.width() - size.width(), area.y() + area.height() - size.height());
    }
    placeFrame(topLeft, size);
}

void WindowModeController::placeFrame(const QPoint &topLeft, const QSize &size) {
    if (host_->canPlaceItself()) {
        host_->setFrame(QRect(topLeft, size));
        return;
    }
    if (!compositorPlacementLogged_) {
        Logger::setError(QString::fromLatin1(kLogCompositorPlaces));
        compositorPlacementLogged_ = true;
    }
    host_->setFrame(QRect(host_->frame().topLeft(), size));
}

void WindowModeController::windowDidMove() {
    if (fMiniSize3MoveObserverRegistered_)
        windowDidMoveForMiniSize3();
}

void WindowModeController::windowDidMoveForMiniSize3() {
    // Where the compositor places windows, the client never learns a real
    // position: nothing worth keeping.
    if (host_ && mode_ == Mode::Icon && host_->canPlaceItself())
        saveMiniSize3Position(storedOriginForFrame(host_->frame()));
}

void WindowModeController::registerMiniSize3MoveObserverIfNeeded() {
    fMiniSize3MoveObserverRegistered_ = true;
}

void WindowModeController::unregisterMiniSize3MoveObserverIfNeeded() {
    fMiniSize3MoveObserverRegistered_ = false;
}

void WindowModeController::windowDidBecomeKey() {
    QPointer<WindowModeController> self(this);
    auto resign = [self] {
        if (self)
            self->myresignMainWindow();
    };
    Scheduling::afterDelayOnMainQueuePerformBlock(kResignMainDelaySeconds, resign);
}

void WindowModeController::myresignMainWindow() {
    if (host_ && mode_ != Mode::FullSize)
        host_->resignMain();
}

// --- coordinates and strings ---------------------------------------------------

QPointF WindowModeController::storedOriginForFrame(const QRect &frame) const {
    const QRect screen = host_ ? host_->screenGeometry() : QRect();
    return {double(frame.x()), double(screen.y() + screen.height() - (frame.y() + frame.height()))};
}

QPoint WindowModeController::topLeftForStoredOrigin(const QPointF &origin, const QSize &size) const {
    const QRect screen = host_ ? host_->screenGeometry() : QRect();
    return {int(std::lround(origin.x())),
            int(std::lround(screen.y() + screen.height() - origin.y() - size.height()))};
}

QString WindowModeController::pointString(const QPointF &point) {
    return QStringLiteral("{%1, %2}")
        .arg(QString::number(point.x(), 'g', 12), QString::number(point.y(), 'g', 12));
}

std::optional<QPointF> WindowModeController::pointFromString(const QString &text) {
    static const QRegularExpression form(
        QStringLiteral("^\\{\\s*([-+0-9.eE]+)\\s*,\\s*([-+0-9.eE]+)\\s*\\}$"));
    const QRegularExpressionMatch m = form.match(text.trimmed());
    if (!m.hasMatch())
        return std::nullopt;
    bool okX = false;
    bool okY = false;
    const double x = m.captured(1).toDouble(&okX);
    const double y = m.captured(2).toDouble(&okY);
    if (!okX || !okY || !std::isfinite(x) || !std::isfinite(y))
        return std::nullopt;
    return QPointF(x, y);
}

QString WindowModeController::rectString(const QRectF &rect) {
    return QStringLiteral("{%1, %2}")
        .arg(pointString(rect.topLeft()), pointString(QPointF(rect.width(), rect.height())));
}

} // namespace brix
