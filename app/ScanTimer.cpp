#include "ScanTimer.h"

namespace brix {

void ScanTimer::resume() {
    if (running_)
        return;
    running_ = true;
    arm(dispatch::Nanos(0));
}

void ScanTimer::suspend() {
    if (!running_)
        return;
    running_ = false;
    dispatch::cancelTimer(timerId_);
}

void ScanTimer::arm(dispatch::Nanos delay) {
    // A tick already handed to the queue when the timer was suspended finds
    // running_ false and neither counts nor re-arms.
    timerId_ = dispatch::after(delay, queue_, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || !self->running_)
            return;
        ++self->ticks_;
        self->arm(self->interval_);
    });
}

} // namespace brix
