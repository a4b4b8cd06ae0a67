#include "Scheduling.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>
#include <vector>

using namespace brix;
using dispatch::ManualClock;

namespace {

// Drives run-once calls on a manual clock and records at what time each block ran.
class RunOnceTest : public ::testing::Test {
protected:
    void SetUp() override { dispatch::setClock(&clock_); }
    void TearDown() override { dispatch::setClock(nullptr); }

    // Moves time to `seconds` (absolute), letting every due timer and block run.
    void at(double seconds) {
        double delta = seconds - now();
        if (delta > 0)
            clock_.advanceSeconds(delta, [this] { settle(); });
        settle();
    }
    void settle() {
        test::drain(Scheduling::coalescingQueue());
        test::drain(target_);
    }
    // Milliseconds are exact enough and compare without rounding trouble.
    double now() const { return double(std::llround(double(clock_.now().count()) / 1e6)) / 1000.0; }

    void call(const QVariant &key, unsigned when, double wait, int tag = 0) {
        Scheduling::runOnceForKeyWhen(key, target_, wait, when, [this, tag] {
            std::lock_guard lk(m_);
            runs_.push_back({now(), tag});
        });
        settle();
    }
    std::vector<std::pair<double, int>> runs() {
        std::lock_guard lk(m_);
        return runs_;
    }

    ManualClock clock_;
    QueuePtr target_ = Scheduling::dispatchQueueSerialWithDebugLabel("test.target");
    std::mutex m_;
    std::vector<std::pair<double, int>> runs_;
};

} // namespace

// Three keys called in one burst (a key compares by value: each call builds its
// own): the leading edge runs at the first call and swallows the rest of the
// burst, the trailing edge runs the last call's block one wait after the last
// call, and both edges run a single call twice.
TEST_F(RunOnceTest, EachEdgeRunsOncePerBurstOfCallsWithEqualKeys) {
    using Runs = std::vector<std::pair<double, int>>;
    call(42, Scheduling::kRunAtStart | Scheduling::kRunAtEnd, 1.0, 0);
    int tag = 10;
    for (double t : {0.0, 0.5, 1.2}) {
        at(t);
        call(QString("le") + "ad", Scheduling::kRunAtStart, 1.0, 1);
        call(QString("trail"), Scheduling::kRunAtEnd, 1.0, ++tag);
    }
    at(2.19);
    EXPECT_EQ(runs(), (Runs{{0.0, 0}, {0.0, 1}, {1.0, 0}}));
    at(2.2);
    EXPECT_EQ(runs().back(), (std::pair{2.2, 13}));
    // The leading burst ended with its last wait: the next call runs at once.
    at(2.3);
    call(QString("lead"), Scheduling::kRunAtStart, 1.0, 2);
    at(10);
    EXPECT_EQ(runs(), (Runs{{0.0, 0}, {0.0, 1}, {1.0, 0}, {2.2, 13}, {2.3, 2}}));
    EXPECT_EQ(Scheduling::pendingRunOnceKeys(), 0);
}

TEST_F(RunOnceTest, IntervalSeriesStopsWhenItsObjectDiesOrOnANonPositiveAnswer) {
    auto ticks = std::make_shared<std::atomic<int>>(0);
    std::atomic<int> setupCalls{0};
    Scheduling::performAtInterval<std::atomic<int>>(
        ticks,
        [](std::atomic<int> &t, double) {
            ++t;
            return 1.0;
        },
        target_,
        [&](std::atomic<int> &, double previous) {
            EXPECT_EQ(previous, -1.0);
            ++setupCalls;
            return 0.5;
        });
    settle();
    at(0.49);
    EXPECT_EQ(*ticks, 0);
    at(0.5);
    EXPECT_EQ(*ticks, 1);
    at(2.5);
    EXPECT_EQ(*ticks, 3);
    std::weak_ptr<std::atomic<int>> weak = ticks;
    ticks.reset();
    at(10);
    EXPECT_TRUE(weak.expired()); // the series did not keep it alive
    EXPECT_EQ(setupCalls, 1);

    // A non-positive answer ends a series.
    auto owner = std::make_shared<int>(0);
    Scheduling::performAtInterval<int>(
        owner,
        [](int &ticks, double) {
            ++ticks;
            return ticks < 3 ? 1.0 : 0.0;
        },
        target_);
    settle(); // first delay comes from the interval block itself: tick 1
    at(30);
    EXPECT_EQ(*owner, 3);
}

TEST(Scheduling, AfterDelayZeroIsNeverInlineAndSyncOnItsOwnQueueIs) {
    auto queue = Scheduling::dispatchQueueSerialWithDebugLabel("test.after");
    std::atomic<bool> ran{false};
    std::atomic<bool> ranInline{true};
    queue->sync([&] {
        Scheduling::afterDelay(0, queue, [&] { ran = true; });
        ranInline = ran.load();
    });
    EXPECT_FALSE(ranInline);
    EXPECT_TRUE(test::processEventsUntil([&] { return ran.load(); }));

    bool mainRan = false;
    Scheduling::afterDelayOnMainQueuePerformBlock(0, [&] { mainRan = true; });
    EXPECT_FALSE(mainRan);
    EXPECT_TRUE(test::processEventsUntil([&] { return mainRan; }));

    // Sync on its own queue runs inline instead of dead-locking.
    std::vector<int> order;
    queue->sync([&] {
        order.push_back(1);
        Scheduling::performSyncOnQueue(queue, [&] { order.push_back(2); });
        Scheduling::performInlineOnQueue(queue, [&] { order.push_back(3); });
        order.push_back(4);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));

    // From elsewhere, performInlineOnQueue does not wait.
    std::atomic<bool> release{false};
    ran = false;
    queue->async([&] {
        while (!release)
            std::this_thread::yield();
    });
    Scheduling::performInlineOnQueue(queue, [&] { ran = true; });
    EXPECT_FALSE(ran);
    release = true;
    test::drain(queue);
    EXPECT_TRUE(ran);
}

TEST(Scheduling, ConcurrentQueueBarrierRunsAlone) {
    auto queue = Scheduling::dispatchQueueConcurrentWithDebugLabel("test.concurrent");
    std::atomic<int> inFlight{0};
    std::atomic<int> maxSeenByBarrier{-1};
    std::atomic<int> before{0}, after{0};
    for (int i = 0; i < 20; ++i)
        queue->async([&] {
            ++inFlight;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ++before;
            --inFlight;
        });
    queue->barrierAsync([&] {
        maxSeenByBarrier = inFlight.load();
        EXPECT_EQ(before.load(), 20);
        EXPECT_EQ(after.load(), 0);
    });
    for (int i = 0; i < 20; ++i)
        queue->async([&] { ++after; });
    queue->barrierSync([] {});
    EXPECT_EQ(maxSeenByBarrier, 0);
    EXPECT_EQ(after, 20);
}
