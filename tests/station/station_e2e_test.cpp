// End-to-end: the real station, headless, on the simulated camera, driven only
// from outside over the session bus, as a sibling application would.
#include "PropertyList.h"
#include "Station.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace brix;
using Message = DistributedNotificationCenter::Message;
using namespace std::chrono_literals;

namespace {

const QRegularExpression kShotName(QStringLiteral("^\\d{17}\\.jpg$"));

class Station : public ::testing::Test {
protected:
    void SetUp() override { saveFolder_ = test::testHome() + "/Users/Shared/CanonFolder"; }

    void start(const QStringList &arguments = {}) {
        ASSERT_TRUE(station_.start(QStringList{"--headless"} + arguments));
        ASSERT_TRUE(station_.waitForSimulator()) << "the station did not come up";
        ASSERT_TRUE(sibling_.waitForStatuses(1)) << log().right(3000).toStdString();
    }
    QStringList shots() const { return test::filesIn(saveFolder_); }
    QString log() const { return station_.log(); }
    static QDBusInterface simulator() { return test::StationProcess::simulator(); }
    uint status(size_t i) const { return sibling_.statuses().at(i); }
    QVariantMap statusReply(size_t i) const {
        return sibling_.with("brixXNotification", "cameraStatus").at(i).userInfo;
    }
    std::vector<Message> previews() const { return sibling_.with("BrixPreviewerNotification"); }
    // Asks for a shot as a sibling does: one file under the shot name, announced
    // to the siblings and to the previewer.
    void grabOneShot(const QString &action) {
        sibling_.request(action);
        ASSERT_TRUE(test::processEventsUntil([&] { return previews().size() >= 1; }, 30s))
            << log().right(3000).toStdString();
        const QStringList files = shots();
        ASSERT_EQ(files.size(), 1) << files.join(",").toStdString();
        EXPECT_TRUE(kShotName.match(files[0]).hasMatch()) << files[0].toStdString();
        const QString path = saveFolder_ + "/" + files[0];

        const auto announcements = sibling_.files();
        ASSERT_EQ(announcements.size(), 1u);
        const QVariantMap a = announcements[0].userInfo;
        EXPECT_EQ(announcements[0].object, "test");
        EXPECT_EQ(a.value("filePath").toString(), path);
        EXPECT_EQ(a.value("prefSaveFolderToPath").toString(), path);
        EXPECT_EQ(a.value("senderBundleIdentifier").toString(), "com.lumetra.BrixCanonCapture");
        EXPECT_EQ(a.value("senderApp").toString(), "BrixCanonCapture");
        const QVariantMap p = previews()[0].userInfo;
        EXPECT_EQ(p.value("action").toString(), "newImageToDisplayForPreviewer");
        EXPECT_EQ(p.value("value").toString(), path);
        EXPECT_EQ(p.value("senderApp").toString(), "BrixCanonCapture");
    }

    QString saveFolder_;
    test::StationProcess station_;
    test::Sibling sibling_;
};

} // namespace

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
          {saveFolder_ + "/.20260101120000002.jpg.part", QByteArray("half")}})
        ASSERT_TRUE(test::writeFile(path, bytes));
    start();
    ASSERT_TRUE(sibling_.waitForFiles(1, 20s));
    EXPECT_EQ(sibling_.files()[0].userInfo.value("filePath").toString(),
              saveFolder_ + "/20260101120000001.jpg");
    EXPECT_EQ(shots(), (QStringList{"20260101115959999.jpg", "20260101120000001.jpg"}));
    EXPECT_FALSE(QFileInfo::exists(saveFolder_ + "/.20260101120000002.jpg.part"));

    // The next shot is announced as usual, the caught-up one not again, also
    // not after a restart.
    sibling_.request("grabimage");
    ASSERT_TRUE(sibling_.waitForFiles(2, 20s));
    ASSERT_EQ(station_.terminate(), 0);
    const size_t statuses = sibling_.statuses().size();
    ASSERT_TRUE(station_.start());
    ASSERT_TRUE(sibling_.waitForStatuses(statuses + 1));
    test::processEventsUntil([] { return false; }, 1s);
    EXPECT_EQ(sibling_.files().size(), 2u);
}

// A grab asked for in capitals; status requests answered with and without a
// camera. Shots pressed just before an unplug may be lost, but every shot the
// station finished is on disk and announced; after the plug a burst of a
// hundred arrives whole and in order.
TEST_F(Station, GrabStatusRepliesAndBurstsAroundAnUnplugLoseNoFinishedShotAndKeepOrder) {
    start();
    EXPECT_EQ(status(0), 1u);
    grabOneShot("GRABIMAGE");

    sibling_.request("requestcamerastatus", "kiosk-7");
    ASSERT_TRUE(sibling_.waitForStatuses(2));
    QVariantMap reply = statusReply(1);
    EXPECT_EQ(reply.value("cameraStatus").toUInt(), 1u);
    EXPECT_EQ(reply.value("camerName").toString(), "kiosk-7");
    EXPECT_EQ(reply.value("identifier").toString(), "com.lumetra.BrixCanonCapture");

    auto sim = simulator();
    for (int i = 0; i < 10; ++i)
        sim.call("PressShutter");
    ASSERT_TRUE(sim.call("Unplug").errorName().isEmpty());
    ASSERT_TRUE(sibling_.waitForStatuses(3)); // the disconnected broadcast
    EXPECT_EQ(status(2), 0u);
    sibling_.request("RequestCameraStatus");
    ASSERT_TRUE(sibling_.waitForStatuses(4));
    reply = statusReply(3);
    EXPECT_EQ(reply.keys(), (QStringList{"cameraStatus", "identifier", "senderApp"}));
    EXPECT_EQ(reply.value("cameraStatus").toUInt(), 0u);
    // No sender: ignored. "getlistofimages": no reply.
    sibling_.request("requestcamerastatus", "x", false);
    sibling_.request("getlistofimages");
    test::processEventsUntil([] { return false; }, 500ms);
    EXPECT_EQ(sibling_.statuses().size(), 4u);

    ASSERT_TRUE(sim.call("Plug", QString("Canon EOS R5")).errorName().isEmpty());
    ASSERT_TRUE(sibling_.waitForStatuses(5));
    EXPECT_EQ(status(4), 1u);
    test::processEventsUntil([] { return false; }, 1s);
    const size_t early = sibling_.files().size();
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(sim.call("PressShutter").errorName().isEmpty());
    ASSERT_TRUE(sibling_.waitForFiles(early + 100, 120s)) << sibling_.files().size();
    test::processEventsUntil([] { return false; }, 300ms);
    const auto announcements = sibling_.files();
    ASSERT_EQ(announcements.size(), early + 100);
    EXPECT_EQ(previews().size(), early + 100);
    QStringList announced;
    for (const auto &m : announcements) {
        EXPECT_TRUE(QFileInfo::exists(m.userInfo.value("filePath").toString()));
        announced << QFileInfo(m.userInfo.value("filePath").toString()).fileName();
    }
    QStringList sorted = announced;
    sorted.sort();
    EXPECT_EQ(announced, sorted) << "announced out of order";
    EXPECT_EQ(shots(), sorted);
    EXPECT_EQ(QSet<QString>(announced.begin(), announced.end()).size(), announced.size());
    EXPECT_EQ(station_.terminate(), 0);
    EXPECT_EQ(log().count("catching applicationWillTerminate"), 1) << "the camera SDK ends once";
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
    ASSERT_TRUE(test::writeFile(
        config + "/com.lumetra.BrixCanonCapture.plist",
        PropertyList::dataFromPropertyList(QVariantMap{{"prefCanonSettings", stored}}, PlistFormat::Xml)));
    // The file from another station: no version keys, 1/125 and an ISO no body offers.
    const QString in = test::testHome() + "/in.plist";
    ASSERT_TRUE(
        test::writeFile(in, PropertyList::dataFromPropertyList(
                                QVariantMap{{model, QVariantMap{{"1030", "1/125"}, {"1026", "ISO 7"}}}},
                                PlistFormat::Binary)));

    start({"--import-settings", in, "--merge"});
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
    ASSERT_TRUE(sibling_.waitForStatuses(3));
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
    ASSERT_EQ(station_.terminate(), 0);

    // Exported as XML: the file any reader accepts, and its intermediate beside it.
    const test::Run exporter =
        test::run(BRIX_EXECUTABLE, {"--headless", "--export-settings", test::testHome() + "/a.xml"}, 30s);
    EXPECT_EQ(exporter.code, 0) << exporter.err.toStdString() << log().right(2000).toStdString();
    EXPECT_TRUE(QFileInfo::exists(test::testHome() + "/a.xml.plist"));
    const QByteArray bytes = test::readFile(test::testHome() + "/a.xml");
    EXPECT_TRUE(bytes.startsWith("<?xml"));
    const QVariantMap exported = PropertyList::propertyListFromData(bytes, Mutability::Immutable).toMap();
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
    station_.set("BRIX_CAMERA_BACKEND", "edsdk").set("BRIX_EDSDK_PATH", BRIX_EDSDK_SIM_LIBRARY);
    ASSERT_TRUE(station_.start());
    ASSERT_TRUE(sibling_.waitForStatuses(1)) << log().right(3000).toStdString();
    EXPECT_EQ(status(0), 1u);
    EXPECT_TRUE(log().contains(QStringLiteral("EDSDK loaded from: ") + BRIX_EDSDK_SIM_LIBRARY));
    grabOneShot("grabimage");
    EXPECT_EQ(station_.terminate(), 0);
}
#endif
