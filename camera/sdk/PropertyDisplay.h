// Display texts of camera property values: the texts of the camera panel's
// pop-up menus, the keys of the supported-values dictionaries and the values
// written to the log. The texts are keys, so they are reproduced exactly,
// odd spellings and all.
//
// Threads: pure functions, callable from any thread (the unknown image-quality
// case also writes a log line). Results are plain values owned by the caller.
#pragma once

#include "EdsSdk.h"

#include <QString>

namespace brix::eds {

// The display text of `value` for `propertyID`; properties without a table give
// the value as "0X%X".
QString stringForPropertyID(EdsPropertyID propertyID, EdsUInt32 value);
// The property's name ("unknown property" when the ID has none).
QString stringNameForPropertyID(EdsPropertyID propertyID);
// The image-quality table. A code not in it is logged and gives "unknown".
QString strForCanonCameraImageQuality(EdsUInt32 quality);

} // namespace brix::eds
