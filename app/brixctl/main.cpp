// brixctl: drives a running station from a shell, as a sibling application
// would, over the session bus: take a picture and wait for its file, ask for
// the camera's state, print the announcements, list the shots, and work the
// simulated camera's controls.
//
// Threads: main thread only; replies and announcements arrive through the main
// loop, which runs while a command waits.
#include "BundleInfo.h"
#include "DistributedNotificationCenter.h"
#include "HotFolder.h"
#include "InterAppNotifications.h"
#include "Paths.h"
#include "Preferences.h"
#include "SignalWatcher.h"
#include "SimulatorControl.h"
#include "SingleInstance.h"
#include "ViewController.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <cstdio>
#include <functional>
#include <optional>

using namespace brix;
using Message = DistributedNotificationCenter::Message;

namespace {

// Exit codes; the manual page lists them.
enum ExitCode {
    kExitOk = 0,
    kExitRefused = 1,   // the station answered: no camera; the simulator refused; no save folder
    kExitUsage = 2,     // unknown command, option or argument
    kExitNoBus = 3,     // no session bus
    kExitNoStation = 4, // nothing answered within the timeout
    kExitNoShot = 5,    // the station has a camera, but no shot arrived within the timeout
};

constexpr double kDefaultTimeoutSeconds = 10.0;
constexpr const char *kProgram = "brixctl";

const char *const kUsage = R"(Usage: brixctl [--timeout SECONDS] COMMAND [ARGUMENTS]

Talks to a running BrixCanonCapture station over the session bus.

Commands:
  shoot              take a picture; print the saved file's path
  status             print whether the station has a camera, and its name
  watch              print every announcement, one JSON object a line, until interrupted
  images [--send]    list the JPEG files in the save folder (--send: hand them to the previewer)
  save-settings      remember the connected body's settings, as the panel's Save Settings does
  sim COMMAND ...    work the simulated camera (brixctl sim --help)

Options:
  --timeout SECONDS  how long to wait for the station (default 10)
  -h, --help         print help (after a command: that command's help)
  --version          print the version

Exit codes: 0 done; 1 the station has no camera, or the simulator refused;
2 usage error; 3 no session bus; 4 no station answered in time;
5 no shot arrived in time.
)";

const QMap<QString, QString> kCommandHelp = {
    {"shoot", R"(Usage: brixctl [--timeout SECONDS] shoot

Asks the station for a picture ("grabimage") and waits for the file it saves.
Prints the file's full path on success.

Exit codes: 0 the path was printed; 1 the station has no camera;
3 no session bus; 4 no station answered within the timeout;
5 no shot arrived within the timeout.
)"},
    {"status", R"(Usage: brixctl [--timeout SECONDS] status

Asks the station for its camera status ("requestcamerastatus") and prints
"connected: NAME" (or "connected" when the name is not known) or "no camera".

Exit codes: 0 a camera is connected; 1 no camera; 3 no session bus;
4 no station answered within the timeout.
)"},
    {"watch", R"(Usage: brixctl watch

Prints every notification the Brix applications post on the session bus, as
they come, one JSON object a line: {"name":...,"object":...,"userInfo":{...}}.
Runs until interrupted (Ctrl-C, SIGTERM); exits 0 then, 3 without a session bus.
)"},
    {"images", R"(Usage: brixctl images [--send]

Sends "getlistofimages" to the station and prints the JPEG files directly in
the station's save folder (the preference prefSaveFolderPath), one path a line.
With --send, also hands the whole list to the previewer, as the station's
hot-folder send does.

Exit codes: 0 done (also for an empty folder); 1 the save folder cannot be read;
3 --send without a session bus.
)"},
    {"save-settings", R"(Usage: brixctl [--timeout SECONDS] save-settings

Asks the running station to remember the connected body's six settings for its
model (image quality, white balance, aperture, shutter speed, exposure
compensation, ISO); the station puts them back on every later connection.
Export and import them with the station's --export-settings and
--import-settings options.

Exit codes: 0 the station took the request; 3 no session bus;
4 no station answered within the timeout.
)"},
    {"sim", R"(Usage: brixctl sim COMMAND [ARGUMENTS]

Works the simulated camera of a station started with --camera-backend=simulator.
Numbers may be decimal or hexadecimal (0x...).

  plug [MODEL]                      attach a body ("" or nothing: the default model)
  unplug                            pull the body plugged last
  press-shutter                     press the shutter button
  set-property ID VALUE             change a setting as if on the body
  get-property ID                   print a setting's current value
  set-supported-values ID V...      replace the values the body offers for a setting
  inject-error OPERATION CODE COUNT make the next COUNT calls fail with CODE (0: withdraw)
  set-shot-format JPG|CR2 BYTES     shot format, padded to BYTES (0: natural size)
  shot-count                        print the number of shots taken

Exit codes: 0 done; 1 the simulator refused the call; 2 usage error;
3 no session bus; 4 no simulator on the bus.
)"},
};

void out(const QString &text) {
    const QByteArray bytes = (text + QLatin1Char('\n')).toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

int fail(int code, const QString &text) {
    std::fprintf(stderr, "%s: %s\n", kProgram, qPrintable(text));
    return code;
}

// Runs the main loop until `done` answers true or the deadline passes.
bool waitUntil(const std::function<bool()> &done, const QDeadlineTimer &deadline) {
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents,
                                        int(qMax<qint64>(1, deadline.remainingTime())));
    }
    return true;
}

QString seconds(double s) {
    return QString::number(s, 'g', 4) + QStringLiteral(" s");
}

struct Options {
    double timeout = kDefaultTimeoutSeconds;
    bool help = false;
    bool version = false;
    bool send = false;
    QStringList words; // command and its arguments
};

std::optional<Options> parse(const QStringList &arguments, QString *error) {
    Options o;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &a = arguments[i];
        QString timeoutText;
        if (a == "-h" || a == "--help") {
            o.help = true;
            continue;
        }
        if (a == "--version") {
            o.version = true;
            continue;
        }
        if (a == "--send") {
            o.send = true;
            continue;
        }
        if (a == "--timeout") {
            if (i + 1 >= arguments.size()) {
                *error = QStringLiteral("--timeout needs a number of seconds");
                return std::nullopt;
            }
            timeoutText = arguments[++i];
        } else if (a.startsWith("--timeout=")) {
            timeoutText = a.mid(int(qstrlen("--timeout=")));
        } else if (a.startsWith("--") && a.size() > 2) {
            *error = QStringLiteral("unknown option %1").arg(a);
            return std::nullopt;
        } else {
            o.words << a;
            continue;
        }
        bool ok = false;
        o.timeout = timeoutText.toDouble(&ok);
        if (!ok || o.timeout <= 0 || o.timeout > 86400) {
            *error = QStringLiteral("bad --timeout \"%1\" (seconds, more than 0)").arg(timeoutText);
            return std::nullopt;
        }
    }
    return o;
}

class Client {
public:
    explicit Client(const Options &options)
        : options_(options), bus_(QDBusConnection::sessionBus()), center_(bus_) {}

    bool connected() const { return bus_.isConnected(); }

    int shoot() {
        const QDeadlineTimer deadline(qint64(options_.timeout * 1000));
        std::vector<QString> paths;
        center_.addObserver(QString::fromLatin1(interapp::kBrixXNotification), [&](const Message &m) {
            if (m.userInfo.contains(QLatin1String(interapp::kFilePath)))
                paths.push_back(m.userInfo.value(QLatin1String(interapp::kFilePath)).toString());
        });
        const std::optional<bool> camera = cameraStatus(deadline);
        if (!camera)
            return noStation();
        if (!*camera)
            return fail(kExitRefused, QStringLiteral("the station has no camera"));
        paths.clear();
        request(QString::fromLatin1(interapp::kActionGrabImage), QString::fromLatin1(kProgram));
        if (!waitUntil([&] { return !paths.empty(); }, deadline))
            return fail(kExitNoShot,
                        QStringLiteral("no shot arrived within %1").arg(seconds(options_.timeout)));
        out(paths.front());
        return kExitOk;
    }

    int status() {
        const std::optional<bool> camera = cameraStatus(QDeadlineTimer(qint64(options_.timeout * 1000)));
        if (!camera)
            return noStation();
        if (!*camera) {
            out(QStringLiteral("no camera"));
            return kExitRefused;
        }
        const QString name = shownCameraName();
        out(name.isEmpty() ? QStringLiteral("connected") : QStringLiteral("connected: %1").arg(name));
        return kExitOk;
    }

    int watch() {
        SignalWatcher watcher;
        bool stop = false;
        QObject::connect(&watcher, &SignalWatcher::terminationRequested, [&](int) { stop = true; });
        for (const char *name : {interapp::kBrixXNotification, interapp::kSalesStationNotification,
                                 interapp::kPreviewerNotification, interapp::kFlashDriveNotification,
                                 interapp::kWebServerNotification, interapp::kVideoAppNotification,
                                 interapp::kNikonAppNotification}) {
            center_.addObserver(QString::fromLatin1(name), [](const Message &m) {
                QJsonObject line{{"name", m.name},
                                 {"object", m.object},
                                 {"userInfo", QJsonObject::fromVariantMap(m.userInfo)}};
                out(QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact)));
            });
        }
        while (!stop)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        return kExitOk;
    }

    int images() {
        if (options_.send && !connected())
            return noBus();
        if (connected())
            request(QString::fromLatin1(interapp::kActionGetListOfImages), QString::fromLatin1(kProgram));
        Preferences &prefs = Preferences::standard();
        prefs.registerFactoryDefaults();
        QString folder = prefs.stringForKey(QLatin1String(ViewController::kPrefSaveFolderPath));
        if (folder.isEmpty())
            folder = QLatin1String(ViewController::kDefaultSaveFolder);
        folder = Paths::standardizePath(folder);
        if (!QFileInfo(folder).isDir() || !QFileInfo(folder).isReadable()) {
            flush();
            return fail(kExitRefused, QStringLiteral("cannot read the save folder %1").arg(folder));
        }
        const QStringList list = hotfolder::splitCommandOutput(hotfolder::listJpegsAtDepthOne(folder));
        for (const QString &path : list)
            out(path);
        if (options_.send && !list.isEmpty()) {
            center_.post(
                QString::fromLatin1(interapp::kPreviewerNotification),
                QString::fromLatin1(interapp::kObjectTest),
                {{interapp::kSenderApp, interapp::senderApp()},
                 {interapp::kAction, QString::fromLatin1(interapp::kActionNewImageToDisplayForPreviewer)},
                 {interapp::kValue, list}});
        }
        flush();
        return kExitOk;
    }

    int sim(const QStringList &words) {
        if (words.isEmpty())
            return usage(QStringLiteral("sim needs a command (brixctl sim --help)"));
        const QString command = words.first();
        const QStringList args = words.mid(1);
        QVariantList callArgs;
        QString method;
        bool ok = true;
        auto number = [&](const QString &text) -> uint {
            bool good = false;
            const uint value = text.toUInt(&good, 0);
            if (!good)
                ok = false;
            return value;
        };
        auto needs = [&](qsizetype count) { return args.size() == count; };
        if (command == "plug" && args.size() <= 1) {
            method = "Plug";
            callArgs << (args.isEmpty() ? QString() : args[0]);
        } else if (command == "unplug" && needs(0)) {
            method = "Unplug";
        } else if (command == "press-shutter" && needs(0)) {
            method = "PressShutter";
        } else if (command == "set-property" && needs(2)) {
            method = "SetProperty";
            callArgs << number(args[0]) << number(args[1]);
        } else if (command == "get-property" && needs(1)) {
            method = "GetProperty";
            callArgs << number(args[0]);
        } else if (command == "set-supported-values" && args.size() >= 1) {
            method = "SetSupportedValues";
            QList<uint> values;
            for (const QString &v : args.mid(1))
                values << number(v);
            callArgs << number(args[0]) << QVariant::fromValue(values);
        } else if (command == "inject-error" && needs(3)) {
            method = "InjectError";
            callArgs << args[0] << number(args[1]) << number(args[2]);
        } else if (command == "set-shot-format" && needs(2)) {
            method = "SetShotFormat";
            callArgs << args[0] << number(args[1]);
        } else if (command == "shot-count" && needs(0)) {
            method = "ShotCount";
        } else {
            return usage(QStringLiteral("unknown sim command or wrong arguments: %1 (brixctl sim --help)")
                             .arg(words.join(' ')));
        }
        if (!ok)
            return usage(QStringLiteral("not a number in: %1").arg(words.join(' ')));
        if (!connected())
            return noBus();
        if (!bus_.interface()->isServiceRegistered(QString::fromLatin1(eds::kSimulatorBusName)))
            return fail(kExitNoStation,
                        QStringLiteral("no simulated camera on the session bus (start the station "
                                       "with --camera-backend=simulator)"));
        QDBusMessage call = QDBusMessage::createMethodCall(
            QString::fromLatin1(eds::kSimulatorBusName), QString::fromLatin1(eds::kSimulatorObjectPath),
            QString::fromLatin1(eds::kSimulatorInterface), method);
        call.setArguments(callArgs);
        const QDBusMessage reply = bus_.call(call, QDBus::Block, int(options_.timeout * 1000));
        if (reply.type() == QDBusMessage::ErrorMessage) {
            const bool timedOut = reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NoReply");
            return fail(timedOut ? kExitNoStation : kExitRefused,
                        QStringLiteral("%1: %2").arg(method, reply.errorMessage()));
        }
        for (QVariant value : reply.arguments()) {
            if (value.canConvert<QDBusVariant>() && value.metaType() == QMetaType::fromType<QDBusVariant>())
                value = value.value<QDBusVariant>().variant();
            out(value.toString());
        }
        return kExitOk;
    }

    int saveSettings() {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QLatin1String(bundle::kIdentifier), QLatin1String(SingleInstance::kObjectPath),
            QLatin1String(SingleInstance::kInterface), QStringLiteral("SaveCameraSettings"));
        const QDBusMessage reply = bus_.call(call, QDBus::Block, int(options_.timeout * 1000));
        if (reply.type() == QDBusMessage::ErrorMessage)
            return noStation();
        return kExitOk;
    }

    int noBus() const {
        return fail(kExitNoBus,
                    QStringLiteral("no D-Bus session bus (DBUS_SESSION_BUS_ADDRESS is unset or its bus "
                                   "is not running)"));
    }

    static int usage(const QString &text) {
        std::fprintf(stderr, "%s: %s\n", kProgram, qPrintable(text));
        return kExitUsage;
    }

private:
    int noStation() const {
        return fail(kExitNoStation, QStringLiteral("no station answered on the session bus within %1 (is "
                                                   "BrixCanonCapture running?)")
                                        .arg(seconds(options_.timeout)));
    }

    void request(const QString &action, const QString &object) {
        center_.post(QString::fromLatin1(interapp::kNikonAppNotification), object,
                     {{interapp::kSenderApp, interapp::senderApp()}, {interapp::kAction, action}});
    }

    // Waits until the bus has handled everything this connection sent, so that
    // nothing is lost when the process ends right after a post.
    void flush() {
        if (connected())
            bus_.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                     "org.freedesktop.DBus.Peer", "Ping"));
    }

    // The camera name the station shows: a bracketed text is a status, not a name.
    static QString shownCameraName() {
        const QString text =
            Preferences::standard().stringForKey(QLatin1String(ViewController::kPrefNameOfCameraFound));
        if (text.startsWith('<') || text.endsWith(QLatin1String(" - DISCONNECTED")))
            return {};
        return text;
    }

    // Asks for the camera status; nothing when no station answered in time.
    std::optional<bool> cameraStatus(const QDeadlineTimer &deadline) {
        // The station answers with the request's object as the camera name and
        // shows that name in its window: ask with the name it already shows,
        // so that asking leaves the window as it was.
        QString object = shownCameraName();
        if (object.isEmpty())
            object = QString::fromLatin1(kProgram);
        std::optional<bool> answer;
        const auto token =
            center_.addObserver(QString::fromLatin1(interapp::kBrixXNotification), [&](const Message &m) {
                const QVariantMap &info = m.userInfo;
                if (answer || !info.contains(QLatin1String(interapp::kCameraStatus)))
                    return;
                const bool present = info.value(QLatin1String(interapp::kCameraStatus)).toUInt() != 0;
                // Replies to this request, not the camera arrival and loss broadcasts
                // (which carry the camera's own name, and "(null)" when there is none).
                if (present ? info.value(QLatin1String(interapp::kCamerName)).toString() == object
                            : !info.contains(QLatin1String(interapp::kCamerName)))
                    answer = present;
            });
        request(QString::fromLatin1(interapp::kActionRequestCameraStatus), object);
        waitUntil([&] { return answer.has_value(); }, deadline);
        center_.removeObserver(token);
        return answer;
    }

    Options options_;
    QDBusConnection bus_;
    DistributedNotificationCenter center_;
};

} // namespace

int main(int argc, char **argv) {
    // Before any thread starts, so that watch ends through the main loop.
    SignalWatcher::blockTerminationSignals();
    dispatch::setMainThread();
    QCoreApplication app(argc, argv);

    QString error;
    const std::optional<Options> options = parse(QCoreApplication::arguments(), &error);
    if (!options)
        return Client::usage(error + QStringLiteral(" (brixctl --help)"));
    if (options->version) {
        out(QStringLiteral("%1 %2").arg(QLatin1String(kProgram), QLatin1String(bundle::kShortVersion)));
        return kExitOk;
    }
    const QString command = options->words.value(0);
    if (options->help || command == "help") {
        const QString topic = command == "help" ? options->words.value(1) : command;
        if (!topic.isEmpty() && !kCommandHelp.contains(topic))
            return Client::usage(QStringLiteral("no command \"%1\" (brixctl --help)").arg(topic));
        std::fputs(topic.isEmpty() ? kUsage : qPrintable(kCommandHelp.value(topic)), stdout);
        return kExitOk;
    }
    if (command.isEmpty())
        return Client::usage(QStringLiteral("a command is needed (brixctl --help)"));
    if (!kCommandHelp.contains(command))
        return Client::usage(QStringLiteral("unknown command \"%1\" (brixctl --help)").arg(command));
    if (command != "sim" && command != "images" && options->words.size() > 1)
        return Client::usage(QStringLiteral("%1 takes no arguments (brixctl %1 --help)").arg(command));
    if (command == "images" && options->words.size() > 1)
        return Client::usage(QStringLiteral("images takes only --send (brixctl images --help)"));
    if (options->send && command != "images")
        return Client::usage(QStringLiteral("--send belongs to images"));

    Client client(*options);
    if (command == "sim")
        return client.sim(options->words.mid(1));
    if (command == "images")
        return client.images();
    if (!client.connected())
        return client.noBus();
    if (command == "shoot")
        return client.shoot();
    if (command == "status")
        return client.status();
    if (command == "save-settings")
        return client.saveSettings();
    return client.watch();
}
