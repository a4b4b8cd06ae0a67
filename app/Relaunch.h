// Quit and relaunch: ends the station and starts it again with the same
// arguments once this process has gone (a second copy must not meet the first).
//
// Threads: main thread.
#pragma once

#include <QStringList>

namespace brix::Relaunch {

// The argument the relaunched copy gets (added once).
inline constexpr const char *kAutoRelaunchedArgument = "--autorelaunched";

// Starts a detached waiter that runs the station again after this process has
// ended, then asks the main loop to exit with status 0. Without a waiter the
// station still quits, and says so in the log.
void quitAndRelaunch(const QStringList &arguments);

} // namespace brix::Relaunch
