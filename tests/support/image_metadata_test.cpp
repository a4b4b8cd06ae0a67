#include "ImageFile.h"
#include "LogCapture.h"
#include "PropertyList.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>

using namespace brix;

namespace {

// A small simulator shot carrying EXIF, IPTC and XMP (dc:title) written by exiv2.
QByteArray fixture() {
    return test::readFile(QStringLiteral(BRIX_TEST_SOURCE_DIR "/fixtures/shot.jpg"));
}

QString place(const QString &name, const QByteArray &bytes) {
    const QString path = test::testHome() + '/' + name;
    EXPECT_TRUE(test::writeFile(path, bytes));
    return path;
}

// What the exiv2 tool sees in the file, one "key type count value" line each.
QString exiv2Print(const QString &path) {
    const test::Run exiv2 = test::run("exiv2", {"-pa", path});
    EXPECT_GE(exiv2.code, 0) << "exiv2 tool missing?";
    return exiv2.out;
}

// The compressed pixels: everything from the first start-of-scan marker on.
QByteArray scanData(const QByteArray &jpeg) {
    return jpeg.mid(jpeg.indexOf("\xFF\xDA"));
}

QByteArray withApp1Xmp(const QByteArray &jpeg, const QByteArray &packet, int declaredLength = -1) {
    const QByteArray body = QByteArray("http://ns.adobe.com/xap/1.0/", 29) + packet;
    const int length = declaredLength >= 0 ? declaredLength : int(body.size()) + 2;
    QByteArray segment("\xFF\xE1");
    segment.append(char(length >> 8)).append(char(length & 0xFF)).append(body);
    return jpeg.left(2) + segment + jpeg.mid(2);
}

} // namespace

// The tag written twice keeps the newer value only; EXIF, IPTC, the other XMP,
// the pixels and the file's times (to the nanosecond) all survive, as the
// exiv2 tool sees the file.
TEST(ImageMetadata, TagRewriteKeepsEverythingElse) {
    const QByteArray original = fixture();
    const QString path = place("shot.jpg", original);
    const QUrl url = QUrl::fromLocalFile(path);
    const struct timespec times[2] = {{1700000000, 987654321}, {1600000000, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);

    ASSERT_TRUE(ImageFile::setBrixXMP(url, {{"shot", 1}, {"event", "gala"}}));
    const QVariantMap newer{{"shot", 2}, {"printed", true}};
    ASSERT_TRUE(ImageFile::setBrixXMP(url, newer));
    struct stat after {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &after), 0);
    EXPECT_EQ(std::pair(after.st_atim.tv_sec, after.st_atim.tv_nsec),
              std::pair(times[0].tv_sec, times[0].tv_nsec));
    EXPECT_EQ(std::pair(after.st_mtim.tv_sec, after.st_mtim.tv_nsec),
              std::pair(times[1].tv_sec, times[1].tv_nsec));
    EXPECT_EQ(ImageFile::brixXMP(url), newer);

    const QString seen = exiv2Print(path);
    EXPECT_EQ(seen.count("Xmp.brix.image_attr"), 1) << seen.toStdString();
    EXPECT_TRUE(seen.contains(PropertyList::asBase64EncodedString(newer)));
    EXPECT_TRUE(seen.contains(QRegularExpression("Exif.Image.Model +Ascii +\\d+ +Canon EOS 5D Mark IV")));
    EXPECT_TRUE(
        seen.contains(QRegularExpression("Xmp.dc.title +LangAlt +1 +lang=\"x-default\" Opening night")));
    EXPECT_TRUE(seen.contains(QRegularExpression("Iptc.Application2.Caption +String +\\d+ +Stage left")));
    EXPECT_EQ(scanData(test::readFile(path)), scanData(original));

    const auto props = ImageFile::imageProperties(url);
    ASSERT_TRUE(props);
    EXPECT_EQ(props->value("PixelWidth").toInt(), 324);
    EXPECT_EQ(props->value("{Exif}").toMap().value("Exif.Image.Make"), "Canon");

    // Saved elsewhere under a name without an image extension: ".jpg" is added
    // and the source stays as it was.
    const QByteArray tagged = test::readFile(path);
    ASSERT_TRUE(ImageFile::changeImageProperties(url, {{"{Exif}", QVariantMap{{"Exif.Image.Artist", "Ana"}}}},
                                                 QUrl::fromLocalFile(test::testHome() + "/copy")));
    EXPECT_EQ(test::readFile(path), tagged);
    EXPECT_TRUE(exiv2Print(test::testHome() + "/copy.jpg").contains("Exif.Image.Artist"));
}

// Files that lie about what they are: one log line each, the file untouched.
TEST(ImageMetadata, LyingFilesAreLeftAlone) {
    const QByteArray jpeg = fixture();
    QByteArray huge = "<x:xmpmeta xmlns:x='adobe:ns:meta/'>";
    huge += QByteArray(60000, 'A');
    const struct {
        const char *name;
        QByteArray bytes;
        const char *line;
    } cases[] = {
        {"text.jpg", "just some words, not a picture\n", "is not recognized as an image type"},
        {"truncated.jpg", jpeg.left(jpeg.size() * 2 / 3), "no end-of-image marker"},
        {"malformed.jpg", withApp1Xmp(jpeg, "<x:xmpmeta><rdf:RDF><unclosed"), "the XMP packet is malformed"},
        {"huge.jpg", withApp1Xmp(jpeg, huge), "the XMP packet is malformed"},
        {"overlong.jpg", withApp1Xmp(jpeg, "<x/>", 0xFFFF).left(4000), "Failed to copy image source at"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QString path = place(c.name, c.bytes);
        test::LogCapture log;
        EXPECT_FALSE(ImageFile::setBrixXMP(QUrl::fromLocalFile(path), {{"shot", 1}}));
        const QStringList lines = log.messages();
        ASSERT_EQ(lines.size(), 1) << lines.join('\n').toStdString();
        EXPECT_TRUE(lines.first().contains(c.line)) << lines.first().toStdString();
        EXPECT_EQ(test::readFile(path), c.bytes);
    }
}
