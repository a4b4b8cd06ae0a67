#include "AtomicFile.h"
#include "LogCapture.h"
#include "Paths.h"
#include "Preferences.h"
#include "PropertyList.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSize>

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

using namespace brix;

namespace {

class PrefsStore : public ::testing::Test {
protected:
    QString path() const { return test::testHome() + "/conf/Brix/store.plist"; }
    QByteArray fileBytes() const { return test::readFile(path()); }
    QVariantMap fileContents() const {
        return PropertyList::propertyListFromData(fileBytes(), Mutability::Immutable).toMap();
    }
    void writeFile(const QByteArray &bytes) const {
        // Replaced whole, so that a save running meanwhile sees old or new, never empty.
        QDir().mkpath(QFileInfo(path()).absolutePath());
        ASSERT_TRUE(test::writeFile(path() + ".incoming", bytes));
        ASSERT_EQ(::rename(QFile::encodeName(path() + ".incoming").constData(),
                           QFile::encodeName(path()).constData()),
                  0);
    }
    QStringList asideFiles() const {
        return QDir(QFileInfo(path()).absolutePath()).entryList({"store.plist.corrupt-*"}, QDir::Files);
    }
};

TEST_F(PrefsStore, EmptyStoreAnswersTheFallbacksTypedReadsConvertAndOnlyPropertyListsAreStored) {
    Preferences p(path());
    EXPECT_FALSE(p.objectForKey(pref::kPreferNotificationsOverModalAlerts).isValid());
    EXPECT_FALSE(p.boolForKey(pref::kPreferNotificationsOverModalAlerts));
    EXPECT_EQ(p.floatForKey(pref::kScanForNewImageInSeconds), 0.0);
    EXPECT_EQ(p.integerForKey("nothing"), 0);
    EXPECT_TRUE(p.stringForKey(pref::kSaveFolderPath).isNull());
    EXPECT_TRUE(p.arrayForKey(pref::kMiniSizesInfoArray).isEmpty());
    EXPECT_TRUE(p.dictionaryForKey(pref::kCanonSettings).isEmpty());
    EXPECT_TRUE(p.synchronize());
    EXPECT_FALSE(QFile::exists(path()));

    // Typed reads convert like the store always did.
    p.setObject("YES", "s1");
    p.setObject("  12.5 seconds", "s2");
    p.setObject(QVariantList{1, 2}, "list");
    EXPECT_TRUE(p.boolForKey("s1"));
    EXPECT_DOUBLE_EQ(p.floatForKey("s2"), 12.5);
    EXPECT_EQ(p.integerForKey("s2"), 12);
    EXPECT_TRUE(p.stringForKey("list").isNull());
    EXPECT_TRUE(p.arrayForKey("s1").isEmpty());

    // Values that are not property lists are refused with a log line.
    test::LogCapture log;
    p.setObject(QVariant::fromValue(QSize(2, 3)), "prefSize");
    EXPECT_FALSE(p.objectForKey("prefSize").isValid());
    EXPECT_EQ(log.matching("Preferences: value for key prefSize not stored").size(), 1);
    // An invalid value removes.
    p.setObject(5, "prefN");
    p.setObject(QVariant(), "prefN");
    EXPECT_FALSE(p.objectForKey("prefN").isValid());
}

TEST_F(PrefsStore, UserValuesOverrideRegisteredDefaultsWhichNeverReachTheFile) {
    Preferences p(path());
    p.registerDefaults({{"prefA", "factory"}, {"prefB", 3}});
    EXPECT_EQ(p.stringForKey("prefA"), "factory");
    p.setObject("mine", "prefA");
    EXPECT_EQ(p.stringForKey("prefA"), "mine");
    ASSERT_TRUE(p.synchronize());
    EXPECT_EQ(fileContents(), (QVariantMap{{"prefA", "mine"}}));

    // Registering again does not hide the user's value; removal uncovers the default.
    p.registerDefaults({{"prefA", "factory2"}});
    EXPECT_EQ(p.stringForKey("prefA"), "mine");
    p.removeObjectForKey("prefA");
    EXPECT_EQ(p.stringForKey("prefA"), "factory2");
    ASSERT_TRUE(p.synchronize());
    EXPECT_TRUE(fileContents().isEmpty());
    EXPECT_EQ(p.dictionaryRepresentation(), (QVariantMap{{"prefA", "factory2"}, {"prefB", 3}}));
}

TEST_F(PrefsStore, CorruptFilesAreMovedAsideLoggedAndTheStoreStartsFromDefaults) {
    const QByteArray garbage("<?xml version=\"1.0\"?><plist><dict><key>a</key><string>trunc");
    writeFile(garbage);
    test::LogCapture log;
    Preferences p(path());
    p.registerDefaults({{"prefA", "factory"}});
    EXPECT_EQ(p.stringForKey("prefA"), "factory");
    EXPECT_FALSE(QFile::exists(path()));
    const QStringList aside = asideFiles();
    ASSERT_EQ(aside.size(), 1);
    EXPECT_TRUE(QRegularExpression("^store\\.plist\\.corrupt-\\d{8}-\\d{6}$").match(aside[0]).hasMatch());
    EXPECT_EQ(test::readFile(QFileInfo(path()).absolutePath() + "/" + aside[0]), garbage);
    const QStringList lines = log.matching("Preferences: cannot read " + path());
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(lines[0].contains(aside[0]));

    // A second corrupt file in the same second gets its own name.
    writeFile("not a plist at all");
    Preferences q(path());
    EXPECT_EQ(asideFiles().size(), 2);
    q.setObject(1, "prefB");
    ASSERT_TRUE(q.synchronize());
    EXPECT_EQ(fileContents(), (QVariantMap{{"prefB", 1}}));

    // A file that turns corrupt later, here a root that is not a dictionary, is
    // moved aside, not overwritten: only our pending change is written.
    writeFile(PropertyList::dataFromPropertyList(QVariantList{1, 2}, PlistFormat::Binary));
    q.setObject(2, "prefC");
    ASSERT_TRUE(q.synchronize());
    EXPECT_EQ(asideFiles().size(), 3);
    EXPECT_EQ(fileContents(), (QVariantMap{{"prefC", 2}}));
}

TEST_F(PrefsStore, FailedWriteLeavesTheOldFileIntactAndRetriesLater) {
    {
        Preferences p(path());
        p.setObject("first", "prefA");
        ASSERT_TRUE(p.synchronize());
    }
    const QByteArray before = fileBytes();
    const QString folder = QFileInfo(path()).absolutePath();

    for (auto point : {AtomicFile::FailurePoint::AfterPartialWrite, AtomicFile::FailurePoint::BeforeRename}) {
        AtomicFile::setFailurePointForTesting(point);
        test::LogCapture log;
        {
            Preferences p(path());
            p.setObject(QString(4000, 'x'), "prefA");
            EXPECT_FALSE(p.synchronize());
            // Leaving the scope waits for the store's own queued save, which fails too.
        }
        AtomicFile::setFailurePointForTesting(AtomicFile::FailurePoint::None);
        EXPECT_EQ(fileBytes(), before);
        EXPECT_GE(log.matching("Preferences: cannot save " + path()).size(), 2);
        // Only the file itself and its lock are in the folder: no temporary file left.
        EXPECT_EQ(QDir(folder).entryList(QDir::Files | QDir::Hidden),
                  (QStringList{"store.plist", "store.plist.lock"}));
    }

    // A change whose save failed is kept and goes out with the next save.
    Preferences p(path());
    AtomicFile::setFailurePointForTesting(AtomicFile::FailurePoint::BeforeRename);
    p.setObject(QString(4000, 'y'), "prefA");
    EXPECT_FALSE(p.synchronize());
    AtomicFile::setFailurePointForTesting(AtomicFile::FailurePoint::None);
    ASSERT_TRUE(p.synchronize());
    EXPECT_EQ(fileContents().value("prefA").toString(), QString(4000, 'y'));
}

TEST_F(PrefsStore, SaveReplacesTheFileByRenameSoReadersNeverSeeAHalfFile) {
    Preferences p(path());
    // Written without an explicit synchronize, readable by its owner only.
    p.setObject("one", "prefA");
    ASSERT_TRUE(test::processEventsUntil([&] { return fileContents().value("prefA") == "one"; }));
    struct stat a {
    }, b{};
    ASSERT_EQ(::stat(QFile::encodeName(path()).constData(), &a), 0);
    EXPECT_EQ(a.st_mode & 0777, 0600u);
    // A reader that opened the old file keeps reading the old, complete content.
    QFile reader(path());
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
    p.setObject("two", "prefA");
    ASSERT_TRUE(p.synchronize());
    ASSERT_EQ(::stat(QFile::encodeName(path()).constData(), &b), 0);
    EXPECT_NE(a.st_ino, b.st_ino);
    EXPECT_EQ(
        PropertyList::propertyListFromData(reader.readAll(), Mutability::Immutable).toMap().value("prefA"),
        "one");
    EXPECT_EQ(fileContents().value("prefA"), "two");
}

TEST_F(PrefsStore, ChangeSignalArrivesOnTheMainThreadAndDrivesBindings) {
    Preferences p(path());
    p.registerDefaults({{pref::kScanForNewImageInSeconds, 0.0}});
    QObject control;
    QList<QVariant> shown;
    p.bind("values.prefScanForNewImageInSeconds", &control, [&](const QVariant &v) {
        EXPECT_TRUE(dispatch::isMainThread());
        shown << v;
    });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_EQ(shown[0].toDouble(), 0.0);

    p.setFloat(5.0, pref::kScanForNewImageInSeconds); // main thread: at once
    ASSERT_EQ(shown.size(), 2);
    EXPECT_EQ(shown[1].toDouble(), 5.0);

    auto worker = dispatch::makeSerialQueue("prefs.test.worker");
    worker->sync([&] { p.removeObjectForKey(pref::kScanForNewImageInSeconds); });
    ASSERT_TRUE(test::processEventsUntil([&] { return shown.size() == 3; }));
    EXPECT_EQ(shown[2].toDouble(), 0.0); // back to the registered default

    p.setObject("x", "prefOther"); // other keys do not reach this binding
    QCoreApplication::processEvents();
    EXPECT_EQ(shown.size(), 3);
    EXPECT_EQ(Preferences::keyForBindingPath("prefX"), "prefX");
}

QString storePath() {
    return test::testHome() + "/.config/Brix/factory-test.plist";
}

TEST(PrefsFactory, ResourceFileRegistersALayerWithAUsableMiniSizeList) {
    // Set when this test runs from an installed tree (tests/install).
    const QString expected = qEnvironmentVariable("BRIX_EXPECT_RESOURCES_DIR");
    if (!expected.isEmpty()) {
        EXPECT_EQ(Paths::resourcesFolder().toStdString(), expected.toStdString());
    }
    Preferences p(storePath());
    ASSERT_TRUE(p.registerFactoryDefaults());

    // The values themselves are the resource file's business (the stations in
    // the end-to-end tests run on them); keys whose absence means something stay absent.
    EXPECT_FALSE(p.objectForKey(pref::kTempCanonSettings).isValid());
    EXPECT_FALSE(p.objectForKey(pref::kNameOfCameraFound).isValid());

    // The selected mini size is one of the list's.
    QStringList values;
    for (const QVariant &entry : p.arrayForKey(pref::kMiniSizesInfoArray))
        values << entry.toMap().value("somevalue").toString();
    EXPECT_TRUE(values.contains(p.stringForKey(pref::kSelectedMiniPanelSizeValue)))
        << values.join(',').toStdString();

    // Defaults are a layer, not user values: the file stays empty.
    EXPECT_TRUE(p.persistentDomain().isEmpty());
    EXPECT_FALSE(QFile::exists(storePath()));
}

TEST(PrefsFactory, MissingOrUnreadableResourceRegistersNothingSilently) {
    Preferences p(storePath());
    test::LogCapture log;
    EXPECT_FALSE(p.registerDefaultsFromFile(test::testHome() + "/no-such.plist"));
    const QString bad = test::testHome() + "/bad.plist";
    ASSERT_TRUE(test::writeFile(bad, "<plist><array><integer>1</integer></array></plist>"));
    EXPECT_FALSE(p.registerDefaultsFromFile(bad));
    qputenv("BRIX_RESOURCES_DIR", (test::testHome() + "/empty").toUtf8());
    EXPECT_FALSE(p.registerFactoryDefaults());
    qunsetenv("BRIX_RESOURCES_DIR");
    EXPECT_TRUE(p.registeredDefaults().isEmpty());
    EXPECT_TRUE(log.messages().isEmpty());
}

} // namespace
