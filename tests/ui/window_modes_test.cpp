// The window's size modes on the real executable under Xvfb with no window
// manager, so that every frame the station asks for is exactly what it gets.
#include "Station.h"
#include "TestSupport.h"

#include <QDBusInterface>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QRect>
#include <QStandardPaths>

#include <gtest/gtest.h>

using namespace brix;

namespace {

class Station {
public:
    // Starts the station on a 1280x800 screen with `prefs` (plist dictionary body) as the user's preferences.
    explicit Station(const QString &prefs) { test::startWindowStation(process, prefs); }
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
};

const QColor kGreen(52, 199, 89);
const QColor kRed(255, 59, 48);

} // namespace

TEST(WindowModes, EmptyListGivesTheDefaultStripPushedIntoTheForcedCornerDespiteBlanks) {
    if (QStandardPaths::findExecutable("xvfb-run").isEmpty())
        GTEST_SKIP() << "xvfb-run is not installed";
    Station station("<key>prefMiniSizesInfoArray</key><array/>"
                    "<key>prefForceWindowPosition</key><string> \t Bottom  Right \n</string>");
    ASSERT_TRUE(station.waitFor([&] { return station.call("Mode").toString() == "mini"; }))
        << station.process.readAllStandardError().constData();
    EXPECT_TRUE(station.waitForGeometry(QRect(1280 - 350, 800 - 70, 350, 70)))
        << station.call("Geometry").toString().toStdString();
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
    QDBusInterface sim("com.lumetra.BrixCanonCapture.Simulator", "/com/lumetra/brix/Simulator",
                       "com.lumetra.brix.Simulator");
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
    sim.call("Unplug");
    EXPECT_TRUE(station.waitFor([&] { return station.dotColour() == kRed; }, std::chrono::seconds(20)));
    sim.call("Plug", QString());
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
