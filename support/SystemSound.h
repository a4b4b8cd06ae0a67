// Theme sounds through libcanberra: the system beep ("bell") and named sounds
// such as "Grab" (the freedesktop "camera-shutter" event). A machine without a
// sound server plays nothing; that is never an error for the caller.
//
// Threads: any; playback is asynchronous inside libcanberra.
#pragma once

#include <QString>

namespace brix {

class SystemSound {
public:
    static void beep();
    // Plays a named system sound ("Grab", or any freedesktop event id).
    static void play(const QString &name);
    // Number of beeps requested since start (the station runs unattended;
    // tests and the log can tell that a beep was asked for).
    static int beepCount();
};

} // namespace brix
