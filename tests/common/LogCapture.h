// Captures what the logger writes to the standard error stream while the
// object lives, so that tests can check the exact log lines.
#pragma once

#include "Logger.h"

#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QTemporaryFile>

#include <cstdio>
#include <unistd.h>

namespace brix::test {

// The regular expression of a log line's head: time, then "[Q <label>] ".
inline QString lineHeadPattern(const QString &label) {
    return QStringLiteral(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\[Q %1\] )").arg(label);
}

class LogCapture {
public:
    LogCapture() {
        Logger::flush();
        file_.open();
        std::fflush(stderr);
        saved_ = ::dup(2);
        ::dup2(file_.handle(), 2);
    }
    ~LogCapture() {
        Logger::flush();
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // Everything written so far, as it was written.
    QByteArray text() {
        Logger::flush();
        std::fflush(stderr);
        QFile in(file_.fileName());
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    }
    // Every message written so far, without the time and queue prefix. A
    // message that spans several lines comes back whole.
    QStringList messages() {
        static const QRegularExpression head('^' + lineHeadPattern(QStringLiteral("[^\\]]*")));
        QStringList out;
        for (const QString &line : QString::fromUtf8(text()).split('\n', Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch m = head.match(line);
            if (m.hasMatch())
                out << line.mid(m.capturedLength());
            else if (!out.isEmpty())
                out.last() += '\n' + line;
            else
                out << line;
        }
        return out;
    }
    // Messages that start with `prefix`.
    QStringList matching(const QString &prefix) {
        return messages().filter(QRegularExpression('^' + QRegularExpression::escape(prefix)));
    }

private:
    QTemporaryFile file_;
    int saved_ = -1;
};

} // namespace brix::test
