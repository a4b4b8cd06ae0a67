// The system report written at the head of every log file: the program and
// its launch arguments, the operating system, uptime, hardware, processor,
// core counts and memory figures.
//
// Threads: any; everything is built synchronously on the calling thread (at
// start-up, or on "Logger-Reading" during rotation). uptime() runs the uptime
// tool and waits for it. An object caches its hardware and memory snapshots.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <optional>

namespace brix {

class OKVA_SystemInfo {
public:
    using SysctlValues = QMap<QString, QString>;
    using MemoryFormatter = std::function<QString(const QVariant &bytes)>;

    OKVA_SystemInfo();

    // --- the report ---
    static OKVA_SystemInfo systemInfo();
    // The report text, from a fresh object.
    static QString currentSystemInfo();
    // currentSystemInfo() as one log entry.
    static void logCurrentSystemInfo();
    // The report text of this object's snapshots.
    QString report();

    // --- snapshots, filled on first use ---
    const QVariantMap &stats();
    const SysctlValues &statsHW();
    void setStatsMem(const QVariantMap &stats);
    void setStatsHW(const SysctlValues &values);
    void setDisplayFormatMemory(MemoryFormatter formatter);

    // --- memory, each formatted by the memory formatter ---
    QString physical();
    QString free();
    QString active();
    QString inactive();
    QString wired();
    QString compressed();
    QString decompressed();
    QString swapins();
    QString swapouts();
    quint64 pageSize();

    // --- hardware ---
    QString hardwareModel();
    QString hardwareArch();
    // "<machine> (<bits>-bit <byte order>)"
    QString hardwareArchLong();
    static int compiledBits();
    // "LittleEndian", "BigEndian" or "Unknown" for host byte order 1, 2, other.
    static QString byteOrder(int hostByteOrder);
    static QString byteOrder();
    // The processor's brand without "(R)" and "(TM)".
    QString hardwareCPU();
    bool supportsRosetta();
    // "Native on <brand>" / "Emulated on <brand>" for "apple" processors; empty otherwise.
    QString nativeOrEmulated();
    int cpuCountPhysical();
    int cpuCountLogical();
    int cpuCountActive();
    // Uptime as the uptime tool words it, without the clock time and "up".
    QString uptime();

    // --- sources ---
    // Name -> text for each readable name; unreadable names are absent.
    static SysctlValues sysctlValuesForKeys(const QStringList &names);
    // The same through the sysctl tool (run without a shell); every value when
    // `names` is empty.
    static SysctlValues sysctlShellValuesForKeys(const QStringList &names);
    static SysctlValues hardwareInfo();
    static QVariantMap memoryStats();
    static QStringList hardwareInfoKeys();

    // --- rendering rules, shared with the tests ---
    // A raw value as text: zero-terminated text as itself, 16 bytes as a time,
    // 20 bytes as a clock-rate record, 8 and 4 bytes as unsigned numbers;
    // other sizes have no text.
    static std::optional<QString> renderSysctlValue(const QByteArray &raw);
    // The uptime tool's output reduced to the duration and what follows.
    static QString uptimeFromOutput(const QString &output);
    // "name = value" lines; a value may contain "=".
    static SysctlValues parseSysctlOutput(const QString &output);
    // The default memory formatter: megabytes, at least three significant
    // digits, "(null)" for a missing figure.
    static QString formatMemory(const QVariant &bytes);
    static QString removeTrademarks(const QString &brand);

private:
    QString memoryFigure(const char *name);

    MemoryFormatter displayFormatMemory_;
    std::optional<QVariantMap> statsMem_;
    std::optional<SysctlValues> statsHW_;
};

} // namespace brix
