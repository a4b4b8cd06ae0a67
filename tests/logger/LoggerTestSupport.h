// Helpers of the logger tests.
#pragma once

#include "Logger.h"

#include <QByteArray>
#include <QFile>
#include <QRegularExpression>
#include <QString>

#include <fcntl.h>
#include <unistd.h>

namespace brix::test {

// Points descriptor 2 at a pipe for its lifetime and collects what the logger
// writes there; restores the previous descriptor 2 when it ends.
class StderrCapture {
public:
    StderrCapture() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0)
            return;
        (void)::fcntl(fds[0], F_SETPIPE_SZ, 1 << 20);
        (void)::fcntl(fds[0], F_SETFL, O_NONBLOCK);
        Logger::flush();
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
        ::close(fds[1]);
        read_ = fds[0];
    }
    ~StderrCapture() {
        Logger::flush();
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        ::close(read_);
    }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    // Everything written so far, after the logger's pending lines.
    QByteArray text() {
        Logger::flush();
        char buffer[65536];
        ssize_t n;
        while ((n = ::read(read_, buffer, sizeof buffer)) > 0)
            collected_.append(buffer, n);
        return collected_;
    }

private:
    int saved_ = -1;
    int read_ = -1;
    QByteArray collected_;
};

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
