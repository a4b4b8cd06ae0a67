// The window on the real executable under Xvfb: what the operator sees and
// does on the camera panel, and the window's size modes, where every frame the
// station asks for is exactly what it gets (there is no window manager).
#include "TestSupport.h"

#include <QDBusArgument>
#include <QDBusInterface>
#include <QDir>
#include <QImage>
#include <QProcess>
#include <QRect>
#include <QStandardPaths>

#include <gtest/gtest.h>

using namespace brix;

namespace {

// The real executable with its window on the simulated camera under Xvfb with
// no window manager, checked from outside: through the window probe and the
// simulator's control on the session bus, as a test harness or an
// accessibility client would.
class Station {
public:
    // Starts the station with its window on a 1280x800 virtual X screen, its
    // test probe on the bus, and `prefs` (the body of a property-list
    // dictionary) as the user's stored preferences.
    explicit Station(const QString &prefs) {
        const QString config = qEnvironmentVariable("XDG_CONFIG_HOME") + "/Brix";
        QDir().mkpath(config);
        test::writeFile(config + "/com.lumetra.BrixCanonCapture.plist",
                        QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                                       "<dict>%1</dict></plist>\n")
                            .arg(prefs)
                            .toUtf8());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BRIX_WINDOW_PROBE", "1");
        env.insert("QT_QPA_PLATFORM", "xcb");
        process.setProcessEnvironment(env);
        process.start("xvfb-run",
                      {"-a", "-s", "-screen 0 1280x800x24", BRIX_EXECUTABLE, "--camera-backend=simulator"});
        process.waitForStarted(10000);
    }
    ~Station() {
        if (process.state() == QProcess::Running) {
            call("Close");
            test::processEventsUntil([&] { return call("ClickButton", {QString("confirmquit")}).toBool(); },
                                     std::chrono::seconds(20));
            if (!process.waitForFinished(30000))
                process.kill();
        }
    }
    QVariant call(const QString &method, const QVariantList &args = {}) {
        const QDBusMessage reply = probe.callWithArgumentList(QDBus::Block, method, args);
        return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()
                   ? reply.arguments().first()
                   : QVariant();
    }
    bool waitFor(const std::function<bool()> &done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        return test::processEventsUntil([&] { return process.state() != QProcess::Running || done(); },
                                        timeout) &&
               process.state() == QProcess::Running;
    }
    QRect geometry() {
        const QStringList parts = call("Geometry").toString().split(' ');
        return parts.size() == 4
                   ? QRect(parts[0].toInt(), parts[1].toInt(), parts[2].toInt(), parts[3].toInt())
                   : QRect();
    }
    bool waitForGeometry(const QRect &expected) {
        return waitFor([&] { return geometry() == expected; }, std::chrono::seconds(10));
    }
    // The colour at the centre of the icon's status dot, as the screen shows it.
    QColor dotColour() {
        const QString path = test::testHome() + "/icon.png";
        if (!call("Screenshot", {path}).toBool())
            return {};
        const QImage shot(path);
        return shot.isNull() ? QColor() : shot.pixelColor(shot.width() / 2, shot.height() - 7);
    }

    QProcess process;
    QDBusInterface probe{"com.lumetra.BrixCanonCapture.WindowProbe", "/com/lumetra/brix/WindowProbe",
                         "com.lumetra.brix.WindowProbe"};
    QDBusInterface sim{"com.lumetra.BrixCanonCapture.Simulator", "/com/lumetra/brix/Simulator",
                       "com.lumetra.brix.Simulator"};
};

const QColor kGreen(52, 199, 89);
const QColor kRed(255, 59, 48);

} // namespace

TEST(WindowStation, OperatorSeesTheCameraItsSettingsAndEachShotAndQuitsOnlyThroughTheSheet) {
    if (QStandardPaths::findExecutable("xvfb-run").isEmpty())
        GTEST_SKIP() << "xvfb-run is not installed";
    // Open on the camera panel; an empty list of small sizes and a forced
    // corner written with blanks.
    Station window("<key>prefDefaultMainTabviewItemIdentifier</key><string>camerapanel</string>"
                   "<key>prefMiniSizesInfoArray</key><array/>"
                   "<key>prefForceWindowPosition</key><string> \t Bottom  Right \n</string>");
    QProcess &station = window.process;
    ASSERT_TRUE(window.waitFor([&] {
        return window.call("StatusLine").toString() == "Canon EOS 5D Mark IV";
    })) << station.readAllStandardError().constData();
    // The station starts in its mini size, the default strip pushed into the
    // forced corner; Control-click on the disclosure button opens it.
    ASSERT_TRUE(window.waitFor([&] { return window.call("Mode").toString() == "mini"; }));
    EXPECT_TRUE(window.waitForGeometry(QRect(1280 - 350, 800 - 70, 350, 70)))
        << window.call("Geometry").toString().toStdString();
    window.call("ExpandToFullSize");
    // The title is the one the start-up wrote into prefWindowTitleName.
    EXPECT_TRUE(window.call("Title").toString().startsWith("BrixCanonCapture v1.0.0 xc-"));

    // The panel shows the body's settings.
    auto panel = [&] { return qdbus_cast<QVariantMap>(window.call("Panel")); };
    ASSERT_TRUE(window.waitFor([&] { return panel().value("Tv").toString() == "1/60"; }));
    EXPECT_EQ(panel().value("AEMode").toString(), "Manual Exposure");

    // A shot from the window's button is counted and shown (live view stepping
    // aside for it is WindowTest's).
    ASSERT_TRUE(window.call("ClickButton", {QString("takepicture")}).toBool());
    ASSERT_TRUE(window.waitFor([&] { return window.call("Counters").toString() == "1 1"; }));

    // The screenshot; the README's copy is made by pointing BRIX_SCREENSHOT_OUT at it.
    const QString shotPath = qEnvironmentVariable("BRIX_SCREENSHOT_OUT", test::testHome() + "/window.png");
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(500)); // let the image paint
    ASSERT_TRUE(window.call("Screenshot", {shotPath}).toBool());
    const QImage screen(shotPath);
    ASSERT_FALSE(screen.isNull());
    EXPECT_GE(screen.width(), 900);
    // The online dot is the system green somewhere on screen.
    bool green = false;
    for (int y = 0; y < 80 && !green; ++y)
        for (int x = 0; x < 60 && !green; ++x)
            green = screen.pixelColor(x, y) == kGreen;
    EXPECT_TRUE(green);

    // Close: the sheet comes; "stay" keeps the station running.
    window.call("Close");
    ASSERT_TRUE(window.waitFor([&] { return window.call("ClickButton", {QString("stay")}).toBool(); }));
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(300));
    ASSERT_EQ(station.state(), QProcess::Running);
    EXPECT_EQ(window.call("Counters").toString(), "1 1");
    // Close again and quit: the process ends with status 0.
    window.call("Close");
    test::processEventsUntil([&] { return window.call("ClickButton", {QString("confirmquit")}).toBool(); },
                             std::chrono::seconds(20));
    // The loop above may already have seen it end.
    ASSERT_TRUE(station.state() == QProcess::NotRunning || station.waitForFinished(30000));
    EXPECT_EQ(station.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(station.exitCode(), 0);
}

TEST(WindowModes, MiniSizeIconWithStatusDotDragAndDoubleClickBackToFullSize) {
    if (QStandardPaths::findExecutable("xvfb-run").isEmpty())
        GTEST_SKIP() << "xvfb-run is not installed";
    // The icon entry is known by its "somevalue" alone, written in capitals.
    Station station(
        "<key>prefSelectedMiniPanelSizeValue</key><string>strip</string>"
        "<key>prefMiniSizesInfoArray</key><array>"
        "<dict><key>displayname</key><string>Default - Strip</string><key>somevalue</key>"
        "<string>strip</string><key>width</key><real>420</real><key>heightoffset</key><real>40</real></dict>"
        "<dict><key>displayname</key><string>Icon</string><key>somevalue</key><string>PREF3</string>"
        "<key>width</key><real>64</real><key>height</key><real>72</real></dict></array>");
    // Start-up goes small; the camera comes online meanwhile.
    ASSERT_TRUE(station.waitFor([&] {
        return station.call("Mode").toString() == "mini" &&
               station.call("StatusLine").toString() == "Canon EOS 5D Mark IV";
    })) << station.process.readAllStandardError().constData();
    station.call("ExpandToFullSize");
    ASSERT_EQ(station.call("Mode").toString(), "full");
    const QRect full = station.geometry();
    const QString fullLimits = station.call("Limits").toString();
    ASSERT_GT(full.width(), 420);

    // The chosen strip keeps the window's lower-left corner.
    ASSERT_TRUE(station.call("ClickButton", {QString("ibDisclosureButton")}).toBool());
    EXPECT_TRUE(station.waitForGeometry(QRect(full.x(), full.bottom() + 1 - 60, 420, 60)))
        << station.call("Geometry").toString().toStdString();

    // Without a modifier key the disclosure button leaves the window small.
    ASSERT_TRUE(station.call("ClickButton", {QString("ibDisclosureButton")}).toBool());
    EXPECT_EQ(station.call("Mode").toString(), "mini");

    ASSERT_TRUE(station.call("Choose", {1}).toBool());
    station.call("Collapse");
    ASSERT_EQ(station.call("Mode").toString(), "icon");
    ASSERT_TRUE(station.waitFor([&] { return station.geometry().size() == QSize(64, 72); },
                                std::chrono::seconds(10)));

    // The dot follows the body.
    EXPECT_TRUE(station.waitFor([&] { return station.dotColour() == kGreen; }, std::chrono::seconds(10)));
    station.sim.call("Unplug");
    EXPECT_TRUE(station.waitFor([&] { return station.dotColour() == kRed; }, std::chrono::seconds(20)));
    station.sim.call("Plug", QString());
    EXPECT_TRUE(station.waitFor([&] { return station.dotColour() == kGreen; }, std::chrono::seconds(20)));

    // 3 points is no drag; 10 with Control moves the window. Had the first
    // moved it, the second would start from there and end elsewhere.
    const QRect icon = station.geometry();
    ASSERT_TRUE(station.call("DragIcon", {3, 3, true}).toBool());
    ASSERT_TRUE(station.call("DragIcon", {10, -10, true}).toBool());
    const QRect moved = icon.translated(10, -10);
    ASSERT_TRUE(station.waitForGeometry(moved)) << station.call("Geometry").toString().toStdString();

    // Back and forth, through both small sizes: the full frame and its limits
    // come back every time, and the icon returns where it was dragged.
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(station.call("DoubleClickIcon").toBool());
        ASSERT_EQ(station.call("Mode").toString(), "full");
        EXPECT_TRUE(station.waitForGeometry(full)) << station.call("Geometry").toString().toStdString();
        EXPECT_EQ(station.call("Limits").toString().toStdString(), fullLimits.toStdString());
        station.call("Collapse");
        EXPECT_TRUE(station.waitForGeometry(moved)) << station.call("Geometry").toString().toStdString();
        station.call("Choose", {0});
        station.call("Collapse");
        ASSERT_EQ(station.call("Mode").toString(), "mini");
        station.call("Choose", {1});
        station.call("Collapse");
        ASSERT_EQ(station.call("Mode").toString(), "icon");
    }
}
