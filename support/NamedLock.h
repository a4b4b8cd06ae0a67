// A mutex with a name and timed acquisition, for the camera's queue, command,
// live-view, update and list locks.
//
// Threads: any. Like any mutex, it is released by the thread that took it.
#pragma once

#include <QString>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace brix {

class NamedLock {
public:
    explicit NamedLock(QString name) : name_(std::move(name)) {}
    NamedLock(const NamedLock &) = delete;
    NamedLock &operator=(const NamedLock &) = delete;

    const QString &name() const { return name_; }

    bool tryLock() {
        std::lock_guard lk(m_);
        return take();
    }
    // Waits at most `seconds` for the lock; true when taken. The wait is measured
    // on the steady clock: a step of the wall clock (NTP on a machine without a
    // real-time clock) neither stretches nor cuts it. A condition variable rather
    // than a timed mutex, because the steady-clock timed lock of the C library
    // is invisible to the thread sanitizer.
    bool lockBeforeSeconds(double seconds) {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(seconds < 0 ? 0 : seconds));
        std::unique_lock lk(m_);
        return freed_.wait_until(lk, deadline, [&] { return !held_; }) && take();
    }
    void lock() {
        std::unique_lock lk(m_);
        freed_.wait(lk, [&] { return !held_; });
        held_ = true;
    }
    void unlock() {
        {
            std::lock_guard lk(m_);
            held_ = false;
        }
        freed_.notify_one();
    }

private:
    bool take() {
        if (held_)
            return false;
        held_ = true;
        return true;
    }

    QString name_;
    std::mutex m_;
    std::condition_variable freed_;
    bool held_ = false;
};

} // namespace brix
