#include "SimulatorImages.h"

#include <QBuffer>
#include <QImage>
#include <QImageWriter>

#include <algorithm>
#include <array>
#include <cstring>

namespace brix::eds::sim {

namespace {

// 5x7 glyphs, one byte per row, bit 4 the leftmost column.
struct Glyph {
    char c;
    std::array<uint8_t, 7> rows;
};

constexpr Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}}, {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}}, {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}}, {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}}, {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}}, {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}},
    {'/', {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'#', {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}}, {'_', {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1F}},
    {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}}, {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}},
};

const Glyph *glyphFor(QChar qc) {
    const char c = qc.toUpper().toLatin1();
    for (const Glyph &g : kFont)
        if (g.c == c)
            return &g;
    return nullptr; // blank
}

struct Rgb {
    uint8_t r, g, b;
};

void fillRect(QImage &img, int x0, int y0, int w, int h, Rgb c) {
    const int x1 = std::min(img.width(), x0 + w), y1 = std::min(img.height(), y0 + h);
    x0 = std::max(0, x0);
    y0 = std::max(0, y0);
    for (int y = y0; y < y1; ++y) {
        uchar *line = img.scanLine(y);
        for (int x = x0; x < x1; ++x) {
            line[3 * x] = c.r;
            line[3 * x + 1] = c.g;
            line[3 * x + 2] = c.b;
        }
    }
}

// Draws text with each font pixel a `scale`-sized square; returns the width drawn.
int drawText(QImage &img, int x, int y, const QString &text, int scale, Rgb colour) {
    const int start = x;
    for (QChar ch : text) {
        if (const Glyph *g = glyphFor(ch)) {
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->rows[row] & (0x10 >> col))
                        fillRect(img, x + col * scale, y + row * scale, scale, scale, colour);
        }
        x += 6 * scale;
    }
    return x - start;
}

int textWidth(const QString &text, int scale) {
    return int(text.size()) * 6 * scale;
}

QByteArray encodeJpeg(const QImage &img, int quality) {
    QByteArray out;
    QBuffer buffer(&out);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpeg");
    writer.setQuality(quality);
    if (!writer.write(img))
        return {};
    return out;
}

void putLE16(QByteArray &b, int at, uint16_t v) {
    b[at] = char(v & 0xFF);
    b[at + 1] = char(v >> 8);
}
void putLE32(QByteArray &b, int at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + i] = char((v >> (8 * i)) & 0xFF);
}

} // namespace

QByteArray renderShotJpeg(unsigned shotNumber, const QDateTime &when, const QString &model,
                          const QString &fileName) {
    QImage img(kShotWidth, kShotHeight, QImage::Format_RGB888);
    // A gradient whose tint changes from shot to shot.
    const int tint = int((shotNumber * 47) % 256);
    for (int y = 0; y < kShotHeight; ++y) {
        uchar *line = img.scanLine(y);
        for (int x = 0; x < kShotWidth; ++x) {
            line[3 * x] = uchar((x * 255 / kShotWidth + tint) / 2);
            line[3 * x + 1] = uchar((y * 255 / kShotHeight) / 2 + 40);
            line[3 * x + 2] = uchar(255 - tint / 2 - (x + y) * 64 / (kShotWidth + kShotHeight));
        }
    }
    // Colour bars along the bottom, so the picture has real detail to compress.
    const Rgb bars[] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                        {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};
    const int barWidth = kShotWidth / 8;
    for (int i = 0; i < 8; ++i)
        fillRect(img, i * barWidth, kShotHeight - 160, barWidth, 160, bars[i]);

    const Rgb white{255, 255, 255}, black{0, 0, 0};
    const QString title = QStringLiteral("SHOT #%1").arg(shotNumber, 4, 10, QLatin1Char('0'));
    const QString time = when.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    const int titleScale = 24, timeScale = 8, smallScale = 5;
    int x = (kShotWidth - textWidth(title, titleScale)) / 2;
    fillRect(img, x - 30, 120, textWidth(title, titleScale) + 60, 7 * titleScale + 60, black);
    drawText(img, x, 150, title, titleScale, white);
    x = (kShotWidth - textWidth(time, timeScale)) / 2;
    drawText(img, x, 430, time, timeScale, white);
    x = (kShotWidth - textWidth(model, smallScale)) / 2;
    drawText(img, x, 560, model, smallScale, white);
    x = (kShotWidth - textWidth(fileName, smallScale)) / 2;
    drawText(img, x, 640, fileName, smallScale, white);
    return encodeJpeg(img, 90);
}

QByteArray renderLiveViewJpeg(uint64_t frameIndex, const QString &model) {
    QImage img(kLiveViewWidth, kLiveViewHeight, QImage::Format_RGB888);
    const int shift = int((frameIndex * 8) % 64);
    for (int y = 0; y < kLiveViewHeight; ++y) {
        uchar *line = img.scanLine(y);
        for (int x = 0; x < kLiveViewWidth; ++x) {
            const bool stripe = ((x + y + shift) / 32) % 2 == 0;
            line[3 * x] = stripe ? 200 : 60;
            line[3 * x + 1] = uchar(y * 200 / kLiveViewHeight + 20);
            line[3 * x + 2] = stripe ? 80 : 180;
        }
    }
    // A square that travels across the frame.
    const int travel = kLiveViewWidth - 120;
    const int pos = int((frameIndex * 16) % uint64_t(2 * travel));
    const int sx = pos < travel ? pos : 2 * travel - pos;
    fillRect(img, sx, kLiveViewHeight / 2 - 60, 120, 120, {250, 250, 60});
    const Rgb white{255, 255, 255};
    drawText(img, 24, 24, QStringLiteral("LIVE VIEW %1").arg(frameIndex), 5, white);
    drawText(img, 24, kLiveViewHeight - 60, model, 4, white);
    return encodeJpeg(img, 75);
}

QByteArray padJpeg(const QByteArray &jpeg, uint64_t bytes) {
    const uint64_t natural = uint64_t(jpeg.size());
    constexpr uint64_t kMaxSegment = 4 + 65533; // marker, length, payload
    if (bytes <= natural + 3 || jpeg.size() < 4 || uchar(jpeg[0]) != 0xFF || uchar(jpeg[1]) != 0xD8)
        return jpeg;
    // After the first segment (JFIF's APP0 must stay first), else right after SOI.
    qsizetype at = 2;
    if (jpeg.size() >= 6 && uchar(jpeg[2]) == 0xFF && (uchar(jpeg[3]) & 0xF0) == 0xE0)
        at = 4 + ((uchar(jpeg[4]) << 8) | uchar(jpeg[5]));
    if (at > jpeg.size())
        at = 2;
    const uint64_t extra = bytes - natural;
    const uint64_t segments = (extra + kMaxSegment - 1) / kMaxSegment;
    QByteArray out;
    out.reserve(qsizetype(bytes));
    out.append(jpeg.constData(), at);
    static const char kFillerText[] = "BrixCanonCapture simulated camera padding. ";
    QByteArray filler(qsizetype(kMaxSegment), '\0');
    for (qsizetype k = 0; k < filler.size(); ++k)
        filler[k] = kFillerText[k % (sizeof(kFillerText) - 1)];
    uint64_t left = extra;
    for (uint64_t i = 0; i < segments; ++i) {
        const uint64_t size = left / (segments - i); // even split, each at least 4
        left -= size;
        const uint64_t payload = size - 4;
        // APP15: no reader keeps it, as none keeps a real body's maker data it
        // does not know; a comment segment would be read as the image's text.
        out.append(char(0xFF));
        out.append(char(0xEF));
        out.append(char(((payload + 2) >> 8) & 0xFF));
        out.append(char((payload + 2) & 0xFF));
        out.append(filler.constData(), qsizetype(payload));
    }
    out.append(jpeg.constData() + at, jpeg.size() - at);
    return out;
}

QByteArray makeRawFile(const QByteArray &previewJpeg, uint64_t bytes, const QString &model) {
    constexpr int kEntries = 7;
    constexpr int kIfd = 0x10;
    constexpr int kIfdSize = 2 + kEntries * 12 + 4;
    const QByteArray make = QByteArrayLiteral("Canon") + '\0';
    const QByteArray modelBytes = model.toUtf8() + '\0';
    const int makeAt = kIfd + kIfdSize;
    const int modelAt = makeAt + int(make.size());
    const int previewAt = (modelAt + int(modelBytes.size()) + 3) & ~3;
    constexpr uint64_t kSensorData = 2 * 1024 * 1024;
    const uint64_t natural = uint64_t(previewAt) + uint64_t(previewJpeg.size()) + kSensorData;
    const uint64_t total = std::max(bytes, natural);

    QByteArray out(qsizetype(total), '\0');
    out[0] = 'I';
    out[1] = 'I';
    putLE16(out, 2, 42);
    putLE32(out, 4, kIfd);
    out[8] = 'C';
    out[9] = 'R';
    out[10] = 2;
    out[11] = 0;
    putLE16(out, kIfd, kEntries);
    struct Entry {
        uint16_t tag, type;
        uint32_t count, value;
    };
    const Entry entries[kEntries] = {
        {0x0100, 4, 1, uint32_t(kShotWidth)},
        {0x0101, 4, 1, uint32_t(kShotHeight)},
        {0x0103, 3, 1, 6},
        {0x010F, 2, uint32_t(make.size()), uint32_t(makeAt)},
        {0x0110, 2, uint32_t(modelBytes.size()), uint32_t(modelAt)},
        {0x0111, 4, 1, uint32_t(previewAt)},
        {0x0117, 4, 1, uint32_t(previewJpeg.size())},
    };
    for (int i = 0; i < kEntries; ++i) {
        const int at = kIfd + 2 + i * 12;
        putLE16(out, at, entries[i].tag);
        putLE16(out, at + 2, entries[i].type);
        putLE32(out, at + 4, entries[i].count);
        putLE32(out, at + 8, entries[i].value);
    }
    std::memcpy(out.data() + makeAt, make.constData(), size_t(make.size()));
    std::memcpy(out.data() + modelAt, modelBytes.constData(), size_t(modelBytes.size()));
    std::memcpy(out.data() + previewAt, previewJpeg.constData(), size_t(previewJpeg.size()));
    // Noise-like sensor data; a fixed generator keeps files reproducible.
    uint32_t state = 0x2545F491u;
    char *data = out.data();
    for (qsizetype i = previewAt + previewJpeg.size(); i < out.size(); ++i) {
        state = state * 1664525u + 1013904223u;
        data[i] = char(state >> 24);
    }
    // Raw files end in sensor data, not in an end-of-image marker.
    out[out.size() - 2] = 0;
    out[out.size() - 1] = 0;
    return out;
}

qsizetype shotStampOffset(const QByteArray &shot, qsizetype length) {
    const auto byte = [&](qsizetype i) { return uint32_t(uchar(shot[i])); };
    if (shot.startsWith("\xFF\xD8")) {
        // Walk the application segments that padJpeg puts before the image data.
        qsizetype at = 2;
        while (at + 4 <= shot.size() && byte(at) == 0xFF && (byte(at + 1) & 0xF0) == 0xE0) {
            const qsizetype segment = qsizetype((byte(at + 2) << 8) | byte(at + 3));
            if (byte(at + 1) == 0xEF && segment - 2 >= length && at + 2 + segment <= shot.size())
                return at + 4;
            at += 2 + segment;
        }
        return -1;
    }
    if (shot.startsWith(QByteArray("II*\0", 4)) && shot.size() >= 0x10 + 2) {
        // The sensor data follows the preview that the IFD points at.
        const auto le = [&](qsizetype i, int n) {
            uint32_t v = 0;
            for (int k = n - 1; k >= 0; --k)
                v = (v << 8) | byte(i + k);
            return v;
        };
        const qsizetype ifd = qsizetype(le(4, 4));
        if (ifd < 8 || ifd + 2 > shot.size())
            return -1;
        const uint32_t entries = le(ifd, 2);
        if (ifd + 2 + qsizetype(entries) * 12 > shot.size())
            return -1;
        uint32_t previewAt = 0, previewLength = 0;
        for (uint32_t i = 0; i < entries; ++i) {
            const qsizetype e = ifd + 2 + qsizetype(i) * 12;
            if (le(e, 2) == 0x0111)
                previewAt = le(e + 8, 4);
            else if (le(e, 2) == 0x0117)
                previewLength = le(e + 8, 4);
        }
        const qsizetype sensor = qsizetype(previewAt) + qsizetype(previewLength);
        return previewAt && sensor + length <= shot.size() ? sensor : -1;
    }
    return -1;
}

} // namespace brix::eds::sim
