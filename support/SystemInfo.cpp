#include "SystemInfo.h"

#include "BundleInfo.h"
#include "DateFormat.h"
#include "Logger.h"

#include <QDateTime>
#include <QFile>
#include <QLocale>
#include <QSet>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

extern char **environ;

namespace brix {

namespace {

constexpr const char *kNullText = "(null)";
constexpr const char *kRule = "\n    ====================================================";
constexpr const char *kLongDescriptionFormat = "%1 v%2 xc-%3 sdk-%4";
constexpr const char *kUptimeTool = "/usr/bin/uptime";
constexpr const char *kSysctlTool = "/usr/sbin/sysctl";
constexpr int kUptimeTimeoutMs = 5000;
constexpr const char *kBootTimePattern = "y-MM-dd h:mm:ss a z";

// Memory statistics keys: each accessor reads the entry of its own name.
constexpr const char *kPageSize = "pageSize";
constexpr const char *kPhysical = "physical";
constexpr const char *kFree = "free";
constexpr const char *kActive = "active";
constexpr const char *kInactive = "inactive";
constexpr const char *kWired = "wired";
constexpr const char *kCompressed = "compressed";
constexpr const char *kDecompressed = "decompressed";
constexpr const char *kSwapins = "swapins";
constexpr const char *kSwapouts = "swapouts";

constexpr const char *kHwModel = "hw.model";
constexpr const char *kHwMachine = "hw.machine";
constexpr const char *kCpuBrand = "machdep.cpu.brand_string";
constexpr const char *kPhysicalCpu = "hw.physicalcpu";
constexpr const char *kLogicalCpu = "hw.logicalcpu";
constexpr const char *kActiveCpu = "hw.activecpu";
constexpr const char *kOsRevision = "kern.osrevision";
constexpr const char *kKernVersion = "kern.version";
constexpr const char *kBootTime = "kern.boottime";
constexpr const char *kClockRate = "kern.clockrate";

QByteArray readSmallFile(const char *path) {
    QFile f(QString::fromLatin1(path));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll();
}

QByteArray textValue(QByteArray text) {
    text = text.trimmed();
    if (text.isEmpty())
        return {};
    text.append('\0');
    return text;
}

template <class T> QByteArray rawValue(const T &value) {
    return QByteArray(reinterpret_cast<const char *>(&value), sizeof value);
}

// "key<TAB>: value" lines of /proc/cpuinfo.
QList<QPair<QByteArray, QByteArray>> cpuinfoFields() {
    QList<QPair<QByteArray, QByteArray>> out;
    for (const QByteArray &line : readSmallFile("/proc/cpuinfo").split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            out.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }
    return out;
}

QByteArray cpuBrand() {
    const auto fields = cpuinfoFields();
    for (const char *key : {"model name", "Model", "Hardware", "cpu model"}) {
        for (const auto &f : fields) {
            if (f.first == key && !f.second.isEmpty())
                return f.second;
        }
    }
    return {};
}

int physicalCores() {
    QSet<QByteArray> cores;
    QByteArray package;
    for (const auto &f : cpuinfoFields()) {
        if (f.first == "physical id")
            package = f.second;
        else if (f.first == "core id")
            cores.insert(package + ':' + f.second);
    }
    return int(cores.size());
}

// The raw value the name stands for, in the layout its readers expect;
// empty when this system has no such value.
QByteArray rawSysctl(const QString &name) {
    struct utsname uts;
    const bool haveUts = ::uname(&uts) == 0;
    if (name == QLatin1String(kHwModel)) {
        QByteArray model = readSmallFile("/sys/devices/virtual/dmi/id/product_name").trimmed();
        if (model.isEmpty())
            model = readSmallFile("/proc/device-tree/model");
        return textValue(QByteArray(model.constData())); // device-tree text carries its own NUL
    }
    if (name == QLatin1String(kHwMachine))
        return haveUts ? textValue(uts.machine) : QByteArray();
    if (name == QLatin1String(kCpuBrand))
        return textValue(cpuBrand());
    if (name == QLatin1String(kLogicalCpu))
        return rawValue(uint32_t(::sysconf(_SC_NPROCESSORS_CONF)));
    if (name == QLatin1String(kActiveCpu))
        return rawValue(uint32_t(::sysconf(_SC_NPROCESSORS_ONLN)));
    if (name == QLatin1String(kPhysicalCpu)) {
        const int cores = physicalCores();
        return rawValue(uint32_t(cores > 0 ? cores : ::sysconf(_SC_NPROCESSORS_CONF)));
    }
    if (name == QLatin1String(kKernVersion)) {
        if (!haveUts)
            return {};
        return textValue(QByteArray(uts.sysname) + ' ' + uts.release + ' ' + uts.version);
    }
    if (name == QLatin1String(kBootTime)) {
        for (const QByteArray &line : readSmallFile("/proc/stat").split('\n')) {
            if (line.startsWith("btime ")) {
                const int64_t boot[2] = {line.mid(6).trimmed().toLongLong(), 0};
                return QByteArray(reinterpret_cast<const char *>(boot), sizeof boot);
            }
        }
        return {};
    }
    if (name == QLatin1String(kClockRate)) {
        const long hz = ::sysconf(_SC_CLK_TCK);
        if (hz <= 0)
            return {};
        const int32_t rate[5] = {int32_t(hz), int32_t(1000000 / hz), 0, int32_t(hz), int32_t(hz)};
        return QByteArray(reinterpret_cast<const char *>(rate), sizeof rate);
    }
    // kern.osrevision and any other name: nothing on this system.
    return {};
}

// "Name:   1234 kB" lines of /proc/meminfo, in bytes.
QMap<QByteArray, quint64> meminfo() {
    QMap<QByteArray, quint64> out;
    for (const QByteArray &line : readSmallFile("/proc/meminfo").split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        const QList<QByteArray> parts = line.mid(colon + 1).simplified().split(' ');
        quint64 value = parts.value(0).toULongLong();
        if (parts.value(1) == "kB")
            value *= 1024;
        out.insert(line.left(colon), value);
    }
    return out;
}

// "name count" lines of /proc/vmstat.
QMap<QByteArray, quint64> vmstat() {
    QMap<QByteArray, quint64> out;
    for (const QByteArray &line : readSmallFile("/proc/vmstat").split('\n')) {
        const QList<QByteArray> parts = line.split(' ');
        if (parts.size() == 2)
            out.insert(parts[0], parts[1].toULongLong());
    }
    return out;
}

QString launchArguments() {
    QStringList args;
    for (const QByteArray &arg : readSmallFile("/proc/self/cmdline").split('\0'))
        args << QString::fromLocal8Bit(arg);
    if (!args.isEmpty() && args.last().isEmpty())
        args.removeLast(); // the list ends in NUL
    return args.join(QLatin1Char(','));
}

QString operatingSystemVersion() {
    QString pretty;
    for (const QByteArray &line : readSmallFile("/etc/os-release").split('\n')) {
        if (line.startsWith("PRETTY_NAME=")) {
            QByteArray v = line.mid(12).trimmed();
            if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
                v = v.mid(1, v.size() - 2);
            pretty = QString::fromUtf8(v);
        }
    }
    struct utsname uts;
    const QString kernel = ::uname(&uts) == 0
                               ? QStringLiteral("%1 %2").arg(QString::fromLocal8Bit(uts.sysname),
                                                             QString::fromLocal8Bit(uts.release))
                               : QString();
    if (pretty.isEmpty())
        return kernel;
    return kernel.isEmpty() ? pretty : QStringLiteral("%1 (%2)").arg(pretty, kernel);
}

// Runs a tool without a shell and returns its standard output; empty when it
// cannot be started or does not finish in time. posix_spawn keeps the child
// apart from our threads (nothing of ours runs between fork and exec), so it
// is safe on any queue.
QByteArray runTool(const char *path, const QStringList &arguments = {}) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<QByteArray> storage{QByteArray(path)};
    for (const QString &a : arguments)
        storage.push_back(a.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &a : storage)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, path, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    QByteArray text;
    if (spawned == 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kUptimeTimeoutMs);
        char buffer[4096];
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd pfd{out[0], POLLIN, 0};
            if (left.count() <= 0 || ::poll(&pfd, 1, int(left.count())) == 0) {
                ::kill(pid, SIGKILL);
                text.clear();
                break;
            }
            const ssize_t n = ::read(out[0], buffer, sizeof buffer);
            if (n > 0)
                text.append(buffer, n);
            else if (n == 0 || errno != EINTR)
                break;
        }
        int status;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    ::close(out[0]);
    return text;
}

int hostByteOrder() {
    const uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1 ? 1 : 2;
}

} // namespace

OKVA_SystemInfo::OKVA_SystemInfo() : displayFormatMemory_(&OKVA_SystemInfo::formatMemory) {}

OKVA_SystemInfo OKVA_SystemInfo::systemInfo() {
    return OKVA_SystemInfo();
}

QString OKVA_SystemInfo::currentSystemInfo() {
    return OKVA_SystemInfo().report();
}

void OKVA_SystemInfo::logCurrentSystemInfo() {
    Logger::setError(currentSystemInfo());
}

QString OKVA_SystemInfo::report() {
    const QString longDescription =
        QString::fromLatin1(kLongDescriptionFormat)
            .arg(QString::fromLatin1(bundle::kName), QString::fromLatin1(bundle::kShortVersion),
                 QString::fromLatin1(bundle::kCompiler), QString::fromLatin1(bundle::kSDKName));
    const QString cpu = nativeOrEmulated().isEmpty() ? hardwareCPU() : nativeOrEmulated();
    QString r;
    r += QLatin1String(kRule);
    r += QStringLiteral("\n    | %1").arg(longDescription);
    r += QStringLiteral("\n    |     launch args: %1").arg(launchArguments());
    r += QStringLiteral("\n    | macOS %1").arg(operatingSystemVersion());
    r += QStringLiteral("\n    | up %1").arg(uptime());
    r += QStringLiteral("\n    | %1 %2").arg(hardwareModel(), hardwareArchLong());
    r += QStringLiteral("\n    | %1").arg(cpu);
    r += QStringLiteral("\n    |  CPU core count: %1 physical %2 logical (%3 active)")
             .arg(QString::number(cpuCountPhysical()), QString::number(cpuCountLogical()),
                  QString::number(cpuCountActive()));
    r += QStringLiteral("\n    | Physical memory: %1").arg(physical());
    r += QStringLiteral("\n    |            free: %1").arg(free());
    r += QStringLiteral("\n    |           wired: %1").arg(wired());
    r += QStringLiteral("\n    |          active: %1").arg(active());
    r += QStringLiteral("\n    |        inactive: %1").arg(inactive());
    r += QStringLiteral("\n    |      compressed: %1").arg(compressed());
    r += QStringLiteral("\n    |    decompressed: %1").arg(decompressed());
    r += QStringLiteral("\n    |         swapins: %1").arg(swapins());
    r += QStringLiteral("\n    |        swapouts: %1").arg(swapouts());
    r += QLatin1String(kRule);
    r += QLatin1Char('\n');
    return r;
}

// --- snapshots ---------------------------------------------------------------

const QVariantMap &OKVA_SystemInfo::stats() {
    if (!statsMem_)
        statsMem_ = memoryStats();
    return *statsMem_;
}

const OKVA_SystemInfo::SysctlValues &OKVA_SystemInfo::statsHW() {
    if (!statsHW_)
        statsHW_ = hardwareInfo();
    return *statsHW_;
}

void OKVA_SystemInfo::setStatsMem(const QVariantMap &stats) {
    statsMem_ = stats;
}
void OKVA_SystemInfo::setStatsHW(const SysctlValues &values) {
    statsHW_ = values;
}
void OKVA_SystemInfo::setDisplayFormatMemory(MemoryFormatter formatter) {
    displayFormatMemory_ = formatter ? std::move(formatter) : MemoryFormatter(&OKVA_SystemInfo::formatMemory);
}

// --- memory ------------------------------------------------------------------

QString OKVA_SystemInfo::memoryFigure(const char *name) {
    return displayFormatMemory_(stats().value(QString::fromLatin1(name)));
}

QString OKVA_SystemInfo::physical() {
    return memoryFigure(kPhysical);
}
QString OKVA_SystemInfo::free() {
    return memoryFigure(kFree);
}
QString OKVA_SystemInfo::active() {
    return memoryFigure(kActive);
}
QString OKVA_SystemInfo::inactive() {
    return memoryFigure(kInactive);
}
QString OKVA_SystemInfo::wired() {
    return memoryFigure(kWired);
}
QString OKVA_SystemInfo::compressed() {
    return memoryFigure(kCompressed);
}
QString OKVA_SystemInfo::decompressed() {
    return memoryFigure(kDecompressed);
}
QString OKVA_SystemInfo::swapins() {
    return memoryFigure(kSwapins);
}
QString OKVA_SystemInfo::swapouts() {
    return memoryFigure(kSwapouts);
}
quint64 OKVA_SystemInfo::pageSize() {
    return stats().value(QString::fromLatin1(kPageSize)).toULongLong();
}

QVariantMap OKVA_SystemInfo::memoryStats() {
    const long page = ::sysconf(_SC_PAGESIZE);
    const quint64 pageSize = page > 0 ? quint64(page) : 4096;
    QVariantMap stats;
    stats.insert(QString::fromLatin1(kPageSize), pageSize);
    struct sysinfo si;
    if (::sysinfo(&si) == 0)
        stats.insert(QString::fromLatin1(kPhysical), quint64(si.totalram) * si.mem_unit);
    const auto mem = meminfo();
    const auto insertBytes = [&](const char *key, const char *field) {
        if (mem.contains(field))
            stats.insert(QString::fromLatin1(key), mem.value(field));
    };
    insertBytes(kFree, "MemFree");
    insertBytes(kActive, "Active");
    insertBytes(kInactive, "Inactive");
    // Memory that can be neither reclaimed nor swapped.
    insertBytes(kWired, "Unevictable");
    // What the compressed swap cache holds.
    insertBytes(kCompressed, "Zswap");
    const auto vm = vmstat();
    const auto insertPages = [&](const char *key, const char *field) {
        if (vm.contains(field))
            stats.insert(QString::fromLatin1(key), vm.value(field) * pageSize);
    };
    insertPages(kDecompressed, "zswpin");
    insertPages(kSwapins, "pswpin");
    insertPages(kSwapouts, "pswpout");
    return stats;
}

QString OKVA_SystemInfo::formatMemory(const QVariant &bytes) {
    if (!bytes.isValid())
        return QString::fromLatin1(kNullText);
    const double mb = double(bytes.toULongLong()) / (1024.0 * 1024.0);
    const int integerDigits = mb >= 1.0 ? int(std::floor(std::log10(mb))) + 1 : 1;
    const int fractionDigits = integerDigits >= 3 ? 0 : 3 - integerDigits;
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(mb, 'f', fractionDigits) +
           QStringLiteral(" MB");
}

// --- hardware ----------------------------------------------------------------

QString OKVA_SystemInfo::hardwareModel() {
    return statsHW().value(QString::fromLatin1(kHwModel));
}
QString OKVA_SystemInfo::hardwareArch() {
    return statsHW().value(QString::fromLatin1(kHwMachine), QString());
}

QString OKVA_SystemInfo::hardwareArchLong() {
    return hardwareArch() + QStringLiteral(" (%1-bit %2)").arg(QString::number(compiledBits()), byteOrder());
}

int OKVA_SystemInfo::compiledBits() {
    return int(sizeof(void *) * 8);
}

QString OKVA_SystemInfo::byteOrder(int order) {
    switch (order) {
    case 1:
        return QStringLiteral("LittleEndian");
    case 2:
        return QStringLiteral("BigEndian");
    default:
        return QStringLiteral("Unknown");
    }
}

QString OKVA_SystemInfo::byteOrder() {
    return byteOrder(hostByteOrder());
}

QString OKVA_SystemInfo::removeTrademarks(const QString &brand) {
    QString out = brand;
    out.remove(QStringLiteral("(R)"));
    out.remove(QStringLiteral("(TM)"));
    return out;
}

QString OKVA_SystemInfo::hardwareCPU() {
    return removeTrademarks(statsHW().value(QString::fromLatin1(kCpuBrand)));
}

bool OKVA_SystemInfo::supportsRosetta() {
    return hardwareCPU().toLower().startsWith(QLatin1String("apple"));
}

QString OKVA_SystemInfo::nativeOrEmulated() {
    if (!supportsRosetta())
        return QString();
    const bool arm = hardwareArch().toLower().startsWith(QLatin1String("arm"));
    return (arm ? QStringLiteral("Native on ") : QStringLiteral("Emulated on ")) + hardwareCPU();
}

int OKVA_SystemInfo::cpuCountPhysical() {
    return statsHW().value(QString::fromLatin1(kPhysicalCpu)).toInt();
}
int OKVA_SystemInfo::cpuCountLogical() {
    return statsHW().value(QString::fromLatin1(kLogicalCpu)).toInt();
}
int OKVA_SystemInfo::cpuCountActive() {
    return statsHW().value(QString::fromLatin1(kActiveCpu)).toInt();
}

QString OKVA_SystemInfo::uptime() {
    return uptimeFromOutput(QString::fromLocal8Bit(runTool(kUptimeTool)));
}

QString OKVA_SystemInfo::uptimeFromOutput(const QString &output) {
    QStringList parts = output.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (parts.size() > 2)
        parts = parts.mid(2);
    QString joined = parts.join(QLatin1Char(' '));
    while (joined.startsWith(QLatin1Char('\n')))
        joined.remove(0, 1);
    while (joined.endsWith(QLatin1Char('\n')))
        joined.chop(1);
    return joined;
}

// --- sources -----------------------------------------------------------------

QStringList OKVA_SystemInfo::hardwareInfoKeys() {
    return {QString::fromLatin1(kHwModel),    QString::fromLatin1(kHwMachine),
            QString::fromLatin1(kCpuBrand),   QString::fromLatin1(kPhysicalCpu),
            QString::fromLatin1(kLogicalCpu), QString::fromLatin1(kActiveCpu),
            QString::fromLatin1(kOsRevision), QString::fromLatin1(kKernVersion),
            QString::fromLatin1(kBootTime),   QString::fromLatin1(kClockRate)};
}

OKVA_SystemInfo::SysctlValues OKVA_SystemInfo::hardwareInfo() {
    return sysctlValuesForKeys(hardwareInfoKeys());
}

OKVA_SystemInfo::SysctlValues OKVA_SystemInfo::sysctlValuesForKeys(const QStringList &names) {
    SysctlValues out;
    for (const QString &name : names) {
        const QByteArray raw = rawSysctl(name);
        if (raw.isEmpty())
            continue;
        if (auto text = renderSysctlValue(raw))
            out.insert(name, *text);
    }
    return out;
}

OKVA_SystemInfo::SysctlValues OKVA_SystemInfo::sysctlShellValuesForKeys(const QStringList &names) {
    // -e: names this kernel does not know are skipped, not reported.
    const QStringList arguments =
        names.isEmpty() ? QStringList{QStringLiteral("-a")} : QStringList{QStringLiteral("-e")} + names;
    return parseSysctlOutput(QString::fromLocal8Bit(runTool(kSysctlTool, arguments)));
}

OKVA_SystemInfo::SysctlValues OKVA_SystemInfo::parseSysctlOutput(const QString &output) {
    SysctlValues out;
    for (const QString &line : output.split(QLatin1Char('\n'))) {
        const QStringList parts = line.split(QLatin1Char('='));
        if (parts.size() < 2)
            continue;
        // A value may itself hold "=": everything after the first one is the value.
        out.insert(parts.first().trimmed(), parts.mid(1).join(QLatin1Char('=')).trimmed());
    }
    return out;
}

std::optional<QString> OKVA_SystemInfo::renderSysctlValue(const QByteArray &raw) {
    const qsizetype size = raw.size();
    if (size > 0 && raw.back() == '\0' && qsizetype(std::strlen(raw.constData())) == size - 1)
        return QString::fromUtf8(raw.constData(), size - 1);
    switch (size) {
    case 16: {
        int64_t tv[2];
        std::memcpy(tv, raw.constData(), sizeof tv);
        const QDateTime when = QDateTime::fromMSecsSinceEpoch(tv[0] * 1000 + tv[1] / 1000);
        return DateFormat::format(when, QString::fromLatin1(kBootTimePattern));
    }
    case 20: {
        int32_t rate[5];
        std::memcpy(rate, raw.constData(), sizeof rate);
        return QStringLiteral("hz=%1,tick=%2,tickadj=%3,profhz=%4,stathz=%5}")
            .arg(rate[0])
            .arg(rate[1])
            .arg(rate[2])
            .arg(rate[3])
            .arg(rate[4]);
    }
    case 8: {
        uint64_t v;
        std::memcpy(&v, raw.constData(), sizeof v);
        return QString::number(v);
    }
    case 4: {
        uint32_t v;
        std::memcpy(&v, raw.constData(), sizeof v);
        return QString::number(v);
    }
    default:
        return std::nullopt;
    }
}

} // namespace brix
