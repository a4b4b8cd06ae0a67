#include "NotificationCenter.h"
#include "Scheduling.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QEventLoop>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using namespace brix;

namespace {

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
