#include "LogCapture.h"
#include "Paths.h"
#include "Preferences.h"
#include "TestSupport.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace brix;

namespace {

QString storePath() { return test::testHome() + "/.config/Brix/factory-test.plist"; }

TEST(PrefsFactory, ResourceFileGivesEveryFallbackAndAUsableMiniSizeList) {
    // Set when this test runs from an installed tree (tests/install).
    const QString expected = qEnvironmentVariable("BRIX_EXPECT_RESOURCES_DIR");
    if (!expected.isEmpty()) {
        EXPECT_EQ(Paths::resourcesFolder().toStdString(), expected.toStdString());
    }
    Preferences p(storePath());
    ASSERT_TRUE(p.registerFactoryDefaults());

    EXPECT_EQ(p.stringForKey(pref::kSaveFolderPath), "~/Users/Shared/CanonFolder");
    EXPECT_EQ(p.stringForKey(pref::kDefaultMainTabviewItemIdentifier), "preferences");
    EXPECT_EQ(p.floatForKey(pref::kScanForNewImageInSeconds), 0.0);
    EXPECT_FALSE(p.boolForKey(pref::kPreferNotificationsOverModalAlerts));
    EXPECT_FALSE(p.boolForKey(pref::kForceWindowBottomRight));
    EXPECT_EQ(p.objectForKey(pref::kCanonSettings).typeId(), QMetaType::QVariantMap);
    EXPECT_EQ(p.objectForKey(pref::kRecentLaunchDates).typeId(), QMetaType::QVariantList);
    // Keys whose absence means something stay absent.
    EXPECT_FALSE(p.objectForKey(pref::kTempCanonSettings).isValid());
    EXPECT_FALSE(p.objectForKey(pref::kNameOfCameraFound).isValid());
    EXPECT_FALSE(p.objectForKey(pref::kMiniSize3Position).isValid());

    const QVariantList sizes = p.arrayForKey(pref::kMiniSizesInfoArray);
    ASSERT_GE(sizes.size(), 3);
    const QVariantMap icon = sizes[2].toMap();
    EXPECT_EQ(icon.value("somevalue").toString(), "pref3");
    EXPECT_TRUE(icon.value("iconmode").toBool());
    int defaults = 0;
    QStringList values;
    for (const QVariant &entry : sizes) {
        const QVariantMap m = entry.toMap();
        ASSERT_FALSE(m.value("somevalue").toString().isEmpty());
        ASSERT_GT(m.value("width").toDouble(), 0.0);
        values << m.value("somevalue").toString();
        defaults += m.value("displayname").toString().contains("Default") ? 1 : 0;
    }
    EXPECT_EQ(defaults, 1);
    EXPECT_TRUE(values.contains(p.stringForKey(pref::kSelectedMiniPanelSizeValue)));

    // Defaults are a layer, not user values: the file stays empty.
    EXPECT_TRUE(p.persistentDomain().isEmpty());
    EXPECT_FALSE(QFile::exists(storePath()));
}

TEST(PrefsFactory, MissingOrUnreadableResourceRegistersNothingSilently) {
    Preferences p(storePath());
    test::LogCapture log;
    EXPECT_FALSE(p.registerDefaultsFromFile(test::testHome() + "/no-such.plist"));
    QFile bad(test::testHome() + "/bad.plist");
    ASSERT_TRUE(bad.open(QIODevice::WriteOnly));
    bad.write("<plist><array><integer>1</integer></array></plist>");
    bad.close();
    EXPECT_FALSE(p.registerDefaultsFromFile(bad.fileName()));
    qputenv("BRIX_RESOURCES_DIR", (test::testHome() + "/empty").toUtf8());
    EXPECT_FALSE(p.registerFactoryDefaults());
    qunsetenv("BRIX_RESOURCES_DIR");
    EXPECT_TRUE(p.registeredDefaults().isEmpty());
    EXPECT_TRUE(log.messages().isEmpty());
}

} // namespace
