#include "SignalWatcher.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>

namespace brix {

namespace {
sigset_t terminationSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}
} // namespace

void SignalWatcher::blockTerminationSignals() {
    sigset_t set = terminationSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalWatcher::SignalWatcher(QObject *parent) : QObject(parent) {
    sigset_t set = terminationSet();
    fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) {
        std::perror("signalfd");
        return;
    }
    notifier_ = std::make_unique<QSocketNotifier>(fd_, QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &SignalWatcher::readSignals);
}

SignalWatcher::~SignalWatcher() {
    notifier_.reset();
    if (fd_ >= 0)
        ::close(fd_);
}

void SignalWatcher::readSignals() {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof info) == ssize_t(sizeof info))
        emit terminationRequested(int(info.ssi_signo));
}

} // namespace brix
