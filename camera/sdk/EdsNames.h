// Names of SDK numbers for the log and the user: error code to text, property
// ID to property name, data-type code to data-type name, and the hexadecimal
// fallback used for values without a display table.
//
// Threads: pure functions, callable from any thread. The returned C strings are
// static and live for the whole process.
#pragma once

#include "EdsSdk.h"

#include <QString>

namespace brix::eds {

// "unknown error" for 0 and for any code without a text.
const char *errorText(EdsError code);
// "unknown property" for an ID without a name.
const char *propertyName(EdsPropertyID propertyID);
// "unknown error" for a code without a name: the data-type table shares the
// error table's fallback text, and callers' log lines rely on that.
const char *dataTypeName(EdsDataType dataType);
// The value as "0X%X": upper-case digits, no padding.
QString hexString(EdsUInt32 value);

inline constexpr const char *kUnknownErrorText = "unknown error";
inline constexpr const char *kUnknownPropertyText = "unknown property";

} // namespace brix::eds
