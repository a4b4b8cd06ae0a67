#include "Paths.h"

#include "BundleInfo.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace brix {

namespace {
QString envFolder(const char *name, const QString &fallback) {
    QString value = qEnvironmentVariable(name);
    // XDG says relative values are invalid and must be ignored.
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return fallback;
}
} // namespace

QString Paths::home() {
    QString h = qEnvironmentVariable("HOME");
    return h.isEmpty() ? QDir::homePath() : QDir::cleanPath(h);
}

QString Paths::standardizePath(const QString &path) {
    QString p = path;
    if (p == QLatin1String("~") || p.startsWith(QLatin1String("~/")))
        p = home() + p.mid(1);
    return QDir::cleanPath(p);
}

QString Paths::libraryFolder() { return envFolder("XDG_STATE_HOME", home() + "/.local/state"); }
QString Paths::configFolder() { return envFolder("XDG_CONFIG_HOME", home() + "/.config"); }
QString Paths::runtimeFolder() { return envFolder("XDG_RUNTIME_DIR", QDir::tempPath()); }

QString Paths::executableFolder() { return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath().section('/', 0, -2); }

QString Paths::executableName() { return QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).fileName(); }

QString Paths::resourcesFolder() {
    QString override = qEnvironmentVariable("BRIX_RESOURCES_DIR");
    if (!override.isEmpty())
        return override;
    // Installed layout: <prefix>/bin/BrixCanonCapture next to <prefix>/share/BrixCanonCapture.
    QString installed = QDir::cleanPath(executableFolder() + "/../" + bundle::kDataSubdir);
    if (QFileInfo(installed).isDir())
        return installed;
    // A build tree: the sources' resources folder.
    return QString::fromUtf8(bundle::kSourceResources);
}

QString Paths::resourcePath(const QString &name) { return resourcesFolder() + '/' + name; }

} // namespace brix
