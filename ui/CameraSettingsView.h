// CameraSettingsView: the camera panel's row of settings buttons (save, load,
// export, import) with their file sheets and alerts. It only asks: every
// decision is the CameraSettings controller's, given the chosen file and the
// answer code of the alert.
//
// Threads: main thread.
// Ownership: a widget owned by its parent; the controller outlives it.
#pragma once

#include <QWidget>

namespace brix {

class CameraSettings;

class CameraSettingsView : public QWidget {
    Q_OBJECT
public:
    explicit CameraSettingsView(CameraSettings &settings, QWidget *parent = nullptr);

    void ibExportSettingsToFile();
    void ibImportSettingsToFile();

private:
    void askOverwriteOrMerge(const QVariantMap &imported);
    CameraSettings &settings_;
};

} // namespace brix
