// The pictures of the simulated camera: shots rendered as real JPEG files
// (optionally padded to a chosen size), RAW-like CR2 files, and live-view
// frames with a moving pattern. Drawn pixel by pixel with a built-in bitmap
// font, so no font system or GUI application object is needed.
//
// Threads: pure functions, callable from any thread. Results are owned by the
// caller.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <cstdint>

namespace brix::eds::sim {

inline constexpr int kShotWidth = 1620;
inline constexpr int kShotHeight = 1080;
inline constexpr int kLiveViewWidth = 1024;
inline constexpr int kLiveViewHeight = 680;

// A JPEG showing the shot number, the time and the camera's model and file name.
QByteArray renderShotJpeg(unsigned shotNumber, const QDateTime &when, const QString &model,
                          const QString &fileName);
// One live-view frame; the pattern moves with the frame index.
QByteArray renderLiveViewJpeg(uint64_t frameIndex, const QString &model);
// The JPEG grown to exactly `bytes` with comment segments after its first
// segment, so that it still decodes and still ends in FF D9. A size below the
// JPEG's own returns it unchanged.
QByteArray padJpeg(const QByteArray &jpeg, uint64_t bytes);
// A TIFF-based file in the manner of a CR2: header, one IFD describing the
// embedded JPEG preview, the preview, then sensor-like data up to `bytes`
// (at least the natural size). Never ends in FF D9.
QByteArray makeRawFile(const QByteArray &previewJpeg, uint64_t bytes, const QString &model);
// Where `length` bytes can be overwritten in a shot made by padJpeg or
// makeRawFile without changing what it shows: the first padding segment's
// payload of a JPEG, the start of a CR2's sensor data. -1 when there is no
// such room (a JPEG at its natural size).
qsizetype shotStampOffset(const QByteArray &shot, qsizetype length);

} // namespace brix::eds::sim
