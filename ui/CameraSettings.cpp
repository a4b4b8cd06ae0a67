#include "CameraSettings.h"

#include "CameraSettingsFile.h"
#include "DateFormat.h"
#include "Dispatch.h"
#include "Logger.h"
#include "PropertyList.h"
#include "Scheduling.h"
#include "SystemSound.h"

#include <QDateTime>
#include <QPointer>

namespace brix {

namespace {
QString line(const QString &object, const char *action, const QString &rest = {}) {
    return QStringLiteral("%1-%2.....").arg(object, QLatin1String(action)) + rest;
}
} // namespace

CameraSettings::CameraSettings(CameraControls &controls, Preferences &preferences,
                               std::function<CameraPtr()> camera, QObject *parent)
    : QObject(parent), controls_(controls), preferences_(preferences), camera_(std::move(camera)) {}

QString CameraSettings::objectDescription() const {
    return QStringLiteral("<CameraSettings: 0x%1>").arg(quintptr(this), 0, 16);
}

void CameraSettings::ibSaveSettings() {
    const char *action = "ibSaveSettings:";
    Logger::setError(line(objectDescription(), action));
    QVariantMap table = preferences_.dictionaryForKey(QLatin1String(pref::kCanonSettings));
    QString cameraName = preferences_.stringForKey(QLatin1String(pref::kNameOfCameraFound));
    if (cameraName.isEmpty())
        cameraName = QLatin1String(kDefaultCameraName);
    QVariantMap camera;
    for (quint32 id : kRememberedProperties) {
        const PanelControl *control = controls_.viewWithTag(id);
        if (control && !control->selectedTitle.isEmpty())
            camera.insert(QString::number(id), control->selectedTitle);
    }
    table.insert(QLatin1String(CameraSettingsFile::kVersionKey), QLatin1String(CameraSettingsFile::kVersion));
    table.insert(QLatin1String(CameraSettingsFile::kDescriptionKey),
                 QLatin1String(CameraSettingsFile::kDescription));
    table.insert(cameraName, camera);
    Logger::setError(
        line(objectDescription(), action,
             QStringLiteral("mTable[%1] = %2").arg(table.size()).arg(PropertyList::describe(table))));
    preferences_.setObject(table, QLatin1String(pref::kCanonSettings));
}

void CameraSettings::ibLoadSettings() {
    const char *action = "ibLoadSettings:";
    Logger::setError(line(objectDescription(), action));
    const QVariant stored = preferences_.objectForKey(QLatin1String(pref::kCanonSettings));
    if (stored.typeId() != QMetaType::QVariantMap)
        return;
    QVariantMap table = stored.toMap();
    Logger::setError(
        line(objectDescription(), action,
             QStringLiteral("mTable[%1] = %2").arg(table.size()).arg(PropertyList::describe(table))));
    table.remove(QLatin1String(CameraSettingsFile::kVersionKey));
    table.remove(QLatin1String(CameraSettingsFile::kDescriptionKey));
    // No fall-back name here: with no camera name nothing is applied.
    const QVariantMap entry =
        table.value(preferences_.stringForKey(QLatin1String(pref::kNameOfCameraFound))).toMap();
    const CameraPtr camera = camera_ ? camera_() : CameraPtr();
    for (auto it = entry.begin(); it != entry.end(); ++it) {
        Logger::setError(
            line(objectDescription(), action,
                 QStringLiteral("key[%1] = value[%2] (%3)")
                     .arg(it.key(), it.value().toString(), QLatin1String(it.value().typeName()))));
        const quint32 propID = it.key().toUInt();
        Logger::setError(line(objectDescription(), action, QStringLiteral("propID = %1").arg(propID)));
        if (camera && camera->setStringValue(it.value().toString(), propID))
            continue;
        SystemSound::beep();
        Logger::setError(
            line(objectDescription(), action, QStringLiteral("refused, re-reading propID = %1").arg(propID)));
        emit valueRefused(propID);
        if (camera)
            camera->updateValueForPropertyID(propID);
    }
}

void CameraSettings::loadSettingsOnConnection() {
    QPointer<CameraSettings> self(this);
    Scheduling::afterDelay(kLoadDelaySeconds, dispatch::mainQueue(), [self] {
        if (self)
            self->ibLoadSettings();
    });
}

void CameraSettings::clearOldPreferenceKey() {
    const QVariant old = preferences_.objectForKey(QLatin1String(pref::kTempCanonSettings));
    if (!old.isValid())
        return;
    preferences_.setObject(old, QLatin1String(pref::kCanonSettings));
    preferences_.synchronize();
    if (preferences_.objectForKey(QLatin1String(pref::kCanonSettings)).isValid()) {
        preferences_.removeObjectForKey(QLatin1String(pref::kTempCanonSettings));
        preferences_.synchronize();
    }
}

QString CameraSettings::proposedExportFileName() {
    return QStringLiteral("CanonSettings_%1.plist")
        .arg(DateFormat::format(QDateTime::currentDateTime(), QStringLiteral("YYYYMMddhhmm")));
}

bool CameraSettings::exportSettingsToPath(const QString &path) {
    const char *action = "ibExportSettingsToFile:";
    Logger::setError(line(objectDescription(), action));
    const QVariant stored = preferences_.objectForKey(QLatin1String(pref::kCanonSettings));
    const QString extension = path.section(QLatin1Char('.'), -1).toLower();
    bool ok = false;
    QString why;
    if (extension == QLatin1String("plist") || extension == QLatin1String("xml")) {
        Logger::setError(
            line(objectDescription(), action,
                 QStringLiteral("Need to export settings as %1 to path = %2")
                     .arg(extension == QLatin1String("xml") ? QStringLiteral("XML") : QStringLiteral("Plist"),
                          path)));
        if (stored.typeId() != QMetaType::QVariantMap) {
            why = QStringLiteral("no settings stored");
        } else {
            ok = CameraSettingsFile::write(stored.toMap(), path, &why);
        }
        if (!ok) {
            if (why.startsWith(QLatin1String("Saving to xml output FAILED"))) {
                Logger::setError(why);
            } else {
                Logger::setError(line(objectDescription(), action,
                                      QStringLiteral("FAiled to write to file  = %1").arg(path)));
                Logger::setError(line(objectDescription(), action, QStringLiteral("Error = %1").arg(why)));
            }
        }
    }
    if (!ok)
        Logger::setError(
            line(objectDescription(), action, QStringLiteral("UNABLE to export to [%1] ").arg(path)));
    return ok;
}

bool CameraSettings::readImportFile(const QString &path, QVariantMap *imported, QString *description) {
    const char *action = "ibImportSettingsToFile:";
    Logger::setError(
        line(objectDescription(), action, QStringLiteral("Need to import tile to path = %1").arg(path)));
    QString why;
    *imported = CameraSettingsFile::readFromFile(path, &why);
    if (!why.isEmpty())
        Logger::setError(
            line(objectDescription(), action, QStringLiteral("cannot read %1: %2").arg(path, why)));
    *description = PropertyList::describe(*imported);
    Logger::setError(
        line(objectDescription(), action, QStringLiteral("imported file contains = %1").arg(*description)));
    return CameraSettingsFile::isAcceptable(*imported);
}

void CameraSettings::importSettings(const QVariantMap &imported, int response) {
    // A file that could not be read yields nothing to store; the collection
    // stays as it is rather than being emptied.
    if (imported.isEmpty() && response != Cancel) {
        Logger::setError(line(objectDescription(), "ibImportSettingsToFile:",
                              QStringLiteral("nothing imported, settings left unchanged")));
    } else if (response == Overwrite) {
        preferences_.setObject(imported, QLatin1String(pref::kCanonSettings));
    } else if (response == Merge) {
        QVariantMap merged = preferences_.dictionaryForKey(QLatin1String(pref::kCanonSettings));
        for (auto it = imported.begin(); it != imported.end(); ++it)
            merged.insert(it.key(), it.value());
        Logger::setError(QStringLiteral("mergedSettings = %1").arg(PropertyList::describe(merged)));
        preferences_.setObject(merged, QLatin1String(pref::kCanonSettings));
    }
    loadSettingsOnConnection();
}

} // namespace brix
