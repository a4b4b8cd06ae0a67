// Feeds arbitrary bytes to the camera settings import reader. Besides not
// crashing, whatever it accepts must export and import again unchanged.
#include "CameraSettingsFile.h"
#include "FuzzTarget.h"
#include "PropertyList.h"

#include <QString>

#include <cstdlib>

using namespace brix;

void fuzzOne(const QByteArray &bytes) {
    QString why;
    const QVariantMap settings = CameraSettingsFile::readFromData(bytes, &why);
    if (!settings.isEmpty() && !why.isEmpty())
        std::abort(); // a refusal returns nothing
    (void)CameraSettingsFile::isAcceptable(settings);
    if (!settings.isEmpty()) {
        const QByteArray again = PropertyList::dataFromPropertyList(settings, PlistFormat::Binary);
        QString againWhy;
        // Compared as bytes: NaN never equals itself as a value.
        if (!again.isNull() &&
            PropertyList::dataFromPropertyList(CameraSettingsFile::readFromData(again, &againWhy),
                                               PlistFormat::Binary) != again)
            std::abort();
    }
}
