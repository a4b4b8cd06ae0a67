// Feeds arbitrary bytes to the camera settings import reader. Besides not
// crashing, whatever it accepts must export and import again unchanged.
#include "CameraSettingsFile.h"
#include "Logger.h"
#include "PropertyList.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstdlib>

using namespace brix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
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
    Logger::flush();
    return 0;
}
