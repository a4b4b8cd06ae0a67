// The three name tables of the camera boundary.
#include "EdsNames.h"

#include <algorithm>
#include <iterator>

namespace brix::eds {

namespace {

struct Entry {
    EdsUInt32 code;
    const char *text;
};

// Each table is sorted by code so that lookups can bisect.
constexpr Entry kErrorTexts[] = {
    {0x1, "unimplemented"},
    {0x2, "internal error"},
    {0x3, "mem alloc failed"},
    {0x4, "mem free failed"},
    {0x5, "operation cancelled"},
    {0x6, "incompatible version"},
    {0x7, "not supported"},
    {0x8, "unexpected exception"},
    {0x9, "protection violation"},
    {0xA, "missing subcomponent"},
    {0xB, "selection unavailable"},
    {0x20, "file io error"},
    {0x21, "file too many open"},
    {0x22, "file not found"},
    {0x23, "file open error"},
    {0x24, "file close error"},
    {0x25, "file seek error"},
    {0x26, "file tell error"},
    {0x27, "file read error"},
    {0x28, "file write error"},
    {0x29, "file permission error"},
    {0x2A, "file disk full error"},
    {0x2B, "file already exists"},
    {0x2C, "file format unrecognized"},
    {0x2D, "file data corrupt"},
    {0x2E, "file naming na"},
    {0x40, "dir not found"},
    {0x41, "dir io error"},
    {0x42, "dir entry not found"},
    {0x43, "dir entry exists"},
    {0x44, "dir not empty"},
    {0x50, "properties unavailable"},
    {0x51, "properties mismatch"},
    {0x53, "properties not loaded"},
    {0x60, "invalid parameter"},
    {0x61, "invalid handle"},
    {0x62, "invalid pointer"},
    {0x63, "invalid index"},
    {0x64, "invalid length"},
    {0x65, "invalid fn pointer"},
    {0x66, "invalid sort fn"},
    {0x80, "device not found"},
    {0x81, "device busy"},
    {0x82, "device invalid"},
    {0x83, "device emergency"},
    {0x84, "device memory full"},
    {0x85, "device internal error"},
    {0x86, "device invalid parameter"},
    {0x87, "device no disk"},
    {0x88, "device disk error"},
    {0x89, "device cf gate changed"},
    {0x8A, "device dial changed"},
    {0x8B, "device not installed"},
    {0x8C, "device stay awake"},
    {0x8D, "device not released"},
    {0xA0, "stream io error"},
    {0xA1, "stream not open"},
    {0xA2, "stream already open"},
    {0xA3, "stream open error"},
    {0xA4, "stream close error"},
    {0xA5, "stream seek error"},
    {0xA6, "stream tell error"},
    {0xA7, "stream read error"},
    {0xA8, "stream write error"},
    {0xA9, "stream permission error"},
    {0xAA, "stream couldnt begin thread"},
    {0xAB, "stream bad options"},
    {0xAC, "stream end of stream"},
    {0xC0, "comm port is in use"},
    {0xC1, "comm disconnected"},
    {0xC2, "comm device incompatible"},
    {0xC3, "comm buffer full"},
    {0xC4, "comm usb bus err"},
    {0xD0, "usb device lock error"},
    {0xD1, "usb device unlock error"},
    {0xE0, "sti unknown error"},
    {0xE1, "sti internal error"},
    {0xE2, "sti device create error"},
    {0xE3, "sti device release error"},
    {0xE4, "device not launched"},
    {0xF0, "enum na"},
    {0xF1, "invalid fn call"},
    {0xF2, "handle not found"},
    {0xF3, "invalid id"},
    {0xF4, "wait timeout error"},
    {0xF5, "last generic error plus one"},
    {0x2003, "session not open"},
    {0x2004, "invalid transactionid"},
    {0x2007, "incomplete transfer"},
    {0x2008, "invalid strageid"},
    {0x200A, "deviceprop not supported"},
    {0x200B, "invalid objectformatcode"},
    {0x2011, "self test failed"},
    {0x2012, "partial deletion"},
    {0x2014, "specification by format unsupported"},
    {0x2015, "no valid objectinfo"},
    {0x2016, "invalid code format"},
    {0x2017, "unknown vendor code"},
    {0x2018, "capture already terminated"},
    {0x201A, "invalid parentobject"},
    {0x201B, "invalid deviceprop format"},
    {0x201C, "invalid deviceprop value"},
    {0x201E, "session already open"},
    {0x201F, "transaction cancelled"},
    {0x2020, "specification of destination unsupported"},
    {0x8D01, "take picture af ng"},
    {0x8D02, "take picture reserved"},
    {0x8D03, "take picture mirror up ng"},
    {0x8D04, "take picture sensor cleaning ng"},
    {0x8D05, "take picture silence ng"},
    {0x8D06, "take picture no card ng"},
    {0x8D07, "take picture card ng"},
    {0x8D08, "take picture card protect ng"},
    {0xA001, "unknown command"},
    {0xA005, "operation refused"},
    {0xA006, "lens cover close"},
    {0xA101, "low battery"},
    {0xA102, "object notready"},
};

constexpr Entry kPropertyNames[] = {
    {0x2, "ProductName"},
    {0x4, "OwnerName"},
    {0x5, "MakerName"},
    {0x6, "DateTime"},
    {0x7, "FirmwareVersion"},
    {0x8, "BatteryLevel"},
    {0x9, "CFn"},
    {0xB, "SaveTo"},
    {0xC, "CurrentStorage"},
    {0xD, "CurrentFolder"},
    {0xE, "MyMenu"},
    {0x10, "BatteryQuality"},
    {0x20, "HDDirectoryStructure"},
    {0x100, "ImageQuality"},
    {0x101, "JpegQuality"},
    {0x102, "Orientation"},
    {0x103, "ICCProfile"},
    {0x104, "FocusInfo"},
    {0x105, "DigitalExposure"},
    {0x106, "WhiteBalance"},
    {0x107, "ColorTemperature"},
    {0x108, "WhiteBalanceShift"},
    {0x109, "Contrast"},
    {0x10A, "ColorSaturation"},
    {0x10B, "ColorTone"},
    {0x10C, "Sharpness"},
    {0x10D, "ColorSpace"},
    {0x10E, "ToneCurve"},
    {0x10F, "PhotoEffect"},
    {0x110, "FilterEffect"},
    {0x111, "ToningEffect"},
    {0x112, "ParameterSet"},
    {0x113, "ColorMatrix"},
    {0x114, "PictureStyle"},
    {0x115, "PictureStyleDesc"},
    {0x200, "PictureStyleCaption"},
    {0x300, "Linear"},
    {0x301, "ClickWBPoint"},
    {0x302, "WBCoeffs"},
    {0x400, "AEMode"},
    {0x401, "DriveMode"},
    {0x402, "ISOSpeed"},
    {0x403, "MeteringMode"},
    {0x404, "AFMode"},
    {0x405, "Av"},
    {0x406, "Tv"},
    {0x407, "ExposureCompensation"},
    {0x408, "FlashCompensation"},
    {0x409, "FocalLength"},
    {0x40A, "AvailableShots"},
    {0x40B, "Bracket"},
    {0x40C, "WhiteBalanceBracket"},
    {0x40D, "LensName"},
    {0x40E, "AEBracket"},
    {0x40F, "FEBracket"},
    {0x410, "ISOBracket"},
    {0x411, "NoiseReduction"},
    {0x412, "FlashOn"},
    {0x413, "RedEye"},
    {0x414, "FlashMode"},
    {0x416, "LensStatus"},
    {0x418, "Artist"},
    {0x419, "Copyright"},
    {0x41B, "DepthOfField"},
    {0x41E, "EFCompensation"},
    {0x500, "Evf_OutputDevice"},
    {0x501, "Evf_Mode"},
    {0x502, "Evf_WhiteBalance"},
    {0x503, "Evf_ColorTemperature"},
    {0x504, "Evf_DepthOfFieldPreview"},
    {0x507, "Evf_Zoom"},
    {0x508, "Evf_ZoomPosition"},
    {0x509, "Evf_FocusAid"},
    {0x50A, "Evf_Histogram"},
    {0x50B, "Evf_ImagePosition"},
    {0x50C, "Evf_HistogramStatus"},
    {0x50E, "Evf_AFMode"},
    {0x800, "GPSVersionID"},
    {0x801, "GPSLatitudeRef"},
    {0x802, "GPSLatitude"},
    {0x803, "GPSLongitudeRef"},
    {0x804, "GPSLongitude"},
    {0x805, "GPSAltitudeRef"},
    {0x806, "GPSAltitude"},
    {0x807, "GPSTimeStamp"},
    {0x808, "GPSSatellites"},
    {0x809, "GPSStatus"},
    {0x812, "GPSMapDatum"},
    {0x81D, "GPSDateStamp"},
};

constexpr Entry kDataTypeNames[] = {
    {0, "Unknown"},       {1, "Bool"},
    {2, "String"},        {3, "Int8"},
    {4, "Int16"},         {6, "UInt8"},
    {7, "UInt16"},        {8, "Int32"},
    {9, "UInt32"},        {10, "Int64"},
    {11, "UInt64"},       {12, "Float"},
    {13, "Double"},       {14, "ByteBlock"},
    {20, "Rational"},     {21, "Point"},
    {22, "Rect"},         {23, "Time"},
    {30, "Bool_Array"},   {31, "Int8_Array"},
    {32, "Int16_Array"},  {33, "Int32_Array"},
    {34, "UInt8_Array"},  {35, "UInt16_Array"},
    {36, "UInt32_Array"}, {37, "Rational_Array"},
    {101, "FocusInfo"},   {102, "PictureStyleDesc"},
};

constexpr bool sortedByCode(const Entry *begin, const Entry *end) {
    for (const Entry *e = begin; e + 1 < end; ++e)
        if (!(e->code < (e + 1)->code))
            return false;
    return true;
}
static_assert(std::size(kErrorTexts) == 118);
static_assert(std::size(kPropertyNames) == 89);
static_assert(sortedByCode(std::begin(kErrorTexts), std::end(kErrorTexts)));
static_assert(sortedByCode(std::begin(kPropertyNames), std::end(kPropertyNames)));
static_assert(sortedByCode(std::begin(kDataTypeNames), std::end(kDataTypeNames)));

template <std::size_t N> const char *lookup(const Entry (&table)[N], EdsUInt32 code, const char *fallback) {
    const Entry *end = table + N;
    const Entry *it =
        std::lower_bound(table, end, code, [](const Entry &e, EdsUInt32 c) { return e.code < c; });
    return (it != end && it->code == code) ? it->text : fallback;
}

} // namespace

const char *errorText(EdsError code) {
    return lookup(kErrorTexts, code, kUnknownErrorText);
}

const char *propertyName(EdsPropertyID propertyID) {
    return lookup(kPropertyNames, propertyID, kUnknownPropertyText);
}

const char *dataTypeName(EdsDataType dataType) {
    return lookup(kDataTypeNames, dataType, kUnknownErrorText);
}

QString hexString(EdsUInt32 value) {
    return QStringLiteral("0X") + QString::number(value, 16).toUpper();
}

} // namespace brix::eds
