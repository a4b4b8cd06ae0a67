#include "NamedLock.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <thread>

// This executable's wall clock can be stepped as NTP steps a kiosk's clock: the
// definition here takes the place of the C library's for the whole process.
namespace {
std::atomic<long> gWallClockStep{0}; // seconds
}

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

} // namespace

TEST(NamedLock, TimedWaitsIgnoreWallClockSteps) {
    brix::NamedLock lock(QStringLiteral("test"));
    lock.lock();
    {
        // An hour ahead: a wall-clock deadline would wait an hour.
        WallClockStep step(3600);
        auto waiter = std::async(std::launch::async, [&] { return lock.lockBeforeSeconds(0.05); });
        const bool ended = waiter.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        lock.unlock(); // frees a waiter that is still stuck
        const bool taken = waiter.get();
        if (taken)
            lock.unlock();
        EXPECT_TRUE(ended) << "a 50 ms wait did not end";
        EXPECT_FALSE(taken);
        lock.lock();
    }
    {
        // An hour behind: a wall-clock deadline would already be past.
        WallClockStep step(-3600);
        const auto start = std::chrono::steady_clock::now();
        std::thread([&] { EXPECT_FALSE(lock.lockBeforeSeconds(0.2)); }).join();
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    }
    lock.unlock();
    EXPECT_TRUE(lock.lockBeforeSeconds(0));
    lock.unlock();
}
