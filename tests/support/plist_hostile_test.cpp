#include "LogCapture.h"
#include "PropertyList.h"

#include <QFile>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using namespace brix;

namespace {

void putBigEndian(QByteArray &out, uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        out.append(char((v >> (8 * i)) & 0xFF));
}

QByteArray ref(uint64_t index, int refSize = 2) {
    QByteArray r;
    putBigEndian(r, index, refSize);
    return r;
}

// Lays out a binary property list from raw objects. `patch` may change the
// trailer fields before they are written.
struct Trailer {
    int offsetSize = 4;
    int refSize = 2;
    uint64_t numObjects = 0;
    uint64_t root = 0;
    uint64_t tableOffset = 0;
};
QByteArray binary(const std::vector<QByteArray> &objects, const std::function<void(Trailer &)> &patch = {}) {
    QByteArray out("bplist00");
    std::vector<uint64_t> offsets;
    for (const QByteArray &o : objects) {
        offsets.push_back(uint64_t(out.size()));
        out += o;
    }
    Trailer t;
    t.numObjects = objects.size();
    t.tableOffset = uint64_t(out.size());
    for (uint64_t off : offsets)
        putBigEndian(out, off, t.offsetSize);
    if (patch)
        patch(t);
    out += QByteArray(6, '\0');
    out.append(char(t.offsetSize));
    out.append(char(t.refSize));
    putBigEndian(out, t.numObjects, 8);
    putBigEndian(out, t.root, 8);
    putBigEndian(out, t.tableOffset, 8);
    return out;
}

QString read(const QByteArray &data) {
    QString error;
    const QVariant v = PropertyList::propertyListFromData(data, Mutability::Immutable, &error);
    if (v.isValid())
        return QStringLiteral("VALID");
    EXPECT_FALSE(error.isEmpty());
    return error;
}

QByteArray fixture() {
    QFile f(QStringLiteral(BRIX_TEST_SOURCE_DIR "/fixtures/other_producer.bplist"));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

TEST(PlistHostile, TheHandBuiltLayoutIsItselfValid) {
    // Guards the tests below: a well-formed list in this layout reads.
    const QByteArray ok = binary({QByteArray("\xA2", 1) + ref(1) + ref(2), "\x51x", "\x10\x05"});
    QString error;
    EXPECT_EQ(PropertyList::propertyListFromData(ok, Mutability::Immutable, &error),
              QVariant(QVariantList{"x", qlonglong(5)}))
        << error.toStdString();
}

TEST(PlistHostile, TruncatedDocumentsAreRefused) {
    const QByteArray bin = fixture();
    ASSERT_GT(bin.size(), 100);
    for (qsizetype n = 0; n < bin.size(); ++n)
        EXPECT_NE(read(bin.left(n)), "VALID") << n;

    const QByteArray xml = PropertyList::dataFromPropertyList(
        PropertyList::propertyListFromData(bin, Mutability::Immutable), PlistFormat::Xml);
    const qsizetype rootEnd = xml.lastIndexOf("</dict>");
    for (qsizetype n = 0; n < rootEnd; ++n)
        EXPECT_NE(read(xml.left(n)), "VALID") << n;
}

TEST(PlistHostile, TenThousandLevelsOfNestingAreRefusedInBothFormats) {
    const int levels = 10000;
    const QByteArray arrays = "<plist>" + QByteArray("<array>").repeated(levels) +
                              QByteArray("</array>").repeated(levels) + "</plist>";
    EXPECT_TRUE(read(arrays).contains("nested deeper")) << read(arrays).toStdString();
    const QByteArray dicts = "<plist>" + QByteArray("<dict><key>k</key>").repeated(levels) + "<true/>" +
                             QByteArray("</dict>").repeated(levels) + "</plist>";
    EXPECT_TRUE(read(dicts).contains("nested deeper"));

    std::vector<QByteArray> objects;
    for (int i = 0; i < levels - 1; ++i)
        objects.push_back(QByteArray("\xA1", 1) + ref(uint64_t(i + 1)));
    objects.push_back(QByteArray("\xA0", 1));
    EXPECT_TRUE(read(binary(objects)).contains("nested deeper"));

    // Just inside the limit still reads.
    const int ok = PropertyList::kMaxDepth;
    const QByteArray fine =
        "<plist>" + QByteArray("<array>").repeated(ok) + QByteArray("</array>").repeated(ok) + "</plist>";
    EXPECT_EQ(read(fine), "VALID");
}

TEST(PlistHostile, CyclesAndSharedObjectBombsAreRefused) {
    EXPECT_TRUE(read(binary({QByteArray("\xA1", 1) + ref(0)})).contains("contains itself"));
    EXPECT_TRUE(
        read(binary({QByteArray("\xA1", 1) + ref(1), QByteArray("\xA1", 1) + ref(0)})).contains("itself"));

    // 30 arrays each holding the next one 16 times: 16^29 leaves once copied out.
    std::vector<QByteArray> objects;
    for (int i = 0; i < 30; ++i) {
        QByteArray a("\xAF\x10\x10", 3);
        for (int k = 0; k < 16; ++k)
            a += ref(uint64_t(i + 1));
        objects.push_back(a);
    }
    objects.push_back("\x51x");
    EXPECT_TRUE(read(binary(objects)).contains("expands beyond"));
}

TEST(PlistHostile, ImpossibleCountsAndOffsetsAreRefused) {
    const std::vector<QByteArray> one{QByteArray("\xA1", 1) + ref(1), "\x51x"};
    const QList<std::function<void(Trailer &)>> patches{
        [](Trailer &t) { t.numObjects = uint64_t(1) << 62; },
        [](Trailer &t) { t.numObjects = 0; },
        [](Trailer &t) { t.root = 7; },
        [](Trailer &t) { t.tableOffset = ~uint64_t(0) - 3; },
        [](Trailer &t) { t.tableOffset = 2; },
        [](Trailer &t) { t.offsetSize = 0; },
        [](Trailer &t) { t.refSize = 9; },
    };
    for (const auto &patch : patches)
        EXPECT_NE(read(binary(one, patch)), "VALID");

    // Containers and strings whose counts run past the end of the data.
    const QList<QByteArray> liars{
        QByteArray("\xAF\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10) + ref(1),
        QByteArray("\xDF\x13\x40\x00\x00\x00\x00\x00\x00\x00", 10) + ref(1) + ref(1),
        QByteArray("\x5F\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10) + "abc",
        QByteArray("\x6F\x12\x7f\xff\xff\xff", 6) + "ab",
        QByteArray("\x4F\x14", 2) + QByteArray(16, '\xff'),
        QByteArray("\xA5", 1) + ref(1),
        QByteArray("\x1F", 1),
        QByteArray("\x33\x7f\xf0\x00\x00\x00\x00\x00\x00", 9), // a date at infinity
        QByteArray("\x33\x41\xe0\x00\x00\x00\x00\x00\x00", 9), // 2^31 s: beyond the date range
        QByteArray("\x70", 1),                                 // no such marker
        QByteArray("\xA1", 1) + ref(5),                        // a reference to nothing
    };
    for (const QByteArray &liar : liars)
        EXPECT_NE(read(binary({liar, "\x51x"})), "VALID") << liar.toHex().toStdString();
}

TEST(PlistHostile, InvalidUtf8AndWrongRootsAreNilWithALogLine) {
    test::LogCapture log;
    const QList<QByteArray> bad{
        "<plist><string>\xff\xfe</string></plist>",
        "<plist><dict><key>\xc3\x28</key><true/></dict></plist>",
        "<plist><string>\xed\xa0\x80</string></plist>", // an encoded surrogate
        binary({"\x52\xff\xfe"}),                       // an "ASCII" string that is not
        binary({QByteArray("\x61\xd8\x00", 3)}),        // a lone UTF-16 surrogate
    };
    for (const QByteArray &b : bad) {
        EXPECT_NE(read(b), "VALID") << b.toHex().toStdString();
        EXPECT_FALSE(PropertyList::fromBase64EncodedString(PropertyList::encodedBase64(b)).has_value());
    }
    // Roots of every other type.
    for (const QVariant &root :
         {QVariant("s"), QVariant(1), QVariant(true), QVariant(QByteArray("d")), QVariant(QVariantList{})}) {
        const QString text =
            PropertyList::encodedBase64(PropertyList::dataFromPropertyList(root, PlistFormat::Binary));
        EXPECT_FALSE(PropertyList::fromBase64EncodedString(text).has_value());
    }
    const QStringList lines = log.messages();
    ASSERT_EQ(lines.size(), bad.size() + 5) << lines.join('\n').toStdString();
    for (qsizetype i = 0; i < bad.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(
            "Error inside +[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]"));
    for (qsizetype i = bad.size(); i < lines.size(); ++i)
        EXPECT_TRUE(lines[i].contains("expected dictionary but found"));
}

} // namespace
