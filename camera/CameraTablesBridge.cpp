// The camera code's view of the name and display tables of camera/sdk.
#include "CameraClassState.h"
#include "EdsNames.h"
#include "PropertyDisplay.h"

namespace brix::cameratables {

QString errorText(eds::EdsError code) {
    return QString::fromUtf8(eds::errorText(code));
}

QString propertyName(eds::EdsPropertyID propertyID) {
    return QString::fromUtf8(eds::propertyName(propertyID));
}

QString dataTypeName(eds::EdsDataType type) {
    return QString::fromUtf8(eds::dataTypeName(type));
}

QString displayText(eds::EdsPropertyID propertyID, eds::EdsUInt32 value) {
    return eds::stringForPropertyID(propertyID, value);
}

} // namespace brix::cameratables
