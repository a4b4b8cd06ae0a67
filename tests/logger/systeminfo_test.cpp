// The values the system report reads from Linux (the report itself opens the
// station's log, see tests/app).
#include "SystemInfo.h"

#include <gtest/gtest.h>

using namespace brix;

namespace {

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
