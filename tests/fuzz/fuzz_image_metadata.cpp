// Feeds arbitrary bytes, as an image file, to every reader of image metadata
// and to the private tag's writer. Besides not crashing: a tag that was written
// must read back, and a refused rewrite must leave the file's bytes alone.
#include "FuzzTarget.h"
#include "ImageFile.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <cstdlib>
#include <unistd.h>

using namespace brix;

namespace {
QString scratchFile() {
    static const QString path = [] {
        const QString dir = QDir::tempPath() + QStringLiteral("/brix-fuzz-image-%1").arg(::getpid());
        QDir().mkpath(dir);
        return dir + QStringLiteral("/input.jpg");
    }();
    return path;
}

QByteArray contents(const QString &path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
} // namespace

void fuzzOne(const QByteArray &bytes) {
    const QString path = scratchFile();
    {
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
            std::abort();
        f.write(bytes);
    }
    const QUrl url = QUrl::fromLocalFile(path);
    (void)ImageFile::imageProperties(url);
    if (const auto metadata = ImageFile::imageMetadata(url))
        (void)metadata->properties();
    (void)ImageFile::brixXMP(url);

    const QVariantMap tag{{QStringLiteral("shot"), 7}, {QStringLiteral("event"), QStringLiteral("gala")}};
    if (ImageFile::setBrixXMP(url, tag)) {
        if (ImageFile::brixXMP(url) != tag)
            std::abort();
    } else if (contents(path) != bytes) {
        std::abort();
    }
}
