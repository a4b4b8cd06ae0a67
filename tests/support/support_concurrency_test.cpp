// The support library under load from many threads: queues, run-once,
// notification centres, the preferences store, and named locks on a wall clock
// that is stepped.
#include "Dispatch.h"
#include "NamedLock.h"
#include "NotificationCenter.h"
#include "Preferences.h"
#include "PropertyList.h"
#include "Scheduling.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QEventLoop>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

using namespace brix;

#if defined(__SANITIZE_THREAD__)
// Qt is not built for ThreadSanitizer: a wake-up event that a worker posts to
// the main loop is allocated and freed inside Qt, and Qt's own futex-based lock
// that hands it over is invisible to the checker. Our own hand-over of the
// work goes through std::mutex and stays checked. Weak, so that a project-wide
// list can replace this one.
extern "C" __attribute__((weak)) const char *__tsan_default_suppressions() {
    return "race:QMetaMethod::invoke\n"
           "race:QCoreApplicationPrivate::sendPostedEvents\n"
           "race:QMetaCallEvent::placeMetaCall\n";
}
#endif

// This executable's wall clock can be stepped as NTP steps a kiosk's clock: the
// definition here takes the place of the C library's for the whole process.
namespace {
std::atomic<long> gWallClockStep{0}; // seconds
} // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec *ts) {
    const long r = syscall(SYS_clock_gettime, clock, ts);
    if (r == 0 && clock == CLOCK_REALTIME)
        ts->tv_sec += gWallClockStep.load();
    return static_cast<int>(r);
}

namespace {

struct WallClockStep {
    explicit WallClockStep(long seconds) { gWallClockStep = seconds; }
    ~WallClockStep() { gWallClockStep = 0; }
};

// Submits tasks from several threads through `submit` (given the task's index
// and the task), waits with `drain`, and checks that no two tasks overlapped
// and that each submitter's tasks ran in its order.
void expectOneAtATimeInOrder(int threads, int perThread,
                             const std::function<void(int, std::function<void()>)> &submit,
                             const std::function<void()> &drain) {
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    std::mutex m;
    std::vector<std::vector<int>> seen(static_cast<size_t>(threads));
    std::vector<std::thread> submitters;
    for (int t = 0; t < threads; ++t)
        submitters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                submit(i, [&, t, i] {
                    if (inFlight.fetch_add(1) != 0)
                        overlapped = true;
                    {
                        std::lock_guard lk(m);
                        seen[size_t(t)].push_back(i);
                    }
                    std::this_thread::yield();
                    inFlight.fetch_sub(1);
                });
        });
    for (auto &s : submitters)
        s.join();
    drain();
    EXPECT_FALSE(overlapped);
    for (int t = 0; t < threads; ++t) {
        ASSERT_EQ(int(seen[size_t(t)].size()), perThread);
        for (int i = 0; i < perThread; ++i)
            ASSERT_EQ(seen[size_t(t)][size_t(i)], i) << "submitter " << t;
    }
}

} // namespace

TEST(SerialQueue, RunsTasksOneAtATimeInSubmissionOrderAsDoesTheOneAtATimeLane) {
    auto queue = Scheduling::dispatchQueueSerialWithDebugLabel("test.serial");
    expectOneAtATimeInOrder(
        4, 2000, [&](int, std::function<void()> task) { queue->async(std::move(task)); },
        [&] { test::drain(queue); });
    // The lane, entered both waiting and not.
    expectOneAtATimeInOrder(
        6, 150,
        [](int i, std::function<void()> task) {
            if (i % 10 == 0)
                Scheduling::performOneAtATimeSync(std::move(task));
            else
                Scheduling::performOneAtATimeAsync(std::move(task));
        },
        [] { Scheduling::performOneAtATimeSync([] {}); });
}

TEST(RunOnce, CallsFromManyThreadsOnTheRealClockRunOncePerEdge) {
    auto target = Scheduling::dispatchQueueSerialWithDebugLabel("test.runonce.threads");
    std::atomic<int> leading{0}, trailing{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t)
        callers.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                Scheduling::runOnceForKeyCollectingFor("threads.lead", target, 0.5, [&] { ++leading; });
                Scheduling::runOnceForKeyAfterWaiting("threads.trail", target, 0.5, [&] { ++trailing; });
            }
        });
    for (auto &c : callers)
        c.join();
    ASSERT_TRUE(test::processEventsUntil([&] { return trailing.load() == 1; }));
    test::drain(Scheduling::coalescingQueue());
    test::drain(target);
    EXPECT_EQ(leading, 1);
    EXPECT_EQ(trailing, 1);
}

TEST(NotificationCenter, ObserversAddedAndRemovedWhilePostingFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> stableCalls{0};
    auto stable = center.addObserver("tick", {}, [&](const Notification &) { ++stableCalls; });
    std::atomic<bool> stop{false};
    constexpr int kPosters = 4, kPosts = 2000;
    std::vector<std::thread> threads;
    for (int p = 0; p < kPosters; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < kPosts; ++i)
                center.post("tick", {}, {{"i", i}});
        });
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&] {
            std::atomic<int> churnCalls{0};
            while (!stop) {
                auto token = center.addObserver("tick", {}, [&](const Notification &) { ++churnCalls; });
                center.removeObserver(token);
            }
        });
    for (int p = 0; p < kPosters; ++p)
        threads[p].join();
    stop = true;
    for (size_t i = kPosters; i < threads.size(); ++i)
        threads[i].join();
    EXPECT_EQ(stableCalls, kPosters * kPosts);
    center.removeObserver(stable);
    EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenter, HandOffsToTheMainThread) {
    NotificationCenter center;
    std::atomic<int> onMain{0}, offMain{0};
    center.addObserver("handoff", {},
                       [&](const Notification &) { (dispatch::isMainThread() ? onMain : offMain)++; });
    std::atomic<bool> waitedReturned{false};
    std::atomic<int> seenWhenWaitReturned{-1};
    dispatch::detachThread("test.poster", [&] {
        center.postOnMainAndWait(Notification{"handoff", {}, {}, {}});
        seenWhenWaitReturned = onMain.load();
        center.postOnMainNoWait(Notification{"handoff", {}, {}, {}});
        waitedReturned = true;
    });
    ASSERT_TRUE(test::processEventsUntil([&] { return waitedReturned && onMain == 2; }));
    EXPECT_EQ(seenWhenWaitReturned, 1);
    EXPECT_EQ(offMain, 0);
}

// A task that runs a modal loop (an alert) must not let newer main-queue tasks
// overtake older ones that were waiting behind it.
TEST(MainQueue, ModalLoopInsideATaskKeepsTheQueueOrder) {
    auto main = dispatch::mainQueue();
    std::vector<std::string> order;
    QEventLoop modal;
    bool finished = false;
    main->async([&] {
        order.push_back("alert");
        main->async([&] {
            order.push_back("posted during alert");
            modal.quit();
        });
        modal.exec();
        order.push_back("alert closed");
    });
    main->async([&] { order.push_back("queued before alert"); });
    main->async([&] { finished = true; });
    ASSERT_TRUE(test::processEventsUntil([&] { return finished; }));
    EXPECT_EQ(order, (std::vector<std::string>{"alert", "queued before alert", "posted during alert",
                                               "alert closed"}));
}

// Waiting on the main thread for a queue whose task waits for the main thread,
// from inside a main-queue task; and waiting for a queue from its own task.
TEST(MainQueue, DrainPumpingTheMainLoopNestsAndNeverWaitsForItself) {
    auto queue = dispatch::makeSerialQueue("test.pumped");
    std::atomic<int> steps{0};
    queue->async([&] { dispatch::mainQueue()->sync([&] { steps += 1; }); });
    queue->async([&] {
        dispatch::drainPumpingMainLoop(queue);
        steps += 10;
    });
    bool drained = false;
    dispatch::mainQueue()->async([&] {
        dispatch::drainPumpingMainLoop(queue);
        drained = true;
    });
    ASSERT_TRUE(test::processEventsUntil([&] { return drained; }));
    EXPECT_EQ(steps.load(), 11);
}

namespace {

QString storePath() {
    return test::testHome() + "/.config/Brix/concurrency.plist";
}

TEST(PrefsConcurrency, ReadersWritersAndSavesFromManyThreadsAgree) {
    constexpr int kWriters = 4, kKeys = 60;
    std::atomic<int> mainThreadSignals{0}, offMainSignals{0};
    {
        Preferences p(storePath());
        p.registerDefaults({{"shared", "factory"}});
        QObject::connect(&p, &Preferences::valueChanged, [&](const QString &, const QVariant &) {
            (dispatch::isMainThread() ? mainThreadSignals : offMainSignals)++;
        });

        std::atomic<bool> stop{false};
        std::atomic<int> done{0};
        std::atomic<int> badReads{0};
        auto reader = dispatch::makeSerialQueue("prefs.reader");
        reader->async([&] {
            while (!stop.load()) {
                // A value is always whole: the registered default or some writer's string.
                const QString v = p.stringForKey("shared");
                if (!(v == "factory" || v.startsWith("writer-")))
                    ++badReads;
                (void)p.dictionaryRepresentation();
                (void)p.floatForKey("w0-k0");
            }
        });
        std::vector<dispatch::QueuePtr> writers;
        for (int w = 0; w < kWriters; ++w) {
            writers.push_back(dispatch::makeSerialQueue("prefs.writer." + std::to_string(w)));
            writers.back()->async([&, w] {
                for (int k = 0; k < kKeys; ++k) {
                    const QString key = QString("w%1-k%2").arg(w).arg(k);
                    p.setInteger(k, key);
                    p.setObject(QString("writer-%1-%2").arg(w).arg(k), "shared");
                    if (k % 3 == 0)
                        p.removeObjectForKey(key);
                    if (k % 20 == 0)
                        p.synchronize();
                }
                ++done;
            });
        }
        ASSERT_TRUE(test::processEventsUntil([&] { return done.load() == kWriters; }));
        stop = true;
        test::drain(reader);
        EXPECT_EQ(badReads.load(), 0);
        ASSERT_TRUE(p.synchronize());
        // Every queued change notification reaches the main thread.
        const int expected = kWriters * kKeys * 2 + kWriters * (kKeys / 3);
        ASSERT_TRUE(test::processEventsUntil([&] { return mainThreadSignals.load() == expected; }))
            << mainThreadSignals.load() << " of " << expected;
        EXPECT_EQ(offMainSignals.load(), 0);
    }

    // The file holds exactly the final state.
    const QVariantMap onDisk =
        PropertyList::propertyListFromData(test::readFile(storePath()), Mutability::Immutable).toMap();
    EXPECT_EQ(onDisk.size(), kWriters * (kKeys - kKeys / 3) + 1);
    for (int w = 0; w < kWriters; ++w)
        for (int k = 0; k < kKeys; ++k)
            EXPECT_EQ(onDisk.contains(QString("w%1-k%2").arg(w).arg(k)), k % 3 != 0);
    EXPECT_TRUE(onDisk.value("shared").toString().endsWith(QString("-%1").arg(kKeys - 1)));
}

TEST(PrefsConcurrency, TwoStoresOnOneFileMergeTheirKeys) {
    Preferences a(storePath()), b(storePath());
    QStringList fromB; // a's change signals for b's keys, on the main thread
    QObject::connect(&a, &Preferences::valueChanged, [&](const QString &key, const QVariant &) {
        if (key.startsWith('b'))
            fromB << key;
    });
    std::atomic<int> done{0};
    std::vector<dispatch::QueuePtr> queues;
    for (auto [store, prefix] : {std::pair{&a, "a"}, std::pair{&b, "b"}}) {
        queues.push_back(dispatch::makeSerialQueue(std::string("prefs.") + prefix));
        queues.back()->async([&, store, prefix] {
            for (int i = 0; i < 40; ++i) {
                store->setInteger(i, prefix + QString::number(i));
                store->synchronize();
            }
            ++done;
        });
    }
    ASSERT_TRUE(test::processEventsUntil([&] { return done.load() == 2; }));
    ASSERT_TRUE(a.synchronize());
    ASSERT_TRUE(b.synchronize());
    Preferences fresh(storePath());
    EXPECT_EQ(fresh.persistentDomain().size(), 80);
    EXPECT_EQ(a.persistentDomain(), fresh.persistentDomain());
    // Each of b's keys reached a once, as a change from another writer.
    ASSERT_TRUE(test::processEventsUntil([&] { return fromB.size() >= 40; }));
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(fromB.size(), 40);
    EXPECT_EQ(fromB.removeDuplicates(), 0);
}

} // namespace

TEST(NamedLock, TimedWaitsIgnoreWallClockSteps) {
    brix::NamedLock lock(QStringLiteral("test"));
    lock.lock();
    // An hour ahead, a wall-clock deadline would wait an hour; an hour behind, it
    // would already be past.
    for (long seconds : {3600L, -3600L}) {
        WallClockStep step(seconds);
        const auto start = std::chrono::steady_clock::now();
        auto waiter = std::async(std::launch::async, [&] { return lock.lockBeforeSeconds(0.2); });
        const bool ended = waiter.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        const auto waited = std::chrono::steady_clock::now() - start;
        lock.unlock(); // frees a waiter that is still stuck
        const bool taken = waiter.get();
        if (taken)
            lock.unlock();
        EXPECT_TRUE(ended) << "a 200 ms wait did not end";
        EXPECT_GE(waited, std::chrono::milliseconds(200));
        EXPECT_FALSE(taken);
        lock.lock();
    }
    lock.unlock();
    EXPECT_TRUE(lock.lockBeforeSeconds(0));
    lock.unlock();
}
