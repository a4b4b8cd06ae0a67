#include "WindowProbe.h"

#include "CameraPanelModel.h"
#include "CameraPanelView.h"
#include "Logger.h"
#include "MainWindow.h"
#include "ViewController.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusError>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QScreen>

namespace brix {

WindowProbe::WindowProbe(MainWindow &window, CameraPanelModel &panel, ViewController &viewController)
    : window_(window), panel_(panel), vc_(viewController) {}

WindowProbe::~WindowProbe() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterObject(QString::fromLatin1(kPath));
    bus.unregisterService(QString::fromLatin1(kBusName));
}

std::unique_ptr<WindowProbe> WindowProbe::exportIfRequested(MainWindow &window, CameraPanelModel &panel,
                                                            ViewController &viewController) {
    if (qEnvironmentVariable("BRIX_WINDOW_PROBE") != QLatin1String("1"))
        return nullptr;
    std::unique_ptr<WindowProbe> probe(new WindowProbe(window, panel, viewController));
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
