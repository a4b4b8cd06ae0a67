// CameraControls: the camera panel's property controls as the application
// delegate sees them. Each control is found by its tag, which is the SDK
// property ID it shows; a control is a pop-up (titles are display texts), a
// text field, or another control (the start button).
//
// Threads: main thread only.
// Ownership: the pointers viewWithTag/controlWithTag return belong to the
// implementation and stay valid until its next change of that control.
#pragma once

#include <QString>
#include <QStringList>

namespace brix {

enum class ControlKind { PopUp, TextField, Other };

struct PanelControl {
    quint32 tag = 0;
    ControlKind kind = ControlKind::Other;
    QString name;          // the property's name; also the widget's object name
    QStringList titles;    // pop-up items, in order
    QString selectedTitle; // empty: nothing selected
    QString text;          // text field contents
    QString toolTip;
    bool enabled = true;

    // For log lines: "<PopUp AEMode tag=1024 selected="Av">".
    QString description() const;
};

class CameraControls {
public:
    virtual ~CameraControls() = default;
    // The control with that tag in the panel, or nullptr; logs the search.
    virtual const PanelControl *viewWithTag(quint32 tag) const = 0;
    // The same without the log lines.
    virtual const PanelControl *controlWithTag(quint32 tag) const = 0;
    virtual void setPopUpTitles(quint32 tag, const QStringList &titles) = 0;
    // Adds the title when the pop-up has no item of that title; an empty title
    // selects nothing.
    virtual void selectPopUpTitle(quint32 tag, const QString &title) = 0;
    virtual void setToolTip(quint32 tag, const QString &text) = 0;
    virtual void setText(quint32 tag, const QString &text) = 0;
    virtual void setEnabled(quint32 tag, bool enabled) = 0;
};

} // namespace brix
