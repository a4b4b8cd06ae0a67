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

class LogCapture {
public:
    LogCapture() {
        Logger::flush();
        file_.open();
        std::fflush(stderr);
        saved_ = ::dup(2);
        ::dup2(file_.handle(), 2);
    }
    ~LogCapture() { restore(); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // Every line written so far, without the time and queue prefix.
    QStringList messages() {
        Logger::flush();
        std::fflush(stderr);
        QFile in(file_.fileName());
        in.open(QIODevice::ReadOnly);
        QStringList out;
        for (const QString &line : QString::fromUtf8(in.readAll()).split('\n', Qt::SkipEmptyParts)) {
            const qsizetype end = line.indexOf(QLatin1String("] "));
            out << (line.startsWith(QLatin1String("20")) && end > 0 ? line.mid(end + 2) : line);
        }
        return out;
    }
    // Lines that start with `prefix`.
    QStringList matching(const QString &prefix) { return messages().filter(QRegularExpression('^' + QRegularExpression::escape(prefix))); }

private:
    void restore() {
        if (saved_ < 0)
            return;
        Logger::flush();
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
        saved_ = -1;
    }
    QTemporaryFile file_;
    int saved_ = -1;
};

} // namespace brix::test
