// The real executable with its window on the simulated camera under Xvfb,
// checked from outside: through the window probe and the simulator's control
// on the session bus, as a test harness or an accessibility client would.
#include "Station.h"
#include "TestSupport.h"

#include <QDBusInterface>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

using namespace brix;

namespace {

QVariant call(QDBusInterface &iface, const QString &method, const QVariantList &args = {}) {
    const QDBusMessage reply = iface.callWithArgumentList(QDBus::Block, method, args);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()
               ? reply.arguments().first()
               : QVariant();
}

} // namespace

TEST(WindowStation, OperatorSeesTheCameraItsSettingsAndEachShotAndQuitsOnlyThroughTheSheet) {
    if (QStandardPaths::findExecutable("xvfb-run").isEmpty())
        GTEST_SKIP() << "xvfb-run is not installed";
    // Open on the camera panel.
    QProcess station;
    ASSERT_TRUE(test::startWindowStation(
        station, "<key>prefDefaultMainTabviewItemIdentifier</key><string>camerapanel</string>"));

    QDBusInterface probe("com.lumetra.BrixCanonCapture.WindowProbe", "/com/lumetra/brix/WindowProbe",
                         "com.lumetra.brix.WindowProbe");
    QDBusInterface sim("com.lumetra.BrixCanonCapture.Simulator", "/com/lumetra/brix/Simulator",
                       "com.lumetra.brix.Simulator");
    auto waitFor = [&](const std::function<bool()> &done) {
        return test::processEventsUntil([&] { return station.state() != QProcess::Running || done(); },
                                        std::chrono::seconds(60)) &&
               station.state() == QProcess::Running;
    };
    ASSERT_TRUE(waitFor([&] { return call(probe, "StatusLine").toString() == "Canon EOS 5D Mark IV"; }))
        << station.readAllStandardError().constData();
    // The station starts in its mini size; Control-click on the disclosure button opens it.
    ASSERT_TRUE(waitFor([&] { return call(probe, "Mode").toString() == "mini"; }));
    call(probe, "ExpandToFullSize");
    // The title is the one the start-up wrote into prefWindowTitleName.
    EXPECT_TRUE(call(probe, "Title").toString().startsWith("BrixCanonCapture v1.0.0 xc-"));

    // The body is in Manual: both exposure controls usable. Turned to Tv: only shutter speed.
    auto panel = [&] { return qdbus_cast<QVariantMap>(call(probe, "Panel")); };
    ASSERT_TRUE(waitFor([&] { return panel().value("Tv").toString() == "1/60"; }));
    EXPECT_EQ(panel().value("AEMode").toString(), "Manual Exposure");
    EXPECT_TRUE(panel().value("Av.enabled").toBool());
    call(sim, "SetProperty", {QVariant::fromValue(0x400u), QVariant::fromValue(1u)});
    ASSERT_TRUE(waitFor([&] { return !panel().value("Av.enabled").toBool(); }));
    EXPECT_TRUE(panel().value("Tv.enabled").toBool());

    // Live view on; a shot from the window's button: counted and shown, and
    // live view back after it.
    ASSERT_TRUE(call(probe, "ClickButton", {QString("liveviewbutton")}).toBool());
    ASSERT_TRUE(
        waitFor([&] { return call(probe, "Text", {QString("liveviewrate")}).toString().endsWith(" fps"); }));
    ASSERT_TRUE(call(probe, "ClickButton", {QString("takepicture")}).toBool());
    ASSERT_TRUE(waitFor([&] { return call(probe, "Counters").toString() == "1 1"; }));
    ASSERT_TRUE(
        waitFor([&] { return call(probe, "Text", {QString("liveviewrate")}).toString().endsWith(" fps"); }));

    // The screenshot; the README's copy is made by pointing BRIX_SCREENSHOT_OUT at it.
    const QString shotPath = qEnvironmentVariable("BRIX_SCREENSHOT_OUT", test::testHome() + "/window.png");
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(500)); // let the image paint
    ASSERT_TRUE(call(probe, "Screenshot", {shotPath}).toBool());
    const QImage screen(shotPath);
    ASSERT_FALSE(screen.isNull());
    EXPECT_GE(screen.width(), 900);
    // The online dot is the system green somewhere on screen.
    bool green = false;
    for (int y = 0; y < 80 && !green; ++y)
        for (int x = 0; x < 60 && !green; ++x)
            green = screen.pixelColor(x, y) == QColor(52, 199, 89);
    EXPECT_TRUE(green);

    // Close: the sheet comes; "stay" keeps the station running.
    call(probe, "Close");
    ASSERT_TRUE(waitFor([&] { return call(probe, "ClickButton", {QString("stay")}).toBool(); }));
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(300));
    ASSERT_EQ(station.state(), QProcess::Running);
    EXPECT_EQ(call(probe, "Counters").toString(), "1 1");
    // Close again and quit: the process ends with status 0.
    call(probe, "Close");
    test::processEventsUntil([&] { return call(probe, "ClickButton", {QString("confirmquit")}).toBool(); },
                             std::chrono::seconds(20));
    // The loop above may already have seen it end.
    ASSERT_TRUE(station.state() == QProcess::NotRunning || station.waitForFinished(30000));
    EXPECT_EQ(station.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(station.exitCode(), 0);
}
