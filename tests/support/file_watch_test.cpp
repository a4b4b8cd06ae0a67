#include "LogCapture.h"
#include "OKVA_FileEvent.h"
#include "PathObserver.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <chrono>
#include <condition_variable>
#include <mutex>

using namespace brix;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// What a watcher handed its handler, as it arrives on the watcher's thread.
template <class T> struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<T> all;

    void add(T item) {
        std::lock_guard lock(m);
        all.push_back(std::move(item));
        cv.notify_all();
    }
    // Waits (up to `limit`) until some item after the first `from` satisfies `pred`.
    bool waitFor(const std::function<bool(const T &)> &pred, size_t from = 0,
                 std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(m);
        return cv.wait_for(lock, limit, [&] {
            return std::any_of(all.begin() + qsizetype(std::min(from, all.size())), all.end(), pred);
        });
    }
    size_t count() {
        std::lock_guard lock(m);
        return all.size();
    }
};

// A file-event watcher's deliveries, with the time of each.
struct Delivery {
    QStringList paths;
    OKVA_FileEvent::EventFlags flags;
    Clock::time_point at;
};
struct Deliveries : Recorder<Delivery> {
    OKVA_FileEvent::EventBlock block() {
        return [this](const QStringList &paths, const OKVA_FileEvent::EventFlags &flags) {
            add({paths, flags, Clock::now()});
        };
    }
};

auto contains(const QString &path) {
    return [path](const Delivery &d) { return d.paths.contains(path); };
}

QString makeDir(const QString &name) {
    const QString dir = test::testHome() + '/' + name;
    QDir().mkpath(dir);
    return dir;
}

} // namespace

// A burst of writes over several folders within one latency: the first change
// arrives at once, the rest in one coalesced delivery, and no folder is missed.
TEST(FileEvent, BurstIsCoalescedAndFirstChangeArrivesAtOnce) {
    const QString root = makeDir("burst");
    QStringList dirs;
    for (int i = 0; i < 10; ++i)
        dirs << makeDir(QStringLiteral("burst/d%1").arg(i));
    Deliveries got;
    OKVA_FileEvent watcher(QStringList{root}, 3.0);
    EXPECT_EQ(watcher.createFlags() & kFileEventCreateFlagFileEvents, 0u);
    watcher.setEventBlock(got.block());
    watcher.setRun(true);
    ASSERT_TRUE(got.waitFor([&](const auto &d) { return d.paths == QStringList{root} && !d.flags; }));
    EXPECT_TRUE(watcher.isRunning());

    const auto first = Clock::now();
    for (int n = 0; n < 1000; ++n)
        ASSERT_TRUE(test::writeFile(dirs[n % 10] + QStringLiteral("/f%1").arg(n), "x"));
    for (const QString &d : dirs)
        ASSERT_TRUE(got.waitFor(contains(d), 1)) << d.toStdString();
    EXPECT_LE(got.count() - 1, 3u);
    std::lock_guard lock(got.m);
    // Far below the latency: not held back until the period ends.
    EXPECT_LT(got.all[1].at - first, 1500ms);
    ASSERT_TRUE(got.all[1].flags.has_value());
    EXPECT_EQ(got.all[1].flags->size(), got.all[1].paths.size());
}

// Folders made after the start are watched too, and a watched folder that is
// removed and made again keeps reporting.
TEST(FileEvent, NewSubfoldersAndRemadeRootAreWatched) {
    const QString root = makeDir("tree");
    Deliveries got;
    OKVA_FileEvent watcher(QStringList{root}, 0.05);
    watcher.setEventBlock(got.block());
    watcher.setRun(true);
    ASSERT_TRUE(got.waitFor(contains(root)));

    const QString sub = makeDir("tree/new/deeper");
    ASSERT_TRUE(got.waitFor(contains(root), 1));
    size_t mark = got.count();
    ASSERT_TRUE(test::writeFile(sub + "/a.txt", "x"));
    ASSERT_TRUE(got.waitFor(contains(sub), mark));

    mark = got.count();
    ASSERT_TRUE(QDir(root).removeRecursively());
    ASSERT_TRUE(got.waitFor(
        [&](const auto &d) {
            const qsizetype i = d.paths.indexOf(root);
            return i >= 0 && ((*d.flags)[i] & file_event_flags::kRootChanged);
        },
        mark));
    makeDir("tree");
    mark = got.count();
    ASSERT_TRUE(test::writeFile(root + "/b.txt", "x"));
    ASSERT_TRUE(got.waitFor(contains(root), mark));
}

// While paused nothing is delivered, and after unpausing only new changes are.
TEST(FileEvent, PausedDeliveriesAreDropped) {
    const QString root = makeDir("paused");
    const QString a = makeDir("paused/a"), b = makeDir("paused/b");
    test::LogCapture log;
    Deliveries got;
    OKVA_FileEvent watcher(QStringList{root}, 0.05);
    watcher.setEventBlock(got.block());
    watcher.setRun(true);
    watcher.setPaused(true);
    ASSERT_TRUE(got.waitFor(contains(root)));
    test::drain(watcher.eventQueue());
    EXPECT_TRUE(watcher.isPaused());

    // One kernel event, so one delivery, dropped as a whole.
    ASSERT_TRUE(QDir().mkdir(a + "/x"));
    ASSERT_TRUE(test::processEventsUntil([&] {
        return log.messages().contains(
            "OKVA_FileEvent->handleFileEventpaths... will not dispatch eventCallBack... "
            "PAUSED....");
    }));
    watcher.setPaused(false);
    test::drain(watcher.eventQueue());
    const size_t mark = got.count();
    ASSERT_TRUE(test::writeFile(b + "/y", "x"));
    ASSERT_TRUE(got.waitFor(contains(b), mark));
    EXPECT_FALSE(got.waitFor(contains(a), mark, 0ms)); // no waiting: what is in by now
    EXPECT_TRUE(log.messages().contains("OKVA_FileEvent->setPaused... setting pause = TRUE..."));
    EXPECT_TRUE(log.messages().contains(
        "OKVA_FileEvent->handleFileEventpaths... FOLDER CHANGED....FOLDER CHANGED...."));
}

// A single file gets per-item events and survives being replaced by a rename,
// as editors save; its deletion is reported as such.
TEST(FileEvent, SingleFileReplacedAndDeleted) {
    const QString dir = makeDir("single");
    const QString file = dir + "/wallpaper.png";
    ASSERT_TRUE(test::writeFile(file, "x"));
    Deliveries got;
    OKVA_FileEvent watcher(file);
    EXPECT_NE(watcher.createFlags() & kFileEventCreateFlagFileEvents, 0u);
    EXPECT_EQ(watcher.latency(), 0.5);
    watcher.setEventBlock(got.block());
    watcher.setRun(true);
    ASSERT_TRUE(got.waitFor(contains(file)));

    ASSERT_TRUE(test::writeFile(dir + "/other.txt", "x")); // not watched: never reported
    ASSERT_TRUE(test::writeFile(dir + "/.tmp", "x"));
    ASSERT_EQ(::rename(QFile::encodeName(dir + "/.tmp").constData(), QFile::encodeName(file).constData()), 0);
    ASSERT_TRUE(got.waitFor(contains(file), 1));
    QFile::remove(file);
    auto removed = [&](const auto &d) {
        const qsizetype i = d.paths.indexOf(file);
        return i >= 0 && ((*d.flags)[i] & file_event_flags::kItemRemoved);
    };
    ASSERT_TRUE(got.waitFor(removed, 1));
    EXPECT_FALSE(got.waitFor(contains(dir + "/other.txt"), 1, 0ms));

    // Two watchers of the same path share a label, not a queue.
    OKVA_FileEvent twin(file);
    EXPECT_EQ(twin.eventQueue()->label(), watcher.eventQueue()->label());
    EXPECT_EQ(twin.eventQueue()->label(), ("OKVA_FileEvent." + file).toStdString());
    EXPECT_NE(twin.eventQueue(), watcher.eventQueue());
}

TEST(PathObserver, UnwatchablePathsFailToStartAndAFileReportsChangesUntilDeleted) {
    test::LogCapture log;
    Deliveries got;
    OKVA_FileEvent watcher(QStringLiteral("/nonexistent-brix/a/b"));
    watcher.setEventBlock(got.block());
    watcher.setRun(true);
    test::drain(watcher.eventQueue());
    EXPECT_TRUE(watcher.isRunning());
    EXPECT_EQ(got.count(), 0u);
    ASSERT_FALSE(log.messages().isEmpty());
    EXPECT_TRUE(log.messages().last().startsWith("FAILED to start monitoring ("));

    EXPECT_EQ(PathObserver::initWithURL(QUrl("https://example.com/a"), PathObserver::kAllEvents, nullptr, {}),
              nullptr);
    EXPECT_EQ(PathObserver::initWithURL(QUrl::fromLocalFile("/nonexistent-brix"), PathObserver::kAllEvents,
                                        nullptr, {}),
              nullptr);
    // The descriptor failure goes to the error stream as perror() writes it.
    const QString lines = log.messages().join('\n');
    EXPECT_TRUE(
        lines.contains("OOPS! https://example.com/a is NOT a file URL. Nothing will be watched (because "
                       "there is nothing TO be watched)"));
    EXPECT_TRUE(lines.contains("Failed to get a file descriptor: No such file or directory"));

    const QString file = makeDir("observed") + "/shot.jpg";
    ASSERT_TRUE(test::writeFile(file, "x"));
    Recorder<unsigned long> bits;
    auto observer = PathObserver::initWithURL(QUrl::fromLocalFile(file), PathObserver::kAllEvents,
                                              dispatch::makeSerialQueue("test.observer"),
                                              [&](unsigned long b) { bits.add(b); });
    ASSERT_NE(observer, nullptr);
    auto seen = [&](unsigned long want) {
        return bits.waitFor([&](unsigned long b) { return (b & want) == want; });
    };
    ASSERT_TRUE(test::writeFile(file, "more"));
    EXPECT_TRUE(seen(PathObserver::kWrite | PathObserver::kExtend));
    QFile(file).setPermissions(QFile::ReadOwner);
    EXPECT_TRUE(seen(PathObserver::kAttrib));
    QFile::remove(file);
    EXPECT_TRUE(seen(PathObserver::kDelete));
    EXPECT_FALSE(observer->isWatching());
}
