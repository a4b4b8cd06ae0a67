// The real station as a child process, and a sibling application that talks
// to it over the test's private session bus. For test executables that define
// BRIX_EXECUTABLE (the station's path).
#pragma once

#include "DistributedNotificationCenter.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <signal.h>

#include <chrono>
#include <vector>

namespace brix::test {

// One station process, started with the test's environment plus what set()
// adds (the simulated camera unless told otherwise). Ends with a normal quit,
// as a killed station would be relaunched by its watchdog.
class StationProcess {
public:
    StationProcess() : env_(QProcessEnvironment::systemEnvironment()) {
        env_.insert("BRIX_CAMERA_BACKEND", "simulator");
    }
    ~StationProcess() {
        if (p_.state() != QProcess::NotRunning && terminate() < 0) {
            p_.kill();
            p_.waitForFinished(5000);
        }
    }
    StationProcess(const StationProcess &) = delete;
    StationProcess &operator=(const StationProcess &) = delete;

    StationProcess &set(const QString &name, const QString &value) {
        env_.insert(name, value);
        return *this;
    }
    // Starts the station; the log is read from its end at this moment.
    bool start(const QStringList &arguments = {"--headless"},
               QProcess::ProcessChannelMode channels = QProcess::ForwardedErrorChannel) {
        QFile log(logPath());
        offset_ = log.exists() ? log.size() : 0;
        p_.setProcessEnvironment(env_);
        p_.setProcessChannelMode(channels);
        p_.start(BRIX_EXECUTABLE, arguments);
        return p_.waitForStarted(10000);
    }
    // Waits for the simulator's control on the bus and makes shots small JPEGs.
    bool waitForSimulator() {
        const bool up = processEventsUntil(
            [] {
                return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                    "com.lumetra.BrixCanonCapture.Simulator");
            },
            std::chrono::seconds(30));
        return up && simulator().call("SetShotFormat", QString("JPG"), 200000u).errorName().isEmpty();
    }
    static QDBusInterface simulator() {
        return QDBusInterface("com.lumetra.BrixCanonCapture.Simulator", "/com/lumetra/brix/Simulator",
                              "com.lumetra.brix.Simulator");
    }
    static QString logPath() {
        return qEnvironmentVariable("XDG_STATE_HOME") + "/Logs/Brix/BrixCanonCapture.log";
    }
    // What the station logged since it started.
    QString log() const { return QString::fromUtf8(readFile(logPath()).mid(offset_)); }
    bool waitForLog(const QString &text, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        return processEventsUntil([&] { return log().contains(text) || !running(); }, timeout) &&
               log().contains(text);
    }
    bool running() const { return p_.state() == QProcess::Running; }
    // SIGTERM; the exit code of a normal exit, -1 otherwise.
    int terminate() {
        if (p_.state() == QProcess::NotRunning)
            return p_.exitStatus() == QProcess::NormalExit ? p_.exitCode() : -1;
        ::kill(pid_t(p_.processId()), SIGTERM);
        if (!p_.waitForFinished(20000))
            return -1;
        return p_.exitStatus() == QProcess::NormalExit ? p_.exitCode() : -1;
    }
    QProcess &process() { return p_; }

private:
    QProcessEnvironment env_;
    QProcess p_;
    qint64 offset_ = 0;
};

// A sibling application: its own connection to the bus, recording everything
// posted under the names it listens to.
class Sibling {
public:
    using Message = DistributedNotificationCenter::Message;
    explicit Sibling(const QStringList &names = {"brixXNotification", "BrixPreviewerNotification"})
        : connection_(QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                    QStringLiteral("sibling%1").arg(++counter_))),
          center_(connection_) {
        for (const QString &n : names)
            center_.addObserver(n, [this](const Message &m) { received.push_back(m); });
    }
    ~Sibling() { QDBusConnection::disconnectFromBus(connection_.name()); }

    void post(const QString &name, const QString &object, const QVariantMap &info) {
        center_.post(name, object, info);
    }
    // A request to the station, as the other applications send it.
    void request(const QString &action, const QString &object = QStringLiteral("sibling"),
                 bool withSender = true) {
        QVariantMap info{{"action", action}};
        if (withSender)
            info.insert("senderApp", "SiblingTool");
        post("BrixNikonAppNotification", object, info);
    }
    // Messages of that name (any name when empty) whose user info has `key`
    // (any when empty).
    std::vector<Message> with(const QString &name, const QString &key = {}) const {
        std::vector<Message> out;
        for (const auto &m : received)
            if ((name.isEmpty() || m.name == name) && (key.isEmpty() || m.userInfo.contains(key)))
                out.push_back(m);
        return out;
    }
    std::vector<Message> files() const { return with("brixXNotification", "filePath"); }
    std::vector<uint> statuses() const {
        std::vector<uint> out;
        for (const auto &m : with("brixXNotification", "cameraStatus"))
            out.push_back(m.userInfo.value("cameraStatus").toUInt());
        return out;
    }
    bool waitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return processEventsUntil([&] { return received.size() >= count; }, timeout);
    }
    bool waitForStatuses(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        return processEventsUntil([&] { return statuses().size() >= count; }, timeout);
    }
    bool waitForFiles(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        return processEventsUntil([&] { return files().size() >= count; }, timeout);
    }
    std::vector<Message> received;

private:
    static inline int counter_ = 0;
    QDBusConnection connection_;
    DistributedNotificationCenter center_;
};

// The files in the folder, by name.
inline QStringList filesIn(const QString &folder) {
    return QDir(folder).entryList(QDir::Files, QDir::Name);
}

} // namespace brix::test
