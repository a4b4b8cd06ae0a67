// AlertHelper: confirmation questions with a continue and a cancel button, the
// continue button first and default.
//
// Threads: main thread, with a QApplication. The blocking form runs a nested
// event loop until the operator answers.
#pragma once

#include <QString>

#include <functional>

class QWidget;

namespace brix {

class AlertHelper {
public:
    // The first button's answer, as the alert reports it.
    static constexpr int kFirstButtonReturn = 1000;

    // Asks and waits; true exactly when the continue button was chosen.
    static bool presentBlockingConfirmation(const QString &title, const QString &message,
                                            const QString &continueButtonTitle,
                                            const QString &cancelButtonTitle);
    // The same question as a sheet on `window`; returns at once, and the
    // completion gets true when the continue button was chosen.
    static void presentConfirmationOnWindow(QWidget *window, const QString &title, const QString &message,
                                            const QString &continueButtonTitle,
                                            const QString &cancelButtonTitle,
                                            std::function<void(bool)> completion);
};

} // namespace brix
