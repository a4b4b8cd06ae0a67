// ShouldQuitViewController: the quit confirmation shown as a sheet on the main
// window: quit, quit and relaunch, or stay. Its buttons are told apart by their
// identifiers (object names), compared without regard to case.
//
// Threads: main thread.
// Ownership: a plain dialog; whoever opens it owns it (parented to the window).
#pragma once

#include <QDialog>

namespace brix {

class ShouldQuitViewController : public QDialog {
    Q_OBJECT
public:
    static constexpr const char *kIdentifier = "shouldquitwindow";
    static constexpr const char *kConfirmQuit = "confirmquit";
    static constexpr const char *kConfirmQuitRelaunch = "confirmquitrelaunch";
    static constexpr const char *kStay = "stay";
    static constexpr int kReturnQuit = -1111;
    static constexpr int kReturnStay = -2222;
    static constexpr int kReturnQuitRelaunch = -3333;

    explicit ShouldQuitViewController(QWidget *parent = nullptr);

    // The return code for the control that was used.
    static int returnCodeForSender(const QObject *sender);
    // The action of all three buttons.
    void ibCloseConfirmWindow(QObject *sender);
};

} // namespace brix
