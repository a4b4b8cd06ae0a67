// Download of each new shot into memory, and live view.
#include "CameraClassState.h"
#include "CameraText.h"
#include "Dispatch.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"

#include <QByteArray>
#include <QImage>

#include <chrono>
#include <cstring>
#include <new>
#include <thread>

namespace brix {

using namespace eds;
using cameratext::logf;

namespace {
constexpr const char kLogShouldDownload[] = "should download an object";
constexpr const char kLogNoSize[] =
    "error %x getting the size of a new shot (%u bytes, \"%@\"): it is not downloaded and is lost";
constexpr const char kLogStarting[] = "starting download of %u byte file named \"%@\"";
constexpr const char kLogStreamError[] = "error %x creating memory stream";
constexpr const char kLogProgressError[] = "error %x registering for download progress";
constexpr const char kLogBeginning[] = "beginning download";
constexpr const char kLogDownloadError[] = "error %x during download of image stream";
constexpr const char kLogCompleteError[] = "error %x completing download stream";
constexpr const char kLogComplete[] = "image download complete";
constexpr const char kLogNoData[] = "error creating image data from download stream";
constexpr const char kLogProgress[] = "download progress (%u %%)";
constexpr const char kLogAboutToGetDevice[] = "about to get the liveoutput device";
constexpr const char kLogStopping[] = "stopping liveView";
constexpr const char kLogMemStreamError[] = "error 0x%x creating memStream";
constexpr const char kLogEvfRefError[] = "error 0x%x creating liveView image ref";
constexpr const char kLogEvfDownloadError[] = "error 0x%x downloading liveView image";
constexpr const char kLogDecodeError[] = "error creating NSImage from data";

constexpr const char kLogRetrying[] = "error %x (%s) downloading \"%@\", attempt %u of %u: trying again";

constexpr auto kNotReadyPoll = std::chrono::microseconds(500);

// A busy or briefly failing body gets a few more tries, each after a longer
// pause; a body or shot that is gone, or a cancelled transfer, gets none.
constexpr unsigned kDownloadAttempts = 4;
constexpr auto kRetryPause = std::chrono::milliseconds(25);

bool worthRetrying(EdsError err) {
    switch (err) {
    case EDS_ERR_OK:
    case EDS_ERR_COMM_DISCONNECTED:
    case EDS_ERR_DEVICE_NOT_FOUND:
    case EDS_ERR_INVALID_HANDLE:
    case EDS_ERR_SESSION_NOT_OPEN:
    case EDS_ERR_OPERATION_CANCELLED:
    case EDS_ERR_MEM_ALLOC_FAILED:
        return false;
    default:
        return true;
    }
}

void logShotLost(const QString &fileName, EdsError err, const char *step, unsigned attempts) {
    cameratext::log(kShotNotSavedFormat.arg(fileName.isEmpty() ? QStringLiteral("(unnamed)") : fileName,
                                            QStringLiteral("error 0x%1 (%2) %3 after %4 attempt(s)")
                                                .arg(err, 0, 16)
                                                .arg(cameratables::errorText(err), QLatin1String(step))
                                                .arg(attempts)));
}
} // namespace

// --- download ------------------------------------------------------------------------------------

EdsError OKVA_CanonCamera::downloadObject(EdsDirectoryItemRef item) {
    logf(kLogShouldDownload);
    EdsDirectoryItemInfo info{};
    EdsError ierr = EDS_ERR_OK;
    unsigned attempt = 1;
    for (;; ++attempt) {
        info = {};
        ierr = sdk_->EdsGetDirectoryItemInfo(item, &info);
        if ((ierr == EDS_ERR_OK && info.size > 0) || !worthRetrying(ierr) || attempt == kDownloadAttempts)
            break;
        std::this_thread::sleep_for(kRetryPause * attempt);
    }
    const EdsUInt32 size = static_cast<EdsUInt32>(info.size);
    const QString fileName =
        QString::fromUtf8(info.szFileName, qsizetype(strnlen(info.szFileName, sizeof info.szFileName)));
    // Without its size there is nothing to download into: a zero-byte
    // "download" would succeed, completing it would free the camera's copy and
    // an empty file would be saved. The item is left alone instead.
    if (ierr != EDS_ERR_OK || size == 0) {
        logf(kLogNoSize, ierr, size, fileName);
        const EdsError err = ierr != EDS_ERR_OK ? ierr : EDS_ERR_INVALID_LENGTH;
        logShotLost(fileName, err, "reading its size", attempt);
        return err;
    }
    logf(kLogStarting, size, fileName);

    const char *step = "downloading it";
    EdsError err = EDS_ERR_OK;
    for (attempt = 1;; ++attempt) {
        err = downloadOnce(item, size, fileName, &step);
        if (err == EDS_ERR_OK)
            return err;
        if (!worthRetrying(err) || attempt == kDownloadAttempts)
            break;
        logf(kLogRetrying, err, cameratables::errorText(err), fileName, attempt, kDownloadAttempts);
        std::this_thread::sleep_for(kRetryPause * attempt);
    }
    logShotLost(fileName, err, step, attempt);
    return err;
}

EdsError OKVA_CanonCamera::downloadOnce(EdsDirectoryItemRef item, EdsUInt32 size, const QString &fileName,
                                        const char **step) {
    QByteArray buffer;
    try {
        buffer = QByteArray(qsizetype(size), Qt::Uninitialized);
    } catch (const std::bad_alloc &) {
        *step = "making room for it";
        return EDS_ERR_MEM_ALLOC_FAILED;
    }

    bool made = false;
    EdsStreamHandle stream; // only writes into our buffer; the item stays the SDK's
    EdsError err = sdk_->EdsCreateMemoryStreamFromPointer(buffer.data(), size, stream.receive(*sdk_));
    if (err != EDS_ERR_OK) {
        logf(kLogStreamError, err);
        *step = "creating its memory stream";
    } else {
        const EdsError perr = sdk_->EdsSetProgressCallback(stream.get(), &progressHandler,
                                                           kEdsProgressOption_Periodically, this);
        if (perr != EDS_ERR_OK)
            logf(kLogProgressError, perr);
        logf(kLogBeginning);
        err = sdk_->EdsDownload(item, size, stream.get());
        if (err != EDS_ERR_OK) {
            logf(kLogDownloadError, err);
            *step = "downloading it";
        } else {
            made = true; // the bytes are the shot's data from here on
            err = sdk_->EdsDownloadComplete(item);
            if (err != EDS_ERR_OK) {
                logf(kLogCompleteError, err);
                *step = "completing its download";
            } else {
                logf(kLogComplete);
                UserInfoBuilder userInfo;
                userInfo.add(kOKVA_CanonCameraPhotoData, buffer)
                    .add(kOKVA_CanonCameraPhotoFilename, fileName);
                NotificationCenter::defaultCenter().post(
                    userInfo.make(kOKVA_CanonCameraPhotoDataAvailable, toVariant()));
            }
        }
        stream.reset();
    }
    if (!made)
        logf(kLogNoData);
    return err;
}

EdsError OKVA_CanonCamera::progressHandler(EdsUInt32 percent, void *context, EdsBool *cancel) {
    CameraPtr camera = cameraForContext(context);
    if (!camera)
        return EDS_ERR_OK;
    UserInfoBuilder info;
    info.add(kOKVA_CanonCameraDownloadProgressPercent, QVariant::fromValue(quint32(percent)));
    NotificationCenter::defaultCenter().postOnMainAndWait(
        info.make(kOKVA_CanonCameraDownloadProgress, camera->toVariant()));
    const bool answer = camera->cancelDownloadForProgress(percent);
    logf(kLogProgress, percent);
    if (cancel)
        *cancel = answer ? 1 : 0;
    letGoOffEventThread(std::move(camera));
    return EDS_ERR_OK;
}

bool OKVA_CanonCamera::cancelDownloadForProgress(EdsUInt32 percent) {
    OKVA_CanonCameraDelegate *d = delegate_.load();
    return d ? d->cancelDownloadForProgress(percent) : false;
}

// --- live view ----------------------------------------------------------------------------------------

EdsUInt32 OKVA_CanonCamera::liveViewOutputDevice() {
    logf(kLogAboutToGetDevice);
    EdsUInt32 device = 0;
    if (!waitForCameraLock(3.0))
        return device;
    sdk_->EdsGetPropertyData(cameraRef_, kEdsPropID_Evf_OutputDevice, 0, sizeof device, &device);
    unlockCameraLock();
    return device;
}

void OKVA_CanonCamera::liveViewBegin() {
    if (isLegacyModel())
        return;
    const EdsUInt32 mode = kEdsEvfMode_Enabled;
    setProperty(cameraRef_, kEdsPropID_Evf_Mode, 0, sizeof mode, &mode);
    const EdsUInt32 device = liveViewOutputDevice() | kEdsEvfOutputDevice_PC;
    setProperty(cameraRef_, kEdsPropID_Evf_OutputDevice, 0, sizeof device, &device);
}

void OKVA_CanonCamera::liveViewEnd() {
    if (isLegacyModel())
        return;
    const EdsUInt32 device = liveViewOutputDevice() & ~kEdsEvfOutputDevice_PC;
    setProperty(cameraRef_, kEdsPropID_Evf_OutputDevice, 0, sizeof device, &device);
}

void OKVA_CanonCamera::startLiveView() {
    liveViewRunning_ = true;
    dispatch::detachThread("camera-liveview", [self = shared_from_this()] { self->downloadLiveViewImage(); });
}

void OKVA_CanonCamera::stopLiveView() {
    logf(kLogStopping);
    liveViewRunning_ = false;
}

void OKVA_CanonCamera::downloadLiveViewImage() {
    if (!liveViewLock_.tryLock())
        return; // another loop runs
    std::vector<char> fresh;
    std::vector<char> *buffer = &liveViewBuffer_;
    if (liveViewBuffer_.empty()) {
        fresh.assign(liveViewStreamSize(), 0);
        buffer = &fresh;
    }
    auto &center = NotificationCenter::defaultCenter();
    while (liveViewRunning_) {
        // Both are made for this pass and given back at its end.
        EdsStreamHandle stream;
        EdsEvfImageHandle image;
        EdsError err =
            sdk_->EdsCreateMemoryStreamFromPointer(buffer->data(), buffer->size(), stream.receive(*sdk_));
        if (err != EDS_ERR_OK) {
            logf(kLogMemStreamError, err);
            liveViewRunning_ = false;
        } else if ((err = sdk_->EdsCreateEvfImageRef(stream.get(), image.receive(*sdk_))) != EDS_ERR_OK) {
            logf(kLogEvfRefError, err); // tried again on the next pass
        } else {
            for (;;) {
                err = sdk_->EdsDownloadEvfImage(cameraRef_, image.get());
                if (err != EDS_ERR_OBJECT_NOTREADY || !liveViewRunning_)
                    break;
                std::this_thread::sleep_for(kNotReadyPoll);
            }
            if (err != EDS_ERR_OK) {
                logf(kLogEvfDownloadError, err);
                liveViewRunning_ = false;
            } else {
                // The frame is compressed data at the start of the buffer; the
                // decoder stops at its end. Frames come top row first.
                QImage frame = QImage::fromData(QByteArrayView(
                    reinterpret_cast<const uchar *>(buffer->data()), qsizetype(buffer->size())));
                if (frame.isNull()) {
                    logf(kLogDecodeError);
                } else {
                    if (buffer == &fresh) {
                        liveViewBuffer_ = std::move(fresh);
                        buffer = &liveViewBuffer_;
                    }
                    UserInfoBuilder info;
                    info.add(kOKVA_CanonCameraLiveViewImage, QVariant::fromValue(frame));
                    center.postOnMainNoWait(info.make(kOKVA_CanonCameraLiveViewImageUpdate, toVariant()));
                }
            }
        }
        image.reset();
        stream.reset();
    }
    liveViewLock_.unlock();
}

} // namespace brix
