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

class WindowProbe : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.lumetra.brix.WindowProbe")
public:
    static constexpr const char *kBusName = "com.lumetra.BrixCanonCapture.WindowProbe";
    static constexpr const char *kPath = "/com/lumetra/brix/WindowProbe";

    static std::unique_ptr<WindowProbe> exportIfRequested(MainWindow &window, CameraPanelModel &panel,
                                                          ViewController &viewController);
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

private:
    WindowProbe(MainWindow &window, CameraPanelModel &panel, ViewController &viewController);
    MainWindow &window_;
    CameraPanelModel &panel_;
    ViewController &vc_;
};

} // namespace brix
