#include "WindowProbe.h"

#include "CameraPanelModel.h"
#include "CameraPanelView.h"
#include "Logger.h"
#include "MainWindow.h"
#include "MiniSize3IconView.h"
#include "ViewController.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusError>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPixmap>
#include <QScreen>

namespace brix {

WindowProbe::WindowProbe(MainWindow &window, CameraPanelModel &panel, ViewController &viewController,
                         WindowModeController &modes)
    : window_(window), panel_(panel), vc_(viewController), modes_(modes) {}

WindowProbe::~WindowProbe() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterObject(QString::fromLatin1(kPath));
    bus.unregisterService(QString::fromLatin1(kBusName));
}

std::unique_ptr<WindowProbe> WindowProbe::exportIfRequested(MainWindow &window, CameraPanelModel &panel,
                                                            ViewController &viewController,
                                                            WindowModeController &modes) {
    if (qEnvironmentVariable("BRIX_WINDOW_PROBE") != QLatin1String("1"))
        return nullptr;
    std::unique_ptr<WindowProbe> probe(new WindowProbe(window, panel, viewController, modes));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QString::fromLatin1(kPath), probe.get(), QDBusConnection::ExportAllSlots) ||
        !bus.registerService(QString::fromLatin1(kBusName))) {
        Logger::setError(QStringLiteral("window probe not exported: %1").arg(bus.lastError().message()));
        return nullptr;
    }
    Logger::setError(QStringLiteral("window probe on the session bus as %1").arg(QLatin1String(kBusName)));
    return probe;
}

QString WindowProbe::Title() const {
    return window_.windowTitle();
}

QString WindowProbe::StatusLine() const {
    const auto *status = window_.findChild<QLabel *>(QStringLiteral("camerastatus"));
    return status ? status->text() : QString();
}

QVariantMap WindowProbe::Panel() const {
    QVariantMap out;
    for (const PanelControl &c : panel_.controls()) {
        QWidget *w = window_.panelView()->widgetForTag(c.tag);
        if (!w)
            continue;
        if (auto *box = qobject_cast<QComboBox *>(w))
            out.insert(c.name, box->currentText());
        else if (auto *field = qobject_cast<QLineEdit *>(w))
            out.insert(c.name, field->text());
        out.insert(c.name + QStringLiteral(".enabled"), w->isEnabled());
    }
    return out;
}

QString WindowProbe::Counters() const {
    return QStringLiteral("%1 %2").arg(vc_.fDownloadCount()).arg(vc_.fSavedCount());
}

bool WindowProbe::Screenshot(const QString &path) const {
    QPixmap shot;
    if (QScreen *screen = window_.screen();
        screen && QGuiApplication::platformName() == QLatin1String("xcb")) {
        // The window with its frame, as it appears on the screen.
        const QRect frame = window_.frameGeometry();
        shot = screen->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
    }
    if (shot.isNull())
        shot = window_.grab();
    return shot.save(path, "PNG");
}

} // namespace brix

namespace brix {

void WindowProbe::Close() {
    window_.close();
}

bool WindowProbe::ClickButton(const QString &objectName) {
    for (QAbstractButton *button : window_.findChildren<QAbstractButton *>(objectName)) {
        if (button->isVisible() && button->isEnabled()) {
            button->click();
            return true;
        }
    }
    return false;
}

QString WindowProbe::Text(const QString &objectName) const {
    const auto *label = window_.findChild<QLabel *>(objectName);
    return label ? label->text() : QString();
}

} // namespace brix

namespace brix {

QString WindowProbe::Mode() const {
    switch (modes_.mode()) {
    case WindowModeController::Mode::FullSize:
        return QStringLiteral("full");
    case WindowModeController::Mode::MiniSize:
        return QStringLiteral("mini");
    case WindowModeController::Mode::Icon:
        return QStringLiteral("icon");
    }
    return {};
}

QString WindowProbe::Geometry() const {
    const QRect r = window_.frameGeometry();
    return QStringLiteral("%1 %2 %3 %4").arg(r.x()).arg(r.y()).arg(r.width()).arg(r.height());
}

QString WindowProbe::Limits() const {
    const QSize min = window_.minimumSize();
    const QSize max = window_.maximumSize();
    return QStringLiteral("%1 %2 %3 %4")
        .arg(min.width())
        .arg(min.height())
        .arg(max.width())
        .arg(max.height());
}

bool WindowProbe::Choose(int row) {
    if (row < 0 || row >= modes_.miniSizes().size())
        return false;
    modes_.ibClickSelectMiniSize(row);
    return true;
}

void WindowProbe::Collapse() {
    modes_.ibDisclosureButton(std::nullopt, Qt::NoModifier);
}

void WindowProbe::ExpandToFullSize() {
    modes_.ibDisclosureButton(true, Qt::ControlModifier);
}

namespace {

// Sends a mouse event to `view` at `local` as the window system would.
void sendMouse(QWidget *view, QEvent::Type type, const QPointF &local, Qt::MouseButtons buttons,
               Qt::KeyboardModifiers modifiers) {
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, local, view->mapTo(view->window(), local), view->mapToGlobal(local), button,
                      buttons, modifiers);
    QCoreApplication::sendEvent(view, &event);
}

} // namespace

bool WindowProbe::DragIcon(int dx, int dy, bool control) {
    MiniSize3IconView *view = window_.iconView();
    if (!view || !view->isVisible())
        return false;
    const Qt::KeyboardModifiers mods = control ? Qt::ControlModifier : Qt::NoModifier;
    const QPointF start(view->width() / 2.0, view->height() / 3.0);
    sendMouse(view, QEvent::MouseButtonPress, start, Qt::LeftButton, mods);
    // The view follows the pointer on the screen; as the window moves, the
    // same screen point lies elsewhere in the view.
    const QPoint screenStart = view->mapToGlobal(start.toPoint());
    constexpr int kSteps = 4;
    for (int i = 1; i <= kSteps; ++i) {
        const QPoint screen = screenStart + QPoint(dx * i / kSteps, dy * i / kSteps);
        sendMouse(view, QEvent::MouseMove, view->mapFromGlobal(QPointF(screen)), Qt::LeftButton, mods);
    }
    const QPoint end = screenStart + QPoint(dx, dy);
    sendMouse(view, QEvent::MouseButtonRelease, view->mapFromGlobal(QPointF(end)), Qt::NoButton, mods);
    return true;
}

bool WindowProbe::DoubleClickIcon() {
    MiniSize3IconView *view = window_.iconView();
    if (!view || !view->isVisible())
        return false;
    const QPointF at(view->width() / 2.0, view->height() / 3.0);
    sendMouse(view, QEvent::MouseButtonPress, at, Qt::LeftButton, Qt::NoModifier);
    sendMouse(view, QEvent::MouseButtonRelease, at, Qt::NoButton, Qt::NoModifier);
    sendMouse(view, QEvent::MouseButtonDblClick, at, Qt::LeftButton, Qt::NoModifier);
    sendMouse(view, QEvent::MouseButtonRelease, at, Qt::NoButton, Qt::NoModifier);
    return true;
}

} // namespace brix
