// Helpers of the logger tests.
#pragma once

#include "LogCapture.h"

#include <QByteArray>
#include <QFile>
#include <QRegularExpression>
#include <QString>


namespace brix::test {

inline QByteArray readFile(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

inline bool writeFile(const QString &path, const QByteArray &bytes) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// The regular expression of a log line's head: time, then "[Q <label>] ".
inline QString lineHeadPattern(const QString &label) {
    return QStringLiteral(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\[Q %1\] )")
        .arg(QRegularExpression::escape(label));
}

} // namespace brix::test
