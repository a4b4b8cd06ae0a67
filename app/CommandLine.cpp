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
        } else if (arg == "--export-settings" && i + 1 < arguments.size()) {
            cl.exportSettings = arguments[++i];
        } else if (arg == "--import-settings" && i + 1 < arguments.size()) {
            cl.importSettings = arguments[++i];
        } else if (arg == "--merge") {
            cl.importResponse = 1001;
        } else if (arg == "--overwrite") {
            cl.importResponse = 1002;
        } else if (arg.startsWith("--camera-backend=")) {
            QString value = arg.mid(int(qstrlen("--camera-backend="))).toLower();
            if (kBackends.contains(value))
                cl.cameraBackend = value;
            else
                cl.errors << QStringLiteral("unknown camera backend \"%1\" (use %2)")
                                 .arg(value, kBackends.join('|'));
        } else if (arg == "--camera-backend" && i + 1 < arguments.size()) {
            QString value = arguments[++i].toLower();
            if (kBackends.contains(value))
                cl.cameraBackend = value;
            else
                cl.errors << QStringLiteral("unknown camera backend \"%1\" (use %2)")
                                 .arg(value, kBackends.join('|'));
        }
    }
    if (!cl.importSettings.isEmpty() && cl.importResponse == 0)
        cl.errors << QStringLiteral("--import-settings needs --merge or --overwrite");
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
               "  --export-settings FILE     write the remembered camera settings to FILE\n"
               "                             (.plist, or .xml beside FILE.plist) and exit\n"
               "  --import-settings FILE --merge|--overwrite\n"
               "                             take camera settings from FILE at start-up\n"
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
