#include "CameraSettingsFile.h"

#include "AtomicFile.h"
#include "PropertyList.h"

#include <QFile>
#include <QFileInfo>

namespace brix {

QVariantMap CameraSettingsFile::readFromData(const QByteArray &data, QString *why) {
    if (data.size() > kMaxFileSize) {
        *why = QStringLiteral("file too large (%1 bytes)").arg(data.size());
        return {};
    }
    QString error;
    const QVariant value = PropertyList::propertyListFromData(data, Mutability::MutableContainers, &error);
    if (!value.isValid()) {
        *why = error.isEmpty() ? QStringLiteral("not a property list") : error;
        return {};
    }
    if (value.typeId() != QMetaType::QVariantMap) {
        *why = QStringLiteral("not a dictionary");
        return {};
    }
    return value.toMap();
}

QVariantMap CameraSettingsFile::readFromFile(const QString &path, QString *why) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *why = file.errorString();
        return {};
    }
    if (file.size() > kMaxFileSize) {
        *why = QStringLiteral("file too large (%1 bytes)").arg(file.size());
        return {};
    }
    return readFromData(file.read(kMaxFileSize + 1), why);
}

bool CameraSettingsFile::isAcceptable(const QVariantMap &settings) {
    const auto matches = [&](const char *key, const char *expected) {
        const QVariant value = settings.value(QLatin1String(key));
        return !value.isValid() ||
               value.toString().compare(QLatin1String(expected), Qt::CaseInsensitive) == 0;
    };
    return matches(kVersionKey, kVersion) && matches(kDescriptionKey, kDescription);
}

bool CameraSettingsFile::write(const QVariantMap &settings, const QString &path, QString *why) {
    const QString extension = QFileInfo(path).suffix().toLower();
    QString error;
    if (extension == QLatin1String("plist")) {
        const QByteArray data = PropertyList::dataFromPropertyList(settings, PlistFormat::Binary, &error);
        if (data.isNull() || !AtomicFile::write(path, data, &error)) {
            *why = error;
            return false;
        }
        return true;
    }
    if (extension == QLatin1String("xml")) {
        // The binary property list stays beside the XML file.
        const QString intermediate = path + QStringLiteral(".plist");
        const QByteArray binary = PropertyList::dataFromPropertyList(settings, PlistFormat::Binary, &error);
        if (binary.isNull() || !AtomicFile::write(intermediate, binary, &error)) {
            *why = QStringLiteral("Saving to xml output FAILED => [%1]").arg(intermediate);
            return false;
        }
        // The XML comes from what was written, as a conversion of that file.
        QString readWhy;
        const QVariantMap written = readFromFile(intermediate, &readWhy);
        const QByteArray xml = PropertyList::dataFromPropertyList(written, PlistFormat::Xml, &error);
        if (written.isEmpty() != settings.isEmpty() || xml.isNull() ||
            !AtomicFile::write(path, xml, &error)) {
            *why = error.isEmpty() ? readWhy : error;
            return false;
        }
        return true;
    }
    *why = QStringLiteral("unknown extension \"%1\"").arg(extension);
    return false;
}

} // namespace brix
