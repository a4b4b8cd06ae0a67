// Puts a signal on the session bus from the calling thread and returns once its
// bytes are in the bus daemon's socket. QtDBus hands every message to its own
// thread, which writes it some time later: a process killed in between loses
// a message it already counted as sent. The station records what it announced
// right after a send returns, so the send must be over when it returns.
//
// The signals leave through a private libdbus connection of their own, opened
// once; the centre still receives through QtDBus.
//
// Threads: send() from any thread; libdbus serialises the writers.
// Ownership: the sender owns its connection and closes it when destroyed.
#pragma once

#include <QString>
#include <QVariantMap>

#include <memory>

struct DBusConnection;

namespace brix {

class BusSignalSender {
public:
    // A sender on the session bus, or null (with `why`) when there is none.
    static std::unique_ptr<BusSignalSender> openSessionBus(QString *why);
    ~BusSignalSender();
    BusSignalSender(const BusSignalSender &) = delete;
    BusSignalSender &operator=(const BusSignalSender &) = delete;

    // Sends the signal (s name, s object, a{sv} userInfo) and waits until it is
    // written. `userInfo` holds wire values only (strings, numbers, booleans,
    // bytes, lists and dictionaries of them). False, with `why`, when it could
    // not be marshalled or written.
    bool send(const char *path, const char *interface, const char *member, const QString &name,
              const QString &object, const QVariantMap &userInfo, QString *why);

private:
    explicit BusSignalSender(DBusConnection *connection);
    DBusConnection *connection_;
};

} // namespace brix
