// Bringing an error to the user: as a modal alert, or as a desktop
// notification when the user prefers those.
//
// The support library has no widgets, so the "modal alert" is a presenter
// function that the application installs (the window shows a message box);
// until one is installed, and in headless runs, the presenter writes the error
// into the log.
//
// Threads: every operation may be called from any thread and returns at once.
// Presenters always run on the main queue. Notifications are sent from the
// serial queue "com.okvasoft.usernotifications", one at a time, so that a
// second error with the same identifier replaces the first one on screen.
#pragma once

#include "ErrorValue.h"

#include <QStringList>

#include <functional>
#include <optional>

namespace brix {

class ErrorAlerts {
public:
    // Shown for an empty argument to displayErrorAlert.
    static constexpr const char *kUnknownErrorDomain = "Internal Error";
    static constexpr const char *kUnknownErrorText = "An unknown error has occured!";

    using Presenter = std::function<void(const ErrorValue &error)>;

    // Presents the error on the main queue. Without an error, logs the caller's
    // stack and presents "An unknown error has occured!".
    static void displayErrorAlert(const std::optional<ErrorValue> &error);

    // A desktop notification (org.freedesktop.Notifications) when the
    // preference "prefPreferNotificationsOverModalAlerts" asks for one, one per identifier, replaced rather
    // than piled up; the modal alert whenever no notification can be shown.
    static void alertUserOfError(const ErrorValue &error, const QString &identifier);

    // Installs the modal presentation (nullptr restores the logging one).
    static void setPresenter(Presenter presenter);
    // The presenter used when none is installed: one log line.
    static void logPresenter(const ErrorValue &error);

    // The call stack of the caller, one symbol per entry, innermost first.
    static QStringList callStackSymbols();
};

} // namespace brix
