// End-to-end: brixctl against the real station, headless on the simulated
// camera, each a process of its own on the test's private session bus.
#include "Station.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <signal.h>

using namespace brix;
using namespace std::chrono_literals;

namespace {

const QRegularExpression kShotPath(QStringLiteral("^/.+/\\d{17}\\.jpg$"));

using Result = test::Run;

Result brixctl(const QStringList &arguments) {
    return test::run(BRIXCTL_EXECUTABLE, arguments);
}

class Brixctl : public ::testing::Test {
protected:
    void TearDown() override {
        if (watch_.state() != QProcess::NotRunning) {
            ::kill(pid_t(watch_.processId()), SIGTERM);
            watch_.waitForFinished(20000);
        }
    }
    void startStation(const QStringList &extra = {}) {
        ASSERT_TRUE(station_.start(QStringList{"--headless"} + extra, QProcess::SeparateChannels));
        ASSERT_TRUE(station_.waitForSimulator());
    }
    // Everything the station printed so far.
    QString stationOutput() {
        stationOut_ += QString::fromLocal8Bit(station_.process().readAllStandardOutput());
        return stationOut_;
    }
    bool stationPrinted(const QString &text) {
        return test::processEventsUntil(
            [&] {
                station_.process().waitForReadyRead(50);
                return stationOutput().contains(text);
            },
            30s);
    }

    test::StationProcess station_;
    QProcess watch_;
    QString stationOut_;
};

} // namespace

TEST_F(Brixctl, ShootAndStatusWithoutAStationAndWithAndWithoutACameraAsTheOperatorSeesThem) {
    // No station: shoot fails within its timeout.
    QElapsedTimer clock;
    clock.start();
    const Result alone = brixctl({"--timeout", "2", "shoot"});
    EXPECT_EQ(alone.code, 4);
    EXPECT_EQ(alone.out, "");
    EXPECT_TRUE(alone.err.contains("no station answered on the session bus within 2 s"))
        << alone.err.toStdString();
    EXPECT_GE(clock.elapsed(), 2000);
    EXPECT_LT(clock.elapsed(), 8000) << "process start-up included";

    startStation();
    ASSERT_TRUE(stationPrinted("camera backend: simulator\n")) << stationOutput().toStdString();
    ASSERT_TRUE(stationPrinted("camera found: Canon EOS 5D Mark IV\n")) << stationOutput().toStdString();

    const Result shot = brixctl({"shoot"});
    ASSERT_EQ(shot.code, 0) << shot.err.toStdString();
    const QStringList lines = shot.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 1) << shot.out.toStdString();
    EXPECT_TRUE(kShotPath.match(lines[0]).hasMatch()) << lines[0].toStdString();
    EXPECT_TRUE(QFileInfo(lines[0]).isFile() && QFileInfo(lines[0]).size() > 0);
    EXPECT_TRUE(stationPrinted("shot saved: " + lines[0] + "\n")) << stationOutput().toStdString();
    EXPECT_EQ(brixctl({"images"}).out, lines[0] + "\n");

    Result status = brixctl({"status"});
    EXPECT_EQ(status.code, 0) << status.err.toStdString();
    EXPECT_EQ(status.out, "connected: Canon EOS 5D Mark IV\n");
    EXPECT_EQ(brixctl({"save-settings"}).code, 0);
    EXPECT_TRUE(station_.waitForLog("ibSaveSettings:.....mTable["))
        << "the station remembered the body's settings";

    ASSERT_EQ(brixctl({"sim", "unplug"}).code, 0);
    ASSERT_TRUE(stationPrinted("camera lost: Canon EOS 5D Mark IV\n")) << stationOutput().toStdString();
    status = brixctl({"status"});
    EXPECT_EQ(status.code, 1) << status.err.toStdString();
    EXPECT_EQ(status.out, "no camera\n");
    const Result refused = brixctl({"shoot"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_TRUE(refused.err.contains("no camera")) << refused.err.toStdString();
    // Asking did not change the camera name the station shows.
    EXPECT_EQ(stationOutput().count("camera lost"), 1) << stationOutput().toStdString();
}

TEST_F(Brixctl, WatchPrintsABurstOfTenInOrderUntilInterrupted) {
    startStation({"--quiet"});
    watch_.start(BRIXCTL_EXECUTABLE, {"watch"});
    ASSERT_TRUE(watch_.waitForStarted(10000));
    std::vector<QJsonObject> seen;
    auto readWatch = [&] {
        watch_.waitForReadyRead(50);
        while (watch_.canReadLine()) {
            const QJsonDocument line = QJsonDocument::fromJson(watch_.readLine());
            EXPECT_TRUE(line.isObject());
            seen.push_back(line.object());
        }
    };
    // Once watch shows a request of ours, it is listening.
    ASSERT_TRUE(test::processEventsUntil(
        [&] {
            brixctl({"--timeout", "1", "status"});
            readWatch();
            return !seen.empty();
        },
        60s));

    auto sim = test::StationProcess::simulator();
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(sim.call("PressShutter").errorName().isEmpty());
    QStringList paths;
    ASSERT_TRUE(test::processEventsUntil(
        [&] {
            readWatch();
            paths.clear();
            for (const QJsonObject &o : seen)
                if (o["name"] == "brixXNotification" && o["userInfo"].toObject().contains("filePath"))
                    paths << o["userInfo"].toObject()["filePath"].toString();
            return paths.size() >= 10;
        },
        60s))
        << paths.size();
    EXPECT_EQ(paths.size(), 10);
    QStringList sorted = paths;
    sorted.sort();
    sorted.removeDuplicates();
    EXPECT_EQ(paths, sorted) << "out of order or repeated";
    for (const QString &p : paths)
        EXPECT_TRUE(kShotPath.match(p).hasMatch() && QFileInfo(p).isFile()) << p.toStdString();

    ::kill(pid_t(watch_.processId()), SIGINT);
    ASSERT_TRUE(watch_.waitForFinished(20000));
    EXPECT_EQ(watch_.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(watch_.exitCode(), 0);
    EXPECT_EQ(stationOutput(), "") << "--quiet";
}
