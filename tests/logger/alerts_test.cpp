// Error alerts: the modal presentation, and desktop notifications against a
// stand-in notification server on the test run's private session bus.
#include "ErrorAlerts.h"
#include "LogCapture.h"
#include "Preferences.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMap>
#include <QObject>

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

using namespace brix;

namespace {

// Answers Notify as a notification server does: a non-zero replaces_id of a
// notification still shown replaces it.
class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Call {
        uint replaces;
        QString summary;
        QString body;
    };
    std::vector<Call> calls;
    QMap<uint, QString> onScreen;

public slots:
    uint Notify(const QString &, uint replaces, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int) {
        calls.push_back({replaces, summary, body});
        const uint id = replaces && onScreen.contains(replaces) ? replaces : nextId_++;
        onScreen.insert(id, body);
        return id;
    }

private:
    uint nextId_ = 41;
};

class Alerts : public ::testing::Test {
protected:
    void SetUp() override {
        ErrorAlerts::setPresenter([this](const ErrorValue &e) {
            std::lock_guard lk(m_);
            presented_.push_back(e);
        });
    }
    void TearDown() override {
        ErrorAlerts::setPresenter(nullptr);
        Preferences::standard().removeObjectForKey(pref::kPreferNotificationsOverModalAlerts);
        if (serverBus_) {
            serverBus_->unregisterService("org.freedesktop.Notifications");
            serverBus_->unregisterObject("/org/freedesktop/Notifications");
            QDBusConnection::disconnectFromBus("fake-notification-server");
        }
    }

    void startServer() {
        serverBus_ = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake-notification-server"));
        ASSERT_TRUE(serverBus_->isConnected());
        ASSERT_TRUE(serverBus_->registerObject("/org/freedesktop/Notifications", &server_,
                                               QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(serverBus_->registerService("org.freedesktop.Notifications"));
    }

    std::vector<ErrorValue> presented() {
        std::lock_guard lk(m_);
        return presented_;
    }

    FakeNotificationServer server_;
    std::unique_ptr<QDBusConnection> serverBus_;
    std::mutex m_;
    std::vector<ErrorValue> presented_;
};

TEST_F(Alerts, AnEmptyAlertLogsTheCallStackAndShowsTheUnknownError) {
    test::LogCapture capture;
    ErrorAlerts::displayErrorAlert(std::nullopt);
    EXPECT_TRUE(presented().empty()) << "presented later, on the main queue";
    ASSERT_TRUE(test::processEventsUntil([&] { return !presented().empty(); }));
    EXPECT_EQ(presented().front(), (ErrorValue{"Internal Error", -1, "An unknown error has occured!"}));
    // One log line per frame, this test's own among them.
    const QStringList lines = QString::fromUtf8(capture.text()).split('\n', Qt::SkipEmptyParts);
    EXPECT_GE(lines.size(), 4);
    EXPECT_FALSE(lines.filter("test_logger").isEmpty()) << capture.text().constData();
}

TEST_F(Alerts, WithoutAPresenterTheAlertIsALogLine) {
    ErrorAlerts::setPresenter(nullptr);
    test::LogCapture capture;
    ErrorAlerts::displayErrorAlert(ErrorValue::posix(28, "disk full 100%"));
    ASSERT_TRUE(test::processEventsUntil([&] { return capture.text().contains("presentError"); }));
    EXPECT_TRUE(capture.text().contains("[Q com.apple.main-thread] presentError: Error "
                                        "Domain=NSPOSIXErrorDomain Code=28 \"disk full 100%\"\n"))
        << capture.text().constData();
}

TEST_F(Alerts, ThePreferenceChoosesAndOneNotificationPerIdentifierIsReplacedNotPiledUp) {
    startServer();
    // The preference off: the modal alert, though a server is there.
    Preferences::standard().setBool(false, pref::kPreferNotificationsOverModalAlerts);
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "camera gone"), "pref-off");
    ASSERT_TRUE(test::processEventsUntil([&] { return !presented().empty(); }));
    EXPECT_EQ(presented().front().localizedDescription, "camera gone");
    EXPECT_TRUE(server_.calls.empty());

    Preferences::standard().setBool(true, pref::kPreferNotificationsOverModalAlerts);
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "first"), "camera-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "second"), "camera-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(28, "disk"), "disk-errors");
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "third"), "camera-errors");
    ASSERT_TRUE(test::processEventsUntil([&] { return server_.calls.size() == 4; }));
    EXPECT_EQ(server_.calls[0].replaces, 0u);
    EXPECT_EQ(server_.calls[1].replaces, 41u);
    EXPECT_EQ(server_.calls[2].replaces, 0u);
    EXPECT_EQ(server_.calls[3].replaces, 41u);
    EXPECT_EQ(server_.calls[0].summary, "BrixCanonCapture");
    EXPECT_EQ(server_.onScreen, (QMap<uint, QString>{{41, "third"}, {42, "disk"}}));
    // Nothing fell back to the modal alert.
    test::processEventsUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_EQ(presented().size(), 1u);
}

TEST_F(Alerts, WithoutANotificationServerTheModalAlertIsShown) {
    ASSERT_FALSE(
        QDBusConnection::sessionBus().interface()->isServiceRegistered("org.freedesktop.Notifications"));
    Preferences::standard().setBool(true, pref::kPreferNotificationsOverModalAlerts);
    test::LogCapture capture;
    ErrorAlerts::alertUserOfError(ErrorValue::posix(5, "nobody listens"), "no-server");
    ASSERT_TRUE(test::processEventsUntil([&] { return !presented().empty(); }));
    EXPECT_EQ(presented().front().localizedDescription, "nobody listens");
    EXPECT_TRUE(capture.text().contains("alertUserOfError: notification for no-server not shown ("))
        << capture.text().constData();
}

} // namespace

#include "alerts_test.moc"
