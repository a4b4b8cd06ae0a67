// A failure that can be shown to the user or written into the log: a domain,
// a code and a localised description.
//
// Threads: a plain value; copy it freely between threads.
#pragma once

#include <QMetaType>
#include <QString>

namespace brix {

struct ErrorValue {
    // Domain of errors that carry an errno value as their code.
    static constexpr const char *kPOSIXDomain = "NSPOSIXErrorDomain";

    QString domain;
    qint64 code = 0;
    QString localizedDescription;

    // An error in the POSIX domain whose code is `errorNumber`.
    static ErrorValue posix(int errorNumber, const QString &description);

    // The text a log line shows for the error:
    // Error Domain=<domain> Code=<code> "<localized description>"
    QString description() const;

    bool operator==(const ErrorValue &other) const = default;
};

// The system's text for an errno value ("No such file or directory").
QString errnoText(int errorNumber);

} // namespace brix

Q_DECLARE_METATYPE(brix::ErrorValue)
