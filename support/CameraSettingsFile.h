// CameraSettingsFile: the remembered camera settings as a file: the reader that
// imports them (with the lenient version check) and the writers that export
// them as a property list or as an XML property list.
//
// Threads: pure functions, callable from any thread.
// Ownership: results are values owned by the caller.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace brix {

class CameraSettingsFile {
public:
    static constexpr const char *kVersionKey = "version";
    static constexpr const char *kDescriptionKey = "description";
    static constexpr const char *kVersion = "v2";
    static constexpr const char *kDescription = "canonsettings";
    // A settings collection is a few kilobytes; anything far larger is not one.
    static constexpr qint64 kMaxFileSize = 4 * 1024 * 1024;

    // The file's dictionary. An empty map and *why when the file is missing,
    // too large, hostile, unreadable or not a dictionary.
    static QVariantMap readFromData(const QByteArray &data, QString *why);
    static QVariantMap readFromFile(const QString &path, QString *why);
    // False when "version" or "description" is present and differs (any case);
    // a missing key passes.
    static bool isAcceptable(const QVariantMap &settings);
    // "plist": binary property list; "xml": `path`.plist then `path` as XML.
    // False (and *why) on failure or an unknown extension.
    static bool write(const QVariantMap &settings, const QString &path, QString *why);
};

} // namespace brix
