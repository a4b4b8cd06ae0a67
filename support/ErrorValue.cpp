#include "ErrorValue.h"

#include <cstring>

namespace brix {

ErrorValue ErrorValue::posix(int errorNumber, const QString &description) {
    return ErrorValue{QString::fromLatin1(kPOSIXDomain), errorNumber, description};
}

QString ErrorValue::description() const {
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\"")
        .arg(domain, QString::number(code), localizedDescription);
}

QString errnoText(int errorNumber) {
    // strerror_r in its GNU form: returns a pointer that may or may not be `buffer`.
    char buffer[256];
    return QString::fromLocal8Bit(strerror_r(errorNumber, buffer, sizeof buffer));
}

} // namespace brix
