#include "ClaimedDevice.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>

#include <unistd.h>

namespace brix::gphoto2 {

std::optional<QString> usbDeviceNode(const std::string &port) {
    static const QRegularExpression re(QStringLiteral("^usb:(\\d{1,3}),(\\d{1,3})$"));
    const auto m = re.match(QString::fromStdString(port));
    if (!m.hasMatch())
        return std::nullopt;
    return QStringLiteral("/dev/bus/usb/%1/%2")
        .arg(m.captured(1).toInt(), 3, 10, QLatin1Char('0'))
        .arg(m.captured(2).toInt(), 3, 10, QLatin1Char('0'));
}

std::optional<uint16_t> usbVendorId(const std::string &port, const QString &sysRoot) {
    static const QRegularExpression re(QStringLiteral("^usb:(\\d{1,3}),(\\d{1,3})$"));
    const auto m = re.match(QString::fromStdString(port));
    if (!m.hasMatch())
        return std::nullopt;
    const int bus = m.captured(1).toInt(), dev = m.captured(2).toInt();
    auto readNumber = [](const QString &path, int base) -> std::optional<int> {
        QFile f(path);
        if (!f.open(QIODevice::ReadOnly))
            return std::nullopt;
        bool ok = false;
        const int v = QString::fromLatin1(f.readAll()).trimmed().toInt(&ok, base);
        return ok ? std::optional<int>(v) : std::nullopt;
    };
    const QDir root(sysRoot);
    for (const QString &entry : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString dir = root.filePath(entry);
        if (readNumber(dir + QStringLiteral("/busnum"), 10) == bus &&
            readNumber(dir + QStringLiteral("/devnum"), 10) == dev) {
            if (auto vendor = readNumber(dir + QStringLiteral("/idVendor"), 16))
                return uint16_t(*vendor);
            return std::nullopt;
        }
    }
    return std::nullopt;
}

std::vector<Holder> processesHolding(const QString &node, const QString &procRoot) {
    std::vector<Holder> out;
    const QString self = QString::number(::getpid());
    const QDir proc(procRoot);
    const auto pids = proc.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &pid : pids) {
        bool numeric = false;
        const long id = pid.toLong(&numeric);
        if (!numeric || pid == self)
            continue;
        const QDir fds(proc.filePath(pid + QStringLiteral("/fd")));
        const auto entries = fds.entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot);
        for (const QString &fd : entries) {
            if (QFile::symLinkTarget(fds.filePath(fd)) != node)
                continue;
            QFile comm(proc.filePath(pid + QStringLiteral("/comm")));
            QString name;
            if (comm.open(QIODevice::ReadOnly))
                name = QString::fromUtf8(comm.readAll()).trimmed();
            out.push_back({id, name});
            break;
        }
    }
    return out;
}

bool isDesktopMounter(const Holder &holder) {
    return holder.name.startsWith(QStringLiteral("gvfs")) && holder.name.contains(QStringLiteral("gphoto"));
}

QStringList gphotoMountsFor(const QString &gioMountList, const std::string &port) {
    static const QRegularExpression uriRe(QStringLiteral("gphoto2://\\S*"));
    QStringList all;
    auto it = uriRe.globalMatch(gioMountList);
    while (it.hasNext()) {
        const QString uri = it.next().captured(0);
        if (!all.contains(uri))
            all << uri;
    }
    QStringList matching;
    const QString raw = QStringLiteral("[") + QString::fromStdString(port) + QStringLiteral("]");
    for (const QString &uri : all) {
        const QString decoded = QUrl::fromPercentEncoding(uri.toUtf8());
        if (decoded.contains(raw))
            matching << uri;
    }
    return matching.isEmpty() ? all : matching;
}

QString describeHolders(const std::vector<Holder> &holders) {
    QStringList parts;
    for (const auto &h : holders)
        parts << QStringLiteral("process %1 (%2)")
                     .arg(h.pid)
                     .arg(h.name.isEmpty() ? QStringLiteral("?") : h.name);
    return parts.join(QStringLiteral(", "));
}

} // namespace brix::gphoto2
