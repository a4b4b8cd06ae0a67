// The name and display tables: their quirks, fallbacks and boundaries (the
// texts are dictionary keys elsewhere, so a wrong fallback is a real fault).
#include "EdsNames.h"
#include "LogCapture.h"
#include "PropertyDisplay.h"

#include <gtest/gtest.h>

#include <set>

using namespace brix;
using namespace brix::eds;

TEST(NameTables, FallbacksAndTheSharedUnknownErrorText) {
    EXPECT_STREQ(errorText(0), "unknown error");
    EXPECT_STREQ(errorText(0xC), "unknown error"); // gap right after 0xB
    EXPECT_STREQ(errorText(0xA103), "unknown error");
    EXPECT_STREQ(errorText(0x1), "unimplemented");
    EXPECT_STREQ(errorText(0xA102), "object notready");
    EXPECT_STREQ(propertyName(0x81D), "GPSDateStamp");
    EXPECT_STREQ(propertyName(0x81E), "unknown property");
    EXPECT_STREQ(propertyName(0x1), "unknown property");
    // The data-type names share the error table's fallback, not a "type" text.
    EXPECT_STREQ(dataTypeName(5), "unknown error");
    EXPECT_STREQ(dataTypeName(102), "PictureStyleDesc");
    EXPECT_STREQ(dataTypeName(103), "unknown error");
    EXPECT_EQ(hexString(0xABCDEF), "0XABCDEF");
    EXPECT_EQ(hexString(0), "0X0");
}

TEST(DisplayTables, BatteryLevelIsSignedWithMainsPower) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFF), "AC Power");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 100), "100 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFE), "-2 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryQuality, 4), "unknown");
}

TEST(DisplayTables, EachTableFallsBackItsOwnWay) {
    // Aperture: third-stop marks, and "Auto" for codes without a text.
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x43), "13 (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x2B), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x70), "91");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x71), "Auto");
    // Shutter speed: its own text for "no setting", "Auto" outside the range.
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xFFFFFFFF), "Not valid/No settings changes");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xFFFFFFFE), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xA1), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x11), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x2B), "3\"2");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x45), "0\"3 (1/3)");
    // Exposure compensation matches the exact byte only.
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0xFD), "-1/3");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0xFFFFFFFD), "unknown");
    // White balance is signed; the live-view white balance shares its table.
    EXPECT_EQ(stringForPropertyID(kEdsPropID_WhiteBalance, 0xFFFFFFFF),
              "Setting the white balance by clicking image coordinates");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_WhiteBalance, 7), "unknown");
    EXPECT_EQ(stringForPropertyID(0x502, 8), "Shade");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ISOSpeed, 0x6B), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_DriveMode, 8), "unknown");
    // Properties without a table show the number.
    EXPECT_EQ(stringForPropertyID(0x409, 50), "0X32");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Evf_OutputDevice, 2), "0X2");
    EXPECT_EQ(stringNameForPropertyID(0xFFFF), "unknown property");
}

TEST(DisplayTables, ImageQualitySharedTextsTheSrawAsymmetryAndUnknownCodes) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x130000), "Jpeg LargeFine");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x13FF0F), "Jpeg LargeFine");
    EXPECT_EQ(strForCanonCameraImageQuality(0x1640013), "sRAW1+L1");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640013), "sRAW+L");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640012), "sRAW+L2");
    // Codes that share a text are exactly the listed pairs.
    std::set<QString> texts;
    for (EdsUInt32 code : {0x120000u, 0x12FF0Fu, 0x1120000u, 0x112FF0Fu, 0x2130000u, 0x213FF0Fu})
        texts.insert(strForCanonCameraImageQuality(code));
    EXPECT_EQ(texts.size(), 3u);

    test::LogCapture log;
    EXPECT_EQ(strForCanonCameraImageQuality(0x13FF0F), "Jpeg LargeFine");
    EXPECT_TRUE(log.messages().isEmpty()) << "a known code logs nothing";
    EXPECT_EQ(strForCanonCameraImageQuality(0xABC), "unknown");
    EXPECT_TRUE(log.text().contains("strForCanonCameraImageQuality => unknown case = 0x00000abc"))
        << log.text().constData();
}
