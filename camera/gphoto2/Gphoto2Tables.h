// Value tables between the camera boundary's property values and the labels
// that libgphoto2's EOS driver shows for its configuration widgets, plus the
// widget names, data types and sizes of every property the backend serves.
//
// libgphoto2 exposes EOS properties only as display labels (read with the C
// locale), never as raw values. For Av, Tv, ISO, exposure compensation, AE mode,
// drive, metering, AF mode, white balance, picture style and the live-view
// output device the EOS raw value is the boundary's value, so a table maps one
// to the label. Image quality is a packed PTP structure that libgphoto2 folds
// into 16 bits; the conversion to the boundary's 32-bit code is arithmetic and
// lossless. A value a table lacks is shown by libgphoto2, and accepted back, as
// "Unknown value %04x".
//
// Threads: pure functions over constant tables; callable from any thread.
#pragma once

#include "EdsSdk.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brix::gphoto2 {

struct LabelEntry {
    uint32_t value;
    const char *label;
};

// How a property is served.
enum class PropertyKind {
    Table,        // radio widget, label <-> value through a table
    ImageQuality, // radio widget, label <-> packed 16-bit <-> 32-bit code
    Text,         // text widget, UTF-8 string
    Time,         // date widget (seconds), EdsTime record
    Battery,      // text widget "Low", "50%", ...
    SaveTo,       // "capturetarget" radio
    OutputDevice, // "output" radio and the "viewfinder" toggle
    EvfMode,      // "evfmode" radio "0"/"1"
    EvfZoom,      // "eoszoom" text, write-only on the body
};

struct PropertySpec {
    eds::EdsPropertyID id;
    PropertyKind kind;
    eds::EdsDataType dataType;
    // Widget names to try, in order (bodies differ: "imageformat" or "imageformatsd").
    std::vector<std::string> widgets;
    // The widget value's width on the body (8 or 16 bits) for tables; 0 otherwise.
    int valueBits = 0;
    // The body's own text: the host may read it but never write it.
    bool readOnly = false;
    // Answered from the detected model's name when the body has no such widget.
    bool fromModelName = false;
};

// The properties the backend serves; nullptr for any other ID.
const PropertySpec *propertySpec(eds::EdsPropertyID id);
const std::vector<PropertySpec> &allPropertySpecs();
// The table of a Table-kind property (empty for others).
const std::vector<LabelEntry> &tableFor(eds::EdsPropertyID id);

// The label libgphoto2 shows for a value: the table's label, or
// "Unknown value %04x" for a value the table lacks. Nothing for a value wider
// than the body's property (for instance a negative white balance).
std::optional<std::string> labelForValue(eds::EdsPropertyID id, uint32_t value);
// The value of a label. `choices` (the widget's current choices) tells apart
// labels that libgphoto2 gives to two values (third- and half-stop neighbours,
// old and new small JPEG sizes). Nothing for a label neither the table nor the
// "Unknown value" form explains.
std::optional<uint32_t> valueForLabel(eds::EdsPropertyID id, std::string_view label,
                                      const std::vector<std::string> &choices = {});

// "Unknown value %04x" parsing and formatting.
std::string unknownValueLabel(uint32_t value);
std::optional<uint32_t> parseUnknownValueLabel(std::string_view label);

// Image quality: libgphoto2's packed 16-bit form <-> the boundary's 32-bit code.
std::optional<uint32_t> imageQualityFromPacked(uint16_t packed);
std::optional<uint16_t> packedFromImageQuality(uint32_t code);

// Battery text ("Low", "25%".."100%") -> percent; nothing for "Unknown value".
std::optional<uint32_t> batteryPercentForLabel(std::string_view label);

// Save-to value <-> "capturetarget" label.
inline constexpr const char *kCaptureTargetHost = "Internal RAM";
inline constexpr const char *kCaptureTargetCard = "Memory card";

// The boundary property announced by an EOS PTP property code
// ("PTP Property d101 changed" -> 0x405); 0 when the backend does not serve it.
eds::EdsPropertyID propertyForPtpCode(uint32_t ptpCode);
// The PTP code in a driver event text, when the text announces a property change.
std::optional<uint32_t> ptpCodeInEventText(std::string_view text);

} // namespace brix::gphoto2
