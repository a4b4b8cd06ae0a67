#include "DateFormat.h"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <map>
#include <memory>

namespace brix {

QString DateFormat::format(const QDateTime &when, const QString &pattern, const QString &timeZoneId) {
    // Building a formatter costs far more than using one, and log lines are
    // formatted on every caller's thread: keep one per thread, pattern and zone.
    thread_local std::map<QString, std::unique_ptr<icu::SimpleDateFormat>> cache;
    const QString cacheKey = pattern + QChar(0) + timeZoneId;
    auto &formatter = cache[cacheKey];
    UErrorCode status = U_ZERO_ERROR;
    if (!formatter) {
        icu::UnicodeString icuPattern(reinterpret_cast<const UChar *>(pattern.utf16()), int32_t(pattern.size()));
        auto made = std::make_unique<icu::SimpleDateFormat>(icuPattern, icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status))
            return QString();
        if (!timeZoneId.isEmpty()) {
            icu::UnicodeString id(reinterpret_cast<const UChar *>(timeZoneId.utf16()), int32_t(timeZoneId.size()));
            made->adoptTimeZone(icu::TimeZone::createTimeZone(id));
        }
        formatter = std::move(made);
    }
    icu::UnicodeString out;
    formatter->format(static_cast<UDate>(when.toMSecsSinceEpoch()), out, status);
    if (U_FAILURE(status))
        return QString();
    return QString(reinterpret_cast<const QChar *>(out.getBuffer()), out.length());
}

} // namespace brix
