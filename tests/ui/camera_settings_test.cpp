#include "CameraPanelModel.h"
#include "CameraSettings.h"
#include "CameraSettingsFile.h"
#include "Preferences.h"
#include "SystemSound.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace brix;
using namespace std::chrono_literals;

namespace {

QVariantMap model(const QString &tv) {
    return QVariantMap{{"1030", tv}, {"1026", "ISO 400"}};
}

} // namespace

// Without a camera every remembered value is refused (one beep each), and the
// import answers reach the store as the user chose, each followed by a reload.
TEST(CameraSettings, SavesUnderTheFallbackNameMergesWholeModelsAndReloadsAfterEveryAnswer) {
    Preferences prefs(test::testHome() + "/settings-prefs.plist");
    CameraPanelModel panel;
    panel.selectPopUpTitle(1030, "1/125");
    CameraSettings settings(panel, prefs, [] { return CameraPtr(); });

    settings.ibSaveSettings();
    const QVariantMap saved = prefs.dictionaryForKey(pref::kCanonSettings);
    EXPECT_EQ(saved.value("canoncamera").toMap().value("1030").toString(), "1/125");
    EXPECT_EQ(saved.value("version").toString(), "v2");

    prefs.setObject(QVariantMap{{"version", "v2"}, {"A", model("1/60")}, {"B", model("1/30")}},
                    pref::kCanonSettings);
    prefs.setObject("A", pref::kNameOfCameraFound);
    const int before = SystemSound::beepCount();
    settings.importSettings(QVariantMap{{"A", QVariantMap{{"1031", "+1"}}}}, CameraSettings::Merge);
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("B").toMap(), model("1/30"));
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("A").toMap(), (QVariantMap{{"1031", "+1"}}));
    ASSERT_TRUE(test::processEventsUntil([&] { return SystemSound::beepCount() == before + 1; }, 5s));

    // Cancel leaves the store alone and still applies A again.
    settings.importSettings(QVariantMap{{"A", model("1/8000")}}, CameraSettings::Cancel);
    EXPECT_EQ(prefs.dictionaryForKey(pref::kCanonSettings).value("A").toMap(), (QVariantMap{{"1031", "+1"}}));
    ASSERT_TRUE(test::processEventsUntil([&] { return SystemSound::beepCount() == before + 2; }, 5s));

    // An unreadable file never empties the store, whatever the answer.
    settings.importSettings({}, CameraSettings::Overwrite);
    EXPECT_TRUE(prefs.dictionaryForKey(pref::kCanonSettings).contains("B"));

    // Refused: a wrong version, any case; accepted: no version at all.
    EXPECT_FALSE(CameraSettingsFile::isAcceptable(QVariantMap{{"version", "v1"}}));
    EXPECT_TRUE(CameraSettingsFile::isAcceptable(QVariantMap{{"version", "V2"}}));
}
