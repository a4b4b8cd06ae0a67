// Machine-wide notifications between the Brix applications, carried as a D-Bus
// signal on the session bus: path /com/lumetra/brix/DistributedNotificationCenter,
// interface com.lumetra.brix.DistributedNotificationCenter, member Post,
// arguments (s name, s object, a{sv} userInfo). "No object" is the empty string.
//
// Threads: post() may be called from any thread; on the session bus it returns
// once the signal is written (see BusSignalSender), elsewhere once QtDBus has it;
// observers are called on the main thread. Incoming messages are checked before
// an observer sees them: anything malformed is logged and dropped.
// Ownership: the centre is a process-wide singleton; observers are removed with
// their token.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <map>
#include <memory>

class QDBusMessage;

namespace brix {

class BusSignalSender;

class DistributedNotificationCenter : public QObject {
    Q_OBJECT
public:
    static constexpr const char *kPath = "/com/lumetra/brix/DistributedNotificationCenter";
    static constexpr const char *kInterface = "com.lumetra.brix.DistributedNotificationCenter";
    static constexpr const char *kMember = "Post";
    // Limits on what one incoming message may carry; larger ones are refused
    // whole. The element budget counts every value of the message, at every
    // level, so that decoding stays cheap on the main thread.
    static constexpr int kMaxDepth = 32;
    static constexpr qsizetype kMaxElements = 200'000;
    // Characters of one text (or dictionary key), bytes of one data value.
    static constexpr qsizetype kMaxStringLength = 1 << 20;
    // Characters of the notification's name and of its object, which the
    // station may echo back and keep.
    static constexpr qsizetype kMaxNameLength = 1024;

    struct Message {
        QString name;
        QString object; // empty = no object
        QVariantMap userInfo;
    };
    using Observer = std::function<void(const Message &)>;
    using Token = quint64;

    static DistributedNotificationCenter &defaultCenter();

    // Uses the given connection (tests pass a private bus).
    explicit DistributedNotificationCenter(const QDBusConnection &connection, QObject *parent = nullptr);
    ~DistributedNotificationCenter() override;

    bool isConnected() const;

    // Broadcasts the notification. Returns false when there is no bus or the
    // payload cannot be put on the wire (the reason is logged).
    bool post(const QString &name, const QString &object, const QVariantMap &userInfo);

    // Observes one notification name (matched by the bus on arg0).
    Token addObserver(const QString &name, Observer observer);
    void removeObserver(Token token);

    // Converts a property-list value to what goes on the wire, and back.
    // toWire answers an invalid QVariant for values that cannot travel.
    static QVariant toWire(const QVariant &value, int depth = 0);
    // fromWire answers false (with `why`) for values nested too deep, with too
    // many values in all or with too long a text.
    static bool fromWire(const QVariant &wire, QVariant &out, QString *why);

private slots:
    void handleSignal(const QDBusMessage &message);

private:
    struct Registration {
        QString name;
        Observer observer;
    };
    QDBusConnection connection_;
    // Writes posts synchronously; only the session bus's centre has one.
    std::unique_ptr<BusSignalSender> sender_;
    std::map<Token, Registration> observers_;
    std::map<QString, int> subscribedNames_;
    Token nextToken_ = 0;
};

} // namespace brix
