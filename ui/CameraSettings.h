// CameraSettings: remembers six exposure and image settings per camera model
// in "prefCanonSettings", puts them back on the current camera (half a second
// after it connects, and on request), and exports and imports the collection
// as a property-list file. It holds no widgets: the window's buttons and sheets
// and the headless station's options call it, passing the user's choice in.
//
// Threads: main thread only (the delayed load runs on the main queue).
// Ownership: the panel, the preferences and the camera provider belong to the
// caller and outlive this object.
#pragma once

#include "CameraControls.h"
#include "OKVA_CanonCamera.h"
#include "Preferences.h"

#include <QObject>
#include <QString>
#include <QVariantMap>
#include <array>
#include <functional>

namespace brix {

class CameraSettings : public QObject {
    Q_OBJECT
public:
    static constexpr const char *kDefaultCameraName = "canoncamera";
    // ImageQuality, WhiteBalance, Av, Tv, ExposureCompensation, ISOSpeed.
    static constexpr std::array<quint32, 6> kRememberedProperties{256, 262, 1029, 1030, 1031, 1026};
    static constexpr double kLoadDelaySeconds = 0.5;
    static constexpr const char *kInvalidFileMessage = "! INVALID Canon Settings File !";
    static constexpr const char *kInvalidFileInformative =
        "Seems content of this file does NOT contain canon settings...\n\n%1";
    static constexpr const char *kOverwriteOrMergeMessage = "Overwrite or Merge ?";
    static constexpr const char *kOverwriteOrMergeInformative =
        "Overwrite may remove any existing prefs.\nMerge will combine existing prefs and the imported "
        "settings.\nIf duplicate camera model, imported settings has priority.";
    static constexpr const char *kExportTitle = "Export Canon Settings To File:";
    // The answers of the "Overwrite or Merge ?" question, its buttons in order.
    enum ImportResponse { Cancel = 1000, Merge = 1001, Overwrite = 1002 };

    CameraSettings(CameraControls &controls, Preferences &preferences, std::function<CameraPtr()> camera,
                   QObject *parent = nullptr);

    void ibSaveSettings();
    void ibLoadSettings();
    void loadSettingsOnConnection();
    void clearOldPreferenceKey();

    // "CanonSettings_<YYYYMMddhhmm>.plist" for the save sheet.
    static QString proposedExportFileName();
    // Writes the stored collection to `path` (".plist" or ".xml"); false, with
    // log lines, when nothing usable was written.
    bool exportSettingsToPath(const QString &path);

    // Reads and checks an import file. Refused (invalid file, or unreadable /
    // hostile) -> false and *description for the invalid-file alert; the
    // caller then asks Overwrite or Merge only when this returns true.
    bool readImportFile(const QString &path, QVariantMap *imported, QString *description);
    // Applies the answer to the question, then loads the settings again.
    void importSettings(const QVariantMap &imported, int response);

signals:
    // A remembered value was refused by the camera (one per property).
    void valueRefused(quint32 propertyID);

private:
    QString objectDescription() const;
    CameraControls &controls_;
    Preferences &preferences_;
    std::function<CameraPtr()> camera_;
};

} // namespace brix
