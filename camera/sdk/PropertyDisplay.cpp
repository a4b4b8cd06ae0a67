// Display tables of camera property values. Each table is an exact lookup of
// the value, with its own fallback text.
#include "PropertyDisplay.h"

#include "EdsNames.h"
#include "Logger.h"

#include <cstdint>

namespace brix::eds {

namespace {

struct Entry {
    int64_t value; // signed for the tables whose values are signed
    const char *text;
};

constexpr const char *kUnknown = "unknown";
constexpr const char *kAuto = "Auto";
constexpr const char *kImageQualityFunction = "strForCanonCameraImageQuality";
constexpr const char *kBatteryOnMains = "AC Power";

constexpr Entry kBatteryQuality[] = {
    {0, "Severely Degraded"},
    {1, "Degraded"},
    {2, "Medium"},
    {3, "High"},
};

constexpr Entry kColorSpace[] = {
    {1, "sRGB"},
    {2, "Adobe RGB"},
};

constexpr Entry kAFMode[] = {
    {0, "One Shot AF"},
    {1, "AI Servo AF"},
    {2, "AI Focus AF"},
    {3, "Manual Focus"},
};

constexpr Entry kMeteringMode[] = {
    {1, "Spot metering"},
    {3, "Evaluative metering"},
    {4, "Partial metering"},
    {5, "Center-weighted averaging metering"},
};

constexpr Entry kDriveMode[] = {
    {0, "Single-Frame Shooting"},
    {1, "Continuous Shooting"},
    {2, "Video"},
    {3, "Not used"},
    {4, "High-Speed Continuous Shooting"},
    {5, "Low-Speed Continuous Shooting"},
    {6, "Silent single shooting"},
    {7, "10-Sec Self-Timer plus continuous shots"},
    {0x10, "10-Sec Self-Timer"},
    {0x11, "2-Sec Self-Timer"},
};

constexpr Entry kAEMode[] = {
    {0, "Program AE"},
    {1, "Shutter-Speed Priority AE"},
    {2, "Aperture Priority AE"},
    {3, "Manual Exposure"},
    {4, "Bulb"},
    {5, "A-DEP"},
    {6, "DEP"},
    {9, "Auto"},
    {10, "Night Scene Portrait"},
    {11, "Sports"},
    {12, "Portrait"},
    {13, "Landscape"},
    {14, "Close-Up"},
    {15, "Flash Off"},
    {19, "Creative Auto"},
};

constexpr Entry kWhiteBalance[] = {
    {-1, "Setting the white balance by clicking image coordinates"},
    {0, "Auto"},
    {1, "Daylight"},
    {2, "Cloudy"},
    {3, "Tungsten"},
    {4, "Fluorescent"},
    {5, "Flash"},
    {6, "Manual (set by shooting a white card or paper)"},
    {8, "Shade"},
    {9, "Color temperature"},
    {10, "Custom white balance: PC-1"},
    {11, "Custom white balance: PC-2"},
    {12, "Custom white balance: PC-3"},
    {15, "Manual 2"},
    {16, "Manual 3"},
    {18, "Manual 4"},
    {19, "Manual 5"},
    {20, "Custom white balance: PC-4"},
    {21, "Custom white balance: PC-5"},
};

constexpr Entry kExposureCompensation[] = {
    {0, "0"},         {3, "+1/3"},      {4, "+1/2"},    {5, "+2/3"},      {8, "+1"},
    {11, "+1 1/3"},   {12, "+1 1/2"},   {13, "+1 2/3"}, {16, "+2"},       {19, "+2 1/3"},
    {20, "+2 1/2"},   {21, "+2 2/3"},   {24, "+3"},     {0xE8, "-3"},     {0xEB, "-2 2/3"},
    {0xEC, "-2 1/2"}, {0xED, "-2 1/3"}, {0xF0, "-2"},   {0xF3, "-1 2/3"}, {0xF4, "-1 1/2"},
    {0xF5, "-1 1/3"}, {0xF8, "-1"},     {0xFB, "-2/3"}, {0xFC, "-1/2"},   {0xFD, "-1/3"},
};

constexpr Entry kISOSpeed[] = {
    {0x28, "ISO 6"},     {0x30, "ISO 12"},   {0x38, "ISO 25"},   {0x40, "ISO 50"},   {0x48, "ISO 100"},
    {0x4B, "ISO 125"},   {0x4D, "ISO 160"},  {0x50, "ISO 200"},  {0x53, "ISO 250"},  {0x55, "ISO 320"},
    {0x58, "ISO 400"},   {0x5B, "ISO 500"},  {0x5D, "ISO 640"},  {0x60, "ISO 800"},  {0x63, "ISO 1000"},
    {0x65, "ISO 1250"},  {0x68, "ISO 1600"}, {0x70, "ISO 3200"}, {0x78, "ISO 6400"}, {0x80, "ISO 12800"},
    {0x88, "ISO 25600"},
};

constexpr Entry kAperture[] = {
    {0x8, "1"},          {0xB, "1.1"},        {0xC, "1.2"},        {0xD, "1.2 (1/3)"}, {0x10, "1.4"},
    {0x13, "1.6"},       {0x14, "1.8"},       {0x15, "1.8 (1/3)"}, {0x18, "2"},        {0x1B, "2.2"},
    {0x1C, "2.5"},       {0x1D, "2.5 (1/3)"}, {0x20, "2.8"},       {0x23, "3.2"},      {0x24, "3.5"},
    {0x25, "3.5 (1/3)"}, {0x28, "4"},         {0x2C, "4.5"},       {0x2D, "5.0"},      {0x30, "5.6"},
    {0x33, "6.3"},       {0x34, "6.7"},       {0x35, "7.1"},       {0x38, "8"},        {0x3B, "9"},
    {0x3C, "9.5"},       {0x3D, "10"},        {0x40, "11"},        {0x43, "13 (1/3)"}, {0x44, "13"},
    {0x45, "14"},        {0x48, "16"},        {0x4B, "18"},        {0x4C, "19"},       {0x4D, "20"},
    {0x50, "22"},        {0x53, "25"},        {0x54, "27"},        {0x55, "29"},       {0x58, "32"},
    {0x5B, "36"},        {0x5C, "38"},        {0x5D, "40"},        {0x60, "45"},       {0x63, "51"},
    {0x64, "54"},        {0x65, "57"},        {0x68, "64"},        {0x6B, "72"},       {0x6C, "76"},
    {0x6D, "80"},        {0x70, "91"},
};

constexpr Entry kShutterSpeed[] = {
    {0x10, "30\""},
    {0x13, "25\""},
    {0x14, "20\""},
    {0x15, "20\" (1/3)"},
    {0x18, "15\""},
    {0x1B, "13\""},
    {0x1C, "10\""},
    {0x1D, "10\" (1/3)"},
    {0x20, "8\""},
    {0x23, "6\" (1/3)"},
    {0x24, "6\""},
    {0x25, "5\""},
    {0x28, "4\""},
    {0x2B, "3\"2"},
    {0x2C, "3\""},
    {0x2D, "2\"5"},
    {0x30, "2\""},
    {0x33, "1\"6"},
    {0x34, "1\"5"},
    {0x35, "1\"3"},
    {0x38, "1\""},
    {0x3B, "0\"8"},
    {0x3C, "0\"7"},
    {0x3D, "0\"6"},
    {0x40, "0\"5"},
    {0x43, "0\"4"},
    {0x44, "0\"3"},
    {0x45, "0\"3 (1/3)"},
    {-1, "Not valid/No settings changes"},
    {0xC, "Bulb"},
    {0x48, "1/4"},
    {0x4B, "1/5"},
    {0x4C, "1/6"},
    {0x4D, "1/6 (1/3)"},
    {0x50, "1/8"},
    {0x53, "1/10 (1/3)"},
    {0x54, "1/10"},
    {0x55, "1/13"},
    {0x58, "1/15"},
    {0x5B, "1/20 (1/3)"},
    {0x5C, "1/20"},
    {0x5D, "1/25"},
    {0x60, "1/30"},
    {0x63, "1/40"},
    {0x64, "1/45"},
    {0x65, "1/50"},
    {0x68, "1/60"},
    {0x6B, "1/80"},
    {0x6C, "1/90"},
    {0x6D, "1/100"},
    {0x70, "1/125"},
    {0x73, "1/160"},
    {0x74, "1/180"},
    {0x75, "1/200"},
    {0x78, "1/250"},
    {0x7B, "1/320"},
    {0x7C, "1/350"},
    {0x7D, "1/400"},
    {0x80, "1/500"},
    {0x83, "1/640"},
    {0x84, "1/750"},
    {0x85, "1/800"},
    {0x88, "1/1000"},
    {0x8B, "1/1250"},
    {0x8C, "1/1500"},
    {0x8D, "1/1600"},
    {0x90, "1/2000"},
    {0x93, "1/2500"},
    {0x94, "1/3000"},
    {0x95, "1/3200"},
    {0x98, "1/4000"},
    {0x9B, "1/5000"},
    {0x9C, "1/6000"},
    {0x9D, "1/6400"},
    {0xA0, "1/8000"},
};

constexpr Entry kImageQuality[] = {
    {0x100F0F, "L"},
    {0x10FF0F, "Jpeg Large"},
    {0x120000, "Jpeg LargeNormal"},
    {0x12FF0F, "Jpeg LargeNormal"},
    {0x130000, "Jpeg LargeFine"},
    {0x13FF0F, "Jpeg LargeFine"},
    {0x1F000F, "L"},
    {0x240012, "RAW+L2"},
    {0x240013, "RAW+L1"},
    {0x240112, "RAW+M2"},
    {0x240113, "RAW+M1"},
    {0x240212, "RAW+S2"},
    {0x240213, "RAW+S1"},
    {0x2F000F, "RAW"},
    {0x2F001F, "RAW+L"},
    {0x2F021F, "RAW+S"},
    {0x2F051F, "RAW+M1"},
    {0x2F061F, "RAW+M2"},
    {0x640010, "RAW+L"},
    {0x640012, "RAW+L2"},
    {0x640013, "RAW+L1"},
    {0x640112, "RAW+M2"},
    {0x640113, "RAW+M1"},
    {0x640210, "RAW+S"},
    {0x640212, "RAW+S2"},
    {0x640213, "RAW+S1"},
    {0x640510, "RAW+M1"},
    {0x640610, "RAW+M2"},
    {0x640F0F, "RAW"},
    {0x64FF0F, "RAW"},
    {0x1120000, "Jpeg MiddleNormal"},
    {0x112FF0F, "Jpeg MiddleNormal"},
    {0x1130000, "Jpeg MiddleFine"},
    {0x113FF0F, "Jpeg MiddleFine"},
    {0x1640012, "sRAW1+L2"},
    {0x1640013, "sRAW1+L1"},
    {0x1640112, "sRAW1+M2"},
    {0x1640113, "sRAW1+M1"},
    {0x1640212, "sRAW1+S2"},
    {0x1640213, "sRAW1+S1"},
    {0x1640F0F, "sRAW1"},
    {0x2100F0F, "S"},
    {0x210FF0F, "Jpeg Small"},
    {0x2120000, "Jpeg SmallNormal"},
    {0x212FF0F, "Jpeg SmallNormal"},
    {0x2130000, "Jpeg SmallFine"},
    {0x213FF0F, "Jpeg SmallFine"},
    {0x21F000F, "S"},
    {0x2640010, "sRAW+L"},
    {0x2640012, "sRAW+L2"},
    {0x2640013, "sRAW+L"},
    {0x2640112, "sRAW+M2"},
    {0x2640113, "sRAW+M"},
    {0x2640210, "sRAW+S"},
    {0x2640212, "sRAW+S2"},
    {0x2640213, "sRAW+S"},
    {0x2640510, "sRAW+M1"},
    {0x2640610, "sRAW+M2"},
    {0x2640F0F, "sRAW"},
    {0x5100F0F, "M1"},
    {0x510FF0F, "Jpeg M1"},
    {0x51F000F, "M1"},
    {0x6100F0F, "M2"},
    {0x610FF0F, "Jpeg M2"},
    {0x61F000F, "M2"},
    {0xE12FF0F, "Jpeg Small-1 Normal"},
    {0xE13FF0F, "Jpeg Small-1 Fine"},
    {0xF13FF0F, "Jpeg Small2"},
    {0x1013FF0F, "Jpeg Small3"},
};
template <std::size_t N> const char *lookup(const Entry (&table)[N], int64_t value, const char *fallback) {
    for (const Entry &e : table)
        if (e.value == value)
            return e.text;
    return fallback;
}

QString fromTable(const char *text) {
    return QString::fromUtf8(text);
}

} // namespace

QString strForCanonCameraImageQuality(EdsUInt32 quality) {
    const char *text = lookup(kImageQuality, quality, nullptr);
    if (text)
        return fromTable(text);
    Logger::setError(QStringLiteral("%1 => unknown case = 0x%2")
                         .arg(QLatin1String(kImageQualityFunction))
                         .arg(quality, 8, 16, QLatin1Char('0')));
    return fromTable(kUnknown);
}

QString stringNameForPropertyID(EdsPropertyID propertyID) {
    return QString::fromUtf8(propertyName(propertyID));
}

QString stringForPropertyID(EdsPropertyID propertyID, EdsUInt32 value) {
    const int64_t asSigned = static_cast<EdsInt32>(value);
    switch (propertyID) {
    case kEdsPropID_BatteryLevel:
        if (value == 0xFFFFFFFFu)
            return fromTable(kBatteryOnMains);
        return QStringLiteral("%1 %").arg(asSigned);
    case kEdsPropID_BatteryQuality:
        return fromTable(lookup(kBatteryQuality, value, kUnknown));
    case kEdsPropID_ImageQuality:
        return strForCanonCameraImageQuality(value);
    case kEdsPropID_WhiteBalance:
    case 0x502: // Evf_WhiteBalance shares the white-balance texts
        return fromTable(lookup(kWhiteBalance, asSigned, kUnknown));
    case 0x10D: // ColorSpace
        return fromTable(lookup(kColorSpace, value, kUnknown));
    case kEdsPropID_AEMode:
        return fromTable(lookup(kAEMode, value, kUnknown));
    case kEdsPropID_DriveMode:
        return fromTable(lookup(kDriveMode, value, kUnknown));
    case kEdsPropID_ISOSpeed:
        return fromTable(lookup(kISOSpeed, value, kAuto));
    case kEdsPropID_MeteringMode:
        return fromTable(lookup(kMeteringMode, value, kUnknown));
    case kEdsPropID_AFMode:
        return fromTable(lookup(kAFMode, value, kUnknown));
    case kEdsPropID_Av:
        return fromTable(lookup(kAperture, value, kAuto));
    case kEdsPropID_Tv:
        // Only -1 is meaningful below zero; the table covers the rest up to 0xA0.
        if (asSigned < -1 || asSigned > 0xA0)
            return fromTable(kAuto);
        return fromTable(lookup(kShutterSpeed, asSigned, kAuto));
    case kEdsPropID_ExposureCompensation:
        // The camera sends the low byte; a sign-extended value matches nothing.
        return fromTable(lookup(kExposureCompensation, value, kUnknown));
    default:
        return hexString(value);
    }
}

} // namespace brix::eds
