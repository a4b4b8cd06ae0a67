// CameraPanelModel: the state of the camera panel (the first tab of the main
// window), one entry per control: titles, selection, enabled state, tool tip
// and text, per tag. The application delegate writes it from the camera's
// notifications; the window's widgets only mirror it and report the
// operator's choices back; a headless station runs it without any widget, so
// whatever reads the panel (settings memory, status) works the same there.
//
// Controls: one per property of the refresh list (pop-ups for the settings,
// text fields for battery, firmware, owner, artist and copyright) and the start
// control with tag 1111.
//
// Threads: main thread only; signals are emitted there.
// Ownership: owns its controls. The camera provider is called on the main thread.
#pragma once

#include "CameraControls.h"
#include "OKVA_CanonCamera.h"

#include <QObject>

#include <functional>
#include <vector>

namespace brix {

class CameraPanelModel : public QObject, public CameraControls {
    Q_OBJECT
public:
    static constexpr quint32 kStartControlTag = 1111;
    // Identifiers of the tab view's pages, in order; the panel is the first.
    static constexpr const char *kPanelTabIdentifier = "camerapanel";
    static constexpr const char *kPreferencesTabIdentifier = "preferences";
    static constexpr const char *kMorePrefsTabIdentifier = "moreprefs";

    // The properties the panel shows, in refresh order.
    static const std::vector<eds::EdsPropertyID> &panelProperties();
    static QStringList tabIdentifiers();

    explicit CameraPanelModel(QObject *parent = nullptr);

    // --- CameraControls ---
    const PanelControl *viewWithTag(quint32 tag) const override;
    const PanelControl *controlWithTag(quint32 tag) const override;
    void setPopUpTitles(quint32 tag, const QStringList &titles) override;
    void selectPopUpTitle(quint32 tag, const QString &title) override;
    void setToolTip(quint32 tag, const QString &text) override;
    void setText(quint32 tag, const QString &text) override;
    void setEnabled(quint32 tag, bool enabled) override;

    // Every control, in panel order (the property list, then the start control).
    const std::vector<PanelControl> &controls() const { return controls_; }
    QString selectedTitle(quint32 tag) const;

    // Where the operator's choices go: the current camera, or none.
    void setCameraProvider(std::function<CameraPtr()> provider) { cameraProvider_ = std::move(provider); }

    // The operator chose a title in a pop-up: sets it on the camera. A value the
    // camera refuses puts the camera's real value back into the pop-up.
    // Returns whether the camera took it.
    bool ibSetCameraProperty(quint32 tag, const QString &title);

signals:
    // A control's titles, selection, text, tool tip or enabled state changed.
    void controlChanged(quint32 tag);

private:
    PanelControl *find(quint32 tag);
    void showCameraValue(const CameraPtr &camera, quint32 tag);

    std::vector<PanelControl> controls_;
    std::function<CameraPtr()> cameraProvider_;
};

} // namespace brix
