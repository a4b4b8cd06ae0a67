#include "ShouldQuitViewController.h"

#include "Logger.h"

#include <QAbstractButton>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace brix {

ShouldQuitViewController::ShouldQuitViewController(QWidget *parent) : QDialog(parent) {
    setObjectName(QString::fromLatin1(kIdentifier));
    setAccessibleName(QStringLiteral("Quit confirmation"));
    setWindowTitle(QStringLiteral("Quit?"));
    auto *layout = new QVBoxLayout(this);
    auto *text = new QLabel(
        QStringLiteral("Quit the capture station?\nShots are no longer saved while it is not running."),
        this);
    text->setObjectName(QStringLiteral("shouldquitmessage"));
    text->setAccessibleName(QStringLiteral("Quit question"));
    layout->addWidget(text);
    auto *row = new QHBoxLayout;
    auto add = [&](const char *identifier, const QString &title) {
        auto *b = new QPushButton(title, this);
        b->setObjectName(QString::fromLatin1(identifier));
        b->setAccessibleName(title);
        b->setAutoDefault(false);
        connect(b, &QPushButton::clicked, this, [this, b] { ibCloseConfirmWindow(b); });
        row->addWidget(b);
        return b;
    };
    add(kConfirmQuit, QStringLiteral("Quit"));
    add(kConfirmQuitRelaunch, QStringLiteral("Quit and Relaunch"));
    add(kStay, QStringLiteral("Stay"))->setDefault(true);
    layout->addLayout(row);
}

int ShouldQuitViewController::returnCodeForSender(const QObject *sender) {
    const auto *button = qobject_cast<const QAbstractButton *>(sender);
    if (!button)
        return kReturnStay;
    const QString id = button->objectName();
    if (id.compare(QLatin1String(kConfirmQuit), Qt::CaseInsensitive) == 0)
        return kReturnQuit;
    if (id.compare(QLatin1String(kConfirmQuitRelaunch), Qt::CaseInsensitive) == 0)
        return kReturnQuitRelaunch;
    return kReturnStay;
}

void ShouldQuitViewController::ibCloseConfirmWindow(QObject *sender) {
    Logger::setError(QStringLiteral("Inside <ShouldQuitViewController: 0x%1> => %2...")
                         .arg(quintptr(this), 0, 16)
                         .arg(QLatin1String("ibCloseConfirmWindow:")));
    // done() ends the sheet (window-modal) or the modal session alike, and hides it.
    done(returnCodeForSender(sender));
}

} // namespace brix
