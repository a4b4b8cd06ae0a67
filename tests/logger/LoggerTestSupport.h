// Helpers of the logger tests.
#pragma once

#include "LogCapture.h"
#include "TestSupport.h"

#include <QRegularExpression>
#include <QString>

namespace brix::test {

// The regular expression of a log line's head: time, then "[Q <label>] ".
inline QString lineHeadPattern(const QString &label) {
    return QStringLiteral(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\[Q %1\] )")
        .arg(QRegularExpression::escape(label));
}

} // namespace brix::test
