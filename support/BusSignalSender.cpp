#include "BusSignalSender.h"

#include <dbus/dbus.h>

namespace brix {

namespace {

// The D-Bus signature of a wire value, empty for a value that cannot travel.
QByteArray signatureOf(const QVariant &value) {
    switch (value.metaType().id()) {
    case QMetaType::QString:
        return "s";
    case QMetaType::Bool:
        return "b";
    case QMetaType::Int:
        return "i";
    case QMetaType::UInt:
        return "u";
    case QMetaType::LongLong:
        return "x";
    case QMetaType::ULongLong:
        return "t";
    case QMetaType::UShort:
        return "q";
    case QMetaType::Short:
        return "n";
    case QMetaType::UChar:
        return "y";
    case QMetaType::Double:
        return "d";
    case QMetaType::QByteArray:
        return "ay";
    case QMetaType::QStringList:
    case QMetaType::QVariantList:
        return "av";
    case QMetaType::QVariantMap:
        return "a{sv}";
    default:
        return {};
    }
}

template <typename T> bool appendBasic(DBusMessageIter *it, int type, T value) {
    return dbus_message_iter_append_basic(it, type, &value);
}

bool appendString(DBusMessageIter *it, const QString &text) {
    const QByteArray utf8 = text.toUtf8();
    return appendBasic(it, DBUS_TYPE_STRING, utf8.constData());
}

bool appendValue(DBusMessageIter *it, const QVariant &value);

bool appendVariant(DBusMessageIter *it, const QVariant &value) {
    const QByteArray signature = signatureOf(value);
    if (signature.isEmpty())
        return false;
    DBusMessageIter inner;
    if (!dbus_message_iter_open_container(it, DBUS_TYPE_VARIANT, signature.constData(), &inner))
        return false;
    if (!appendValue(&inner, value)) {
        dbus_message_iter_abandon_container(it, &inner);
        return false;
    }
    return dbus_message_iter_close_container(it, &inner);
}

bool appendMap(DBusMessageIter *it, const QVariantMap &map) {
    DBusMessageIter array;
    if (!dbus_message_iter_open_container(it, DBUS_TYPE_ARRAY, "{sv}", &array))
        return false;
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        DBusMessageIter pair;
        bool ok = dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &pair);
        if (ok && !(appendString(&pair, entry.key()) && appendVariant(&pair, entry.value()))) {
            dbus_message_iter_abandon_container(&array, &pair);
            ok = false;
        }
        if (!ok || !dbus_message_iter_close_container(&array, &pair)) {
            dbus_message_iter_abandon_container(it, &array);
            return false;
        }
    }
    return dbus_message_iter_close_container(it, &array);
}

bool appendValue(DBusMessageIter *it, const QVariant &value) {
    switch (value.metaType().id()) {
    case QMetaType::QString:
        return appendString(it, value.toString());
    case QMetaType::Bool:
        return appendBasic<dbus_bool_t>(it, DBUS_TYPE_BOOLEAN, value.toBool());
    case QMetaType::Int:
        return appendBasic<dbus_int32_t>(it, DBUS_TYPE_INT32, value.toInt());
    case QMetaType::UInt:
        return appendBasic<dbus_uint32_t>(it, DBUS_TYPE_UINT32, value.toUInt());
    case QMetaType::LongLong:
        return appendBasic<dbus_int64_t>(it, DBUS_TYPE_INT64, value.toLongLong());
    case QMetaType::ULongLong:
        return appendBasic<dbus_uint64_t>(it, DBUS_TYPE_UINT64, value.toULongLong());
    case QMetaType::UShort:
        return appendBasic<dbus_uint16_t>(it, DBUS_TYPE_UINT16, dbus_uint16_t(value.toUInt()));
    case QMetaType::Short:
        return appendBasic<dbus_int16_t>(it, DBUS_TYPE_INT16, dbus_int16_t(value.toInt()));
    case QMetaType::UChar:
        return appendBasic<unsigned char>(it, DBUS_TYPE_BYTE, static_cast<unsigned char>(value.toUInt()));
    case QMetaType::Double:
        return appendBasic<double>(it, DBUS_TYPE_DOUBLE, value.toDouble());
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        DBusMessageIter array;
        if (!dbus_message_iter_open_container(it, DBUS_TYPE_ARRAY, "y", &array))
            return false;
        const char *data = bytes.constData();
        if (!dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &data, int(bytes.size()))) {
            dbus_message_iter_abandon_container(it, &array);
            return false;
        }
        return dbus_message_iter_close_container(it, &array);
    }
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        DBusMessageIter array;
        if (!dbus_message_iter_open_container(it, DBUS_TYPE_ARRAY, "v", &array))
            return false;
        for (const QVariant &element : value.toList()) {
            if (!appendVariant(&array, element)) {
                dbus_message_iter_abandon_container(it, &array);
                return false;
            }
        }
        return dbus_message_iter_close_container(it, &array);
    }
    case QMetaType::QVariantMap:
        return appendMap(it, value.toMap());
    default:
        return false;
    }
}

} // namespace

std::unique_ptr<BusSignalSender> BusSignalSender::openSessionBus(QString *why) {
    DBusError error;
    dbus_error_init(&error);
    DBusConnection *connection = dbus_bus_get_private(DBUS_BUS_SESSION, &error);
    if (!connection) {
        if (why)
            *why = QString::fromUtf8(error.message ? error.message : "no session bus");
        dbus_error_free(&error);
        return nullptr;
    }
    // A bus that goes away ends the sends, not the station.
    dbus_connection_set_exit_on_disconnect(connection, false);
    return std::unique_ptr<BusSignalSender>(new BusSignalSender(connection));
}

BusSignalSender::BusSignalSender(DBusConnection *connection) : connection_(connection) {}

BusSignalSender::~BusSignalSender() {
    dbus_connection_close(connection_);
    dbus_connection_unref(connection_);
}

bool BusSignalSender::send(const char *path, const char *interface, const char *member, const QString &name,
                           const QString &object, const QVariantMap &userInfo, QString *why) {
    DBusMessage *message = dbus_message_new_signal(path, interface, member);
    if (!message) {
        if (why)
            *why = QStringLiteral("out of memory");
        return false;
    }
    DBusMessageIter args;
    dbus_message_iter_init_append(message, &args);
    QString failure;
    if (!(appendString(&args, name) && appendString(&args, object) && appendMap(&args, userInfo)))
        failure = QStringLiteral("its user info could not be marshalled");
    else if (!dbus_connection_get_is_connected(connection_))
        failure = QStringLiteral("the session bus is gone");
    else if (!dbus_connection_send(connection_, message, nullptr))
        failure = QStringLiteral("out of memory");
    else
        dbus_connection_flush(connection_); // back only once the bytes are written
    dbus_message_unref(message);
    if (!failure.isEmpty() && why)
        *why = failure;
    return failure.isEmpty();
}

} // namespace brix
