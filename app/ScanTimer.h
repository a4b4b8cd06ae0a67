// ScanTimer: the hot folder's repeating scan timer, which can be suspended and
// resumed. Its tick has no work of its own yet; it counts its ticks so the
// station (and its tests) can see that it runs.
//
// Threads: resume() and suspend() run on the timer's queue (the current-camera
// queue); the ticks run there too, so they never overlap camera work.
// Ownership: shared; a pending tick holds it weakly and stops when it is gone.
#pragma once

#include "Dispatch.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace brix {

class ScanTimer : public std::enable_shared_from_this<ScanTimer> {
public:
    ScanTimer(dispatch::QueuePtr queue, dispatch::Nanos interval)
        : queue_(std::move(queue)), interval_(interval) {}
    ~ScanTimer() { suspend(); }

    // The first tick comes at once, then one every interval. Resuming a running
    // timer changes nothing.
    void resume();
    void suspend();
    bool running() const { return running_; }
    uint64_t ticks() const { return ticks_.load(); }
    const dispatch::QueuePtr &queue() const { return queue_; }

private:
    void arm(dispatch::Nanos delay);

    dispatch::QueuePtr queue_;
    dispatch::Nanos interval_;
    uint64_t timerId_ = 0;
    bool running_ = false;
    std::atomic<uint64_t> ticks_{0};
};

} // namespace brix
