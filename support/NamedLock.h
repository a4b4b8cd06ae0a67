// A mutex with a name and timed acquisition, for the camera's queue, command,
// live-view, update and list locks.
//
// Threads: any. Like any mutex, it is released by the thread that took it.
#pragma once

#include <QString>

#include <chrono>
#include <mutex>

namespace brix {

class NamedLock {
public:
    explicit NamedLock(QString name) : name_(std::move(name)) {}
    NamedLock(const NamedLock &) = delete;
    NamedLock &operator=(const NamedLock &) = delete;

    const QString &name() const { return name_; }

    bool tryLock() { return m_.try_lock(); }
    // Waits at most `seconds` for the lock; true when taken.
    bool lockBeforeSeconds(double seconds) {
        // A deadline on the system clock waits in pthread_mutex_timedlock; the
        // steady-clock form waits in pthread_mutex_clocklock, which the thread
        // sanitizer does not see, so it would lose track of who holds the lock.
        const auto wait = std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(seconds < 0 ? 0 : seconds));
        return m_.try_lock_until(std::chrono::system_clock::now() + wait);
    }
    void lock() { m_.lock(); }
    void unlock() { m_.unlock(); }

private:
    QString name_;
    std::timed_mutex m_;
};

} // namespace brix
