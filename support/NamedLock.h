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
        return m_.try_lock_for(std::chrono::duration<double>(seconds < 0 ? 0 : seconds));
    }
    void lock() { m_.lock(); }
    void unlock() { m_.unlock(); }

private:
    QString name_;
    std::timed_mutex m_;
};

} // namespace brix
