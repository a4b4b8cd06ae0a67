#include "CameraSettingsView.h"

#include "CameraSettings.h"
#include "Logger.h"

#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QMessageBox>
#include <QPushButton>

namespace brix {

CameraSettingsView::CameraSettingsView(CameraSettings &settings, QWidget *parent)
    : QWidget(parent), settings_(settings) {
    setObjectName(QStringLiteral("camerasettingsbuttons"));
    setAccessibleName(QStringLiteral("Remembered camera settings"));
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    const auto add = [&](const char *name, const QString &title, auto action) {
        auto *button = new QPushButton(title, this);
        button->setObjectName(QLatin1String(name));
        button->setAccessibleName(title);
        connect(button, &QPushButton::clicked, this, action);
        row->addWidget(button);
    };
    add("savesettings", tr("Save Settings"), [this] { settings_.ibSaveSettings(); });
    add("loadsettings", tr("Load Settings"), [this] { settings_.ibLoadSettings(); });
    add("exportsettings", tr("Export…"), [this] { ibExportSettingsToFile(); });
    add("importsettings", tr("Import…"), [this] { ibImportSettingsToFile(); });
}

void CameraSettingsView::ibExportSettingsToFile() {
    auto *dialog = new QFileDialog(window(), QLatin1String(CameraSettings::kExportTitle),
                                   QDir::home().filePath(CameraSettings::proposedExportFileName()));
    dialog->setObjectName(QStringLiteral("exportsettingssheet"));
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setNameFilters(
        {QStringLiteral("Property list (*.plist)"), QStringLiteral("XML property list (*.xml)")});
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::fileSelected, this,
            [this](const QString &path) { settings_.exportSettingsToPath(path); });
    dialog->open();
}

void CameraSettingsView::ibImportSettingsToFile() {
    auto *dialog = new QFileDialog(window());
    dialog->setObjectName(QStringLiteral("importsettingssheet"));
    dialog->setFileMode(QFileDialog::ExistingFile);
    dialog->setNameFilter(QStringLiteral("Property list (*.plist)"));
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString &path) {
        QVariantMap imported;
        QString description;
        if (settings_.readImportFile(path, &imported, &description)) {
            askOverwriteOrMerge(imported);
            return;
        }
        auto *box =
            new QMessageBox(QMessageBox::Critical, QString(),
                            QLatin1String(CameraSettings::kInvalidFileMessage), QMessageBox::Ok, window());
        box->setObjectName(QStringLiteral("invalidsettingsalert"));
        box->setInformativeText(
            QString::fromLatin1(CameraSettings::kInvalidFileInformative).arg(description));
        box->setWindowModality(Qt::WindowModal);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
    });
    dialog->open();
}

void CameraSettingsView::askOverwriteOrMerge(const QVariantMap &imported) {
    auto *box = new QMessageBox(QMessageBox::Critical, QString(),
                                QLatin1String(CameraSettings::kOverwriteOrMergeMessage),
                                QMessageBox::NoButton, window());
    box->setObjectName(QStringLiteral("overwriteormergealert"));
    box->setInformativeText(QLatin1String(CameraSettings::kOverwriteOrMergeInformative));
    // Answers follow the order the buttons are added in.
    QList<QAbstractButton *> buttons;
    buttons << box->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole)
            << box->addButton(QStringLiteral("Merge"), QMessageBox::AcceptRole)
            << box->addButton(QStringLiteral("Overwrite"), QMessageBox::DestructiveRole);
    box->setWindowModality(Qt::WindowModal);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this, box, buttons, imported](int) {
        const int index = int(buttons.indexOf(box->clickedButton()));
        settings_.importSettings(imported,
                                 index < 0 ? CameraSettings::Cancel : CameraSettings::Cancel + index);
    });
    box->open();
}

} // namespace brix
