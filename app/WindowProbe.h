// WindowProbe: a read-only view of the window for end-to-end tests, on the
// session bus as com.lumetra.BrixCanonCapture.WindowProbe, object
// /com/lumetra/brix/WindowProbe, interface com.lumetra.brix.WindowProbe. Only
// exported when the environment sets BRIX_WINDOW_PROBE=1; a normal run has no
// such object.
//
// Threads: main thread (D-Bus calls are delivered there).
// Ownership: refers to the window and controllers, which outlive it.
#pragma once

#include <QObject>
#include <QVariantMap>

#include <memory>

namespace brix {

class CameraPanelModel;
class MainWindow;
class ViewController;
class WindowModeController;

class WindowProbe : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.lumetra.brix.WindowProbe")
public:
    static constexpr const char *kBusName = "com.lumetra.BrixCanonCapture.WindowProbe";
    static constexpr const char *kPath = "/com/lumetra/brix/WindowProbe";

    static std::unique_ptr<WindowProbe> exportIfRequested(MainWindow &window, CameraPanelModel &panel,
                                                          ViewController &viewController,
                                                          WindowModeController &modes);
    ~WindowProbe() override;

public slots:
    QString Title() const;
    QString StatusLine() const;
    // Per property name: the text the widget shows; "<name>.enabled": whether it can be used.
    QVariantMap Panel() const;
    // "downloaded saved"
    QString Counters() const;
    // Writes a PNG of the window as the screen shows it (as it draws itself
    // where there is no screen to grab).
    bool Screenshot(const QString &path) const;
    // The text of the label with that object name.
    QString Text(const QString &objectName) const;
    // What the operator does with the mouse: the window's close button, and a
    // click on the visible button with that object name (false when none is shown).
    void Close();
    bool ClickButton(const QString &objectName);

    // Window modes. "full", "mini" or "icon".
    QString Mode() const;
    // The window's frame on the screen: "x y width height".
    QString Geometry() const;
    // "minwidth minheight maxwidth maxheight".
    QString Limits() const;
    // The operator picks that row of the mini size list.
    bool Choose(int row);
    // Into the chosen small size, as at start-up.
    void Collapse();
    // The disclosure button clicked with Control held.
    void ExpandToFullSize();
    // A left-button drag over the icon by (dx, dy) screen points, in steps,
    // with Control held or not. False when the icon is not shown.
    bool DragIcon(int dx, int dy, bool control);
    bool DoubleClickIcon();

private:
    WindowProbe(MainWindow &window, CameraPanelModel &panel, ViewController &viewController,
                WindowModeController &modes);
    MainWindow &window_;
    CameraPanelModel &panel_;
    ViewController &vc_;
    WindowModeController &modes_;
};

} // namespace brix
