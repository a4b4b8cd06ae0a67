// The system report: its layout and labels, and the rules that turn raw
// values into text.
#include "SystemInfo.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

using namespace brix;

namespace {

template <class T> QByteArray raw(const T &value) {
    return QByteArray(reinterpret_cast<const char *>(&value), sizeof value);
}

TEST(SystemReport, HasTheFixedLayoutAndLabels) {
    const QString report = OKVA_SystemInfo::currentSystemInfo();
    const QStringList lines = report.split('\n');
    const QString rule = "    ====================================================";
    ASSERT_EQ(lines.size(), 20) << report.toStdString();
    EXPECT_EQ(lines[0], "");
    EXPECT_EQ(lines[1], rule);
    EXPECT_TRUE(
        QRegularExpression(R"(^    \| BrixCanonCapture v\S+ xc-.+ sdk-Qt \S+$)").match(lines[2]).hasMatch())
        << lines[2].toStdString();
    // Every argument, comma-joined (the test runner has taken its own flags out of Qt's list).
    EXPECT_TRUE(lines[3].startsWith("    |     launch args: " + QCoreApplication::arguments().constFirst()))
        << lines[3].toStdString();
    for (const QString &arg : QCoreApplication::arguments())
        EXPECT_TRUE(lines[3].contains(arg)) << arg.toStdString();
    EXPECT_FALSE(lines[3].contains(", ")) << lines[3].toStdString();
    EXPECT_TRUE(lines[4].startsWith("    | macOS ")) << lines[4].toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^    \| up \S.*load average)").match(lines[5]).hasMatch())
        << lines[5].toStdString();
    EXPECT_TRUE(lines[6].endsWith(" (64-bit LittleEndian)")) << lines[6].toStdString();
    EXPECT_FALSE(lines[7].contains("(R)") || lines[7].contains("(TM)"));
    EXPECT_TRUE(QRegularExpression(
                    R"(^    \|  CPU core count: [1-9]\d* physical [1-9]\d* logical \([1-9]\d* active\)$)")
                    .match(lines[8])
                    .hasMatch())
        << lines[8].toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^    \| Physical memory: [\d,]+ MB$)").match(lines[9]).hasMatch())
        << lines[9].toStdString();
    EXPECT_EQ(lines[18], rule);
    EXPECT_EQ(lines[19], "");
}

TEST(SystemReport, ProcessorArchitectureAndMemoryTexts) {
    OKVA_SystemInfo info;
    info.setStatsHW({{"machdep.cpu.brand_string", "Intel(R) Core(TM) i7-8700 CPU @ 3.20GHz"},
                     {"hw.machine", "x86_64"},
                     {"hw.physicalcpu", "6"}});
    EXPECT_EQ(info.hardwareCPU(), "Intel Core i7-8700 CPU @ 3.20GHz");
    EXPECT_TRUE(info.nativeOrEmulated().isNull());
    EXPECT_EQ(info.hardwareArchLong(), "x86_64 (64-bit LittleEndian)");
    EXPECT_EQ(info.cpuCountPhysical(), 6);
    EXPECT_EQ(info.cpuCountLogical(), 0) << "an absent count is zero";
    EXPECT_EQ(info.hardwareModel(), "");

    info.setStatsHW({{"machdep.cpu.brand_string", "Apple M1"}, {"hw.machine", "arm64"}});
    EXPECT_EQ(info.nativeOrEmulated(), "Native on Apple M1");
    info.setStatsHW({{"machdep.cpu.brand_string", "Apple M1"}, {"hw.machine", "x86_64"}});
    EXPECT_EQ(info.nativeOrEmulated(), "Emulated on Apple M1");
    EXPECT_EQ(OKVA_SystemInfo::byteOrder(1), "LittleEndian");
    EXPECT_EQ(OKVA_SystemInfo::byteOrder(2), "BigEndian");
    EXPECT_EQ(OKVA_SystemInfo::byteOrder(0), "Unknown");

    // Memory figures are megabytes; missing ones show "(null)".
    info.setStatsMem({{"physical", quint64(16) << 30}, {"free", quint64(1536) << 10}, {"wired", quint64(0)}});
    EXPECT_EQ(info.physical(), "16,384 MB");
    EXPECT_EQ(info.free(), "1.50 MB");
    EXPECT_EQ(info.wired(), "0.00 MB");
    EXPECT_EQ(info.swapouts(), "(null)");
    info.setDisplayFormatMemory([](const QVariant &v) { return QString::number(v.toULongLong()); });
    EXPECT_EQ(info.free(), "1572864");
}

TEST(SysctlRendering, TextTimeClockRateAndNumbers) {
    // Zero-terminated text of exactly the buffer's size is text.
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(QByteArray("x86_64", 7)), "x86_64");
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(QByteArray("1234567", 8)), "1234567");
    // Eight bytes that are not such text: an unsigned 64-bit number.
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(raw(uint64_t(18446744073709551615ull))),
              "18446744073709551615");
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(raw(uint32_t(4000000000u))), "4000000000");
    // Text with an early terminator is not text; 8 bytes make a number.
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(QByteArray("ab\0cdefg", 8)),
              QString::number(*reinterpret_cast<const uint64_t *>("ab\0cdefg")));
    const int32_t rate[5] = {100, 10000, 0, 100, 100};
    EXPECT_EQ(OKVA_SystemInfo::renderSysctlValue(raw(rate)),
              "hz=100,tick=10000,tickadj=0,profhz=100,stathz=100}");
    const int64_t boot[2] = {1700000000, 0};
    const auto when = OKVA_SystemInfo::renderSysctlValue(raw(boot));
    ASSERT_TRUE(when.has_value());
    EXPECT_TRUE(QRegularExpression(R"(^2023-11-1[45] \d{1,2}:\d\d:20 [AP]M \S+$)").match(*when).hasMatch())
        << when->toStdString();
    EXPECT_FALSE(OKVA_SystemInfo::renderSysctlValue(QByteArray(3, '\1')).has_value());
    EXPECT_FALSE(OKVA_SystemInfo::renderSysctlValue(QByteArray()).has_value());
}

TEST(SysctlRendering, LinuxSourcesFillTheHardwareNamesThroughTheTool) {
    const auto values = OKVA_SystemInfo::hardwareInfo();
    EXPECT_FALSE(values.value("hw.machine").isEmpty());
    EXPECT_GE(values.value("hw.logicalcpu").toInt(), 1);
    EXPECT_GE(values.value("hw.activecpu").toInt(), 1);
    EXPECT_GE(values.value("hw.physicalcpu").toInt(), 1);
    EXPECT_TRUE(values.value("kern.clockrate").startsWith("hz="))
        << values.value("kern.clockrate").toStdString();
    EXPECT_TRUE(values.value("kern.clockrate").endsWith("}"));
    EXPECT_FALSE(values.value("kern.boottime").isEmpty());
    EXPECT_FALSE(values.contains("kern.osrevision")) << "no such value here; absent, not empty";
    EXPECT_TRUE(OKVA_SystemInfo::sysctlValuesForKeys({"no.such.name"}).isEmpty());

    // The tool's output splits at the first equals sign.
    const auto parsed = OKVA_SystemInfo::parseSysctlOutput("kernel.ostype = Linux\n"
                                                           "dev.tty.ldisc_autoload = 1\n"
                                                           "kernel.core_pattern = |/bin/x a=b c=d\n"
                                                           "garbage line\n");
    EXPECT_EQ(parsed, (OKVA_SystemInfo::SysctlValues{{"kernel.ostype", "Linux"},
                                                     {"dev.tty.ldisc_autoload", "1"},
                                                     {"kernel.core_pattern", "|/bin/x a=b c=d"}}));
    const auto live = OKVA_SystemInfo::sysctlShellValuesForKeys({"kernel.ostype", "no.such.name"});
    EXPECT_EQ(live, (OKVA_SystemInfo::SysctlValues{{"kernel.ostype", "Linux"}}));
}

TEST(Uptime, ToolOutputLosesClockTimeAndUpAndDoubleSpaces) {
    EXPECT_EQ(OKVA_SystemInfo::uptimeFromOutput(
                  " 10:01:02 up 3 days,  2:10,  1 user,  load average: 0.52, 0.58, 0.59\n"),
              "3 days, 2:10, 1 user, load average: 0.52, 0.58, 0.59");
    EXPECT_EQ(OKVA_SystemInfo::uptimeFromOutput("10:01  up\n"), "10:01 up");
    EXPECT_EQ(OKVA_SystemInfo::uptimeFromOutput(""), "");
}

} // namespace
