#include "HotFolder.h"

#include "Describe.h"
#include "InterAppNotifications.h"
#include "Logger.h"
#include "Paths.h"

#include <QDir>
#include <QFileInfo>

#include <dirent.h>
#include <fnmatch.h>

#include <cstring>

namespace brix::hotfolder {

namespace {
// The listing is read into a buffer of this size at most, like any pipe read.
constexpr qsizetype kMaxOutputBytes = 512000;
} // namespace

QString commandForFolder(const QString &folder) {
    QString command = QString::fromLatin1(kCommandTemplate);
    command.replace(QLatin1String("[path]"), folder);
    command.replace(QLatin1String("[depth]"), QLatin1String("1"));
    return command;
}

QString listJpegsAtDepthOne(const QString &folder) {
    QByteArray out;
    const QByteArray native = QFile::encodeName(folder);
    DIR *dir = ::opendir(native.constData());
    if (!dir)
        return {};
    while (dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if (::fnmatch("*.jpg", entry->d_name, 0) != 0)
            continue;
        out += native + '/' + entry->d_name + '\n';
        if (out.size() >= kMaxOutputBytes) {
            out.truncate(kMaxOutputBytes);
            break;
        }
    }
    ::closedir(dir);
    return QFile::decodeName(out);
}

QStringList splitCommandOutput(const QString &output) {
    QString text = output.trimmed();
    if (text.isEmpty())
        return {};
    text.replace(QLatin1String("\r"), QLatin1String("\n"));
    // One pass only: three line ends in a row leave an empty entry.
    text.replace(QLatin1String("\n\n"), QLatin1String("\n"));
    return text.split('\n');
}

QStringList sendAllItemsInHotFolder(const QVariant &saveFolder) {
    if (saveFolder.metaType().id() != QMetaType::QString)
        return {};
    const QString folder = Paths::standardizePath(saveFolder.toString());
    if (!QFileInfo(folder).isDir())
        return {};
    Logger::setDebug(commandForFolder(folder));
    const QStringList list = splitCommandOutput(listJpegsAtDepthOne(folder));
    Logger::setError(QStringLiteral("array[%1] = %2").arg(list.size()).arg(describe(QVariant(list))));
    if (list.isEmpty())
        return {};
    interapp::mySendPreviewerAppNotificationWithFilePath(QVariant(list));
    return list;
}

} // namespace brix::hotfolder
