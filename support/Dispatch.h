// Dispatch queues: serial queues with labels, concurrent queues with barriers,
// global queues on a shared thread pool, the main queue (the Qt event loop of the
// main thread), one-shot timers on an injectable clock, queue-specific data, and
// the label of the queue the caller is running on.
//
// Threads: every function here may be called from any thread. Tasks run on the
// queue's own worker (serial), on the shared pool (global, concurrent) or on the
// main thread (main queue). Ownership: queues are shared_ptr handles; a queue
// stays alive while any handle or any pending task refers to it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace brix::dispatch {

using Task = std::function<void()>;

class Queue;
using QueuePtr = std::shared_ptr<Queue>;

// Quality-of-service classes of the global queues, with the platform's numbering.
enum class QOS : unsigned {
    UserInteractive = 0x21,
    UserInitiated = 0x19,
    Default = 0x15,
    Utility = 0x11,
    Background = 0x09,
};

// Label of the main queue and of the default global queue.
inline constexpr const char *kMainQueueLabel = "com.apple.main-thread";
inline constexpr const char *kDefaultGlobalLabel = "com.apple.root.default-qos";

class Queue : public std::enable_shared_from_this<Queue> {
public:
    virtual ~Queue();
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    const std::string &label() const { return label_; }

    // Runs the task later; never inline.
    virtual void async(Task task) = 0;
    // Runs the task and waits for it. On a serial queue called from that same
    // queue the task runs inline instead of dead-locking.
    virtual void sync(Task task);
    // Barrier variants: on a concurrent queue the task runs alone, after every
    // earlier task and before every later one. On other queues they equal async/sync.
    virtual void barrierAsync(Task task) { async(std::move(task)); }
    virtual void barrierSync(Task task) { sync(std::move(task)); }

    virtual bool isSerial() const = 0;

    // Queue-specific data, keyed by address. Values are not owned.
    void setSpecific(const void *key, void *value);
    void *specific(const void *key) const;

protected:
    explicit Queue(std::string label);
    // Runs one task with this queue marked as the current one on this thread.
    void runTask(const Task &task);

private:
    std::string label_;
    struct Specifics;
    std::unique_ptr<Specifics> specifics_;
};

// Queue makers.
// With `spin`, the worker, once out of tasks, keeps looking for the next one
// that long before it sleeps: for a queue fed at a steady beat, where a
// sleeping processor of a virtual machine takes milliseconds to wake.
QueuePtr makeSerialQueue(const std::string &label, std::chrono::microseconds spin = {});
// Looks for `ready()` for up to `spin`, yielding the processor in between, and
// answers whether it came: for a thread about to sleep on what another thread
// will hand it within a few milliseconds.
template <class Ready> bool spinUntil(std::chrono::microseconds spin, Ready ready) {
    const auto until = std::chrono::steady_clock::now() + spin;
    while (!ready()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        std::this_thread::yield();
    }
    return true;
}
QueuePtr makeConcurrentQueue(const std::string &label);
QueuePtr mainQueue();
QueuePtr globalQueue(QOS qos = QOS::Default);

// The queue the caller runs on: the queue whose task is running on this thread;
// the main queue on the main thread outside any task; the default global queue
// on any other thread (as on the platform these labels come from).
Queue *currentQueue();
// Label of currentQueue(). Valid for the life of the process.
const char *currentQueueLabel();
// Queue-specific data looked up from the current queue.
void *getSpecific(const void *key);

// True on the thread that runs the Qt event loop of the application.
bool isMainThread();
// Records the calling thread as the main thread. Called once by whoever creates
// the application object; done automatically on first use otherwise.
void setMainThread();

// Waits until every task submitted to `queue` so far has run. On the main
// thread the Qt event loop keeps turning meanwhile: a task of the queue may
// itself be waiting for the main thread. Such waits may nest, and main-queue
// tasks keep their order. Called from a task of `queue` itself it returns at
// once, since everything submitted before that task has run.
void drainPumpingMainLoop(const QueuePtr &queue);
// On the main thread: runs its event loop until `done` answers true. Whoever
// makes the answer true then submits a task to the main queue (any, even an
// empty one), which is what makes the wait look again. Elsewhere: not allowed.
void waitPumpingMainLoop(const std::function<bool()> &done);

// --- time -----------------------------------------------------------------

using Nanos = std::chrono::nanoseconds;

// The clock that drives timers. Tests replace the real clock with a ManualClock.
class Clock {
public:
    virtual ~Clock() = default;
    virtual Nanos now() const = 0;
};

class ManualClock : public Clock {
public:
    Nanos now() const override { return Nanos(now_.load()); }
    // Moves time forward and submits every timer that falls due, in deadline
    // order, each seeing now() equal to its own deadline while it is submitted.
    // `settle`, when given, runs after each submission: a test lets the work
    // that the timer started finish there (and arm further timers) before time
    // moves on.
    void advance(Nanos by, const std::function<void()> &settle = {});
    void advanceSeconds(double seconds, const std::function<void()> &settle = {});

private:
    std::atomic<int64_t> now_{0};
};

// Installs a clock for all timers (nullptr restores the steady clock). Timers
// armed under one clock are dropped when the clock changes.
void setClock(Clock *clock);
Nanos now();

// Submits the task to the queue (nullptr = main queue) once the delay has passed.
// Returns an id that cancelTimer() accepts.
uint64_t after(Nanos delay, QueuePtr queue, Task task);
// Cancels a timer that has not fired yet. Returns true when it was cancelled.
bool cancelTimer(uint64_t id);

// Converts seconds to nanoseconds, truncating, as the timer arithmetic expects.
Nanos secondsToNanos(double seconds);

// --- threads --------------------------------------------------------------

// Starts a detached thread (commands, list updates, live view). The name shows
// in debuggers; it is cut to 15 characters.
void detachThread(const std::string &name, std::function<void()> body);

} // namespace brix::dispatch
