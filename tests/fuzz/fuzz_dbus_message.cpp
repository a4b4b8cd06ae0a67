// Feeds arbitrary bytes, read as one marshalled D-Bus message, to the
// notification centre over a real peer connection: libdbus on the sending side
// checks the message as a bus would before passing it on, Qt decodes it and the
// centre reads the notification out of it. Whatever reaches an observer must be
// plain property-list values that could be posted again; after each message a
// well-formed one must still arrive, so no message may cost the station its
// link to the siblings.
#include "DistributedNotificationCenter.h"
#include "FuzzTarget.h"

#include <QCoreApplication>
#include <QDBusServer>
#include <QDir>
#include <QElapsedTimer>

#include <dbus/dbus.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace brix;

namespace {

constexpr const char *kWatched[] = {"brixXNotification", "BrixNikonAppNotification"};
constexpr const char *kSentinel = "fuzz.sentinel";

struct Peer {
    int argc = 1;
    char name[8] = "fuzz";
    char *argv[2] = {name, nullptr};
    QCoreApplication app{argc, argv};
    QDBusServer server{QStringLiteral("unix:tmpdir=") + QDir::tempPath()};
    std::unique_ptr<DistributedNotificationCenter> center;
    DBusConnection *client = nullptr;
    quint64 sentinelsSent = 0, sentinelsSeen = 0;

    Peer() {
        QObject::connect(&server, &QDBusServer::newConnection, [this](const QDBusConnection &c) {
            center = std::make_unique<DistributedNotificationCenter>(c);
            for (const char *name : kWatched)
                center->addObserver(QString::fromLatin1(name), &Peer::check);
            center->addObserver(QString::fromLatin1(kSentinel),
                                [this](const DistributedNotificationCenter::Message &) { ++sentinelsSeen; });
        });
        DBusError error;
        dbus_error_init(&error);
        client = dbus_connection_open_private(server.address().toUtf8().constData(), &error);
        if (!client) {
            std::fprintf(stderr, "no peer connection: %s\n", error.message);
            std::abort();
        }
        dbus_connection_set_exit_on_disconnect(client, false);
        spinUntil([this] { return center != nullptr; });
    }

    static void check(const DistributedNotificationCenter::Message &m) {
        if (!DistributedNotificationCenter::toWire(m.userInfo).isValid()) {
            std::fprintf(stderr, "an observer was given a value that is not a property-list value\n");
            std::abort();
        }
    }

    template <class Done> void spinUntil(Done done) {
        QElapsedTimer t;
        t.start();
        while (!done()) {
            dbus_connection_read_write(client, 0);
            while (DBusMessage *reply = dbus_connection_pop_message(client))
                dbus_message_unref(reply);
            QCoreApplication::processEvents(QEventLoop::AllEvents);
            if (t.elapsed() > 10'000) {
                std::fprintf(stderr, "the centre stopped hearing its peer\n");
                std::abort();
            }
        }
    }

    void send(DBusMessage *message) {
        if (!dbus_connection_send(client, message, nullptr))
            std::abort();
        dbus_connection_flush(client);
    }

    void sendAndWait(DBusMessage *message) {
        send(message);
        DBusMessage *sentinel = dbus_message_new_signal(DistributedNotificationCenter::kPath,
                                                        DistributedNotificationCenter::kInterface,
                                                        DistributedNotificationCenter::kMember);
        const char *empty = "";
        DBusMessageIter args, dict;
        dbus_message_append_args(sentinel, DBUS_TYPE_STRING, &kSentinel, DBUS_TYPE_STRING, &empty,
                                 DBUS_TYPE_INVALID);
        dbus_message_iter_init_append(sentinel, &args);
        dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, "{sv}", &dict);
        dbus_message_iter_close_container(&args, &dict);
        send(sentinel);
        dbus_message_unref(sentinel);
        const quint64 wanted = ++sentinelsSent;
        spinUntil([&] { return sentinelsSeen >= wanted; });
    }
};

} // namespace

void fuzzOne(const QByteArray &bytes) {
    static Peer *peer = new Peer; // one connection for the whole run
    DBusError error;
    dbus_error_init(&error);
    // A bus refuses what libdbus cannot read back; that never reaches the station.
    DBusMessage *message = dbus_message_demarshal(bytes.constData(), int(bytes.size()), &error);
    if (!message) {
        dbus_error_free(&error);
        return;
    }
    peer->sendAndWait(message);
    dbus_message_unref(message);
}
