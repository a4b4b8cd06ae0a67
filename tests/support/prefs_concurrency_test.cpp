#include "Dispatch.h"
#include "Preferences.h"
#include "PropertyList.h"
#include "TestSupport.h"

#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
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
    std::atomic<int> done{0};
    auto qa = dispatch::makeSerialQueue("prefs.a"), qb = dispatch::makeSerialQueue("prefs.b");
    qa->async([&] {
        for (int i = 0; i < 40; ++i) {
            a.setInteger(i, QString("a%1").arg(i));
            a.synchronize();
        }
        ++done;
    });
    qb->async([&] {
        for (int i = 0; i < 40; ++i) {
            b.setInteger(i, QString("b%1").arg(i));
            b.synchronize();
        }
        ++done;
    });
    ASSERT_TRUE(test::processEventsUntil([&] { return done.load() == 2; }));
    ASSERT_TRUE(a.synchronize());
    ASSERT_TRUE(b.synchronize());
    Preferences fresh(storePath());
    EXPECT_EQ(fresh.persistentDomain().size(), 80);
    EXPECT_EQ(a.persistentDomain(), fresh.persistentDomain());
}

} // namespace
