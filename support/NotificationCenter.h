// In-process notification centre: named notifications with an object and a
// user-info dictionary, delivered to observers registered by name with an
// optional object filter.
//
// Threads: any thread may add or remove observers and post. post() calls the
// observers on the poster's thread; postOnMainAndWait() and postOnMainNoWait()
// hand the notification to the main queue. An observer removed while a post is
// under way on another thread may still be called once by that post; it is
// never called by a post that starts after removeObserver() returned.
// Ownership: the centre owns its observer entries; callers own their tokens.
#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace brix {

struct Notification {
    QString name;
    QVariant object;      // null QVariant = no object
    QVariantMap userInfo; // property-list values
    // Keys in the order the poster inserted them (QVariantMap sorts its keys).
    QStringList userInfoOrder;
};

class NotificationCenter {
public:
    using Observer = std::function<void(const Notification &)>;
    using Token = std::uint64_t;

    static NotificationCenter &defaultCenter();

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter &) = delete;
    NotificationCenter &operator=(const NotificationCenter &) = delete;

    // name empty = every notification; object null = from any object.
    Token addObserver(const QString &name, const QVariant &object, Observer observer);
    void removeObserver(Token token);

    void post(const Notification &notification);
    void post(const QString &name, const QVariant &object = {}, const QVariantMap &userInfo = {});
    // Hands the notification to the main thread and waits until it was delivered
    // (inline when already on the main thread).
    void postOnMainAndWait(const Notification &notification);
    // Hands the notification to the main thread and returns at once.
    void postOnMainNoWait(const Notification &notification);

    std::size_t observerCount() const;

private:
    struct Entry;
    mutable std::mutex m_;
    std::vector<std::shared_ptr<Entry>> entries_;
    Token nextToken_ = 0;
};

// Builds a user-info dictionary from key/value pairs in order, stopping at the
// first pair whose value is null, as nil-terminated dictionary literals do.
class UserInfoBuilder {
public:
    UserInfoBuilder &add(const QString &key, const QVariant &value);
    Notification make(const QString &name, const QVariant &object = {}) const;
    const QVariantMap &map() const { return map_; }
    const QStringList &order() const { return order_; }

private:
    QVariantMap map_;
    QStringList order_;
    bool stopped_ = false;
};

} // namespace brix
