// Property lists in memory and as text: conversions between Qt values and the
// XML and binary property-list formats (through libplist), base64 text of
// binary property lists, and JSON carried as base64 data URLs.
//
// Values: QVariantMap (dictionary), QVariantList / QStringList (array), QString,
// bool, integers up to 64 bits (read back as qint64), float/double (read back as
// double), QByteArray (data), QDateTime (date, kept to the second in XML and to
// the microsecond in binary). Anything else cannot be written.
//
// Threads: every operation is a pure function, callable from any thread.
// Failures are never thrown: they return nil (a null QString, an invalid
// QVariant, an empty optional) and leave one line through Logger::setError.
// Ownership: every result is a value owned by the caller.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>

namespace brix {

// Serialisation formats, numbered as the platform's property-list formats.
enum class PlistFormat { Xml = 100, Binary = 200 };

// How containers read back may be changed. Qt containers are values that the
// caller owns outright, so every result can be changed whatever the option;
// the option is kept so that callers state their intent as they always have.
enum class Mutability { Immutable = 0, MutableContainers = 1, MutableContainersAndLeaves = 2 };

class PropertyList {
public:
    // Deepest nesting of arrays and dictionaries accepted on reading or writing.
    static constexpr int kMaxDepth = 512;

    // --- the general reader and writer (no log lines; the error says why) ---

    // Serialises a value; a null QByteArray and *error on failure.
    static QByteArray dataFromPropertyList(const QVariant &value, PlistFormat format, QString *error = nullptr);
    // Reads XML or binary property-list bytes (the format is recognised); an
    // invalid QVariant and *error on failure. Hostile input (truncation, cycles,
    // excessive nesting or expansion, bad UTF-8) is refused before parsing.
    static QVariant propertyListFromData(const QByteArray &data, Mutability mutability, QString *error = nullptr,
                                         PlistFormat *format = nullptr);

    // A short text description of a value for log lines ("(null)" for nil).
    static QString describe(const QVariant &value);

    // --- string conversions ---

    // XML property-list text of the value; a null QString on failure.
    static QString stringWithPlistObject(const QVariant &object);
    // The value written in XML (or any property-list) text; invalid on failure.
    static QVariant plistObjectWithMutability(const QString &text, Mutability mutability);
    static QVariant plistObject(const QString &text);

    // --- base64 ---

    // Base64 text of the bytes on one unbroken line.
    static QString encodedBase64(const QByteArray &data);
    // Binary property list of the dictionary as base64 text; a null QString and
    // *error on failure.
    static QString base64EncodedFromPropertyListWithError(const QVariantMap &dictionary, QString *error);
    static QString asBase64EncodedString(const QVariantMap &dictionary);
    // Decodes base64 text (characters outside the alphabet are skipped) and
    // reads it as a property list whose root must be a dictionary.
    static std::optional<QVariantMap> fromBase64EncodedString(const QString &text, Mutability mutability);
    static std::optional<QVariantMap> fromBase64EncodedString(const QString &text);

    // --- JSON in base64 data URLs ---

    // The JSON value (object or array) after the last "data:application/json;base64,"
    // of the text (or the whole text when the prefix is absent); invalid on failure.
    static QVariant asJSONObjectFromBase64Encoding(const QString &text);
    // The value under `key` of that JSON value when it is an object; else invalid.
    static QVariant asJSONObjectValueForKey(const QString &text, const QString &key);
};

} // namespace brix
