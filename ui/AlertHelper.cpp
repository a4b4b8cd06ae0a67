#include "AlertHelper.h"

#include <QMessageBox>
#include <QPushButton>

namespace brix {

namespace {

// Buttons in the stated order; the continue button is the first and default,
// and answers kFirstButtonReturn.
QMessageBox *makeAlert(QWidget *parent, const QString &title, const QString &message,
                       const QString &continueTitle, const QString &cancelTitle) {
    auto *box = new QMessageBox(parent);
    box->setObjectName(QStringLiteral("confirmationalert"));
    box->setAccessibleName(title);
    box->setIcon(QMessageBox::Warning);
    box->setText(title);
    box->setInformativeText(message);
    QPushButton *go = box->addButton(continueTitle, QMessageBox::AcceptRole);
    go->setObjectName(QStringLiteral("continue"));
    go->setAccessibleName(continueTitle);
    QPushButton *cancel = box->addButton(cancelTitle, QMessageBox::RejectRole);
    cancel->setObjectName(QStringLiteral("cancel"));
    cancel->setAccessibleName(cancelTitle);
    box->setDefaultButton(go);
    box->setEscapeButton(cancel);
    return box;
}

int responseOf(QMessageBox *box) {
    const auto buttons = box->buttons();
    const int index = int(buttons.indexOf(box->clickedButton()));
    return index < 0 ? 0 : AlertHelper::kFirstButtonReturn + index;
}

} // namespace

bool AlertHelper::presentBlockingConfirmation(const QString &title, const QString &message,
                                              const QString &continueButtonTitle,
                                              const QString &cancelButtonTitle) {
    QMessageBox *box = makeAlert(nullptr, title, message, continueButtonTitle, cancelButtonTitle);
    box->exec();
    const int response = responseOf(box);
    delete box;
    return response == kFirstButtonReturn;
}

void AlertHelper::presentConfirmationOnWindow(QWidget *window, const QString &title, const QString &message,
                                              const QString &continueButtonTitle,
                                              const QString &cancelButtonTitle,
                                              std::function<void(bool)> completion) {
    QMessageBox *box = makeAlert(window, title, message, continueButtonTitle, cancelButtonTitle);
    box->setWindowModality(Qt::WindowModal);
    QObject::connect(box, &QMessageBox::finished, box, [box, completion = std::move(completion)](int) {
        const bool goOn = responseOf(box) == kFirstButtonReturn;
        box->deleteLater();
        if (completion)
            completion(goOn);
    });
    box->open();
}

} // namespace brix
