// The name and display tables: their quirks, fallbacks and boundaries. The
// texts are dictionary keys elsewhere, so a wrong character is a real fault.
#include "EdsNames.h"
#include "Logger.h"
#include "PropertyDisplay.h"
#include "TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <gtest/gtest.h>

#include <set>

using namespace brix;
using namespace brix::eds;

TEST(NameTables, FallbacksAndTheSharedUnknownErrorText) {
    EXPECT_STREQ(errorText(0), "unknown error");
    EXPECT_STREQ(errorText(0xC), "unknown error"); // gap right after 0xB
    EXPECT_STREQ(errorText(0xFFFFFFFF), "unknown error");
    EXPECT_STREQ(errorText(0xA102), "object notready");
    EXPECT_STREQ(errorText(0x8D01), "take picture af ng");
    EXPECT_STREQ(errorText(0xF5), "last generic error plus one");
    EXPECT_STREQ(errorText(0x29), "file permission error");
    // Both ends of the table.
    EXPECT_STREQ(errorText(0x1), "unimplemented");
    EXPECT_STREQ(errorText(0xA103), "unknown error");

    EXPECT_STREQ(propertyName(0x81D), "GPSDateStamp");
    EXPECT_STREQ(propertyName(0x81E), "unknown property");
    EXPECT_STREQ(propertyName(0x2), "ProductName");
    EXPECT_STREQ(propertyName(0x1), "unknown property");
    EXPECT_STREQ(propertyName(0x50E), "Evf_AFMode");

    // The data-type names share the error table's fallback, not a "type" text.
    EXPECT_STREQ(dataTypeName(5), "unknown error");
    EXPECT_STREQ(dataTypeName(0), "Unknown");
    EXPECT_STREQ(dataTypeName(23), "Time");
    EXPECT_STREQ(dataTypeName(102), "PictureStyleDesc");
    EXPECT_STREQ(dataTypeName(103), "unknown error");

    EXPECT_EQ(hexString(50), "0X32");
    EXPECT_EQ(hexString(0xABCDEF), "0XABCDEF");
    EXPECT_EQ(hexString(0), "0X0");
}

TEST(DisplayTables, BatteryLevelIsSignedWithMainsPower) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFF), "AC Power");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 100), "100 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0), "0 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFE), "-2 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryQuality, 4), "unknown");
}

TEST(DisplayTables, ApertureQuirksAndAutoFallback) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x08), "1");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x38), "8");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x2D), "5.0");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x43), "13 (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x44), "13");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x0D), "1.2 (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x2B), "Auto"); // a real half-stop code with no text
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x70), "91");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Av, 0x71), "Auto");
}

TEST(DisplayTables, ShutterSpeedMarksTenthsThirdsAndRange) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xFFFFFFFF), "Not valid/No settings changes");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xFFFFFFFE), "Auto"); // below -1
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xA1), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x11), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0xA0), "1/8000");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x0C), "Bulb");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x10), "30\"");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x2B), "3\"2");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x15), "20\" (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x45), "0\"3 (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x44), "0\"3");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x53), "1/10 (1/3)");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Tv, 0x54), "1/10");
}

TEST(DisplayTables, ExposureCompensationMatchesTheExactByte) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0xFD), "-1/3");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0xFFFFFFFD), "unknown");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0), "0");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0x0B), "+1 1/3");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0xE8), "-3");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ExposureCompensation, 0x19), "unknown");
}

TEST(DisplayTables, SignedWhiteBalanceAndSharedEvfTable) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_WhiteBalance, 0xFFFFFFFF),
              "Setting the white balance by clicking image coordinates");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_WhiteBalance, 7), "unknown");
    EXPECT_EQ(stringForPropertyID(0x502, 8), "Shade");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_WhiteBalance, 6),
              "Manual (set by shooting a white card or paper)");
}

TEST(DisplayTables, OtherTablesFallBackAsTheyShould) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ISOSpeed, 0), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ISOSpeed, 0x6B), "Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ISOSpeed, 0x88), "ISO 25600");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_AEMode, 7), "unknown");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_AEMode, 19), "Creative Auto");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_DriveMode, 0x11), "2-Sec Self-Timer");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_DriveMode, 8), "unknown");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_MeteringMode, 2), "unknown");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_AFMode, 3), "Manual Focus");
    EXPECT_EQ(stringForPropertyID(0x10D, 2), "Adobe RGB");
    EXPECT_EQ(stringForPropertyID(0x10D, 0), "unknown");
    // Properties without a table.
    EXPECT_EQ(stringForPropertyID(0x409, 50), "0X32");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_Evf_OutputDevice, 2), "0X2");

    EXPECT_EQ(stringNameForPropertyID(kEdsPropID_ExposureCompensation), "ExposureCompensation");
    EXPECT_EQ(stringNameForPropertyID(0xFFFF), "unknown property");
}

TEST(DisplayTables, ImageQualitySharedTextsAndTheSrawAsymmetry) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x130000), "Jpeg LargeFine");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x13FF0F), "Jpeg LargeFine");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x640F0F), "RAW");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_ImageQuality, 0x64FF0F), "RAW");
    EXPECT_EQ(strForCanonCameraImageQuality(0x1640013), "sRAW1+L1");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640013), "sRAW+L");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640113), "sRAW+M");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640213), "sRAW+S");
    EXPECT_EQ(strForCanonCameraImageQuality(0x2640012), "sRAW+L2");
    EXPECT_EQ(strForCanonCameraImageQuality(0x1013FF0F), "Jpeg Small3");

    // All 42 texts are distinct keys of one table: codes that share a text are
    // exactly the listed pairs.
    std::set<QString> texts;
    for (EdsUInt32 code : {0x120000u, 0x12FF0Fu, 0x1120000u, 0x112FF0Fu, 0x2130000u, 0x213FF0Fu})
        texts.insert(strForCanonCameraImageQuality(code));
    EXPECT_EQ(texts.size(), 3u);
}

TEST(DisplayTables, UnknownImageQualityIsLoggedWithEightHexDigits) {
    const QByteArray expected = "strForCanonCameraImageQuality => unknown case = 0x00000abc";
    testing::internal::CaptureStderr();
    EXPECT_EQ(strForCanonCameraImageQuality(0xABC), "unknown");
    Logger::flush();
    const std::string err = testing::internal::GetCapturedStderr();
    bool found = QByteArray::fromStdString(err).contains(expected);
    // A logger that writes its own file instead of the error stream keeps it under HOME.
    QDirIterator it(test::testHome(), QDir::Files, QDirIterator::Subdirectories);
    while (!found && it.hasNext()) {
        QFile f(it.next());
        if (f.open(QIODevice::ReadOnly))
            found = f.readAll().contains(expected);
    }
    EXPECT_TRUE(found) << err;
    // A known code logs nothing.
    testing::internal::CaptureStderr();
    EXPECT_EQ(strForCanonCameraImageQuality(0x13FF0F), "Jpeg LargeFine");
    Logger::flush();
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("unknown case"), std::string::npos);
}
