#include "BusSignalSender.h"

#include <dbus/dbus.h>

namespace brix {

namespace {

template <typename T> bool appendBasic(DBusMessageIter *it, int type, T value) {
    return dbus_message_iter_append_basic(it, type, &value);
}

bool appendString(DBusMessageIter *it, const QString &text) {
    const QByteArray utf8 = text.toUtf8();
    return appendBasic(it, DBUS_TYPE_STRING, utf8.constData());
}

bool appendText(DBusMessageIter *it, const QVariant &value) {
    return appendString(it, value.toString());
}

// A number as its D-Bus basic type; QVariant converts the few whose C++ type
// differs from the stored one (bool, and 64 bits as long).
template <typename Wire, int DBusType> bool appendNumber(DBusMessageIter *it, const QVariant &value) {
    return appendBasic<Wire>(it, DBusType, value.value<Wire>());
}

bool appendVariant(DBusMessageIter *it, const QVariant &value);

bool appendBytes(DBusMessageIter *it, const QVariant &value) {
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

bool appendList(DBusMessageIter *it, const QVariant &value) {
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

bool appendMap(DBusMessageIter *it, const QVariant &value) {
    const QVariantMap map = value.toMap();
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

// Every value that can travel: its type here, its D-Bus signature, and how it
// is written.
struct WireType {
    int metaType;
    const char *signature;
    bool (*append)(DBusMessageIter *, const QVariant &);
};

constexpr WireType kWireTypes[] = {
    {QMetaType::QString, "s", appendText},
    {QMetaType::Bool, "b", appendNumber<dbus_bool_t, DBUS_TYPE_BOOLEAN>},
    {QMetaType::Int, "i", appendNumber<dbus_int32_t, DBUS_TYPE_INT32>},
    {QMetaType::UInt, "u", appendNumber<dbus_uint32_t, DBUS_TYPE_UINT32>},
    {QMetaType::LongLong, "x", appendNumber<dbus_int64_t, DBUS_TYPE_INT64>},
    {QMetaType::ULongLong, "t", appendNumber<dbus_uint64_t, DBUS_TYPE_UINT64>},
    {QMetaType::UShort, "q", appendNumber<dbus_uint16_t, DBUS_TYPE_UINT16>},
    {QMetaType::Short, "n", appendNumber<dbus_int16_t, DBUS_TYPE_INT16>},
    {QMetaType::UChar, "y", appendNumber<unsigned char, DBUS_TYPE_BYTE>},
    {QMetaType::Double, "d", appendNumber<double, DBUS_TYPE_DOUBLE>},
    {QMetaType::QByteArray, "ay", appendBytes},
    {QMetaType::QStringList, "av", appendList},
    {QMetaType::QVariantList, "av", appendList},
    {QMetaType::QVariantMap, "a{sv}", appendMap},
};

const WireType *wireTypeOf(const QVariant &value) {
    for (const WireType &type : kWireTypes)
        if (type.metaType == value.metaType().id())
            return &type;
    return nullptr;
}

bool appendVariant(DBusMessageIter *it, const QVariant &value) {
    const WireType *type = wireTypeOf(value);
    if (!type)
        return false;
    DBusMessageIter inner;
    if (!dbus_message_iter_open_container(it, DBUS_TYPE_VARIANT, type->signature, &inner))
        return false;
    if (!type->append(&inner, value)) {
        dbus_message_iter_abandon_container(it, &inner);
        return false;
    }
    return dbus_message_iter_close_container(it, &inner);
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
