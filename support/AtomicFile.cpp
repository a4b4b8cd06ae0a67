#include "AtomicFile.h"

#include <QFileInfo>

#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brix {

namespace {

std::atomic<AtomicFile::FailurePoint> gFailurePoint{AtomicFile::FailurePoint::None};

QString posixError(const char *operation, const QString &path, int code) {
    return QStringLiteral("%1(%2): %3").arg(QLatin1String(operation), path, QString::fromLocal8Bit(std::strerror(code)));
}

bool writeAll(int fd, const char *p, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += w;
        n -= size_t(w);
    }
    return true;
}

} // namespace

void AtomicFile::setFailurePointForTesting(FailurePoint point) { gFailurePoint.store(point); }

bool AtomicFile::write(const QString &path, const QByteArray &data, QString *error) {
    const QFileInfo info(path);
    const QByteArray folder = QFile::encodeName(info.absolutePath());
    QByteArray tmpl = QFile::encodeName(info.absolutePath() + QStringLiteral("/.") + info.fileName() +
                                        QStringLiteral(".XXXXXX"));
    const QByteArray target = QFile::encodeName(info.absoluteFilePath());
    const FailurePoint failAt = gFailurePoint.load();
    auto fail = [&](const char *operation, const QByteArray &which, int code) {
        if (error)
            *error = posixError(operation, QFile::decodeName(which), code);
        return false;
    };

    const int fd = ::mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0)
        return fail("mkstemp", tmpl, errno);
    auto abandon = [&](const char *operation, int code) {
        ::close(fd);
        ::unlink(tmpl.constData());
        return fail(operation, tmpl, code);
    };

    if (failAt == FailurePoint::AfterPartialWrite) {
        writeAll(fd, data.constData(), size_t(data.size() / 2));
        return abandon("write", EIO);
    }
    if (!writeAll(fd, data.constData(), size_t(data.size())))
        return abandon("write", errno);
    if (::fsync(fd) != 0)
        return abandon("fsync", errno);
    if (::close(fd) != 0) {
        const int code = errno;
        ::unlink(tmpl.constData());
        return fail("close", tmpl, code);
    }
    if (failAt == FailurePoint::BeforeRename) {
        ::unlink(tmpl.constData());
        return fail("rename", target, EIO);
    }
    if (::rename(tmpl.constData(), target.constData()) != 0) {
        const int code = errno;
        ::unlink(tmpl.constData());
        return fail("rename", target, code);
    }
    // The new name is durable only once the folder's entry is on the disk.
    const int dirFd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

} // namespace brix
