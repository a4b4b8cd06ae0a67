// The executable's options. Unknown arguments are kept (the launch arguments
// "-fromlaunchagent" and kin are read elsewhere) and never rejected.
//
// Threads: main thread, at start-up. Plain value type.
#pragma once

#include <QString>
#include <QStringList>

namespace brix {

struct CommandLine {
    bool help = false;
    bool version = false;
    bool headless = false;
    bool quiet = false;     // no operator lines on standard output
    QString cameraBackend;  // "simulator", "gphoto2", "edsdk", "auto"; empty = environment or default
    QString exportSettings; // write the remembered camera settings to this file and exit
    QString importSettings; // import camera settings from this file at start-up
    int importResponse = 0; // 1001 merge, 1002 overwrite (required with importSettings)
    QStringList errors;     // options given with a bad value

    static CommandLine parse(const QStringList &arguments);
    static QString helpText(const QString &programName);
};

} // namespace brix
