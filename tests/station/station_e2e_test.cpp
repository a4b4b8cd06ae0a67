// End-to-end: the real station, headless, on the simulated camera, driven only
// from outside over the session bus, as a sibling application would.
#include "DistributedNotificationCenter.h"
#include "PropertyList.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <signal.h>

using namespace brix;
using Message = DistributedNotificationCenter::Message;
using namespace std::chrono_literals;

namespace {

const QRegularExpression kShotName(QStringLiteral("^\\d{17}\\.jpg$"));

// A sibling application with its own bus connection.
class Sibling {
public:
    Sibling()
        : connection_(
              QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("e2e-sibling"))),
          center_(connection_) {
        for (const char *name : {"brixXNotification", "BrixPreviewerNotification"})
            center_.addObserver(name, [this](const Message &m) { received.push_back(m); });
    }
    ~Sibling() { QDBusConnection::disconnectFromBus(QStringLiteral("e2e-sibling")); }

    void request(const QString &action, const QString &object = QStringLiteral("sibling"),
                 bool withSender = true) {
        QVariantMap info{{"action", action}};
        if (withSender)
            info.insert("senderApp", "SiblingTool");
        center_.post("BrixNikonAppNotification", object, info);
    }

    std::vector<Message> named(const QString &name, bool statusOnly = false) const {
        std::vector<Message> out;
        for (const auto &m : received)
            if (m.name == name && (!statusOnly || m.userInfo.contains("cameraStatus")))
                out.push_back(m);
        return out;
    }
    std::vector<Message> fileAnnouncements() const {
        std::vector<Message> out;
        for (const auto &m : received)
            if (m.name == "brixXNotification" && m.userInfo.contains("filePath"))
                out.push_back(m);
        return out;
    }

    std::vector<Message> received;

private:
    QDBusConnection connection_;
    DistributedNotificationCenter center_;
};

class Station : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = test::testHome();
        saveFolder_ = home_ + "/Users/Shared/CanonFolder";
    }
    void TearDown() override { stop(); }

    void start(const QStringList &extraEnv = {}, bool simulatorControl = true,
               const QStringList &arguments = {}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BRIX_CAMERA_BACKEND", "simulator");
        for (const QString &kv : extraEnv)
            env.insert(kv.section('=', 0, 0), kv.section('=', 1));
        process_.setProcessEnvironment(env);
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(BRIX_EXECUTABLE, QStringList{"--headless"} + arguments);
        ASSERT_TRUE(process_.waitForStarted(10000));
        if (!simulatorControl)
            return;
        ASSERT_TRUE(test::processEventsUntil(
            [&] {
                return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                    "com.lumetra.BrixCanonCapture.Simulator");
            },
            20s))
            << "the station did not come up";
        ASSERT_TRUE(simulator().call("SetShotFormat", QString("JPG"), 200000u).errorName().isEmpty());
    }
    void stop() {
        if (process_.state() == QProcess::NotRunning)
            return;
        ::kill(pid_t(process_.processId()), SIGTERM);
        process_.waitForFinished(20000);
    }

    QDBusInterface simulator() {
        return QDBusInterface("com.lumetra.BrixCanonCapture.Simulator", "/com/lumetra/brix/Simulator",
                              "com.lumetra.brix.Simulator");
    }
    bool waitForCameraStatus(Sibling &s, size_t count) {
        return test::processEventsUntil([&] { return s.named("brixXNotification", true).size() >= count; },
                                        20s);
    }
    QStringList shots() const {
        QStringList names = QDir(saveFolder_).entryList(QDir::Files, QDir::Name);
        return names;
    }
    QString log() const {
        QFile f(home_ + "/.local/state/Logs/Brix/BrixCanonCapture.log");
        f.open(QIODevice::ReadOnly);
        return QString::fromUtf8(f.readAll());
    }

    QString home_;
    QString saveFolder_;
    QProcess process_;
};

} // namespace

TEST_F(Station, GrabImageInCapitalsSavesOneShotAndAnnouncesIt) {
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    EXPECT_EQ(sibling.named("brixXNotification", true)[0].userInfo.value("cameraStatus").toUInt(), 1u);

    sibling.request("GRABIMAGE");
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return sibling.named("BrixPreviewerNotification").size() >= 1; }, 20s));
    const QStringList files = shots();
    ASSERT_EQ(files.size(), 1) << files.join(",").toStdString();
    EXPECT_TRUE(kShotName.match(files[0]).hasMatch()) << files[0].toStdString();
    const QString path = saveFolder_ + "/" + files[0];

    const auto announcements = sibling.fileAnnouncements();
    ASSERT_EQ(announcements.size(), 1u);
    const QVariantMap a = announcements[0].userInfo;
    EXPECT_EQ(announcements[0].object, "test");
    EXPECT_EQ(a.value("filePath").toString(), path);
    EXPECT_EQ(a.value("prefSaveFolderToPath").toString(), path);
    EXPECT_EQ(a.value("senderBundleIdentifier").toString(), "com.lumetra.BrixCanonCapture");
    EXPECT_EQ(a.value("senderApp").toString(), "BrixCanonCapture");
    const QVariantMap p = sibling.named("BrixPreviewerNotification")[0].userInfo;
    EXPECT_EQ(p.value("action").toString(), "newImageToDisplayForPreviewer");
    EXPECT_EQ(p.value("value").toString(), path);
    EXPECT_EQ(p.value("senderApp").toString(), "BrixCanonCapture");

    stop();
    EXPECT_EQ(process_.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process_.exitCode(), 0);
    EXPECT_EQ(log().count("catching applicationWillTerminate"), 1) << "the camera SDK ends once";
}

TEST_F(Station, BurstOfOneHundredShotsLosesNothingAndKeepsOrder) {
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    auto sim = simulator();
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(sim.call("PressShutter").errorName().isEmpty());
    ASSERT_TRUE(test::processEventsUntil([&] { return sibling.fileAnnouncements().size() >= 100; }, 120s))
        << sibling.fileAnnouncements().size();
    test::processEventsUntil([] { return false; }, 300ms);
    const auto announcements = sibling.fileAnnouncements();
    ASSERT_EQ(announcements.size(), 100u);
    EXPECT_EQ(sibling.named("BrixPreviewerNotification").size(), 100u);
    QStringList announced;
    for (const auto &m : announcements)
        announced << QFileInfo(m.userInfo.value("filePath").toString()).fileName();
    QStringList sorted = announced;
    sorted.sort();
    EXPECT_EQ(announced, sorted) << "announced out of order";
    EXPECT_EQ(shots(), sorted);
    EXPECT_EQ(QSet<QString>(announced.begin(), announced.end()).size(), 100);
}

TEST_F(Station, ShotSavedButNotAnnouncedBeforeADeathIsAnnouncedOnceAtTheNextStart) {
    // What a killed station leaves: the record of its last announced shot, a
    // later shot saved under its final name, and a shot half written.
    QDir().mkpath(saveFolder_);
    const QString marker = qEnvironmentVariable("XDG_STATE_HOME") + "/Brix/lastAnnouncedShot";
    QDir().mkpath(QFileInfo(marker).path());
    for (const auto &[path, bytes] :
         {std::pair{marker, QByteArray("20260101120000000.jpg\n")},
          {saveFolder_ + "/20260101115959999.jpg", QByteArray("announced long ago")},
          {saveFolder_ + "/20260101120000001.jpg", QByteArray("saved, never announced\xFF\xD9")},
          {saveFolder_ + "/20260101120000002.jpg.a1B2c3", QByteArray("half")}}) {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(bytes);
    }
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    ASSERT_TRUE(test::processEventsUntil([&] { return sibling.fileAnnouncements().size() >= 1; }, 20s));
    EXPECT_EQ(sibling.fileAnnouncements()[0].userInfo.value("filePath").toString(),
              saveFolder_ + "/20260101120000001.jpg");
    EXPECT_EQ(shots(), (QStringList{"20260101115959999.jpg", "20260101120000001.jpg"}));

    // The next shot is announced as usual, the caught-up one not again, also
    // not after a restart.
    sibling.request("grabimage");
    ASSERT_TRUE(test::processEventsUntil([&] { return sibling.fileAnnouncements().size() >= 2; }, 20s));
    stop();
    test::processEventsUntil([] { return false; }, 300ms);
    const size_t statuses = sibling.named("brixXNotification", true).size();
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, statuses + 1));
    test::processEventsUntil([] { return false; }, 1s);
    EXPECT_EQ(sibling.fileAnnouncements().size(), 2u);
}

TEST_F(Station, RequestCameraStatusWithAndWithoutACamera) {
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    sibling.request("requestcamerastatus", "kiosk-7");
    ASSERT_TRUE(waitForCameraStatus(sibling, 2));
    QVariantMap reply = sibling.named("brixXNotification", true)[1].userInfo;
    EXPECT_EQ(reply.value("cameraStatus").toUInt(), 1u);
    EXPECT_EQ(reply.value("camerName").toString(), "kiosk-7");
    EXPECT_EQ(reply.value("identifier").toString(), "com.lumetra.BrixCanonCapture");

    ASSERT_TRUE(simulator().call("Unplug").errorName().isEmpty());
    ASSERT_TRUE(waitForCameraStatus(sibling, 3)); // the disconnected broadcast
    EXPECT_EQ(sibling.named("brixXNotification", true)[2].userInfo.value("cameraStatus").toUInt(), 0u);
    sibling.request("RequestCameraStatus");
    ASSERT_TRUE(waitForCameraStatus(sibling, 4));
    reply = sibling.named("brixXNotification", true)[3].userInfo;
    EXPECT_EQ(reply.keys(), (QStringList{"cameraStatus", "identifier", "senderApp"}));
    EXPECT_EQ(reply.value("cameraStatus").toUInt(), 0u);

    // No sender: ignored. "getlistofimages": no reply.
    sibling.request("requestcamerastatus", "x", false);
    sibling.request("getlistofimages");
    test::processEventsUntil([] { return false; }, 500ms);
    EXPECT_EQ(sibling.named("brixXNotification", true).size(), 4u);
    EXPECT_EQ(process_.state(), QProcess::Running);
}

TEST_F(Station, UnplugAndPlugMidBurstLoseNoFinishedShot) {
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    auto sim = simulator();
    for (int i = 0; i < 10; ++i)
        sim.call("PressShutter");
    ASSERT_TRUE(sim.call("Unplug").errorName().isEmpty());
    ASSERT_TRUE(sim.call("Plug", QString("Canon EOS R5")).errorName().isEmpty());
    ASSERT_TRUE(test::processEventsUntil(
        [&] {
            auto s = sibling.named("brixXNotification", true);
            return !s.empty() && s.back().userInfo.value("cameraStatus").toUInt() == 1u && s.size() >= 3;
        },
        30s));
    for (int i = 0; i < 10; ++i)
        sim.call("PressShutter");
    // Every shot the station finished is on disk and was announced, and the
    // shots after the plug all arrive.
    ASSERT_TRUE(test::processEventsUntil([&] { return sibling.fileAnnouncements().size() >= 10; }, 60s));
    test::processEventsUntil([] { return false; }, 1s);
    const auto announcements = sibling.fileAnnouncements();
    EXPECT_EQ(int(announcements.size()), shots().size());
    for (const auto &m : announcements)
        EXPECT_TRUE(QFileInfo::exists(m.userInfo.value("filePath").toString()));
    EXPECT_GE(announcements.size(), 10u);
    EXPECT_EQ(process_.state(), QProcess::Running);
}

TEST_F(Station, UnwritableSaveFolderIsLoggedAndTheStationKeepsRunning) {
    // A plain file where the save folder should be: nothing can be written there.
    QDir().mkpath(home_ + "/Users/Shared");
    {
        QFile blocker(saveFolder_);
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    }
    Sibling sibling;
    start();
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    sibling.request("grabimage");
    ASSERT_TRUE(test::processEventsUntil([&] { return log().contains("failed to save image to path"); }, 20s))
        << log().right(3000).toStdString();
    EXPECT_TRUE(log().contains("with error = "));
    EXPECT_TRUE(sibling.fileAnnouncements().empty());
    // Still answering.
    sibling.request("requestcamerastatus");
    EXPECT_TRUE(waitForCameraStatus(sibling, 2));
    EXPECT_EQ(process_.state(), QProcess::Running);
}

TEST_F(Station, RemembersSettingsPerModelAppliesThemOnEveryConnectionAndMovesThemAsAFile) {
    const QString model = "Canon EOS 5D Mark IV";
    // Stored: this model with an exposure compensation, and another model.
    const QString config = qEnvironmentVariable("XDG_CONFIG_HOME") + "/Brix";
    QDir().mkpath(config);
    const QVariantMap stored{{"version", "v2"},
                             {"description", "canonsettings"},
                             {model, QVariantMap{{"1031", "+1"}}},
                             {"Model B", QVariantMap{{"1030", "1/250"}}}};
    QFile prefs(config + "/com.lumetra.BrixCanonCapture.plist");
    ASSERT_TRUE(prefs.open(QIODevice::WriteOnly));
    prefs.write(
        PropertyList::dataFromPropertyList(QVariantMap{{"prefCanonSettings", stored}}, PlistFormat::Xml));
    prefs.close();
    // The file from another station: no version keys, 1/125 and an ISO no body offers.
    const QString in = home_ + "/in.plist";
    QFile file(in);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(PropertyList::dataFromPropertyList(
        QVariantMap{{model, QVariantMap{{"1030", "1/125"}, {"1026", "ISO 7"}}}}, PlistFormat::Binary));
    file.close();

    Sibling sibling;
    start({}, true, {"--import-settings", in, "--merge"});
    ASSERT_TRUE(waitForCameraStatus(sibling, 1));
    auto sim = simulator();
    auto tv = [&] {
        return sim.call("GetProperty", 0x406u).arguments().value(0).value<QDBusVariant>().variant().toUInt();
    };
    ASSERT_TRUE(test::processEventsUntil([&] { return tv() == 0x70u; }, 20s))
        << log().right(3000).toStdString();
    ASSERT_TRUE(
        test::processEventsUntil([&] { return log().contains("refused, re-reading propID = 1026"); }, 5s));
    EXPECT_EQ(log().count("refused, re-reading propID"), 1);

    // Dials turned, body unplugged and plugged: the remembered value comes back.
    ASSERT_TRUE(sim.call("SetProperty", 0x406u, 0x68u).errorName().isEmpty());
    ASSERT_TRUE(test::processEventsUntil([&] { return tv() == 0x68u; }, 5s));
    ASSERT_TRUE(sim.call("Unplug").errorName().isEmpty());
    ASSERT_TRUE(sim.call("Plug", model).errorName().isEmpty());
    ASSERT_TRUE(waitForCameraStatus(sibling, 3));
    ASSERT_TRUE(test::processEventsUntil([&] { return tv() == 0x70u; }, 20s))
        << log().right(3000).toStdString();

    // Saved without a window, over the bus: the body's values replace the
    // imported entry of this model whole.
    const qsizetype shown = log().count("with value 1/60");
    ASSERT_TRUE(sim.call("SetProperty", 0x406u, 0x68u).errorName().isEmpty());
    ASSERT_TRUE(test::processEventsUntil([&] { return log().count("with value 1/60") > shown; }, 5s));
    QDBusInterface station("com.lumetra.BrixCanonCapture", "/com/lumetra/BrixCanonCapture",
                           "com.lumetra.brix.Application", QDBusConnection::sessionBus());
    const QDBusMessage reply = station.call("SaveCameraSettings");
    ASSERT_TRUE(reply.errorName().isEmpty()) << reply.errorMessage().toStdString();
    ASSERT_TRUE(test::processEventsUntil([&] { return log().contains("ibSaveSettings:.....mTable["); }, 5s));
    stop();

    // Exported as XML: the file any reader accepts, and its intermediate beside it.
    QProcess exporter;
    exporter.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    exporter.start(BRIX_EXECUTABLE, {"--headless", "--export-settings", home_ + "/a.xml"});
    ASSERT_TRUE(exporter.waitForFinished(30000));
    EXPECT_EQ(exporter.exitCode(), 0) << log().right(2000).toStdString();
    EXPECT_TRUE(QFileInfo::exists(home_ + "/a.xml.plist"));
    QFile xml(home_ + "/a.xml");
    ASSERT_TRUE(xml.open(QIODevice::ReadOnly));
    const QByteArray bytes = xml.readAll();
    EXPECT_TRUE(bytes.startsWith("<?xml"));
    const QVariantMap exported = PropertyList::propertyListFromData(bytes, Mutability::Immutable).toMap();
    // Merge kept the other model and replaced this one whole.
    EXPECT_EQ(exported.value("Model B"), stored.value("Model B"));
    const QVariantMap saved = exported.value(model).toMap();
    EXPECT_EQ(saved.value("1030").toString(), "1/60");
    EXPECT_FALSE(saved.contains("1031") && saved.value("1031") == "+1") << "the old entry is replaced whole";
    EXPECT_TRUE(saved.contains("1026")) << "all six pop-ups are saved";
    EXPECT_EQ(exported.value("version").toString(), "v2");
}

#ifdef BRIX_EDSDK_SIM_LIBRARY
TEST_F(Station, DoesItsMainJobThroughCanonsLibraryInterface) {
    // The station loads a library with Canon's C functions (here one over the
    // simulated body) and must behave exactly as with the built-in backends.
    Sibling sibling;
    start({"BRIX_CAMERA_BACKEND=edsdk", QStringLiteral("BRIX_EDSDK_PATH=%1").arg(BRIX_EDSDK_SIM_LIBRARY)},
          false);
    ASSERT_TRUE(waitForCameraStatus(sibling, 1)) << log().right(3000).toStdString();
    EXPECT_EQ(sibling.named("brixXNotification", true)[0].userInfo.value("cameraStatus").toUInt(), 1u);
    EXPECT_TRUE(log().contains("EDSDK loaded from: "));
    sibling.request("grabimage");
    ASSERT_TRUE(
        test::processEventsUntil([&] { return sibling.named("BrixPreviewerNotification").size() >= 1; }, 30s))
        << log().right(3000).toStdString();
    const QStringList files = shots();
    ASSERT_EQ(files.size(), 1);
    EXPECT_TRUE(kShotName.match(files[0]).hasMatch()) << files[0].toStdString();
    ASSERT_EQ(sibling.fileAnnouncements().size(), 1u);
    EXPECT_EQ(sibling.fileAnnouncements()[0].userInfo.value("filePath").toString(),
              saveFolder_ + "/" + files[0]);
}
#endif
