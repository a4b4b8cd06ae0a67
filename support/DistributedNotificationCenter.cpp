#include "DistributedNotificationCenter.h"

#include "BusSignalSender.h"
#include "Logger.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QDateTime>

#include <atomic>

namespace brix {

namespace {

constexpr const char *kSignature = "ssa{sv}";

bool fail(QString *why, const QString &text) {
    if (why)
        *why = text;
    return false;
}

} // namespace

DistributedNotificationCenter &DistributedNotificationCenter::defaultCenter() {
    // Lives for the process: senders on other threads may post during shutdown.
    static auto *center = new DistributedNotificationCenter(QDBusConnection::sessionBus());
    return *center;
}

DistributedNotificationCenter::DistributedNotificationCenter(const QDBusConnection &connection,
                                                             QObject *parent)
    : QObject(parent), connection_(connection) {
    if (connection_.isConnected() && connection_.name() == QDBusConnection::sessionBus().name()) {
        QString why;
        sender_ = BusSignalSender::openSessionBus(&why);
        if (!sender_)
            Logger::setError(QStringLiteral("notifications go out through QtDBus: %1").arg(why));
    }
}

DistributedNotificationCenter::~DistributedNotificationCenter() = default;

bool DistributedNotificationCenter::isConnected() const {
    return connection_.isConnected();
}

QVariant DistributedNotificationCenter::toWire(const QVariant &value, int depth) {
    if (depth > kMaxDepth)
        return {};
    switch (value.metaType().id()) {
    case QMetaType::QString:
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::Short:
    case QMetaType::UChar:
    case QMetaType::Double:
    case QMetaType::QByteArray:
        return value;
    case QMetaType::Float:
        return QVariant(double(value.toFloat()));
    case QMetaType::Long:
        return QVariant(qlonglong(value.toLongLong()));
    case QMetaType::ULong:
        return QVariant(qulonglong(value.toULongLong()));
    case QMetaType::QDateTime:
        // D-Bus has no date type; ISO 8601 with the offset keeps the instant.
        return QVariant(value.toDateTime()
                            .toOffsetFromUtc(value.toDateTime().offsetFromUtc())
                            .toString(Qt::ISODateWithMs));
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QVariantList out;
        for (const QVariant &element : value.toList()) {
            QVariant wire = toWire(element, depth + 1);
            if (!wire.isValid())
                return {};
            out << wire;
        }
        return QVariant::fromValue(out);
    }
    case QMetaType::QVariantMap: {
        QVariantMap out;
        const QVariantMap in = value.toMap();
        for (auto it = in.begin(); it != in.end(); ++it) {
            QVariant wire = toWire(it.value(), depth + 1);
            if (!wire.isValid())
                return {};
            out.insert(it.key(), wire);
        }
        return QVariant::fromValue(out);
    }
    default:
        return {};
    }
}

namespace {

// What one incoming message may still cost: every value decoded, at any level,
// takes one element from a budget shared by the whole message.
struct WireReader {
    QString *why;
    qsizetype elementsLeft = DistributedNotificationCenter::kMaxElements;

    bool take() {
        if (--elementsLeft >= 0)
            return true;
        return fail(why,
                    QStringLiteral("more than %1 values").arg(DistributedNotificationCenter::kMaxElements));
    }

    bool checkLength(const QVariant &value) {
        const int type = value.metaType().id();
        const qsizetype length = type == QMetaType::QString      ? value.toString().size()
                                 : type == QMetaType::QByteArray ? value.toByteArray().size()
                                                                 : 0;
        if (length <= DistributedNotificationCenter::kMaxStringLength)
            return true;
        return fail(why, QStringLiteral("a text or data value of %1 characters (at most %2)")
                             .arg(length)
                             .arg(DistributedNotificationCenter::kMaxStringLength));
    }

    bool read(const QVariant &wire, QVariant &out, int depth) {
        if (depth > DistributedNotificationCenter::kMaxDepth)
            return fail(
                why,
                QStringLiteral("nested deeper than %1 levels").arg(DistributedNotificationCenter::kMaxDepth));
        const int type = wire.metaType().id();
        if (type == qMetaTypeId<QDBusVariant>()) // a wrapper and its value are one value
            return read(wire.value<QDBusVariant>().variant(), out, depth + 1);
        if (!take())
            return false;
        if (type == qMetaTypeId<QDBusArgument>())
            return readArgument(wire.value<QDBusArgument>(), out, depth);
        return readBasic(wire, out); // a basic type, already decoded
    }

    // Paths and signatures arrive as their text.
    bool readBasic(const QVariant &wire, QVariant &out) {
        const int type = wire.metaType().id();
        if (type == qMetaTypeId<QDBusObjectPath>())
            out = wire.value<QDBusObjectPath>().path();
        else if (type == qMetaTypeId<QDBusSignature>())
            out = wire.value<QDBusSignature>().signature();
        else
            out = wire;
        return checkBasic(out);
    }

    // Every basic D-Bus type but the Unix file descriptor, which is no
    // property-list value: kept, it would hold a descriptor of the sender's
    // open in the station for as long as the message lives.
    bool checkBasic(const QVariant &value) {
        switch (value.metaType().id()) {
        case QMetaType::QString:
        case QMetaType::QByteArray:
            return checkLength(value);
        case QMetaType::Bool:
        case QMetaType::UChar:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
            return true;
        default:
            return fail(why, QStringLiteral("a value of type %1").arg(QLatin1String(value.typeName())));
        }
    }

    bool readArgument(const QDBusArgument &arg, QVariant &out, int depth) {
        switch (arg.currentType()) {
        case QDBusArgument::ArrayType: {
            if (arg.currentSignature() == QLatin1String("ay")) {
                QByteArray bytes;
                arg >> bytes;
                out = bytes;
                return checkLength(out);
            }
            // Every begin is paired with its end even when a value is refused:
            // the argument reader allocates a level per begin.
            QVariantList list;
            bool ok = true;
            arg.beginArray();
            while (ok && !arg.atEnd()) {
                QVariant element;
                ok = read(arg.asVariant(), element, depth + 1);
                list << element;
            }
            arg.endArray();
            if (!ok)
                return false;
            out = list;
            return true;
        }
        case QDBusArgument::MapType: {
            QVariantMap map;
            bool ok = true;
            arg.beginMap();
            while (ok && !arg.atEnd()) {
                arg.beginMapEntry();
                const QVariant key = arg.asVariant();
                QVariant value;
                ok = key.metaType().id() == QMetaType::QString
                         ? checkLength(key) && read(arg.asVariant(), value, depth + 1)
                         : fail(why, QStringLiteral("a dictionary key that is not a string"));
                arg.endMapEntry();
                if (ok)
                    map.insert(key.toString(), value);
            }
            arg.endMap();
            if (!ok)
                return false;
            out = map;
            return true;
        }
        case QDBusArgument::VariantType: {
            QDBusVariant inner;
            arg >> inner;
            ++elementsLeft; // a wrapper and its value are one value
            return read(inner.variant(), out, depth + 1);
        }
        case QDBusArgument::BasicType:
            return readBasic(arg.asVariant(), out);
        default:
            return fail(why, QStringLiteral("a value of D-Bus signature %1").arg(arg.currentSignature()));
        }
    }
};

} // namespace

bool DistributedNotificationCenter::fromWire(const QVariant &wire, QVariant &out, QString *why) {
    WireReader reader{why};
    return reader.read(wire, out, 0);
}

bool DistributedNotificationCenter::post(const QString &name, const QString &object,
                                         const QVariantMap &userInfo) {
    if (!connection_.isConnected()) {
        static std::atomic<bool> told{false};
        if (!told.exchange(true))
            Logger::setError(
                QStringLiteral("no session bus: notification %1 (and later ones) not sent").arg(name));
        return false;
    }
    QVariant wire = toWire(userInfo);
    if (!wire.isValid()) {
        Logger::setError(
            QStringLiteral("notification %1 not sent: its user info holds a value that cannot travel")
                .arg(name));
        return false;
    }
    if (sender_) {
        QString why;
        if (sender_->send(kPath, kInterface, kMember, name, object, wire.toMap(), &why))
            return true;
        Logger::setError(QStringLiteral("notification %1 not sent: %2").arg(name, why));
        return false;
    }
    QDBusMessage signal = QDBusMessage::createSignal(kPath, kInterface, kMember);
    signal << name << object << wire;
    if (!connection_.send(signal)) {
        Logger::setError(
            QStringLiteral("notification %1 not sent: %2").arg(name, connection_.lastError().message()));
        return false;
    }
    return true;
}

DistributedNotificationCenter::Token DistributedNotificationCenter::addObserver(const QString &name,
                                                                                Observer observer) {
    Token token = ++nextToken_;
    observers_[token] = Registration{name, std::move(observer)};
    if (subscribedNames_[name]++ == 0) {
        bool ok = connection_.connect(QString(), kPath, kInterface, kMember, QStringList{name}, QString(),
                                      this, SLOT(handleSignal(QDBusMessage)));
        if (!ok)
            Logger::setError(
                QStringLiteral("could not observe notification %1 on the session bus").arg(name));
        // Posts leave through another connection, which the bus need not read
        // after this one: a round trip here makes sure it has the match
        // before anything is posted, so an observer added first sees the post.
        else if (sender_)
            connection_.call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
                                                            QStringLiteral("/org/freedesktop/DBus"),
                                                            QStringLiteral("org.freedesktop.DBus.Peer"),
                                                            QStringLiteral("Ping")),
                             QDBus::Block, 2000);
    }
    return token;
}

void DistributedNotificationCenter::removeObserver(Token token) {
    auto it = observers_.find(token);
    if (it == observers_.end())
        return;
    const QString name = it->second.name;
    observers_.erase(it);
    if (--subscribedNames_[name] == 0) {
        subscribedNames_.erase(name);
        connection_.disconnect(QString(), kPath, kInterface, kMember, QStringList{name}, QString(), this,
                               SLOT(handleSignal(QDBusMessage)));
    }
}

void DistributedNotificationCenter::handleSignal(const QDBusMessage &message) {
    if (message.signature() != QLatin1String(kSignature)) {
        Logger::setError(
            QStringLiteral("ignored a malformed notification from %1: arguments (%2), expected (%3)")
                .arg(message.service(), message.signature(), QLatin1String(kSignature)));
        return;
    }
    const QVariantList args = message.arguments();
    Message m;
    m.name = args.value(0).toString();
    m.object = args.value(1).toString();
    if (m.name.size() > kMaxNameLength || m.object.size() > kMaxNameLength) {
        Logger::setError(QStringLiteral("ignored notification %1 from %2: a name or object of more than %3 "
                                        "characters (%4, %5)")
                             .arg(m.name.left(200), message.service())
                             .arg(kMaxNameLength)
                             .arg(m.name.size())
                             .arg(m.object.size()));
        return;
    }
    QVariant info;
    QString why;
    if (!fromWire(args.value(2), info, &why)) {
        Logger::setError(QStringLiteral("ignored notification %1 from %2: its user info holds %3")
                             .arg(m.name.left(200), message.service(), why));
        return;
    }
    m.userInfo = info.toMap();
    // Copy first: an observer may add or remove observers.
    std::vector<Observer> targets;
    for (const auto &[token, reg] : observers_) {
        if (reg.name == m.name)
            targets.push_back(reg.observer);
    }
    for (const auto &observer : targets)
        observer(m);
}

} // namespace brix
