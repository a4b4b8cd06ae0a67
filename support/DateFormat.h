// Date formatting with Unicode (ICU) patterns, so that "YYYY" is the week-based
// year and "SSS" milliseconds, exactly as the patterns say.
//
// Threads: any; each call uses its own formatter (ICU formatters are not shared).
#pragma once

#include <QDateTime>
#include <QString>

namespace brix {

class DateFormat {
public:
    // Formats in the local time zone (or the given IANA zone id) with the POSIX locale.
    static QString format(const QDateTime &when, const QString &pattern, const QString &timeZoneId = {});
};

} // namespace brix
