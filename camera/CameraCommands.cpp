// The camera's command queue: command dictionaries and texts, queuing, sending
// on detached threads under the command lock, the direct path, live-view lens
// drive and zoom.
#include "CameraClassState.h"
#include "CameraText.h"
#include "Dispatch.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"

namespace brix {

using namespace eds;
using cameratext::logf;

namespace {
constexpr const char kTextTakePicture[] = "Take a picture";
constexpr const char kTextExtendShutdown[] = "Extend shutdown timer";
constexpr const char kTextStartBulb[] = "Start bulb";
constexpr const char kTextStopBulb[] = "Stop bulb";
constexpr const char kTextReleaseShutter[] = "Release Shutter Button";
constexpr const char kTextPressShutter[] = "Press Shutter Button ";
constexpr const char kTextHalfway[] = "halfway";
constexpr const char kTextCompletely[] = "completely";
constexpr const char kTextHalfwayNoAF[] = "halfway (no AF)";
constexpr const char kTextCompletelyNoAF[] = "completely (no AF)";
constexpr const char kTextEvfAF[] = "Do LiveView AutoFocus";
constexpr const char kTextDriveLens[] = "Drive LiveView Lens";
constexpr const char kTextClickWB[] = "Set White balance in LiveView";
constexpr const char kTextUnknownCommand[] = "some unknown command";

constexpr const char kLogAdded[] = "added command %@ to queue";
constexpr const char kLogQueueTimeout[] = "timed out waiting for queue lock";
constexpr const char kLogTrying[] = "trying to get commandLock for command %@ on thread %@";
constexpr const char kLogWaitingCommand[] = "waiting for command lock";
constexpr const char kLogCommandTimeout[] = "timed out waiting for command lock";
constexpr const char kLogGotCommand[] = "got the command lock on thread %@";
constexpr const char kLogSendError[] = "error %x sending command %x (parameter %x) to %@";
constexpr const char kLogSent[] = "sent command %@";
constexpr const char kLogUnlocked[] = "unlocked command lock on thread %@";
constexpr const char kLogDirectError[] = "error %x sending a command with %@";
constexpr const char kLogBadDrive[] = "bad parameter %u for DriveLensEvf";
constexpr const char kLogDrive[] = "sending parameter 0X%X for DriveLensEvf";
constexpr const char kLogBadZoom[] = "bad parameter %u for evfZoom";

constexpr double kQueueLockSeconds = 30.0;
constexpr double kCommandLockSeconds = 3.0;

std::chrono::steady_clock::time_point deadlineIn(double seconds) {
    return std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                  std::chrono::duration<double>(seconds));
}

QVariantMap commandDictionary(EdsCameraCommand command, EdsInt32 parameter) {
    QVariantMap dict;
    dict.insert(kCommandNumber, QVariant::fromValue(quint32(command)));
    // A negative parameter is sign-extended before it becomes unsigned.
    dict.insert(kCommandParam, QVariant::fromValue(quint64(qint64(parameter))));
    return dict;
}

} // namespace

QString OKVA_CanonCamera::descriptionForCommandDictionary(const QVariantMap &command) {
    if (!command.contains(kCommandNumber))
        return QString();
    const auto number = static_cast<EdsUInt32>(command.value(kCommandNumber).toULongLong());
    const quint64 param = command.value(kCommandParam).toULongLong();
    switch (number) {
    case kEdsCameraCommand_TakePicture:
        return QString::fromUtf8(kTextTakePicture);
    case kEdsCameraCommand_ExtendShutDownTimer:
        return QString::fromUtf8(kTextExtendShutdown);
    case kEdsCameraCommand_BulbStart:
        return QString::fromUtf8(kTextStartBulb);
    case kEdsCameraCommand_BulbEnd:
        return QString::fromUtf8(kTextStopBulb);
    case kEdsCameraCommand_PressShutterButton: {
        if (param == quint64(kEdsCameraCommand_ShutterButton_OFF))
            return QString::fromUtf8(kTextReleaseShutter);
        QString text = QString::fromUtf8(kTextPressShutter);
        if (param == quint64(kEdsCameraCommand_ShutterButton_Halfway))
            text += QString::fromUtf8(kTextHalfway);
        else if (param == quint64(kEdsCameraCommand_ShutterButton_Completely))
            text += QString::fromUtf8(kTextCompletely);
        else if (param == quint64(kEdsCameraCommand_ShutterButton_Halfway_NonAF))
            text += QString::fromUtf8(kTextHalfwayNoAF);
        else if (param == quint64(kEdsCameraCommand_ShutterButton_Completely_NonAF))
            text += QString::fromUtf8(kTextCompletelyNoAF);
        return text;
    }
    case kEdsCameraCommand_DoEvfAf:
        return QString::fromUtf8(kTextEvfAF);
    case kEdsCameraCommand_DriveLensEvf:
        return QString::fromUtf8(kTextDriveLens);
    case kEdsCameraCommand_DoClickWBEvf:
        return QString::fromUtf8(kTextClickWB);
    default:
        return QString::fromUtf8(kTextUnknownCommand);
    }
}

void OKVA_CanonCamera::queueCameraCommand(EdsCameraCommand command, EdsInt32 parameter) {
    QVariantMap dict = commandDictionary(command, parameter);
    const QString text = descriptionForCommandDictionary(dict);
    dict.insert(kCommandDescription, text);
    if (!getLock(queueLock_, deadlineIn(kQueueLockSeconds))) {
        logf(kLogQueueTimeout);
        return;
    }
    commandQueue_.append(dict);
    queueLock_.unlock();
    logf(kLogAdded, text);
}

void OKVA_CanonCamera::performNextQueuedCameraCommand() {
    if (!getLock(queueLock_, deadlineIn(kQueueLockSeconds))) {
        logf(kLogQueueTimeout);
        return;
    }
    if (!commandQueue_.isEmpty()) {
        QVariantMap command = commandQueue_.takeFirst();
        // The thread keeps the camera alive until the command has been sent or dropped.
        dispatch::detachThread("camera-command", [self = shared_from_this(), command = std::move(command)] {
            self->performCommandWithDictionary(command);
        });
    }
    queueLock_.unlock();
}

std::optional<QList<QVariantMap>> OKVA_CanonCamera::queuedCommands() {
    if (!getLock(queueLock_, deadlineIn(kQueueLockSeconds)))
        return std::nullopt;
    QList<QVariantMap> copy = commandQueue_;
    queueLock_.unlock();
    return copy;
}

void OKVA_CanonCamera::performCommandWithDictionary(const QVariantMap &command) {
    if (!command.contains(kCommandNumber))
        return;
    const QString thread = cameratext::currentThreadDescription();
    logf(kLogTrying, QVariant(command), thread);
    if (!commandLock_.tryLock()) {
        logf(kLogWaitingCommand);
        if (!commandLock_.lockBeforeSeconds(kCommandLockSeconds)) {
            logf(kLogCommandTimeout);
            return;
        }
    }
    logf(kLogGotCommand, thread);
    waitForCameraLock(3.0);
    const auto number = static_cast<EdsCameraCommand>(command.value(kCommandNumber).toULongLong());
    const auto param = static_cast<EdsInt32>(command.value(kCommandParam).toULongLong());
    const EdsError err = sdk_->EdsSendCommand(cameraRef_, number, param);
    if (err != EDS_ERR_OK) {
        logf(kLogSendError, err, number, param, description());
        ErrorValue error{kEdsErrorDomain, qint64(err), cameratables::errorText(err)};
        UserInfoBuilder info;
        info.add(kOKVA_CanonCameraCommandDictionary, command)
            .add(kOKVA_CanonCameraCommandErrorKey, QVariant::fromValue(error));
        NotificationCenter::defaultCenter().postOnMainNoWait(
            info.make(kOKVA_CanonCameraCommandError, toVariant()));
    } else {
        logf(kLogSent, descriptionForCommandDictionary(command));
    }
    unlockCameraLock();
    commandLock_.unlock();
    logf(kLogUnlocked, thread);
}

EdsError OKVA_CanonCamera::performCameraCommand(EdsCameraCommand command, EdsInt32 parameter) {
    if (!commandLock_.tryLock()) {
        logf(kLogWaitingCommand);
        if (!commandLock_.lockBeforeSeconds(kCommandLockSeconds)) {
            logf(kLogCommandTimeout);
            return EDS_ERR_DEVICE_BUSY;
        }
    }
    waitForCameraLock(3.0);
    const EdsError err = sdk_->EdsSendCommand(cameraRef_, command, parameter);
    if (err != EDS_ERR_OK)
        logf(kLogDirectError, err, description());
    unlockCameraLock();
    commandLock_.unlock();
    return err;
}

void OKVA_CanonCamera::takePicture() {
    queueCameraCommand(kEdsCameraCommand_TakePicture, 0);
}

void OKVA_CanonCamera::pressShutter(EdsUInt32 parameter) {
    queueCameraCommand(kEdsCameraCommand_PressShutterButton, static_cast<EdsInt32>(parameter));
}

void OKVA_CanonCamera::pressShutterHalf() {
    pressShutter(kEdsCameraCommand_ShutterButton_Halfway);
}

void OKVA_CanonCamera::pressShutterFull() {
    pressShutter(kEdsCameraCommand_ShutterButton_Completely);
}

void OKVA_CanonCamera::releaseShutter() {
    pressShutter(kEdsCameraCommand_ShutterButton_OFF);
}

void OKVA_CanonCamera::liveViewDriveAF(EdsUInt32 parameter) {
    switch (parameter) {
    case 1:
    case 2:
    case 3:
    case 0x8001:
    case 0x8002:
    case 0x8003:
        break;
    default:
        logf(kLogBadDrive, parameter);
        return;
    }
    logf(kLogDrive, parameter);
    queueCameraCommand(kEdsCameraCommand_DriveLensEvf, static_cast<EdsInt32>(parameter));
    performNextQueuedCameraCommand();
}

void OKVA_CanonCamera::liveViewDriveAFNear1() {
    liveViewDriveAF(1);
}

void OKVA_CanonCamera::liveViewSetZoom(EdsUInt32 zoom) {
    if (zoom != 1 && zoom != 5 && zoom != 10) {
        logf(kLogBadZoom, zoom);
        return;
    }
    setValue(QVariant::fromValue(zoom), kEdsPropID_Evf_Zoom, 0);
}

} // namespace brix
