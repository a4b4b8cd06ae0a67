// Notifications: the in-process centre (names, objects, removal while posting)
// and the distributed one, whose property-list values cross the session bus.
#include "DistributedNotificationCenter.h"
#include "NotificationCenter.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDateTime>
#include <QPoint>

#include <gtest/gtest.h>

using namespace brix;
using Message = DistributedNotificationCenter::Message;

TEST(NotificationCenter, FiltersByNameAndObjectAndStopsAfterRemovalEvenFromInsideItself) {
    NotificationCenter center;
    QStringList log;
    auto any = center.addObserver("", {}, [&](const Notification &n) { log << "any:" + n.name; });
    auto named = center.addObserver(
        "shot", {}, [&](const Notification &n) { log << "named:" + n.userInfo.value("file").toString(); });
    auto fromCamA = center.addObserver("shot", QString("camA"), [&](const Notification &) { log << "camA"; });

    center.post("shot", QString("camB"), {{"file", "x.jpg"}});
    center.post("other");
    center.removeObserver(named);
    center.post("shot", QString("camA"));
    center.removeObserver(any);
    center.removeObserver(fromCamA);
    center.post("shot", QString("camA"));

    EXPECT_EQ(log, (QStringList{"any:shot", "named:x.jpg", "any:other", "any:shot", "camA"}));

    // An observer may remove itself while it is being called.
    int calls = 0;
    NotificationCenter::Token token = 0;
    token = center.addObserver("once", {}, [&](const Notification &) {
        ++calls;
        center.removeObserver(token);
    });
    center.post("once");
    center.post("once");
    EXPECT_EQ(calls, 1);
}

TEST(UserInfoBuilder, StopsAtTheFirstMissingValueAndKeepsOrder) {
    auto n = UserInfoBuilder()
                 .add("zeta", 1)
                 .add("alpha", "two")
                 .add("missing", QVariant())
                 .add("after", 3)
                 .make("name");
    EXPECT_EQ(n.userInfoOrder, (QStringList{"zeta", "alpha"}));
    EXPECT_FALSE(n.userInfo.contains("after"));
}

namespace {

struct Listener {
    explicit Listener(const QString &name) {
        token = DistributedNotificationCenter::defaultCenter().addObserver(
            name, [this](const Message &m) { got.push_back(m); });
    }
    ~Listener() { DistributedNotificationCenter::defaultCenter().removeObserver(token); }
    bool waitFor(size_t n) {
        return test::processEventsUntil([&] { return got.size() >= n; });
    }
    DistributedNotificationCenter::Token token;
    std::vector<Message> got;
};

QDBusMessage rawPost(const QVariantList &args) {
    QDBusMessage m = QDBusMessage::createSignal(DistributedNotificationCenter::kPath,
                                                DistributedNotificationCenter::kInterface,
                                                DistributedNotificationCenter::kMember);
    m.setArguments(args);
    return m;
}

} // namespace

TEST(DistributedNotifications, EveryPropertyListValueCrossesTheBus) {
    Listener l("rt.values");
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1735689599, Qt::UTC);
    QVariantMap info{{"s", "text"},
                     {"b", true},
                     {"i", -5},
                     {"u", 7u},
                     {"x", qint64(1) << 40},
                     {"d", 2.5},
                     {"data", QByteArray("\x00\xff", 2)},
                     {"when", when},
                     {"list", QVariantList{1, "two", QVariantList{3}}},
                     {"map", QVariantMap{{"inner", QVariantMap{{"k", "v"}}}}}};
    ASSERT_TRUE(DistributedNotificationCenter::defaultCenter().post("rt.values", "obj", info));
    ASSERT_TRUE(l.waitFor(1));
    EXPECT_EQ(l.got[0].object, "obj");
    QVariantMap want = info;
    want["when"] = when.toString(Qt::ISODateWithMs); // dates travel as text
    EXPECT_EQ(l.got[0].userInfo, want);
    EXPECT_EQ(l.got[0].userInfo.value("b").metaType().id(), QMetaType::Bool);
    EXPECT_EQ(l.got[0].userInfo.value("u").metaType().id(), QMetaType::UInt);

    // Values that are no property-list values cannot travel.
    EXPECT_FALSE(DistributedNotificationCenter::toWire(QVariant::fromValue(QPoint(1, 2))).isValid());
    EXPECT_FALSE(DistributedNotificationCenter::defaultCenter().post(
        "x", "", QVariantMap{{"p", QVariant::fromValue(QPoint(1, 2))}}));
}

TEST(DistributedNotifications, MalformedAndHostileMessagesAreDroppedAndLaterOnesStillArrive) {
    Listener l("hostile");
    // The hostile sender is another application with its own connection.
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "hostile-sender");
    // Wrong argument types, too few arguments, a dictionary keyed by numbers.
    bus.send(rawPost({QString("hostile"), 5}));
    bus.send(rawPost({QString("hostile")}));
    QVariantMap deep{{"leaf", 1}};
    for (int i = 0; i < 20; ++i) // legal on the bus, deeper than the station accepts
        deep = QVariantMap{{"d", deep}};
    bus.send(rawPost({QString("hostile"), QString(), QVariant::fromValue(deep)}));
    // Over the budget of one message, though each array alone is small; a
    // name-sized field or a text over its length.
    QVariantList many;
    for (int i = 0; i < 100000; ++i)
        many << i;
    const QString longText(DistributedNotificationCenter::kMaxStringLength + 1, 'x');
    bus.send(
        rawPost({QString("hostile"), QString(), QVariant::fromValue(QVariantMap{{"a", many}, {"b", many}})}));
    bus.send(rawPost({QString("hostile"), QString(DistributedNotificationCenter::kMaxNameLength + 1, 'o'),
                      QVariant::fromValue(QVariantMap{})}));
    bus.send(rawPost({QString("hostile"), QString(), QVariant::fromValue(QVariantMap{{"t", longText}})}));
    // A descriptor is no property-list value (and would be kept open).
    ASSERT_TRUE(bus.connectionCapabilities() & QDBusConnection::UnixFileDescriptorPassing);
    bus.send(
        rawPost({QString("hostile"), QString(),
                 QVariant::fromValue(QVariantMap{{"fd", QVariant::fromValue(QDBusUnixFileDescriptor(2))}})}));
    // Large but legal: the longest text and a 100,000-element array arrive intact.
    auto &center = DistributedNotificationCenter::defaultCenter();
    ASSERT_TRUE(center.post("hostile", "",
                            {{"big", longText.left(DistributedNotificationCenter::kMaxStringLength)}}));
    ASSERT_TRUE(center.post("hostile", "", {{"many", many}}));
    // Last from the hostile sender: once it is in, so is everything it sent before.
    bus.send(rawPost({QString("hostile"), QString(), QVariant::fromValue(QVariantMap{{"last", true}})}));
    ASSERT_TRUE(l.waitFor(3));
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(100));
    ASSERT_EQ(l.got.size(), 3u);
    QVariantMap got; // two senders: their messages may interleave
    for (const Message &m : l.got)
        got.insert(m.userInfo);
    EXPECT_EQ(got.value("big").toString().size(), DistributedNotificationCenter::kMaxStringLength);
    EXPECT_EQ(got.value("many").toList().size(), 100000);
    EXPECT_TRUE(got.value("last").toBool());
    QDBusConnection::disconnectFromBus("hostile-sender");
}
