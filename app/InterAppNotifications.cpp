#include "InterAppNotifications.h"

#include "BundleInfo.h"
#include "Describe.h"
#include "DistributedNotificationCenter.h"
#include "Logger.h"
#include "Paths.h"
#include "Scheduling.h"

#include <QDir>
#include <QFileInfo>

namespace brix::interapp {

namespace {

// The senders that are switched off keep their code behind this guard.
constexpr bool kSwitchedOffSendersEnabled = false;

constexpr const char *kTovinRule =
    "2013-07-08tovin --------------------------------------------------------------";

void post(const QString &name, const QString &object, const QVariantMap &userInfo) {
    DistributedNotificationCenter::defaultCenter().post(name, object, userInfo);
}

void logInside(const char *function) {
    Logger::setError(QStringLiteral("Inside %1...").arg(QLatin1String(function)));
}

} // namespace

QString senderApp() {
    return Paths::executableName();
}
QString bundleIdentifier() {
    return QString::fromLatin1(bundle::kIdentifier);
}

void mySendBrixXNotification2(const QVariant &filePath, std::function<void()> beforePost,
                              std::function<void()> afterPost) {
    Scheduling::performAsyncOnMainQueue([filePath, beforePost = std::move(beforePost),
                                         afterPost = std::move(afterPost)] {
        logInside("mySendBrixXNotification2_block_invoke");
        QString path = filePath.isValid() && !filePath.isNull() ? filePath.toString() : QString();
        if (path.isEmpty())
            path = Paths::standardizePath(QStringLiteral("~/Desktop/CanonFolder"));
        Logger::setError(QStringLiteral("pathtoitem = [%1] ").arg(path));
        QVariantMap info;
        if (!bundleIdentifier().isEmpty())
            info.insert(kSenderBundleIdentifier, bundleIdentifier());
        info.insert(kSenderApp, senderApp());
        info.insert(kFilePath, path);
        // The announcement carries the file itself here, not its folder.
        info.insert(kPrefSaveFolderToPath, path);
        if (beforePost)
            beforePost();
        post(kBrixXNotification, kObjectTest, info);
        if (afterPost)
            afterPost();
        Logger::setError(QStringLiteral("%1 -> sent NSDistributedNotification...%2")
                             .arg(QLatin1String("mySendBrixXNotification2_block_invoke"), describe(info)));
    });
}

void mySendPreviewerAppNotificationWithFilePath(const QVariant &filePath) {
    Logger::setError(QLatin1String(kTovinRule));
    Logger::setError(QStringLiteral("2013-07-08tovin Inside %1....")
                         .arg(QLatin1String("mySendPreviewerAppNotificationWithFilePath")));
    Logger::setError(QLatin1String(kTovinRule));
    QVariantMap info;
    info.insert(kSenderApp, senderApp());
    info.insert(kAction, kActionNewImageToDisplayForPreviewer);
    info.insert(kValue, filePath);
    Logger::setError(QStringLiteral("Dictionary=%1").arg(describe(info)));
    Scheduling::performAsyncOnMainQueue([info] { post(kPreviewerNotification, kObjectTest, info); });
}

bool mySendBrixNikonNotification(QVariantMap *dictionary) {
    logInside("mySendBrixNikonNotification");
    bool sent = false;
    if (dictionary) {
        if (!bundleIdentifier().isEmpty())
            dictionary->insert(kIdentifier, bundleIdentifier());
        dictionary->insert(kSenderApp, senderApp());
        QVariantMap info = *dictionary;
        Scheduling::performAsyncOnMainQueue([info] { post(kBrixXNotification, QString(), info); });
        sent = true;
    }
    Logger::setError(QStringLiteral("%1 -> done...").arg(QLatin1String("mySendBrixNikonNotification")));
    return sent;
}

void mySendBrixXNotification(const char *filePath) {
    logInside("mySendBrixXNotification");
    const QString path = QString::fromUtf8(filePath ? filePath : "");
    Logger::setError(QStringLiteral("filePath==%1, ").arg(path));
    QVariantMap info{{kSenderApp, senderApp()}, {kFilePath, path}};
    Scheduling::performAsyncOnMainQueue([info] { post(kBrixXNotification, kObjectTest, info); });
}

void mySendNotificationWithArray(const QVariantList &array) {
    logInside("mySendNotificationWithArray");
    QVariantMap info{{kSenderApp, senderApp()},
                     {kAction, kActionSetPackagesWithEditableText},
                     {kEditableTextPackages, array}};
    Scheduling::performSyncOnMainQueue([&] { post(kSalesStationNotification, kObjectTest, info); });
}

void mySendVideoAppNotificationWithVideoFilePath(const QString &moviePath) {
    logInside("mySendVideoAppNotificationWithVideoFilePath");
    QVariantMap info{{kSenderApp, senderApp()}, {kAction, kActionPlayVideoFile}, {kMoviePath, moviePath}};
    Logger::setError(QStringLiteral("PlayVideoFile Notification Dictionary=%1").arg(describe(info)));
    Scheduling::performSyncOnMainQueue([&] { post(kVideoAppNotification, kObjectTest, info); });
}

void mySendVideoAppNotificationStopRecording() {
    logInside("mySendVideoAppNotificationStopRecording");
    QVariantMap info{{kSenderApp, senderApp()}, {kAction, kActionStopRecording}};
    Logger::setError(
        QStringLiteral("mySendVideoAppNotificationStopRecording Dictionary=%1").arg(describe(info)));
    Scheduling::performSyncOnMainQueue([&] { post(kVideoAppNotification, kObjectTest, info); });
}

void mySendBrixXStatusNotification(quint16 status) {
    logInside("mySendBrixXStatusNotification");
    QVariantMap info{{kSenderApp, senderApp()}, {kCameraStatus, QVariant::fromValue<quint16>(status)}};
    Scheduling::performSyncOnMainQueue([&] { post(kBrixXNotification, kObjectTest, info); });
}

void mySendFlashWriterAppNotificationWithFilePath(const QString &filePath) {
    if (!kSwitchedOffSendersEnabled)
        return;
    logInside("mySendFlashWriterAppNotificationWithFilePath");
    QVariantMap info{
        {kSenderApp, senderApp()}, {kDestSubFolder, QStringLiteral("/")}, {kSourceItem, filePath}};
    Scheduling::performAsyncOnMainQueue([info] { post(kFlashDriveNotification, kObjectTest, info); });
}

void mySendNotificationToWebServerAppWithDictionary(const QVariantMap &printJob) {
    if (!kSwitchedOffSendersEnabled)
        return;
    logInside("mySendNotificationToWebServerAppWithDictionary");
    QVariantMap info{{kSenderApp, senderApp()}, {kPrintJob, printJob}};
    Scheduling::performAsyncOnMainQueue([info] { post(kWebServerNotification, kObjectTest, info); });
}

void mySendVideoAppNotificationWithCustomerIDAndPath(const QString &customerID, const QString &folderPath) {
    if (!kSwitchedOffSendersEnabled)
        return;
    logInside("mySendVideoAppNotificationWithCustomerIDAndPath");
    QVariantMap info{{kSenderApp, senderApp()},
                     {kAction, kActionSetCustomerID},
                     {kCustomerID, customerID},
                     {kFolderPath, folderPath}};
    Scheduling::performSyncOnMainQueue([&] { post(kVideoAppNotification, kObjectTest, info); });
}

void doBrixXNotification(const char *fileName) {
    if (!kSwitchedOffSendersEnabled)
        return;
    logInside("doBrixXNotification");
    const QString folder = QFileInfo(Paths::executableFolder()).absolutePath();
    QVariantMap info{{kSenderApp, senderApp()},
                     {kFilePath, folder + '/' + QString::fromUtf8(fileName ? fileName : "")}};
    Scheduling::performAsyncOnMainQueue([info] { post(kBrixXNotification, kObjectTest, info); });
}

} // namespace brix::interapp
