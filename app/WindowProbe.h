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
    // Writes a PNG of the screen (of the window where there is no screen to grab).
    bool Screenshot(const QString &path) const;
    // What the operator does with the mouse: the close button, and a button of
    // the quit sheet by its identifier. False when there is no such sheet button.
    void Close();
    bool AnswerSheet(const QString &identifier);

private:
    WindowProbe(MainWindow &window, CameraPanelModel &panel, ViewController &viewController);
    MainWindow &window_;
    CameraPanelModel &panel_;
    ViewController &vc_;
};

} // namespace brix
