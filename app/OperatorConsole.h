// OperatorConsole: the short lines an operator reads on the terminal that
// started the station: the camera backend, a camera found or lost, each shot
// saved with its path, and errors the operator has to act on (a command the
// camera refused, a camera held by another program). The log file is not
// touched; with --quiet nothing is printed.
//
// It only observes: the camera notifications of the default NotificationCenter,
// and what the shell hands it (backend, saved shots, shutdown). A backend tells
// the operator about a condition only it can see by posting a notification
// whose user info carries a text under "message"; each such text is printed.
//
// Threads: notifications arrive on whatever thread posts them and shotSaved()
// is called on the metadata queue; every line is written whole and flushed
// under one lock, so lines never interleave and reach a pipe at once.
// Ownership: owns its observer registrations; the output stream is not owned.
#pragma once

#include "NotificationCenter.h"

#include <QString>

#include <cstdio>
#include <mutex>
#include <vector>

namespace brix {

class OperatorConsole {
public:
    static constexpr const char *kMessageKey = "message";

    // quiet: observe nothing and print nothing.
    explicit OperatorConsole(bool quiet, std::FILE *out = stdout);
    ~OperatorConsole();
    OperatorConsole(const OperatorConsole &) = delete;
    OperatorConsole &operator=(const OperatorConsole &) = delete;

    // The camera backend in use, or why none could be started.
    void backendStarted(const QString &name);
    void backendUnavailable(const QString &name, const QString &why);
    void shotSaved(const QString &path);
    // The station is ending: the camera's unloading is not reported as a loss.
    void stopping();

private:
    void handle(const Notification &notification);
    void print(const QString &text);

    const bool quiet_;
    std::FILE *out_;
    std::mutex mutex_;
    QString cameraPresent_; // name of the camera last reported found; guarded by mutex_
    bool stopping_ = false; // guarded by mutex_
    std::vector<NotificationCenter::Token> tokens_;
};

} // namespace brix
