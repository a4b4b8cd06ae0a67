// Deferred, periodic, one-at-a-time and run-once execution for every object of
// the program, on top of the dispatch queues.
//
// Threads: every operation may be called from any thread; blocks run on the
// queue they name (nullptr = the main queue). The run-once key table lives on the
// serial queue "com.okvasoft.coalescing" and is touched nowhere else. Queues
// returned are shared handles owned by the caller; the process-wide ones (main,
// global, one-at-a-time, coalescing) live for the process.
#pragma once

#include "Dispatch.h"

#include <QVariant>

#include <functional>
#include <memory>

namespace brix {

using dispatch::QOS;
using dispatch::QueuePtr;
using Block = std::function<void()>;

class Scheduling {
public:
    // Edges of a run-once burst.
    static constexpr unsigned kRunAtStart = 1;
    static constexpr unsigned kRunAtEnd = 2;

    // --- queue makers; labelled queues are tagged with themselves ---
    static QueuePtr dispatchQueueSerialWithDebugLabel(const QString &label,
                                                      std::chrono::microseconds spin = {});
    static QueuePtr dispatchQueueConcurrentWithDebugLabel(const QString &label);
    static QueuePtr dispatchQueueSerial();
    static QueuePtr dispatchQueueGlobalWithQOS(QOS qos);
    static QueuePtr dispatchQueueUserInitiated();
    static QueuePtr dispatchQueueGlobal();
    static const void *dispatchQueueSpecificKeyIdentity();

    // --- queue tests and hops ---
    static bool isMainQueue();
    // Runs at once when queue is null or is the current queue; else waits for it there.
    static void performSyncOnQueue(const QueuePtr &queue, const Block &block);
    // Runs at once when already on queue; else submits without waiting.
    static void performInlineOnQueue(const QueuePtr &queue, Block block);
    static void performInlineOnMainQueue(Block block);
    static void performSyncOnMainQueue(const Block &block);
    static void performAsyncOnMainQueue(Block block);
    static void performAsyncGlobalQOS(QOS qos, Block block);
    static void performAsyncGlobalUserInitiated(Block block);
    static void performAsyncGlobal(Block block);

    // --- one block at a time in the whole process, in submission order ---
    // A synchronous call from inside a block already in this lane dead-locks.
    static void performOneAtATimeSync(bool sync, Block block);
    static void performOneAtATimeSync(Block block);
    static void performOneAtATimeAsync(Block block);

    // --- delays (always asynchronous, even for 0 seconds) ---
    static void afterDelay(double seconds, const QueuePtr &queue, Block block);
    static void afterDelayOnMainQueuePerformBlock(double seconds, Block block);
    static void afterDelayOnGlobalQueuePerformBlock(double seconds, Block block);

    // --- intervals: the object is held weakly; the series ends when it dies or
    // the interval block answers 0 or less ---
    template <class T> using IntervalBlock = std::function<double(T &object, double previous)>;

    template <class T>
    static void performAtInterval(const std::shared_ptr<T> &object, IntervalBlock<T> interval,
                                  const QueuePtr &queue, IntervalBlock<T> setup = {}) {
        performAtIntervalErased(std::weak_ptr<void>(object), eraseInterval(std::move(interval)), queue,
                                setup ? eraseInterval(std::move(setup)) : ErasedInterval{});
    }
    template <class T>
    static void performAtIntervalOnMainQueue(const std::shared_ptr<T> &object, IntervalBlock<T> interval) {
        performAtInterval(object, std::move(interval), nullptr);
    }
    template <class T>
    static void performAtIntervalOnMainQueue(const std::shared_ptr<T> &object, IntervalBlock<T> interval,
                                             double afterWaiting) {
        performAtInterval(object, std::move(interval), nullptr, fixedWait<T>(afterWaiting));
    }
    template <class T>
    static void performAtIntervalOnGlobalQueue(const std::shared_ptr<T> &object, IntervalBlock<T> interval) {
        performAtInterval(object, std::move(interval), dispatchQueueGlobal());
    }
    template <class T>
    static void performAtIntervalOnGlobalQueue(const std::shared_ptr<T> &object, IntervalBlock<T> interval,
                                               double afterWaiting) {
        performAtInterval(object, std::move(interval), dispatchQueueGlobal(), fixedWait<T>(afterWaiting));
    }

    // --- run once per key; the key table is shared by the whole process ---
    static void runOnceForKeyWhen(const QVariant &key, const QueuePtr &queue, double afterWaiting,
                                  unsigned when, Block block);
    // Leading edge: run at once, swallow repeats for the period.
    static void runOnceForKeyCollectingFor(const QVariant &key, const QueuePtr &queue, double collectingFor,
                                           Block block);
    // Trailing edge: run once, a full period after the last call of a burst.
    static void runOnceForKeyAfterWaiting(const QVariant &key, const QueuePtr &queue, double afterWaiting,
                                          Block block);
    // Both edges.
    static void runOnceForKeyBeforeAndAfter(const QVariant &key, const QueuePtr &queue, double beforeAndAfter,
                                            Block block);

    // Number of keys with pending waits (read on the coalescing queue).
    static int pendingRunOnceKeys();
    // The process-wide queues, exposed so that callers (and tests) can wait for them.
    static QueuePtr coalescingQueue();
    static QueuePtr oneAtATimeQueue();

private:
    using ErasedInterval = std::function<double(void *object, double previous)>;

    template <class T> static ErasedInterval eraseInterval(IntervalBlock<T> f) {
        return [f = std::move(f)](void *object, double previous) {
            return f(*static_cast<T *>(object), previous);
        };
    }
    template <class T> static IntervalBlock<T> fixedWait(double seconds) {
        return [seconds](T &, double) { return seconds; };
    }
    static void performAtIntervalErased(std::weak_ptr<void> object, ErasedInterval interval,
                                        const QueuePtr &queue, ErasedInterval setup);
};

} // namespace brix
