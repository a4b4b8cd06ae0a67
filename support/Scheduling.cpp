#include "Scheduling.h"

#include <QList>
#include <QPair>

#include <mutex>

namespace brix {

namespace {

// Its address is the key under which every queue made here stores itself.
const char kIdentityKey = 0;

QueuePtr resolve(const QueuePtr &queue) {
    return queue ? queue : dispatch::mainQueue();
}

QueuePtr tagged(QueuePtr queue) {
    queue->setSpecific(&kIdentityKey, queue.get());
    return queue;
}

// Pending waits per key. Only touched on the coalescing queue.
QList<QPair<QVariant, qint64>> &runOnceTable() {
    static auto *table = new QList<QPair<QVariant, qint64>>;
    return *table;
}

qsizetype findKey(const QVariant &key) {
    const auto &table = runOnceTable();
    for (qsizetype i = 0; i < table.size(); ++i) {
        if (table[i].first == key)
            return i;
    }
    return -1;
}

} // namespace

// --- queue makers ----------------------------------------------------------

QueuePtr Scheduling::dispatchQueueSerialWithDebugLabel(const QString &label, std::chrono::microseconds spin) {
    return tagged(dispatch::makeSerialQueue(label.toStdString(), spin));
}

QueuePtr Scheduling::dispatchQueueConcurrentWithDebugLabel(const QString &label) {
    return tagged(dispatch::makeConcurrentQueue(label.toStdString()));
}

QueuePtr Scheduling::dispatchQueueSerial() {
    return dispatch::makeSerialQueue(std::string());
}
QueuePtr Scheduling::dispatchQueueGlobalWithQOS(QOS qos) {
    return dispatch::globalQueue(qos);
}
QueuePtr Scheduling::dispatchQueueUserInitiated() {
    return dispatch::globalQueue(QOS::UserInitiated);
}
QueuePtr Scheduling::dispatchQueueGlobal() {
    return dispatch::globalQueue(QOS::Default);
}
const void *Scheduling::dispatchQueueSpecificKeyIdentity() {
    return &kIdentityKey;
}

QueuePtr Scheduling::coalescingQueue() {
    static QueuePtr *queue = new QueuePtr(dispatchQueueSerialWithDebugLabel("com.okvasoft.coalescing"));
    return *queue;
}

QueuePtr Scheduling::oneAtATimeQueue() {
    static QueuePtr *queue =
        new QueuePtr(dispatchQueueConcurrentWithDebugLabel("performOneAtATimeSync:block:"));
    return *queue;
}

// --- queue tests and hops --------------------------------------------------

bool Scheduling::isMainQueue() {
    static std::once_flag once;
    std::call_once(once, [] { tagged(dispatch::mainQueue()); });
    return dispatch::getSpecific(&kIdentityKey) == dispatch::mainQueue().get();
}

void Scheduling::performSyncOnQueue(const QueuePtr &queue, const Block &block) {
    if (!queue || dispatch::getSpecific(&kIdentityKey) == queue.get()) {
        block();
        return;
    }
    queue->sync(block);
}

void Scheduling::performInlineOnQueue(const QueuePtr &queue, Block block) {
    if (!queue || dispatch::getSpecific(&kIdentityKey) == queue.get()) {
        block();
        return;
    }
    queue->async(std::move(block));
}

void Scheduling::performInlineOnMainQueue(Block block) {
    isMainQueue(); // makes sure the main queue carries its tag
    performInlineOnQueue(dispatch::mainQueue(), std::move(block));
}

void Scheduling::performSyncOnMainQueue(const Block &block) {
    isMainQueue();
    performSyncOnQueue(dispatch::mainQueue(), block);
}

void Scheduling::performAsyncOnMainQueue(Block block) {
    dispatch::mainQueue()->async(std::move(block));
}

void Scheduling::performAsyncGlobalQOS(QOS qos, Block block) {
    dispatch::globalQueue(qos)->async(std::move(block));
}
void Scheduling::performAsyncGlobalUserInitiated(Block block) {
    performAsyncGlobalQOS(QOS::UserInitiated, std::move(block));
}
void Scheduling::performAsyncGlobal(Block block) {
    performAsyncGlobalQOS(QOS::Default, std::move(block));
}

// --- one at a time ---------------------------------------------------------

void Scheduling::performOneAtATimeSync(bool sync, Block block) {
    if (sync)
        oneAtATimeQueue()->barrierSync(std::move(block));
    else
        oneAtATimeQueue()->barrierAsync(std::move(block));
}

void Scheduling::performOneAtATimeSync(Block block) {
    performOneAtATimeSync(true, std::move(block));
}
void Scheduling::performOneAtATimeAsync(Block block) {
    performOneAtATimeSync(false, std::move(block));
}

// --- delays ----------------------------------------------------------------

void Scheduling::afterDelay(double seconds, const QueuePtr &queue, Block block) {
    dispatch::after(dispatch::secondsToNanos(seconds), resolve(queue), std::move(block));
}

void Scheduling::afterDelayOnMainQueuePerformBlock(double seconds, Block block) {
    afterDelay(seconds, dispatch::mainQueue(), std::move(block));
}

void Scheduling::afterDelayOnGlobalQueuePerformBlock(double seconds, Block block) {
    afterDelay(seconds, dispatchQueueGlobal(), std::move(block));
}

// --- intervals -------------------------------------------------------------

namespace {

struct IntervalSeries : std::enable_shared_from_this<IntervalSeries> {
    std::weak_ptr<void> object;
    std::function<double(void *, double)> interval;
    QueuePtr queue;
    bool remembered = false; // touched only on `queue`
    double last = -1.0;      // the delay that led to the coming tick

    void schedule(double seconds) {
        last = seconds;
        auto self = shared_from_this();
        dispatch::after(dispatch::secondsToNanos(seconds), queue, [self] { self->tick(); });
    }

    void tick() {
        std::shared_ptr<void> strong = object.lock();
        if (!strong) {
            remembered = false;
            return;
        }
        double next = interval(strong.get(), last);
        strong.reset();
        if (next > 0 && remembered)
            schedule(next);
        else
            remembered = false;
    }
};

} // namespace

void Scheduling::performAtIntervalErased(std::weak_ptr<void> object, ErasedInterval interval,
                                         const QueuePtr &queue, ErasedInterval setup) {
    auto series = std::make_shared<IntervalSeries>();
    series->object = std::move(object);
    series->interval = std::move(interval);
    series->queue = resolve(queue);
    auto first = setup ? std::move(setup) : series->interval;
    series->queue->async([series, first = std::move(first)] {
        std::shared_ptr<void> strong = series->object.lock();
        if (!strong)
            return;
        double delay = first(strong.get(), -1.0);
        strong.reset();
        if (delay > 0) {
            series->remembered = true;
            series->schedule(delay);
        }
    });
}

// --- run once --------------------------------------------------------------

void Scheduling::runOnceForKeyWhen(const QVariant &key, const QueuePtr &queue, double afterWaiting,
                                   unsigned when, Block block) {
    QueuePtr target = resolve(queue);
    QueuePtr coalescing = coalescingQueue();
    coalescing->async([key, target, when, block] {
        auto &table = runOnceTable();
        qsizetype index = findKey(key);
        if ((when & kRunAtStart) && index < 0)
            target->async(block);
        if (index < 0)
            table.append({key, 1});
        else
            table[index].second += 1;
    });
    // Armed now, on the caller's thread, so that the wait counts from the call.
    dispatch::after(dispatch::secondsToNanos(afterWaiting), coalescing,
                    [key, target, when, block = std::move(block)] {
                        auto &table = runOnceTable();
                        qsizetype index = findKey(key);
                        qint64 count = (index < 0 ? 0 : table[index].second) - 1;
                        if (count != 0) {
                            if (index < 0)
                                table.append({key, count});
                            else
                                table[index].second = count;
                            return;
                        }
                        if (index >= 0)
                            table.removeAt(index);
                        if (when & kRunAtEnd)
                            target->async(block);
                    });
}

void Scheduling::runOnceForKeyCollectingFor(const QVariant &key, const QueuePtr &queue, double collectingFor,
                                            Block block) {
    runOnceForKeyWhen(key, queue, collectingFor, kRunAtStart, std::move(block));
}

void Scheduling::runOnceForKeyAfterWaiting(const QVariant &key, const QueuePtr &queue, double afterWaiting,
                                           Block block) {
    runOnceForKeyWhen(key, queue, afterWaiting, kRunAtEnd, std::move(block));
}

void Scheduling::runOnceForKeyBeforeAndAfter(const QVariant &key, const QueuePtr &queue,
                                             double beforeAndAfter, Block block) {
    runOnceForKeyWhen(key, queue, beforeAndAfter, kRunAtStart | kRunAtEnd, std::move(block));
}

int Scheduling::pendingRunOnceKeys() {
    int count = 0;
    coalescingQueue()->sync([&] { count = int(runOnceTable().size()); });
    return count;
}

} // namespace brix
