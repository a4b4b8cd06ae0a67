#include "CommandLine.h"

namespace brix {

namespace {
const QStringList kBackends = {"simulator", "gphoto2", "edsdk", "auto"};
}

CommandLine CommandLine::parse(const QStringList &arguments) {
    CommandLine cl;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &arg = arguments[i];
        if (arg == "--help" || arg == "-h") {
            cl.help = true;
        } else if (arg == "--version") {
            cl.version = true;
        } else if (arg == "--headless") {
            cl.headless = true;
        } else if (arg == "--quiet" || arg == "-q") {
            cl.quiet = true;
        } else if (arg.startsWith("--camera-backend=")) {
            QString value = arg.mid(int(qstrlen("--camera-backend="))).toLower();
            if (kBackends.contains(value))
                cl.cameraBackend = value;
            else
                cl.errors << QStringLiteral("unknown camera backend \"%1\" (use %2)").arg(value, kBackends.join('|'));
        } else if (arg == "--camera-backend" && i + 1 < arguments.size()) {
            QString value = arguments[++i].toLower();
            if (kBackends.contains(value))
                cl.cameraBackend = value;
            else
                cl.errors << QStringLiteral("unknown camera backend \"%1\" (use %2)").arg(value, kBackends.join('|'));
        }
    }
    return cl;
}

QString CommandLine::helpText(const QString &programName) {
    return QStringLiteral(
               "Usage: %1 [options]\n"
               "\n"
               "Tethering station for one Canon camera on USB.\n"
               "\n"
               "Options:\n"
               "  --headless                 run without a window (kiosk, service, tests)\n"
               "  --camera-backend=NAME      simulator | gphoto2 | edsdk | auto\n"
               "                             (default: $BRIX_CAMERA_BACKEND, else auto)\n"
               "  -q, --quiet                print nothing on standard output; without it the\n"
               "                             station prints a line for the backend, each camera\n"
               "                             found or lost, each shot saved and each error to act on\n"
               "  --version                  print the version and exit\n"
               "  -h, --help                 print this help and exit\n"
               "\n"
               "Launch arguments understood for the station's own tools:\n"
               "  -fromlaunchagent, -frombrixpreview, --autorelaunched\n"
               "\n"
               "Only one station runs per session: a second start asks the running one to\n"
               "come forward and exits. SIGTERM and the window's Quit end the station\n"
               "normally; after a crash, a kill or a hang its watchdog starts it again.\n"
               "SIGHUP is logged and ignored.\n")
        .arg(programName);
}

} // namespace brix
