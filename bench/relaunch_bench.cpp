// How fast the station is back: from SIGKILL of the station to the relaunched
// station's camera announced on the session bus ("brixXNotification" with
// "cameraStatus" 1), and from exec of a normal start to the same announcement;
// on the simulated camera, with a temporary HOME.
//
//   dbus-run-session -- build/default/bench/relaunch_bench [kills] [starts]
//
// Between kills the launch history is cleared in the preference file, so that
// the launch-loop rule never stops the relaunching that is being measured.
#include "DistributedNotificationCenter.h"
#include "Preferences.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

using namespace brix;
using Clock = std::chrono::steady_clock;

namespace {

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

bool waitUntil(const std::function<bool()> &done, int timeoutMs = 60000) {
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    return true;
}

void report(const char *what, std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::printf("%-48s n=%zu median %.1f ms, min %.1f ms, max %.1f ms\n", what, v.size(), v[v.size() / 2],
                v.front(), v.back());
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int kills = argc > 1 ? std::atoi(argv[1]) : 20;
    const int starts = argc > 2 ? std::atoi(argv[2]) : 10;
    if (!QDBusConnection::sessionBus().isConnected()) {
        std::fprintf(stderr, "needs a session bus: dbus-run-session -- %s\n", argv[0]);
        return 2;
    }
    QTemporaryDir home(QDir::tempPath() + "/brix-relaunch-XXXXXX");
    QDir(home.path()).mkpath("run");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home.path());
    env.insert("XDG_CONFIG_HOME", home.path() + "/.config");
    env.insert("XDG_STATE_HOME", home.path() + "/.local/state");
    env.insert("XDG_RUNTIME_DIR", home.path() + "/run");
    env.insert("BRIX_CAMERA_BACKEND", "simulator");
    Preferences prefs(home.path() + "/.config/Brix/com.lumetra.BrixCanonCapture.plist");

    int announced = 0;
    Clock::time_point announcedAt;
    DistributedNotificationCenter center(QDBusConnection::sessionBus());
    center.addObserver("brixXNotification", [&](const DistributedNotificationCenter::Message &m) {
        if (m.userInfo.value("cameraStatus").toUInt() == 1) {
            announcedAt = Clock::now();
            ++announced;
        }
    });
    auto owner = [] {
        QDBusReply<uint> pid =
            QDBusConnection::sessionBus().interface()->servicePid("com.lumetra.BrixCanonCapture");
        return pid.isValid() ? pid_t(pid.value()) : pid_t(0);
    };
    auto stopAll = [&] {
        if (const pid_t pid = owner())
            ::kill(pid, SIGTERM);
        waitUntil([&] { return owner() == 0; });
    };

    std::vector<double> startTimes;
    for (int i = 0; i < starts; ++i) {
        QProcess station;
        station.setProcessEnvironment(env);
        station.setProcessChannelMode(QProcess::ForwardedChannels);
        const int before = announced;
        const auto t0 = Clock::now();
        station.start(BRIX_EXECUTABLE, {"--headless", "--quiet"});
        if (!waitUntil([&] { return announced > before; })) {
            std::fprintf(stderr, "start %d: no camera announced\n", i);
            return 1;
        }
        startTimes.push_back(ms(announcedAt - t0));
        stopAll();
        station.waitForFinished(30000);
    }
    report("exec -> camera loaded and announced", startTimes);

    QProcess first;
    first.setProcessEnvironment(env);
    first.setProcessChannelMode(QProcess::ForwardedChannels);
    int before = announced;
    first.start(BRIX_EXECUTABLE, {"--headless", "--quiet"});
    if (!waitUntil([&] { return announced > before; }))
        return 1;
    const QString logPath = home.path() + "/.local/state/Logs/Brix/BrixCanonCapture.log";
    auto watched = [&](pid_t pid) {
        QFile f(logPath);
        return f.open(QIODevice::ReadOnly) &&
               f.readAll().contains(QByteArray("watchdog: watching pid ") + QByteArray::number(pid) + '\n');
    };
    std::vector<double> relaunchTimes;
    for (int i = 0; i < kills; ++i) {
        const pid_t station = owner();
        if (station <= 0 || !waitUntil([&] { return watched(station); }))
            return 1;
        prefs.removeObjectForKey("recentLaunchDates");
        prefs.synchronize();
        before = announced;
        const auto t0 = Clock::now();
        ::kill(station, SIGKILL);
        if (!waitUntil([&] { return announced > before && owner() != station && owner() > 0; })) {
            std::fprintf(stderr, "kill %d: the station did not come back\n", i);
            return 1;
        }
        relaunchTimes.push_back(ms(announcedAt - t0));
    }
    report("SIGKILL -> relaunched, camera announced", relaunchTimes);
    stopAll();
    first.waitForFinished(30000);
    return 0;
}
