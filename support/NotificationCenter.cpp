#include "NotificationCenter.h"

#include "Dispatch.h"

#include <atomic>

namespace brix {

struct NotificationCenter::Entry {
    Token token;
    QString name;
    QVariant object;
    Observer observer;
    std::atomic<bool> alive{true};
};

NotificationCenter &NotificationCenter::defaultCenter() {
    static auto *center = new NotificationCenter; // process lifetime: posts may come from any thread at exit
    return *center;
}

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

NotificationCenter::Token NotificationCenter::addObserver(const QString &name, const QVariant &object,
                                                          Observer observer) {
    auto entry = std::make_shared<Entry>();
    entry->name = name;
    entry->object = object;
    entry->observer = std::move(observer);
    std::lock_guard lk(m_);
    entry->token = ++nextToken_;
    entries_.push_back(entry);
    return entry->token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lk(m_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if ((*it)->token == token) {
            (*it)->alive = false;
            entries_.erase(it);
            return;
        }
    }
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard lk(m_);
    return entries_.size();
}

void NotificationCenter::post(const Notification &notification) {
    std::vector<std::shared_ptr<Entry>> matching;
    {
        std::lock_guard lk(m_);
        for (const auto &e : entries_) {
            if (!e->name.isEmpty() && e->name != notification.name)
                continue;
            if (!e->object.isNull() && e->object != notification.object)
                continue;
            matching.push_back(e);
        }
    }
    // Observers run without the lock so that they may post, add or remove.
    for (const auto &e : matching) {
        if (e->alive)
            e->observer(notification);
    }
}

void NotificationCenter::post(const QString &name, const QVariant &object, const QVariantMap &userInfo) {
    post(Notification{name, object, userInfo, userInfo.keys()});
}

void NotificationCenter::postOnMainAndWait(const Notification &notification) {
    dispatch::mainQueue()->sync([this, &notification] { post(notification); });
}

void NotificationCenter::postOnMainNoWait(const Notification &notification) {
    dispatch::mainQueue()->async([this, notification] { post(notification); });
}

UserInfoBuilder &UserInfoBuilder::add(const QString &key, const QVariant &value) {
    if (stopped_)
        return *this;
    if (!value.isValid() || value.isNull()) {
        stopped_ = true;
        return *this;
    }
    map_.insert(key, value);
    order_.append(key);
    return *this;
}

Notification UserInfoBuilder::make(const QString &name, const QVariant &object) const {
    return Notification{name, object, map_, order_};
}

} // namespace brix
