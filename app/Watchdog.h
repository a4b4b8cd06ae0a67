// Watchdog: keeps the station running. A separate small executable, the
// watchdog process, is started as a child with this process's id; when the
// station ends any way but a normal quit (a caught crash signal, SIGKILL, a
// real fault) or stops turning its main loop, that process starts the station
// again with "--autorelaunched". Crash signals are read from signalfds on the
// main loop and turned into immediate exits, so that the watchdog process sees
// the end; the launch-loop rule stops the relaunching when the station keeps
// dying right after start.
//
// Threads: blockCaughtSignals() on the main thread before any other thread
// exists (threads inherit the mask). keepUsRunning() and
// stopKeepingUsRunning() may be called from any thread; everything else, and
// every signal handler and end handler, runs on the main thread.
// Ownership: all state is process-wide and lives for the process; the signal
// sources returned by catchSignal() are owned by the Watchdog.
#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>

#include <sys/types.h>

class QSocketNotifier;

namespace brix {

class Watchdog {
public:
    static constexpr const char *kResourceName = "watchdog";
    static constexpr const char *kRelaunchArgument = "--autorelaunched";
    // The watchdog's descriptor of the socket pair: beats from the station
    // (a byte a second), one "ready" byte back.
    static constexpr int kHeartbeatFd = 3;
    static constexpr int kHeartbeatIntervalMs = 1000;
    // Test-only switch: when this file appears the station removes it and stops
    // turning its main loop, as a hung station would.
    static constexpr const char *kTestHangFileVariable = "BRIX_TEST_HANG_FILE";

    // Answers true to keep relaunching although the last n launches came within
    // the interval.
    using EscapeDecision = std::function<bool(unsigned count, double interval)>;
    using SignalHandler = std::function<void(int signalNumber)>;

    // Blocks signals 1 to 15 (but 9) in the calling thread, so that every
    // thread started later leaves them to the signalfds of the main loop.
    static void blockCaughtSignals();

    // Ignores the signal at process level and reads it from a signalfd on the
    // main loop, calling `handler` there. Returns the source, or nullptr.
    static QSocketNotifier *catchSignal(int signalNumber, SignalHandler handler);
    // 1 logs and goes on, 15 terminates normally, 2 to 14 end at once with the
    // signal number as exit status. A second call does nothing.
    static void catchCrashSignals();
    // For a station that runs unmonitored: SIGTERM still ends it normally, the
    // other signals act as the system's defaults again.
    static void releaseUncaughtSignals();

    // Starts the watchdog process, once per process.
    static void keepUsRunning();
    // Tells the watchdog process to end (it does not relaunch) and waits briefly for it.
    static void stopKeepingUsRunning();
    // Waits until the watchdog process has read what it needs to relaunch us.
    static bool waitUntilWatched(int timeoutMs);
    // keepUsRunning(), then ends at once with status 0: the watchdog process relaunches us.
    [[noreturn]] static void quitAndRelaunch();

    // The launch-loop rule, with the launch arguments and the clock of this process.
    static void autoRelaunchUnless(unsigned count, double seconds, const EscapeDecision &escapeDecision);

    // What the launch-loop rule decides for a start, computed from its inputs.
    struct LaunchDecision {
        bool clearHistory = false; // a normal start: the history is removed
        bool keepRunning = false;  // start the watchdog process
        QVariantList dates;        // the history to store (when not cleared)
        double interval = 0;
        QStringList logLines; // through the system log, in order
    };
    static LaunchDecision launchLoopRule(unsigned count, double seconds, const EscapeDecision &escapeDecision,
                                         bool relaunched, const QVariantList &recentLaunchDates,
                                         const QDateTime &now);

    // The watchdog executable: beside ours in a build tree, else
    // <prefix>/libexec/BrixCanonCapture/watchdog.
    static QString watchdogPath();
    // The running watchdog process, or -1.
    static pid_t watchdogPid();

    // A line to syslog and to the station's log.
    static void systemLog(const QString &line);
};

} // namespace brix
