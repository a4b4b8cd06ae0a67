// CameraPanelView: the widgets of the camera panel. One row per control of the
// panel model: a pop-up for each setting, a read-only field for battery,
// firmware, owner, artist and copyright, and the start button (tag 1111). Each
// widget carries its tag as the dynamic property "tag" and mirrors the model;
// a choice in a pop-up goes back to the model.
//
// Threads: main thread.
// Ownership: a widget tree owned by its parent; the model outlives it.
#pragma once

#include <QWidget>

#include <map>

namespace brix {

class CameraPanelModel;

class CameraPanelView : public QWidget {
    Q_OBJECT
public:
    explicit CameraPanelView(CameraPanelModel &model, QWidget *parent = nullptr);

    QWidget *widgetForTag(quint32 tag) const;

signals:
    void startCameraRequested();

private:
    void refresh(quint32 tag);

    CameraPanelModel &model_;
    std::map<quint32, QWidget *> widgets_;
};

} // namespace brix
