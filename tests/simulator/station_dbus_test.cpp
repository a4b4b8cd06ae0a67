// End to end: the real station, headless, on the simulated camera, driven over
// the session bus with gdbus as a person at a demo would drive it.
#include "SimulatorControl.h"
#include "Station.h"

#include <QProcess>

#include <gtest/gtest.h>

using namespace brix;

namespace {

test::Run gdbus(const QString &method, const QStringList &args = {}) {
    test::Run r = test::run("gdbus",
                            QStringList{"call", "--session", "--dest", eds::kSimulatorBusName,
                                        "--object-path", eds::kSimulatorObjectPath, "--method",
                                        QString::fromLatin1(eds::kSimulatorInterface) + "." + method} +
                                args,
                            std::chrono::seconds(20));
    r.out = r.out.trimmed();
    return r;
}

} // namespace

TEST(StationOnTheSimulator, GdbusPlugsUnplugsAndFiresTheShutter) {
    test::StationProcess station;
    ASSERT_TRUE(station.start({"--headless", "--camera-backend=simulator"}, QProcess::SeparateChannels));
    ASSERT_TRUE(station.waitForLog("simulator control on the session bus")) << station.log().toStdString();
    ASSERT_TRUE(
        test::processEventsUntil([] { return gdbus("ShotCount").code == 0; }, std::chrono::seconds(20)));

    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 0,)");
    EXPECT_EQ(gdbus("PressShutter").code, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 1,)");

    EXPECT_EQ(gdbus("GetProperty", {"0x2"}).out, "(<'Canon EOS 5D Mark IV'>,)");
    EXPECT_EQ(gdbus("GetProperty", {"0x400"}).out, "(<uint32 3>,)");
    EXPECT_EQ(gdbus("SetProperty", {"0x400", "2"}).code, 0);
    EXPECT_EQ(gdbus("GetProperty", {"0x400"}).out, "(<uint32 2>,)");
    const test::Run bad = gdbus("SetProperty", {"0x2", "1"}); // a string property
    EXPECT_NE(bad.code, 0);
    EXPECT_TRUE(bad.err.contains("invalid parameter")) << bad.err.toStdString();
    EXPECT_EQ(gdbus("SetSupportedValues", {"0x402", "[0x48, 0x50]"}).code, 0);
    EXPECT_EQ(gdbus("InjectError", {"TakePicture", "0x8D01", "1"}).code, 0);
    EXPECT_NE(gdbus("InjectError", {"Teleport", "1", "1"}).code, 0);
    EXPECT_EQ(gdbus("SetShotFormat", {"CR2", "1000000"}).code, 0);

    // A second, legacy body comes and goes; then the first one goes too.
    EXPECT_EQ(gdbus("Plug", {"Canon EOS 40D"}).code, 0);
    EXPECT_EQ(gdbus("Unplug").code, 0);
    EXPECT_EQ(gdbus("GetProperty", {"0x2"}).out, "(<'Canon EOS 5D Mark IV'>,)");
    EXPECT_EQ(gdbus("Unplug").code, 0);
    const test::Run none = gdbus("PressShutter");
    EXPECT_NE(none.code, 0);
    EXPECT_TRUE(none.err.contains("no camera")) << none.err.toStdString();
    EXPECT_NE(gdbus("Unplug").code, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 1,)");

    // A body with the default model, and the shutter works again.
    EXPECT_EQ(gdbus("Plug", {"''"}).code, 0);
    EXPECT_EQ(gdbus("PressShutter").code, 0);
    EXPECT_EQ(gdbus("ShotCount").out, "(uint32 2,)");

    EXPECT_EQ(station.terminate(), 0) << station.log().toStdString();
    // The name is given up with the station.
    EXPECT_NE(gdbus("ShotCount").code, 0);
}

TEST(StationOnTheSimulator, EnvironmentChoosesTheBodiesAndAMissingBackendIsLogged) {
    {
        test::StationProcess station;
        station.set("BRIX_SIM_CAMERAS", "0").set("BRIX_SIM_MODEL", "Canon EOS 6D");
        ASSERT_TRUE(station.start());
        ASSERT_TRUE(station.waitForLog("simulator control on the session bus"))
            << station.log().toStdString();
        ASSERT_TRUE(test::processEventsUntil([] { return gdbus("ShotCount").code == 0; }));
        EXPECT_NE(gdbus("PressShutter").code, 0); // nothing attached
        EXPECT_EQ(gdbus("Plug", {"''"}).code, 0);
        EXPECT_EQ(gdbus("GetProperty", {"2"}).out, "(<'Canon EOS 6D'>,)");
        EXPECT_EQ(station.terminate(), 0);
    }
    // Canon's library lacking a function: refused, said so, and the station keeps running.
    test::StationProcess station;
    station.set("BRIX_EDSDK_PATH", BRIX_EDSDK_INCOMPLETE_LIBRARY);
    ASSERT_TRUE(station.start({"--headless", "--camera-backend=edsdk"}));
    ASSERT_TRUE(station.waitForLog(QStringLiteral("EDSDK at ") + BRIX_EDSDK_INCOMPLETE_LIBRARY +
                                   " lacks the function EdsDownloadEvfImage; not used"))
        << station.log().toStdString();
    ASSERT_TRUE(station.waitForLog("camera backend \"edsdk\" is not available"))
        << station.log().toStdString();
    EXPECT_TRUE(station.running());
    EXPECT_EQ(station.terminate(), 0);
    EXPECT_FALSE(station.log().contains("simulator control"));
}
