// What every camera backend promises behind the SDK interface, as one
// value-parameterised GoogleTest suite. A backend's test folder instantiates it
// with a Backend record (ContractSupport.h), in exactly one source file of the
// test executable, since this header defines the test bodies:
//
//   INSTANTIATE_TEST_SUITE_P(Simulator, EdsContract, ::testing::Values(mySimulatorBackend()),
//                            [](const auto &info) { return info.param.name; });
//
// The record's optional drivers stand for what a person would do at the camera
// (pull the cable) and for test-only hooks (error injection, reference
// accounting); a case that needs a driver the backend does not have is
// skipped. A backend needs one camera attached when the suite runs.
#pragma once

#include "ContractSupport.h"

namespace brix::eds::contract {

class EdsContract : public SdkSession, public ::testing::WithParamInterface<Backend> {
protected:
    const Backend &backend() const override { return GetParam(); }
};

TEST_P(EdsContract, CameraListDeviceInfoAndBadArgumentsAnswerWithCodes) {
    EdsCameraListHandle list;
    ASSERT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_OK);
    EdsUInt32 count = 0;
    ASSERT_EQ(sdk_->EdsGetChildCount(list.get(), &count), EDS_ERR_OK);
    ASSERT_GE(count, 1u);
    EdsCameraHandle camera;
    ASSERT_EQ(sdk_->EdsGetChildAtIndex(list.get(), 0, camera.receive(*sdk_)), EDS_ERR_OK);
    EdsDeviceInfo info;
    std::memset(&info, 0x7F, sizeof info);
    ASSERT_EQ(sdk_->EdsGetDeviceInfo(camera.get(), &info), EDS_ERR_OK);
    const size_t len = strnlen(info.szDeviceDescription, EDS_MAX_NAME);
    EXPECT_GT(len, 0u);
    EXPECT_LT(len, EDS_MAX_NAME) << "the model name is NUL-terminated";

    // The same body twice is the same reference: identity is the reference.
    EdsCameraHandle again;
    ASSERT_EQ(sdk_->EdsGetChildAtIndex(list.get(), 0, again.receive(*sdk_)), EDS_ERR_OK);
    EXPECT_EQ(again.get(), camera.get());

    EdsBaseRef none = nullptr;
    EXPECT_NE(sdk_->EdsGetChildAtIndex(list.get(), EdsInt32(count), &none), EDS_ERR_OK);
    EXPECT_NE(sdk_->EdsGetChildAtIndex(list.get(), -1, &none), EDS_ERR_OK);
    EXPECT_EQ(none, nullptr);
    // Property access needs a session.
    EdsUInt32 value = 0;
    EXPECT_NE(sdk_->EdsGetPropertyData(camera.get(), kEdsPropID_AEMode, 0, sizeof value, &value), EDS_ERR_OK);
}

TEST_P(EdsContract, PropertiesHaveTheirSdkTypesAndEventsArriveOnOneBackendThread) {
    openFirstCamera();
    EdsDataType type = 0;
    EdsUInt32 size = 0;
    ASSERT_EQ(sdk_->EdsGetPropertySize(camera_.get(), kEdsPropID_Tv, 0, &type, &size), EDS_ERR_OK);
    EXPECT_TRUE(type == kEdsDataType_UInt32 || type == kEdsDataType_Int32);
    EXPECT_EQ(size, 4u);
    ASSERT_EQ(sdk_->EdsGetPropertySize(camera_.get(), kEdsPropID_DateTime, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(type, EdsDataType(kEdsDataType_Time));
    EXPECT_EQ(size, sizeof(EdsTime));
    EdsTime t{};
    ASSERT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_DateTime, 0, size, &t), EDS_ERR_OK);
    EXPECT_GE(t.year, 2000u);
    EXPECT_TRUE(t.month >= 1 && t.month <= 12);
    ASSERT_EQ(sdk_->EdsGetPropertySize(camera_.get(), kEdsPropID_ProductName, 0, &type, &size), EDS_ERR_OK);
    EXPECT_EQ(type, EdsDataType(kEdsDataType_String));
    std::vector<char> name(size + 1, 'x');
    ASSERT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_ProductName, 0, size, name.data()),
              EDS_ERR_OK);
    EXPECT_EQ(strnlen(name.data(), size), size - 1) << "a string fills its reported size with its NUL";

    // A string the host writes reads back the same.
    const char artist[] = "Brix Station \xC3\xA9";
    ASSERT_EQ(sdk_->EdsSetPropertyData(camera_.get(), kEdsPropID_Artist, 0, sizeof artist, artist),
              EDS_ERR_OK);
    ASSERT_EQ(sdk_->EdsGetPropertySize(camera_.get(), kEdsPropID_Artist, 0, &type, &size), EDS_ERR_OK);
    std::vector<char> back(size);
    ASSERT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Artist, 0, size, back.data()), EDS_ERR_OK);
    EXPECT_STREQ(back.data(), artist);

    // A change by the host is reported as 0x101 for that property.
    EdsPropertyDesc desc{};
    ASSERT_EQ(sdk_->EdsGetPropertyDesc(camera_.get(), kEdsPropID_DriveMode, &desc), EDS_ERR_OK);
    ASSERT_GE(desc.numElements, 2);
    const EdsUInt32 drive = getUInt32(kEdsPropID_DriveMode);
    const EdsUInt32 other =
        EdsUInt32(desc.propDesc[0]) == drive ? EdsUInt32(desc.propDesc[1]) : EdsUInt32(desc.propDesc[0]);
    ASSERT_EQ(setUInt32(kEdsPropID_DriveMode, other), EDS_ERR_OK);
    EXPECT_EQ(getUInt32(kEdsPropID_DriveMode), other);
    ASSERT_TRUE(test::processEventsUntil(
        [&] { return log_.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_DriveMode) > 0; }));
    ASSERT_NE(shootToHost(), nullptr);

    const auto events = log_.snapshot();
    ASSERT_FALSE(events.empty());
    for (const auto &e : events) {
        EXPECT_NE(e.thread, std::this_thread::get_id())
            << "event " << std::hex << e.event << " on the caller's thread";
        EXPECT_EQ(e.thread, events.front().thread) << "event " << std::hex << e.event << " on another thread";
    }
}

TEST_P(EdsContract, DownloadDeliversTheExactBytesWithProgressTo100) {
    openFirstCamera();
    EdsBaseRef item = shootToHost();
    ASSERT_NE(item, nullptr);
    EdsDirectoryItemInfo info{};
    Progress progress;
    QByteArray first, again;
    ASSERT_EQ(transfer(item, first, &progress, 0, &info), EDS_ERR_OK);
    const QString fileName = QString::fromUtf8(info.szFileName);
    EXPECT_TRUE(fileName.endsWith(".JPG", Qt::CaseInsensitive) ||
                fileName.endsWith(".CR2", Qt::CaseInsensitive))
        << fileName.toStdString();
    ASSERT_GT(first.size(), 0); // sized as the item says
    {
        std::lock_guard lock(progress.mutex);
        ASSERT_FALSE(progress.percents.empty());
        EXPECT_EQ(progress.percents.back(), 100u);
        for (size_t i = 1; i < progress.percents.size(); ++i)
            EXPECT_LE(progress.percents[i - 1], progress.percents[i]);
        for (auto id : progress.threads)
            EXPECT_EQ(id, std::this_thread::get_id()) << "progress runs on the downloading thread";
    }
    if (fileName.endsWith(".JPG")) {
        EXPECT_EQ(uchar(first[0]), 0xFF);
        EXPECT_EQ(uchar(first[1]), 0xD8);
        EXPECT_EQ(uchar(first[first.size() - 2]), 0xFF);
        EXPECT_EQ(uchar(first[first.size() - 1]), 0xD9);
        EXPECT_FALSE(QImage::fromData(first).isNull());
    }
    // A second transfer of the same item gives the same bytes.
    ASSERT_EQ(transfer(item, again), EDS_ERR_OK);
    EXPECT_EQ(again, first);
    EXPECT_EQ(sdk_->EdsDownloadComplete(item), EDS_ERR_OK);

    // A download into a stream too small for it fails with a code and writes nothing past it.
    EdsBaseRef second = shootToHost();
    ASSERT_NE(second, nullptr);
    QByteArray small(16 + 8, '\x5A');
    EXPECT_NE(transfer(second, small, nullptr, 16), EDS_ERR_OK);
    EXPECT_EQ(small.mid(16), QByteArray(8, '\x5A'));

    // Cancelling from the progress callback stops the transfer with a code.
    Progress cancelling;
    cancelling.cancelAt = 1;
    QByteArray bytes;
    EXPECT_EQ(transfer(second, bytes, &cancelling), EDS_ERR_OPERATION_CANCELLED);
    EXPECT_EQ(sdk_->EdsDownloadComplete(second), EDS_ERR_OK);
}

TEST_P(EdsContract, InjectedErrorsComeBackAsCodesForTheirCount) {
    if (!GetParam().injectError)
        GTEST_SKIP() << GetParam().name << " cannot inject errors";
    openFirstCamera();
    ASSERT_TRUE(GetParam().injectError(*sdk_, "EdsSendCommand", EDS_ERR_TAKE_PICTURE_AF_NG, 1));
    EXPECT_EQ(send(kEdsCameraCommand_ExtendShutDownTimer), EDS_ERR_TAKE_PICTURE_AF_NG);
    EXPECT_EQ(send(kEdsCameraCommand_ExtendShutDownTimer), EDS_ERR_OK);

    ASSERT_TRUE(GetParam().injectError(*sdk_, "EdsGetPropertyData", EDS_ERR_DEVICE_BUSY, 2));
    EdsUInt32 v = 0;
    EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Av, 0, 4, &v), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Av, 0, 4, &v), EDS_ERR_DEVICE_BUSY);
    EXPECT_EQ(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Av, 0, 4, &v), EDS_ERR_OK);

    // An injected failure of a creating call hands out nothing to release.
    ASSERT_TRUE(GetParam().injectError(*sdk_, "EdsGetCameraList", EDS_ERR_COMM_DISCONNECTED, 1));
    EdsCameraListHandle list;
    EXPECT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_COMM_DISCONNECTED);
    EXPECT_FALSE(list);

    ASSERT_TRUE(GetParam().injectError(*sdk_, "EdsDownload", EDS_ERR_STREAM_WRITE_ERROR, 1));
    EdsBaseRef item = shootToHost();
    ASSERT_NE(item, nullptr);
    QByteArray bytes;
    EXPECT_EQ(transfer(item, bytes), EDS_ERR_STREAM_WRITE_ERROR);
    EXPECT_EQ(sdk_->EdsDownloadComplete(item), EDS_ERR_OK);
}

TEST_P(EdsContract, UnplugDuringASessionReportsShutdownAndLaterCallsFail) {
    if (!GetParam().unplug)
        GTEST_SKIP() << GetParam().name << " cannot unplug its camera";
    openFirstCamera();
    ASSERT_TRUE(GetParam().unplug(*sdk_));
    ASSERT_TRUE(test::processEventsUntil([&] { return log_.count('s', kEdsStateEvent_Shutdown) == 1; }));
    for (const auto &e : log_.snapshot())
        EXPECT_NE(e.thread, std::this_thread::get_id());
    EdsUInt32 v = 0;
    EXPECT_NE(sdk_->EdsGetPropertyData(camera_.get(), kEdsPropID_Av, 0, 4, &v), EDS_ERR_OK);
    EXPECT_NE(send(kEdsCameraCommand_TakePicture), EDS_ERR_OK);
    // The gone camera is no longer listed, and closing its session still works.
    EdsCameraListHandle list;
    ASSERT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_OK);
    EdsUInt32 count = 99;
    ASSERT_EQ(sdk_->EdsGetChildCount(list.get(), &count), EDS_ERR_OK);
    for (EdsUInt32 i = 0; i < count; ++i) {
        EdsCameraHandle c;
        ASSERT_EQ(sdk_->EdsGetChildAtIndex(list.get(), EdsInt32(i), c.receive(*sdk_)), EDS_ERR_OK);
        EXPECT_NE(c.get(), camera_.get());
    }
    EXPECT_EQ(sdk_->EdsCloseSession(camera_.get()), EDS_ERR_OK);
    sessionOpen_ = false;
}

TEST_P(EdsContract, LiveViewGivesMovingJpegFramesWithNotReadyBetween) {
    openFirstCamera();
    ASSERT_EQ(setUInt32(kEdsPropID_Evf_Mode, kEdsEvfMode_Enabled), EDS_ERR_OK);
    const EdsUInt32 device = getUInt32(kEdsPropID_Evf_OutputDevice);
    ASSERT_EQ(setUInt32(kEdsPropID_Evf_OutputDevice, device | kEdsEvfOutputDevice_PC), EDS_ERR_OK);
    EXPECT_TRUE(test::processEventsUntil(
        [&] { return log_.count('p', kEdsPropertyEvent_PropertyChanged, kEdsPropID_Evf_OutputDevice) > 0; }));

    // A frame into `out`, asked for up to `tries` times while none is ready.
    constexpr size_t kStreamSize = 0x200000;
    auto frame = [&](QByteArray *out, int tries = 2000) -> EdsError {
        QByteArray buffer(qsizetype(kStreamSize), '\0');
        EdsStreamHandle stream;
        EdsEvfImageHandle image;
        EXPECT_EQ(sdk_->EdsCreateMemoryStreamFromPointer(buffer.data(), kStreamSize, stream.receive(*sdk_)),
                  EDS_ERR_OK);
        EXPECT_EQ(sdk_->EdsCreateEvfImageRef(stream.get(), image.receive(*sdk_)), EDS_ERR_OK);
        EdsError e = EDS_ERR_OBJECT_NOTREADY;
        for (; tries > 0 && e == EDS_ERR_OBJECT_NOTREADY; --tries) {
            e = sdk_->EdsDownloadEvfImage(camera_.get(), image.get());
            if (e == EDS_ERR_OBJECT_NOTREADY && GetParam().nextFrame)
                GetParam().nextFrame();
        }
        *out = buffer;
        return e;
    };
    QByteArray a, b;
    ASSERT_EQ(frame(&a), EDS_ERR_OK);
    ASSERT_EQ(frame(&b), EDS_ERR_OK);
    const QImage ia = QImage::fromData(a), ib = QImage::fromData(b);
    ASSERT_FALSE(ia.isNull());
    ASSERT_FALSE(ib.isNull());
    EXPECT_GE(ia.width(), 640);
    EXPECT_NE(ia, ib) << "the picture moves from frame to frame";

    // Without the host bit there are no frames.
    ASSERT_EQ(setUInt32(kEdsPropID_Evf_OutputDevice, device & ~kEdsEvfOutputDevice_PC), EDS_ERR_OK);
    EXPECT_NE(frame(&a, 1), EDS_ERR_OK);
}

TEST_P(EdsContract, RetainAndReleaseReportCounts) {
    EdsCameraListHandle list;
    ASSERT_EQ(sdk_->EdsGetCameraList(list.receive(*sdk_)), EDS_ERR_OK);
    const EdsUInt32 up = sdk_->EdsRetain(list.get());
    EXPECT_GE(up, 2u);
    EXPECT_EQ(sdk_->EdsRelease(list.get()), up - 1);
    if (GetParam().callerReferences) {
        EXPECT_EQ(GetParam().callerReferences(*sdk_), 1);
    }
    list.reset();
    if (GetParam().callerReferences) {
        EXPECT_EQ(GetParam().callerReferences(*sdk_), 0);
    }
}

} // namespace brix::eds::contract
