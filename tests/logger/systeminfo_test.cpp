// The system report: its layout and labels, and the values read from Linux
// for it.
#include "SystemInfo.h"

#include <QCoreApplication>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace brix;

namespace {

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

} // namespace
