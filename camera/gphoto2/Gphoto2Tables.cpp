// Value tables between boundary property values and libgphoto2 EOS labels.
// The labels are those libgphoto2 2.5.30 shows in the C locale; where it gives
// one label to two values, the entry listed first is the one preferred when
// nothing else tells them apart.
#include "Gphoto2Tables.h"

#include <cstdio>
#include <map>

namespace brix::gphoto2 {
namespace {

using namespace eds;

constexpr EdsPropertyID kPictureStyle = 0x114;

const std::vector<LabelEntry> kAperture = {
    {0x0000, "implicit auto"},
    {0xffff, "auto"},
    {0x08, "1"},
    {0x0b, "1.1"},
    {0x0c, "1.2"},
    {0x0d, "1.2"},
    {0x10, "1.4"},
    {0x13, "1.6"},
    {0x14, "1.8"},
    {0x15, "1.8"},
    {0x18, "2"},
    {0x1b, "2.2"},
    {0x1c, "2.5"},
    {0x1d, "2.5"},
    {0x20, "2.8"},
    {0x23, "3.2"},
    {0x24, "3.5"},
    {0x25, "3.5"},
    {0x28, "4"},
    {0x2c, "4.5"},
    {0x2b, "4.5"},
    {0x2d, "5"},
    {0x30, "5.6"},
    {0x33, "6.3"},
    {0x34, "6.7"},
    {0x35, "7.1"},
    {0x38, "8"},
    {0x3b, "9"},
    {0x3c, "9.5"},
    {0x3d, "10"},
    {0x40, "11"},
    {0x43, "13"},
    {0x44, "13"},
    {0x45, "14"},
    {0x48, "16"},
    {0x4b, "18"},
    {0x4c, "19"},
    {0x4d, "20"},
    {0x50, "22"},
    {0x53, "25"},
    {0x54, "27"},
    {0x55, "29"},
    {0x58, "32"},
    {0x5b, "36"},
    {0x5c, "38"},
    {0x5d, "40"},
    {0x60, "45"},
    {0x63, "51"},
    {0x64, "54"},
    {0x65, "57"},
    {0x68, "64"},
    {0x6b, "72"},
    {0x6c, "76"},
    {0x6d, "81"},
    {0x70, "91"},
};

const std::vector<LabelEntry> kShutterSpeed = {
    {0x00, "auto"},   {0x0c, "bulb"},   {0x04, "bulb"},   {0x10, "30"},     {0x13, "25"},
    {0x14, "20.3"},   {0x15, "20"},     {0x18, "15"},     {0x1b, "13"},     {0x1c, "10"},
    {0x1d, "10.3"},   {0x20, "8"},      {0x23, "6.3"},    {0x24, "6"},      {0x25, "5"},
    {0x28, "4"},      {0x2b, "3.2"},    {0x2c, "3"},      {0x2d, "2.5"},    {0x30, "2"},
    {0x33, "1.6"},    {0x34, "1.5"},    {0x35, "1.3"},    {0x38, "1"},      {0x3b, "0.8"},
    {0x3c, "0.7"},    {0x3d, "0.6"},    {0x40, "0.5"},    {0x43, "0.4"},    {0x44, "0.3"},
    {0x45, "0.3"},    {0x48, "1/4"},    {0x4b, "1/5"},    {0x4c, "1/6"},    {0x4d, "1/6"},
    {0x50, "1/8"},    {0x53, "1/10"},   {0x54, "1/10"},   {0x55, "1/13"},   {0x58, "1/15"},
    {0x5b, "1/20"},   {0x5c, "1/20"},   {0x5d, "1/25"},   {0x60, "1/30"},   {0x63, "1/40"},
    {0x64, "1/45"},   {0x65, "1/50"},   {0x68, "1/60"},   {0x6b, "1/80"},   {0x6c, "1/90"},
    {0x6d, "1/100"},  {0x70, "1/125"},  {0x73, "1/160"},  {0x74, "1/180"},  {0x75, "1/200"},
    {0x78, "1/250"},  {0x7b, "1/320"},  {0x7c, "1/350"},  {0x7d, "1/400"},  {0x80, "1/500"},
    {0x83, "1/640"},  {0x84, "1/750"},  {0x85, "1/800"},  {0x88, "1/1000"}, {0x8b, "1/1250"},
    {0x8c, "1/1500"}, {0x8d, "1/1600"}, {0x90, "1/2000"}, {0x93, "1/2500"}, {0x94, "1/3000"},
    {0x95, "1/3200"}, {0x98, "1/4000"}, {0x9b, "1/5000"}, {0x9c, "1/6000"}, {0x9d, "1/6400"},
    {0xa0, "1/8000"},
};

const std::vector<LabelEntry> kIso = {
    {0xffff, "Factory Default"},
    {0x28, "6"},
    {0x30, "12"},
    {0x38, "25"},
    {0x40, "50"},
    {0x43, "64"},
    {0x45, "80"},
    {0x48, "100"},
    {0x4b, "125"},
    {0x4d, "160"},
    {0x50, "200"},
    {0x53, "250"},
    {0x55, "320"},
    {0x58, "400"},
    {0x5b, "500"},
    {0x5d, "640"},
    {0x60, "800"},
    {0x63, "1000"},
    {0x65, "1250"},
    {0x68, "1600"},
    {0x6b, "2000"},
    {0x6d, "2500"},
    {0x70, "3200"},
    {0x73, "4000"},
    {0x75, "5000"},
    {0x78, "6400"},
    {0x7b, "8000"},
    {0x7d, "10000"},
    {0x80, "12800"},
    {0x83, "16000"},
    {0x85, "20000"},
    {0x88, "25600"},
    {0x8b, "32000"},
    {0x8d, "40000"},
    {0x90, "51200"},
    {0x93, "64000"},
    {0x95, "80000"},
    {0x98, "102400"},
    {0xa0, "204800"},
    {0xa8, "409600"},
    {0xb0, "819200"},
    {0x00, "Auto"},
};

// Exposure compensation in eighth stops, as a signed byte.
const std::vector<LabelEntry> kExposureCompensation = {
    {0x28, "5"},    {0x25, "4.6"},  {0x24, "4.5"},  {0x23, "4.3"},  {0x20, "4"},    {0x1d, "3.6"},
    {0x1c, "3.5"},  {0x1b, "3.3"},  {0x18, "3"},    {0x15, "2.6"},  {0x14, "2.5"},  {0x13, "2.3"},
    {0x10, "2"},    {0x0d, "1.6"},  {0x0c, "1.5"},  {0x0b, "1.3"},  {0x08, "1"},    {0x08, "1.0"},
    {0x05, "0.6"},  {0x04, "0.5"},  {0x03, "0.3"},  {0x00, "0"},    {0xfd, "-0.3"}, {0xfc, "-0.5"},
    {0xfb, "-0.6"}, {0xf8, "-1"},   {0xf8, "-1.0"}, {0xf5, "-1.3"}, {0xf4, "-1.5"}, {0xf3, "-1.6"},
    {0xf0, "-2"},   {0xed, "-2.3"}, {0xec, "-2.5"}, {0xeb, "-2.6"}, {0xe8, "-3"},   {0xe5, "-3.3"},
    {0xe4, "-3.5"}, {0xe3, "-3.6"}, {0xe0, "-4"},   {0xdd, "-4.3"}, {0xdc, "-4.5"}, {0xdb, "-4.6"},
    {0xd8, "-5"},
};

const std::vector<LabelEntry> kAeMode = {
    {0x00, "P"},
    {0x01, "TV"},
    {0x02, "AV"},
    {0x03, "Manual"},
    {0x04, "Bulb"},
    {0x05, "A_DEP"},
    {0x06, "DEP"},
    {0x07, "Custom"},
    {0x08, "Lock"},
    {0x09, "Green"},
    {0x0a, "Night Portrait"},
    {0x0b, "Sports"},
    {0x0c, "Portrait"},
    {0x0d, "Landscape"},
    {0x0e, "Closeup"},
    {0x0f, "Flash Off"},
    {0x10, "C2"},
    {0x11, "C3"},
    {0x13, "Creative Auto"},
    {0x14, "Movie"},
    {0x16, "Auto"},
    {0x17, "Handheld Night Scene"},
    {0x18, "HDR Backlight Control"},
    {0x19, "SCN"},
    {0x1b, "Food"},
    {0x1e, "Grainy B/W"},
    {0x1f, "Soft focus"},
    {0x20, "Toy camera effect"},
    {0x21, "Fish-eye effect"},
    {0x22, "Water painting effect"},
    {0x23, "Miniature effect"},
    {0x24, "HDR art standard"},
    {0x25, "HDR art vivid"},
    {0x26, "HDR art bold"},
    {0x27, "HDR art embossed"},
    {0x2d, "Panning"},
    {0x31, "HDR"},
    {0x32, "Self Portrait"},
    {0x33, "Hybrid Auto"},
    {0x34, "Smooth skin"},
    {0x37, "Fv"},
};

const std::vector<LabelEntry> kDriveMode = {
    {0x00, "Single"},
    {0x01, "Continuous"},
    {0x02, "Video"},
    {0x04, "Continuous high speed"},
    {0x05, "Continuous low speed"},
    {0x06, "Single: Silent shooting"},
    {0x07, "Continuous timer"},
    {0x10, "Timer 10 sec"},
    {0x11, "Timer 2 sec"},
    {0x12, "Super high speed continuous shooting"},
    {0x13, "Single silent"},
    {0x14, "Continuous silent"},
    {0x15, "Silent HS continuous"},
    {0x16, "Silent LS continuous"},
};

const std::vector<LabelEntry> kMetering = {
    {0, "Center-weighted"},
    {1, "Spot"},
    {2, "Average"},
    {3, "Evaluative"},
    {4, "Partial"},
    {5, "Center-weighted average"},
    {6, "Spot metering interlocked with AF frame"},
    {7, "Multi spot"},
};

const std::vector<LabelEntry> kFocusMode = {
    {0, "One Shot"},
    {1, "AI Servo"},
    {2, "AI Focus"},
    {3, "Manual"},
};

const std::vector<LabelEntry> kWhiteBalance = {
    {0, "Auto"},
    {1, "Daylight"},
    {2, "Cloudy"},
    {3, "Tungsten"},
    {4, "Fluorescent"},
    {5, "Flash"},
    {6, "Manual"},
    {7, "Unknown 7"},
    {8, "Shadow"},
    {9, "Color Temperature"},
    {10, "Custom Whitebalance: PC-1"},
    {11, "Custom Whitebalance: PC-2"},
    {12, "Custom Whitebalance: PC-3"},
    {15, "Manual 2"},
    {16, "Manual 3"},
    {18, "Manual 4"},
    {19, "Manual 5"},
    {20, "Custom Whitebalance: PC-4"},
    {21, "Custom Whitebalance: PC-5"},
    {23, "AWB White"},
};

const std::vector<LabelEntry> kPictureStyleTable = {
    {0x81, "Standard"},       {0x82, "Portrait"},       {0x83, "Landscape"},      {0x84, "Neutral"},
    {0x85, "Faithful"},       {0x86, "Monochrome"},     {0x87, "Auto"},           {0x88, "Fine detail"},
    {0x21, "User defined 1"}, {0x22, "User defined 2"}, {0x23, "User defined 3"},
};

// Output device bits: 1 the camera's screen, 2 the host, 4 and 8 mobile links.
const std::vector<LabelEntry> kOutputDevice = {
    {0, "Off"},
    {1, "TFT"},
    {2, "PC"},
    {3, "TFT + PC"},
    {4, "MOBILE"},
    {5, "TFT + MOBILE"},
    {6, "PC + MOBILE"},
    {7, "TFT + PC + MOBILE"},
    {8, "MOBILE2"},
    {9, "TFT + MOBILE2"},
    {10, "PC + MOBILE2"},
    {11, "TFT + PC + MOBILE2"},
};

// Image format in libgphoto2's packed form: per image one nibble of size and
// one of compression with bit 3 set for RAW. Small JPEG exists twice: 0x2 on
// older bodies, 0xd (S1) on bodies that also have S2/S3.
const std::vector<LabelEntry> kImageFormat = {
    {0x0c00, "RAW"},
    {0x1c00, "mRAW"},
    {0x2c00, "sRAW"},
    {0x0b00, "cRAW"},
    {0x0300, "Large Fine JPEG"},
    {0x0200, "Large Normal JPEG"},
    {0x1300, "Medium Fine JPEG"},
    {0x1200, "Medium Normal JPEG"},
    {0x2300, "Small Fine JPEG"},
    {0x2200, "Small Normal JPEG"},
    {0xd300, "Small Fine JPEG"},
    {0xd200, "Small Normal JPEG"},
    {0xe300, "Smaller JPEG"},
    {0xf300, "Tiny JPEG"},
    {0x0c03, "RAW + Large Fine JPEG"},
    {0x1c03, "mRAW + Large Fine JPEG"},
    {0x2c03, "sRAW + Large Fine JPEG"},
    {0x0b03, "cRAW + Large Fine JPEG"},
    {0x0c13, "RAW + Medium Fine JPEG"},
    {0x1c13, "mRAW + Medium Fine JPEG"},
    {0x2c13, "sRAW + Medium Fine JPEG"},
    {0x0b13, "cRAW + Medium Fine JPEG"},
    {0x0c23, "RAW + Small Fine JPEG"},
    {0x0cd3, "RAW + Small Fine JPEG"},
    {0x1c23, "mRAW + Small Fine JPEG"},
    {0x1cd3, "mRAW + Small Fine JPEG"},
    {0x2c23, "sRAW + Small Fine JPEG"},
    {0x2cd3, "sRAW + Small Fine JPEG"},
    {0x0bd3, "cRAW + Small Fine JPEG"},
    {0x0c02, "RAW + Large Normal JPEG"},
    {0x1c02, "mRAW + Large Normal JPEG"},
    {0x2c02, "sRAW + Large Normal JPEG"},
    {0x0b02, "cRAW + Large Normal JPEG"},
    {0x0c12, "RAW + Medium Normal JPEG"},
    {0x1c12, "mRAW + Medium Normal JPEG"},
    {0x2c12, "sRAW + Medium Normal JPEG"},
    {0x0b12, "cRAW + Medium Normal JPEG"},
    {0x0c22, "RAW + Small Normal JPEG"},
    {0x0cd2, "RAW + Small Normal JPEG"},
    {0x1c22, "mRAW + Small Normal JPEG"},
    {0x1cd2, "mRAW + Small Normal JPEG"},
    {0x2c22, "sRAW + Small Normal JPEG"},
    {0x2cd2, "sRAW + Small Normal JPEG"},
    {0x0bd2, "cRAW + Small Normal JPEG"},
    {0x0ce3, "RAW + Smaller JPEG"},
    {0x1ce3, "mRAW + Smaller JPEG"},
    {0x2ce3, "sRAW + Smaller JPEG"},
    {0x0be3, "cRAW + Smaller JPEG"},
    {0x0cf3, "RAW + Tiny JPEG"},
    {0x1cf3, "mRAW + Tiny JPEG"},
    {0x2cf3, "sRAW + Tiny JPEG"},
};

const std::vector<LabelEntry> kNoTable;

const std::vector<PropertySpec> kSpecs = {
    {kEdsPropID_ProductName,
     PropertyKind::Text,
     kEdsDataType_String,
     {"cameramodel", "model"},
     0,
     true,
     true},
    {kEdsPropID_OwnerName, PropertyKind::Text, kEdsDataType_String, {"ownername"}},
    {kEdsPropID_DateTime, PropertyKind::Time, kEdsDataType_Time, {"datetime"}},
    {kEdsPropID_FirmwareVersion, PropertyKind::Text, kEdsDataType_String, {"deviceversion"}, 0, true},
    {kEdsPropID_BatteryLevel, PropertyKind::Battery, kEdsDataType_UInt32, {"batterylevel"}},
    {kEdsPropID_SaveTo, PropertyKind::SaveTo, kEdsDataType_UInt32, {"capturetarget"}},
    {kEdsPropID_ImageQuality,
     PropertyKind::ImageQuality,
     kEdsDataType_UInt32,
     {"imageformat", "imageformatsd", "imageformatcf"},
     16},
    {kEdsPropID_WhiteBalance, PropertyKind::Table, kEdsDataType_Int32, {"whitebalance"}, 8},
    {kPictureStyle, PropertyKind::Table, kEdsDataType_UInt32, {"picturestyle"}, 8},
    {kEdsPropID_AEMode,
     PropertyKind::Table,
     kEdsDataType_UInt32,
     {"autoexposuremode", "autoexposuremodedial"},
     16},
    {kEdsPropID_DriveMode, PropertyKind::Table, kEdsDataType_UInt32, {"drivemode"}, 16},
    {kEdsPropID_ISOSpeed, PropertyKind::Table, kEdsDataType_UInt32, {"iso"}, 16},
    {kEdsPropID_MeteringMode, PropertyKind::Table, kEdsDataType_UInt32, {"meteringmode"}, 8},
    {kEdsPropID_AFMode, PropertyKind::Table, kEdsDataType_UInt32, {"focusmode"}, 16},
    {kEdsPropID_Av, PropertyKind::Table, kEdsDataType_UInt32, {"aperture"}, 16},
    {kEdsPropID_Tv, PropertyKind::Table, kEdsDataType_UInt32, {"shutterspeed"}, 16},
    {kEdsPropID_ExposureCompensation, PropertyKind::Table, kEdsDataType_UInt32, {"exposurecompensation"}, 8},
    {kEdsPropID_LensName, PropertyKind::Text, kEdsDataType_String, {"lensname"}, 0, true},
    {kEdsPropID_Artist, PropertyKind::Text, kEdsDataType_String, {"artist"}},
    {kEdsPropID_Copyright, PropertyKind::Text, kEdsDataType_String, {"copyright"}},
    {kEdsPropID_Evf_OutputDevice, PropertyKind::OutputDevice, kEdsDataType_UInt32, {"output"}, 16},
    {kEdsPropID_Evf_Mode, PropertyKind::EvfMode, kEdsDataType_UInt32, {"evfmode"}},
    {kEdsPropID_Evf_Zoom, PropertyKind::EvfZoom, kEdsDataType_UInt32, {"eoszoom"}},
};

const std::vector<LabelEntry> &rawTable(EdsPropertyID id) {
    switch (id) {
    case kEdsPropID_Av:
        return kAperture;
    case kEdsPropID_Tv:
        return kShutterSpeed;
    case kEdsPropID_ISOSpeed:
        return kIso;
    case kEdsPropID_ExposureCompensation:
        return kExposureCompensation;
    case kEdsPropID_AEMode:
        return kAeMode;
    case kEdsPropID_DriveMode:
        return kDriveMode;
    case kEdsPropID_MeteringMode:
        return kMetering;
    case kEdsPropID_AFMode:
        return kFocusMode;
    case kEdsPropID_WhiteBalance:
        return kWhiteBalance;
    case kPictureStyle:
        return kPictureStyleTable;
    case kEdsPropID_Evf_OutputDevice:
        return kOutputDevice;
    case kEdsPropID_ImageQuality:
        return kImageFormat;
    default:
        return kNoTable;
    }
}

std::vector<uint32_t> candidatesFor(const std::vector<LabelEntry> &table, std::string_view label) {
    std::vector<uint32_t> out;
    for (const auto &e : table)
        if (label == e.label)
            out.push_back(e.value);
    return out;
}

// Exposure values step in eighths: thirds sit at +3/+5, halves at +4. A body
// shows one scale at a time, so the unambiguous choices tell which one.
uint32_t pickByStepScale(const std::vector<LabelEntry> &table, const std::vector<uint32_t> &candidates,
                         const std::vector<std::string> &choices) {
    int thirds = 0, halves = 0;
    for (const auto &c : choices) {
        auto values = candidatesFor(table, c);
        if (values.size() != 1)
            continue;
        const uint32_t r = values.front() % 8;
        if (r == 3 || r == 5)
            ++thirds;
        else if (r == 4)
            ++halves;
    }
    if (thirds == 0 && halves == 0)
        return candidates.front();
    for (uint32_t v : candidates) {
        const uint32_t r = v % 8;
        if (halves > thirds ? (r == 0 || r == 4) : (r == 0 || r == 3 || r == 5))
            return v;
    }
    return candidates.front();
}

// "Small" is S1 (0xd) on bodies that also offer S2/S3, else the older 0x2.
uint32_t pickSmallJpeg(const std::vector<uint32_t> &candidates, const std::vector<std::string> &choices) {
    bool hasS2S3 = false;
    for (const auto &c : choices)
        if (c.find("Smaller JPEG") != std::string::npos || c.find("Tiny JPEG") != std::string::npos)
            hasS2S3 = true;
    for (uint32_t v : candidates) {
        const bool s1 = ((v >> 12) & 0xf) == 0xd || ((v >> 4) & 0xf) == 0xd;
        if (s1 == hasS2S3)
            return v;
    }
    return candidates.front();
}

} // namespace

const PropertySpec *propertySpec(EdsPropertyID id) {
    for (const auto &s : kSpecs)
        if (s.id == id)
            return &s;
    return nullptr;
}

const std::vector<PropertySpec> &allPropertySpecs() {
    return kSpecs;
}

const std::vector<LabelEntry> &tableFor(EdsPropertyID id) {
    const PropertySpec *spec = propertySpec(id);
    if (!spec || (spec->kind != PropertyKind::Table && spec->kind != PropertyKind::OutputDevice &&
                  spec->kind != PropertyKind::ImageQuality))
        return kNoTable;
    return rawTable(id);
}

std::string unknownValueLabel(uint32_t value) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "Unknown value %04x", value);
    return buf;
}

std::optional<uint32_t> parseUnknownValueLabel(std::string_view label) {
    constexpr std::string_view prefix = "Unknown value ";
    if (label.substr(0, prefix.size()) != prefix)
        return std::nullopt;
    std::string_view hex = label.substr(prefix.size());
    if (hex.empty() || hex.size() > 8)
        return std::nullopt;
    uint32_t v = 0;
    for (char c : hex) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return std::nullopt;
        v = v * 16 + uint32_t(d);
    }
    return v;
}

std::optional<uint32_t> imageQualityFromPacked(uint16_t packed) {
    auto image = [](unsigned nibbles, uint32_t *size, uint32_t *type, uint32_t *quality) {
        const unsigned s = (nibbles >> 4) & 0xf;
        const unsigned c = nibbles & 0xf;
        if ((c & 7) < 2 || (c & 7) > 5)
            return false;
        *size = s >= 0xd ? s + 1 : s;
        *type = (c & 8) ? 6 : 1;
        *quality = c & 7;
        return true;
    };
    uint32_t s1, t1, q1;
    if (!image(packed >> 8, &s1, &t1, &q1))
        return std::nullopt;
    uint32_t code = (s1 << 24) | (t1 << 20) | (q1 << 16);
    if ((packed & 0xff) == 0)
        return code | 0xff0f;
    uint32_t s2, t2, q2;
    if (!image(packed & 0xff, &s2, &t2, &q2))
        return std::nullopt;
    return code | (s2 << 8) | (t2 << 4) | q2;
}

std::optional<uint16_t> packedFromImageQuality(uint32_t code) {
    auto image = [](uint32_t s, uint32_t t, uint32_t q, unsigned *nibbles) {
        if (t != 1 && t != 6)
            return false;
        if (q < 2 || q > 5)
            return false;
        // Sizes: 0 L, 1 M, 2 S, 5 M1, 6 M2, 0xe S1, 0xf S2, 0x10 S3.
        if (s == 0xd || s > 0x10)
            return false;
        const unsigned n = s >= 0xe ? s - 1 : s;
        *nibbles = (n << 4) | q | (t == 6 ? 8u : 0u);
        return true;
    };
    unsigned first, second = 0;
    if (!image(code >> 24, (code >> 20) & 0xf, (code >> 16) & 0xf, &first))
        return std::nullopt;
    if ((code & 0xffff) != 0xff0f && !image((code >> 8) & 0xff, (code >> 4) & 0xf, code & 0xf, &second))
        return std::nullopt;
    return uint16_t((first << 8) | second);
}

std::optional<std::string> labelForValue(EdsPropertyID id, uint32_t value) {
    const PropertySpec *spec = propertySpec(id);
    if (!spec)
        return std::nullopt;
    const auto &table = tableFor(id);
    uint32_t raw = value;
    if (spec->kind == PropertyKind::ImageQuality) {
        auto packed = packedFromImageQuality(value);
        if (!packed)
            return std::nullopt;
        raw = *packed;
    } else if (spec->valueBits == 8 && value > 0xff) {
        return std::nullopt;
    } else if (spec->valueBits == 16 && value > 0xffff) {
        return std::nullopt;
    }
    for (const auto &e : table)
        if (e.value == raw)
            return std::string(e.label);
    if (table.empty())
        return std::nullopt;
    return unknownValueLabel(raw);
}

std::optional<uint32_t> valueForLabel(EdsPropertyID id, std::string_view label,
                                      const std::vector<std::string> &choices) {
    const PropertySpec *spec = propertySpec(id);
    const auto &table = tableFor(id);
    if (!spec || table.empty())
        return std::nullopt;
    std::optional<uint32_t> raw;
    auto candidates = candidatesFor(table, label);
    if (candidates.size() == 1)
        raw = candidates.front();
    else if (candidates.size() > 1)
        raw = spec->kind == PropertyKind::ImageQuality ? pickSmallJpeg(candidates, choices)
                                                       : pickByStepScale(table, candidates, choices);
    else
        raw = parseUnknownValueLabel(label);
    if (!raw)
        return std::nullopt;
    if (spec->kind == PropertyKind::ImageQuality) {
        if (*raw > 0xffff)
            return std::nullopt;
        return imageQualityFromPacked(uint16_t(*raw));
    }
    return raw;
}

std::optional<uint32_t> batteryPercentForLabel(std::string_view label) {
    if (label == "Low")
        return 9; // the level the camera calls low
    if (label.size() >= 2 && label.size() <= 4 && label.back() == '%') {
        uint32_t v = 0;
        for (char c : label.substr(0, label.size() - 1)) {
            if (c < '0' || c > '9')
                return std::nullopt;
            v = v * 10 + uint32_t(c - '0');
        }
        if (v <= 100)
            return v;
    }
    return std::nullopt;
}

EdsPropertyID propertyForPtpCode(uint32_t ptpCode) {
    static const std::map<uint32_t, EdsPropertyID> map = {
        {0xD101, kEdsPropID_Av},
        {0xD102, kEdsPropID_Tv},
        {0xD103, kEdsPropID_ISOSpeed},
        {0xD104, kEdsPropID_ExposureCompensation},
        {0xD105, kEdsPropID_AEMode},
        {0xD138, kEdsPropID_AEMode},
        {0xD106, kEdsPropID_DriveMode},
        {0xD107, kEdsPropID_MeteringMode},
        {0xD108, kEdsPropID_AFMode},
        {0xD109, kEdsPropID_WhiteBalance},
        {0xD110, kPictureStyle},
        {0xD111, kEdsPropID_BatteryLevel},
        {0xD113, kEdsPropID_DateTime},
        {0xD115, kEdsPropID_OwnerName},
        {0xD11C, kEdsPropID_SaveTo},
        {0xD120, kEdsPropID_ImageQuality},
        {0xD121, kEdsPropID_ImageQuality},
        {0xD122, kEdsPropID_ImageQuality},
        {0xD1B0, kEdsPropID_Evf_OutputDevice},
        {0xD1B1, kEdsPropID_Evf_Mode},
        {0xD1D0, kEdsPropID_Artist},
        {0xD1D1, kEdsPropID_Copyright},
        {0xD1D8, kEdsPropID_LensName},
    };
    auto it = map.find(ptpCode);
    return it == map.end() ? 0 : it->second;
}

std::optional<uint32_t> ptpCodeInEventText(std::string_view text) {
    constexpr std::string_view prefix = "PTP Property ";
    if (text.substr(0, prefix.size()) != prefix)
        return std::nullopt;
    std::string_view rest = text.substr(prefix.size());
    const auto end = rest.find(' ');
    std::string_view hex = rest.substr(0, end);
    if (end == std::string_view::npos || rest.substr(end, 8) != " changed")
        return std::nullopt;
    if (hex.size() != 4)
        return std::nullopt;
    return parseUnknownValueLabel(std::string("Unknown value ") + std::string(hex));
}

} // namespace brix::gphoto2
