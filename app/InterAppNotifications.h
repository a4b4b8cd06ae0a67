// What the station says to its sibling applications (previewer, sales station,
// flash-drive writer, web server, video application) over the distributed
// notification centre, and the names, keys and values of that wire.
//
// Threads: every send may be called from any thread; each posts on the main
// thread (queued, or performed there and waited for, as each one says).
#pragma once

#include <functional>

#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

namespace brix::interapp {

// Notification names.
inline constexpr const char *kBrixXNotification = "brixXNotification";
inline constexpr const char *kSalesStationNotification = "brixSalesStationNotification";
inline constexpr const char *kPreviewerNotification = "BrixPreviewerNotification";
inline constexpr const char *kFlashDriveNotification = "BrixFlashDriveNotification";
inline constexpr const char *kWebServerNotification = "BrixWebServerNotification";
inline constexpr const char *kVideoAppNotification = "BrixVideoAppNotification";
inline constexpr const char *kNikonAppNotification = "BrixNikonAppNotification";

// The object string of outgoing messages.
inline constexpr const char *kObjectTest = "test";

// User-info keys.
inline constexpr const char *kSenderApp = "senderApp";
inline constexpr const char *kSenderBundleIdentifier = "senderBundleIdentifier";
inline constexpr const char *kIdentifier = "identifier";
inline constexpr const char *kAction = "action";
inline constexpr const char *kFilePath = "filePath";
inline constexpr const char *kPrefSaveFolderToPath = "prefSaveFolderToPath";
inline constexpr const char *kValue = "value";
inline constexpr const char *kEditableTextPackages = "editableTextPackages";
inline constexpr const char *kMoviePath = "moviepath";
inline constexpr const char *kCustomerID = "customerID";
inline constexpr const char *kFolderPath = "folderPath";
inline constexpr const char *kDestSubFolder = "destSubFolder";
inline constexpr const char *kSourceItem = "sourceItem";
inline constexpr const char *kPrintJob = "printJob";
inline constexpr const char *kCameraStatus = "cameraStatus";
inline constexpr const char *kCamerName = "camerName";

// Actions.
inline constexpr const char *kActionNewImageToDisplayForPreviewer = "newImageToDisplayForPreviewer";
inline constexpr const char *kActionSetPackagesWithEditableText = "setPackagesWithEditableText";
inline constexpr const char *kActionPlayVideoFile = "PlayVideoFile";
inline constexpr const char *kActionStopRecording = "StopRecording";
inline constexpr const char *kActionSetCustomerID = "SetCustomerID";
inline constexpr const char *kActionGrabImage = "grabimage";
inline constexpr const char *kActionRequestCameraStatus = "requestcamerastatus";
inline constexpr const char *kActionGetListOfImages = "getlistofimages";

// Camera status values in "cameraStatus".
inline constexpr unsigned kCameraStatusAvailable = 1;
inline constexpr unsigned kCameraStatusNone = 0;

// The sender's file name and bundle identifier, as every message carries them.
QString senderApp();
QString bundleIdentifier();

// Announces a newly saved file (path may be null: a default folder is announced).
// `beforePost` and `afterPost` run on the main queue right before and right
// after the announcement is posted, in the same turn, so that nothing comes
// between them; the post returns once the announcement has left the process.
void mySendBrixXNotification2(const QVariant &filePath, std::function<void()> beforePost = {},
                              std::function<void()> afterPost = {});
// Tells the previewer to show a file; `filePath` may also be a list of paths.
void mySendPreviewerAppNotificationWithFilePath(const QVariant &filePath);
// Camera status reply and broadcast. Adds "identifier" and "senderApp" to the
// dictionary and queues the post; false when there is no dictionary.
bool mySendBrixNikonNotification(QVariantMap *dictionary);
void mySendBrixXNotification(const char *filePath);
void mySendNotificationWithArray(const QVariantList &array);
void mySendVideoAppNotificationWithVideoFilePath(const QString &moviePath);
void mySendVideoAppNotificationStopRecording();
void mySendBrixXStatusNotification(quint16 status);

// Switched off: they keep their payloads but send and log nothing.
void mySendFlashWriterAppNotificationWithFilePath(const QString &filePath);
void mySendNotificationToWebServerAppWithDictionary(const QVariantMap &printJob);
void mySendVideoAppNotificationWithCustomerIDAndPath(const QString &customerID, const QString &folderPath);
void doBrixXNotification(const char *fileName);

} // namespace brix::interapp
