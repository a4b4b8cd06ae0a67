// The station's process-wide memory policy, applied once at start-up by the
// shell (and by the benchmarks that measure the station's shot path).
//
// Threads: call from the main thread before the camera starts. Owns nothing.
#pragma once

#include "Dispatch.h"

#include <atomic>
#include <chrono>
#include <memory>

namespace brix {

// Shots of tens of megabytes arrive one after another, each in a buffer of its
// own that is let go once the file is written: keep such buffers in the heap
// so that the next shot reuses the memory of the last one.
void keepShotBuffersInTheHeap();

// The heap kept that way only grows: to the most the station ever held at once
// (shots waiting in the body, one waiting for a full disk), and a little more
// with every shuffle of small blocks between the big ones. Once no shot has
// been saved for `quiet`, its free pages go back to the system; a burst keeps
// its warm heap, a station between bursts holds only what it uses.
//
// Threads: shotSaved() from any thread; the trim runs on a utility queue,
// after the clock of `dispatch`. Owns a counter shared with its timers, which
// may outlive it.
class IdleHeapTrim {
public:
    explicit IdleHeapTrim(dispatch::Nanos quiet = std::chrono::seconds(2));
    void shotSaved();

private:
    const dispatch::Nanos quiet_;
    const std::shared_ptr<std::atomic<unsigned long>> shots_ =
        std::make_shared<std::atomic<unsigned long>>(0);
};

} // namespace brix
