#include "NotificationCenter.h"

#include <gtest/gtest.h>

using namespace brix;

TEST(NotificationCenter, FiltersByNameAndObjectAndStopsAfterRemoval) {
    NotificationCenter center;
    QStringList log;
    auto any = center.addObserver("", {}, [&](const Notification &n) { log << "any:" + n.name; });
    auto named = center.addObserver("shot", {}, [&](const Notification &n) {
        log << "named:" + n.userInfo.value("file").toString();
    });
    auto fromCamA = center.addObserver("shot", QString("camA"), [&](const Notification &) { log << "camA"; });

    center.post("shot", QString("camB"), {{"file", "x.jpg"}});
    center.post("other");
    center.removeObserver(named);
    center.post("shot", QString("camA"));
    center.removeObserver(any);
    center.removeObserver(fromCamA);
    center.post("shot", QString("camA"));

    EXPECT_EQ(log, (QStringList{"any:shot", "named:x.jpg", "any:other", "any:shot", "camA"}));
}

TEST(NotificationCenter, ObserverMayRemoveItselfWhileBeingCalled) {
    NotificationCenter center;
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
