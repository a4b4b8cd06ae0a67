#include "Dispatch.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QMetaObject>
#include <QThread>

#include <pthread.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace brix::dispatch {

namespace {

thread_local Queue *tCurrentQueue = nullptr;

// Captured during static initialisation, which runs on the main thread.
std::thread::id gMainThreadId = std::this_thread::get_id();

// Blocks the caller until a task submitted elsewhere has run.
struct Completion {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    void signal() {
        std::lock_guard lk(m);
        done = true;
        cv.notify_all();
    }
    void wait() {
        std::unique_lock lk(m);
        cv.wait(lk, [&] { return done; });
    }
};

void setThreadName(const std::string &name) {
    std::string shortName = name.substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

} // namespace

// ---------------------------------------------------------------------------
// Queue

struct Queue::Specifics {
    mutable std::mutex m;
    std::unordered_map<const void *, void *> values;
};

Queue::Queue(std::string label) : label_(std::move(label)), specifics_(std::make_unique<Specifics>()) {}
Queue::~Queue() = default;

void Queue::sync(Task task) {
    if (currentQueue() == this && isSerial()) {
        task();
        return;
    }
    Completion done;
    async([&] {
        task();
        done.signal();
    });
    done.wait();
}

void Queue::setSpecific(const void *key, void *value) {
    std::lock_guard lk(specifics_->m);
    if (value)
        specifics_->values[key] = value;
    else
        specifics_->values.erase(key);
}

void *Queue::specific(const void *key) const {
    std::lock_guard lk(specifics_->m);
    auto it = specifics_->values.find(key);
    return it == specifics_->values.end() ? nullptr : it->second;
}

void Queue::runTask(const Task &task) {
    Queue *previous = tCurrentQueue;
    tCurrentQueue = this;
    task();
    tCurrentQueue = previous;
}

// ---------------------------------------------------------------------------
// Shared worker pool behind the global and concurrent queues. It grows when
// every worker is busy so that a blocked task never starves the others.

namespace {

class Pool {
public:
    static Pool &instance() {
        static Pool *pool = new Pool; // lives for the process; workers never exit
        return *pool;
    }

    void submit(Task job) {
        std::unique_lock lk(m_);
        jobs_.push_back(std::move(job));
        if (idle_ == 0 && threads_ < kMaxThreads) {
            ++threads_;
            std::thread([this] { workerLoop(); }).detach();
        } else {
            cv_.notify_one();
        }
    }

private:
    static constexpr int kMaxThreads = 64;

    void workerLoop() {
        setThreadName("brix.pool");
        std::unique_lock lk(m_);
        for (;;) {
            ++idle_;
            cv_.wait(lk, [&] { return !jobs_.empty(); });
            --idle_;
            Task job = std::move(jobs_.front());
            jobs_.pop_front();
            lk.unlock();
            job();
            job = nullptr; // release captures before taking the lock again
            lk.lock();
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    std::deque<Task> jobs_;
    int idle_ = 0;
    int threads_ = 0;
};

// ---------------------------------------------------------------------------
// Serial queue: one worker thread of its own, started on first use.

struct SerialState {
    std::mutex m;
    std::condition_variable cv;
    std::deque<Task> tasks;
    std::atomic<bool> hasTasks{false}; // read without the mutex while spinning
    std::chrono::microseconds spin{0};
    bool stop = false;
    bool ownerGone = false; // destroyed from its own worker: run leftovers unlabelled
};

class SerialQueue final : public Queue {
public:
    explicit SerialQueue(std::string label, std::chrono::microseconds spin = {})
        : Queue(std::move(label)), state_(std::make_shared<SerialState>()) {
        state_->spin = spin;
    }

    ~SerialQueue() override {
        {
            std::lock_guard lk(state_->m);
            state_->stop = true;
        }
        state_->cv.notify_all();
        if (worker_.joinable()) {
            if (worker_.get_id() == std::this_thread::get_id()) {
                std::lock_guard lk(state_->m);
                state_->ownerGone = true;
                worker_.detach();
            } else {
                worker_.join();
            }
        }
    }

    bool isSerial() const override { return true; }

    void async(Task task) override {
        std::lock_guard lk(state_->m);
        state_->tasks.push_back(std::move(task));
        state_->hasTasks.store(true, std::memory_order_release);
        if (!worker_.joinable()) {
            worker_ = std::thread(&SerialQueue::workerLoop, weak_from_this(), this, state_);
        } else {
            state_->cv.notify_one();
        }
    }

private:
    static void workerLoop(std::weak_ptr<Queue> weakSelf, SerialQueue *raw, std::shared_ptr<SerialState> st) {
        setThreadName(raw->label().empty() ? "brix.serial" : raw->label());
        std::deque<Task> batch;
        for (;;) {
            bool ownerGone;
            spinUntil(st->spin, [&] { return st->hasTasks.load(std::memory_order_acquire); });
            {
                std::unique_lock lk(st->m);
                st->cv.wait(lk, [&] { return st->stop || !st->tasks.empty(); });
                if (st->tasks.empty())
                    return;
                batch.swap(st->tasks);
                st->hasTasks.store(false, std::memory_order_relaxed);
                ownerGone = st->ownerGone;
            }
            if (ownerGone) {
                for (auto &t : batch)
                    t();
                batch.clear();
                continue;
            }
            // Holding a reference while tasks run keeps the queue alive for them;
            // if it cannot be had, the destructor is waiting for us to drain.
            std::shared_ptr<Queue> self = weakSelf.lock();
            for (auto &t : batch)
                raw->runTask(t);
            batch.clear();
            self.reset(); // may run the destructor on this thread; it detaches us
        }
    }

    std::shared_ptr<SerialState> state_;
    std::thread worker_;
};

// ---------------------------------------------------------------------------
// Concurrent queue: tasks run on the pool; barriers run alone.

class ConcurrentQueue final : public Queue {
public:
    explicit ConcurrentQueue(std::string label) : Queue(std::move(label)) {}

    bool isSerial() const override { return false; }
    void async(Task task) override { submit(std::move(task), false); }
    void barrierAsync(Task task) override { submit(std::move(task), true); }
    void barrierSync(Task task) override {
        Completion done;
        submit(
            [&] {
                task();
                done.signal();
            },
            true);
        done.wait();
    }

private:
    struct Item {
        Task task;
        bool barrier;
    };

    void submit(Task task, bool barrier) {
        std::lock_guard lk(m_);
        pending_.push_back({std::move(task), barrier});
        pump();
    }

    // Starts what may start now. Called with m_ held.
    void pump() {
        while (!pending_.empty() && !barrierRunning_) {
            Item &front = pending_.front();
            if (front.barrier) {
                if (running_ > 0)
                    return;
                barrierRunning_ = true;
            }
            ++running_;
            launch(std::move(front));
            pending_.pop_front();
        }
    }

    void launch(Item item) {
        auto self = std::static_pointer_cast<ConcurrentQueue>(shared_from_this());
        Pool::instance().submit([self, item = std::move(item)] {
            self->runTask(item.task);
            std::lock_guard lk(self->m_);
            --self->running_;
            if (item.barrier)
                self->barrierRunning_ = false;
            self->pump();
        });
    }

    std::mutex m_;
    std::deque<Item> pending_;
    int running_ = 0;
    bool barrierRunning_ = false;
};

// ---------------------------------------------------------------------------
// Global queues: labelled entry points into the pool.

class GlobalQueue final : public Queue {
public:
    explicit GlobalQueue(std::string label) : Queue(std::move(label)) {}
    bool isSerial() const override { return false; }
    void async(Task task) override {
        Pool::instance().submit([this, task = std::move(task)] { runTask(task); });
    }
};

// ---------------------------------------------------------------------------
// Main queue: the Qt event loop of the main thread.

// Receives the main queue's wake-ups on the main thread. A named slot called
// through Qt's own queue keeps our code from touching Qt's event memory, which
// ThreadSanitizer cannot see being handed between threads.
class MainQueueWaker : public QObject {
    Q_OBJECT
public slots:
    void drainMainQueue();
};

class MainQueue final : public Queue {
public:
    MainQueue() : Queue(kMainQueueLabel) {}
    bool isSerial() const override { return true; }

    // Tasks wait in our own list; the event loop only gets a wake-up. The hand-off
    // then goes through a mutex that every tool (ThreadSanitizer included) can
    // see, and a burst of tasks costs one event instead of one each.
    void async(Task task) override {
        QCoreApplication *app = QCoreApplication::instance();
        if (!app) {
            std::fprintf(stderr,
                         "dispatch: main queue used before the application object exists; task dropped\n");
            return;
        }
        // The wake-up is posted under the lock that drain() takes first: Qt
        // frees its event after drain() returns, and only this lock tells
        // ThreadSanitizer that the event was made before it is freed.
        std::lock_guard lk(m_);
        tasks_.push_back(std::move(task));
        if (!wakeScheduled_) {
            wakeScheduled_ = true;
            QMetaObject::invokeMethod(waker(app), "drainMainQueue", Qt::QueuedConnection);
        }
    }

    void sync(Task task) override {
        if (isMainThread()) {
            runTask(task);
            return;
        }
        Completion done;
        async([&] {
            task();
            done.signal();
        });
        done.wait();
    }

    // Runs tasks one at a time from the shared list, so that a task running a
    // nested event loop (a modal alert) lets the tasks behind it run there in
    // their order, before anything posted later. While tasks remain one wake-up
    // stays pending: the nested loop needs it, and a burst still costs at most
    // two events.
    void drain() {
        {
            std::lock_guard lk(m_);
            wakeScheduled_ = false; // the wake-up that called us is used up
        }
        for (;;) {
            Task task;
            bool wake = false;
            {
                std::lock_guard lk(m_);
                if (tasks_.empty())
                    return;
                task = std::move(tasks_.front());
                tasks_.pop_front();
                if (!tasks_.empty() && !wakeScheduled_)
                    wake = wakeScheduled_ = true;
            }
            if (wake)
                QMetaObject::invokeMethod(waker(QCoreApplication::instance()), "drainMainQueue",
                                          Qt::QueuedConnection);
            runTask(task);
        }
    }

private:
    MainQueueWaker *waker(QCoreApplication *app) {
        std::call_once(wakerOnce_, [&] {
            auto *w = new MainQueueWaker; // lives for the process
            w->moveToThread(app->thread());
            waker_ = w;
        });
        return waker_;
    }

    std::mutex m_;
    std::deque<Task> tasks_;
    bool wakeScheduled_ = false;
    std::once_flag wakerOnce_;
    MainQueueWaker *waker_ = nullptr;
};

} // namespace

// ---------------------------------------------------------------------------
// Makers and current-queue queries

namespace {
void MainQueueWaker::drainMainQueue() {
    // Through the accessor: its one-time initialisation orders this thread
    // after the one that built the queue.
    static_cast<MainQueue *>(mainQueue().get())->drain();
}
} // namespace

QueuePtr makeSerialQueue(const std::string &label, std::chrono::microseconds spin) {
    return std::make_shared<SerialQueue>(label, spin);
}
QueuePtr makeConcurrentQueue(const std::string &label) {
    return std::make_shared<ConcurrentQueue>(label);
}

QueuePtr mainQueue() {
    static QueuePtr *queue = new QueuePtr(std::make_shared<MainQueue>());
    return *queue;
}

QueuePtr globalQueue(QOS qos) {
    static QueuePtr *queues = [] {
        auto *q = new QueuePtr[5];
        q[0] = std::make_shared<GlobalQueue>("com.apple.root.user-interactive-qos");
        q[1] = std::make_shared<GlobalQueue>("com.apple.root.user-initiated-qos");
        q[2] = std::make_shared<GlobalQueue>(kDefaultGlobalLabel);
        q[3] = std::make_shared<GlobalQueue>("com.apple.root.utility-qos");
        q[4] = std::make_shared<GlobalQueue>("com.apple.root.background-qos");
        return q;
    }();
    switch (qos) {
    case QOS::UserInteractive:
        return queues[0];
    case QOS::UserInitiated:
        return queues[1];
    case QOS::Default:
        return queues[2];
    case QOS::Utility:
        return queues[3];
    case QOS::Background:
        return queues[4];
    }
    return queues[2];
}

bool isMainThread() {
    if (QCoreApplication *app = QCoreApplication::instance())
        return QThread::currentThread() == app->thread();
    return std::this_thread::get_id() == gMainThreadId;
}

void setMainThread() {
    gMainThreadId = std::this_thread::get_id();
}

Queue *currentQueue() {
    if (tCurrentQueue)
        return tCurrentQueue;
    if (isMainThread())
        return mainQueue().get();
    return globalQueue(QOS::Default).get();
}

const char *currentQueueLabel() {
    return currentQueue()->label().c_str();
}

void *getSpecific(const void *key) {
    return currentQueue()->specific(key);
}

void waitPumpingMainLoop(const std::function<bool()> &done) {
    // Blocks in the event dispatcher rather than polling; the main-queue task
    // of whoever ends the wait is the event that wakes it. processEvents, not
    // a nested QEventLoop, because an event loop started after the application
    // was told to quit returns at once.
    while (!done())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
}

void drainPumpingMainLoop(const QueuePtr &queue) {
    if (currentQueue() == queue.get())
        return;
    if (!isMainThread() || !QCoreApplication::instance()) {
        queue->sync([] {});
        return;
    }
    auto drained = std::make_shared<std::atomic<bool>>(false);
    queue->async([drained] {
        drained->store(true);
        mainQueue()->async([] {});
    });
    waitPumpingMainLoop([&] { return drained->load(); });
}

// ---------------------------------------------------------------------------
// Timers

namespace {

class SteadyClock final : public Clock {
public:
    Nanos now() const override {
        return std::chrono::duration_cast<Nanos>(std::chrono::steady_clock::now().time_since_epoch());
    }
};

class TimerService {
public:
    static TimerService &instance() {
        static TimerService *service = new TimerService; // process lifetime
        return *service;
    }

    Nanos now() {
        std::lock_guard lk(m_);
        return clock_->now();
    }

    void setClock(Clock *clock) {
        std::lock_guard lk(m_);
        clock_ = clock ? clock : &steady_;
        manual_ = clock != nullptr && dynamic_cast<ManualClock *>(clock) != nullptr;
        timers_.clear();
        index_.clear();
        cv_.notify_all();
    }

    uint64_t add(Nanos delay, QueuePtr queue, Task task) {
        if (delay < Nanos(0))
            delay = Nanos(0);
        std::lock_guard lk(m_);
        uint64_t id = ++nextId_;
        Nanos deadline = clock_->now() + delay;
        Key key{deadline.count(), id};
        timers_.emplace(key, Entry{std::move(queue), std::move(task)});
        index_.emplace(id, key);
        if (!thread_.joinable())
            thread_ = std::thread([this] { loop(); });
        cv_.notify_all();
        return id;
    }

    bool cancel(uint64_t id) {
        std::lock_guard lk(m_);
        auto it = index_.find(id);
        if (it == index_.end())
            return false;
        timers_.erase(it->second);
        index_.erase(it);
        return true;
    }

    // Takes the earliest timer due at or before `limit`, if any.
    bool popDue(int64_t limit, int64_t &deadline, QueuePtr &queue, Task &task) {
        std::lock_guard lk(m_);
        if (timers_.empty() || timers_.begin()->first.first > limit)
            return false;
        auto it = timers_.begin();
        deadline = it->first.first;
        queue = std::move(it->second.queue);
        task = std::move(it->second.task);
        index_.erase(it->first.second);
        timers_.erase(it);
        return true;
    }

    static void fire(QueuePtr queue, Task task) {
        if (!queue)
            queue = mainQueue();
        queue->async(std::move(task));
    }

private:
    using Key = std::pair<int64_t, uint64_t>; // deadline, id (keeps equal deadlines in arming order)
    struct Entry {
        QueuePtr queue;
        Task task;
    };

    // Fires timers of the steady clock. Under a manual clock it only sleeps:
    // time moves when the test says so.
    void loop() {
        setThreadName("brix.timers");
        std::unique_lock lk(m_);
        for (;;) {
            if (manual_ || timers_.empty()) {
                cv_.wait(lk);
                continue;
            }
            int64_t nowNs = clock_->now().count();
            auto it = timers_.begin();
            if (it->first.first > nowNs) {
                auto wake = std::chrono::steady_clock::time_point(Nanos(it->first.first));
                cv_.wait_until(lk, wake);
                continue;
            }
            Entry e = std::move(it->second);
            index_.erase(it->first.second);
            timers_.erase(it);
            lk.unlock();
            fire(std::move(e.queue), std::move(e.task));
            e = Entry{};
            lk.lock();
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    SteadyClock steady_;
    Clock *clock_ = &steady_;
    bool manual_ = false;
    std::map<Key, Entry> timers_;
    std::unordered_map<uint64_t, Key> index_;
    uint64_t nextId_ = 0;
    std::thread thread_;
};

} // namespace

void ManualClock::advance(Nanos by, const std::function<void()> &settle) {
    const int64_t target = now_.load() + by.count();
    auto &service = TimerService::instance();
    int64_t deadline;
    QueuePtr queue;
    Task task;
    while (service.popDue(target, deadline, queue, task)) {
        if (deadline > now_.load())
            now_.store(deadline);
        TimerService::fire(std::move(queue), std::move(task));
        queue = nullptr;
        task = nullptr;
        if (settle)
            settle();
    }
    now_.store(target);
}

void ManualClock::advanceSeconds(double seconds, const std::function<void()> &settle) {
    advance(secondsToNanos(seconds), settle);
}

void setClock(Clock *clock) {
    TimerService::instance().setClock(clock);
}
Nanos now() {
    return TimerService::instance().now();
}

uint64_t after(Nanos delay, QueuePtr queue, Task task) {
    return TimerService::instance().add(delay, std::move(queue), std::move(task));
}

bool cancelTimer(uint64_t id) {
    return TimerService::instance().cancel(id);
}

Nanos secondsToNanos(double seconds) {
    double ns = seconds * 1e9;
    if (!(ns > 0))
        return Nanos(0);
    if (ns >= static_cast<double>(std::numeric_limits<int64_t>::max()))
        return Nanos(std::numeric_limits<int64_t>::max() / 2);
    return Nanos(static_cast<int64_t>(ns));
}

void detachThread(const std::string &name, std::function<void()> body) {
    std::thread([name, body = std::move(body)] {
        setThreadName(name);
        body();
    }).detach();
}

} // namespace brix::dispatch

#include "Dispatch.moc"
