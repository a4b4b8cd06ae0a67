// Property lists: every value type through both formats and back, the text,
// base64 and JSON conversions, and hostile documents that must be refused.
#include "LogCapture.h"
#include "PropertyList.h"
#include "TestSupport.h"

#include <QDateTime>
#include <QSize>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

using namespace brix;

namespace {

// A binary list written by another producer.
QByteArray fixture() {
    return test::readFile(QStringLiteral(BRIX_TEST_SOURCE_DIR "/fixtures/other_producer.bplist"));
}

QDateTime utc(qint64 msecs) {
    return QDateTime::fromMSecsSinceEpoch(msecs, QTimeZone::utc());
}

QVariant roundTrip(const QVariant &value, PlistFormat format) {
    QString error;
    const QByteArray bytes = PropertyList::dataFromPropertyList(value, format, &error);
    EXPECT_FALSE(bytes.isNull()) << error.toStdString();
    PlistFormat seen{};
    const QVariant back = PropertyList::propertyListFromData(bytes, Mutability::Immutable, &error, &seen);
    EXPECT_TRUE(back.isValid()) << error.toStdString();
    EXPECT_EQ(seen, format);
    return back;
}

// Every value type, at its edges, in one nested document.
QVariantMap everything() {
    QVariantList deep{"bottom"};
    for (int i = 0; i < 100; ++i)
        deep = QVariantList{deep};
    return QVariantMap{
        {"string", "plain"},
        {"unicode", QString::fromUtf8("Grüße ✓ 写真 \xF0\x9F\x93\xB7")},
        {"markup", "<key>&amp;</key> \"quoted\" 'single'"},
        {"empty string", ""},
        {"true", true},
        {"false", false},
        {"zero", qlonglong(0)},
        {"int min", std::numeric_limits<qlonglong>::min()},
        {"int max", std::numeric_limits<qlonglong>::max()},
        {"negative", qlonglong(-1)},
        {"above 32 bits", qlonglong(1) << 40},
        {"real", 0.1},
        {"huge real", 1.7976931348623157e308},
        {"tiny real", -2.5e-300},
        {"whole real", 3.0},
        {"data", QByteArray("\x00\x01\x02\xff\x7f", 5)},
        {"empty data", QByteArray("")},
        {"empty array", QVariantList{}},
        {"empty dict", QVariantMap{}},
        {"mixed", QVariantList{1, "two", 3.5, QVariantMap{{"k", QVariantList{true}}}, QByteArray("d")}},
        {"deep", deep},
        {"", "empty key"},
    };
}

TEST(PlistRoundTrip, EveryValueTypeKeepsTypeAndValueInBothFormats) {
    const QVariantMap all = everything();
    for (PlistFormat format : {PlistFormat::Xml, PlistFormat::Binary}) {
        SCOPED_TRACE(int(format));
        const QVariantMap back = roundTrip(all, format).toMap();
        EXPECT_EQ(back, all);
        for (const QString &key : all.keys()) {
            const int want =
                all.value(key).typeId() == QMetaType::Int ? QMetaType::LongLong : all.value(key).typeId();
            EXPECT_EQ(back.value(key).typeId(), want) << key.toStdString();
        }
        // Roots other than dictionaries.
        EXPECT_EQ(roundTrip("just text", format), QVariant("just text"));
        EXPECT_EQ(roundTrip(QVariantList{1, 2}, format), QVariant(QVariantList{1, 2}));
        EXPECT_EQ(roundTrip(QVariant(qlonglong(5)), format).typeId(), QMetaType::LongLong);
        EXPECT_EQ(roundTrip(QStringList{"a", "b"}, format), QVariant(QVariantList{"a", "b"}));
    }
}

TEST(PlistRoundTrip, DatesKeepTheSecondInXmlAndTheMillisecondInBinary) {
    const QList<QDateTime> dates{
        utc(1763700000123), // 2025, with milliseconds
        utc(978307200000),  // the format's own epoch
        utc(978307199500),  // half a second before it
        utc(-14182940000),  // 1969-07-20 20:17:40
        utc(-14182939250),  // and 750 ms later, before the epoch
        utc(3124137599999), // 2068-12-31, near the end of the range
    };
    for (const QDateTime &when : dates) {
        SCOPED_TRACE(when.toString(Qt::ISODateWithMs).toStdString());
        const QDateTime bin = roundTrip(when, PlistFormat::Binary).toDateTime();
        const QDateTime xml = roundTrip(when, PlistFormat::Xml).toDateTime();
        // Binary keeps milliseconds, except inside the last second before 2001.
        if (when.toMSecsSinceEpoch() < 978307200000 && when.toMSecsSinceEpoch() > 978307199000)
            EXPECT_EQ(bin.toSecsSinceEpoch(), when.toSecsSinceEpoch());
        else
            EXPECT_EQ(bin, when);
        // XML holds whole seconds: the second the date falls in.
        const qint64 ms = when.toMSecsSinceEpoch();
        const qint64 floorSec = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
        EXPECT_EQ(xml, utc(floorSec * 1000));
        EXPECT_EQ(xml.timeSpec(), Qt::UTC);
    }
    // Local-time dates are the same instant after the trip.
    const QDateTime local = QDateTime::fromSecsSinceEpoch(1700000000, QTimeZone("Europe/Berlin"));
    EXPECT_EQ(roundTrip(local, PlistFormat::Xml).toDateTime(), local);
}

TEST(PlistRoundTrip, ValuesThatCannotBeWrittenFailWithAReason) {
    struct Case {
        QVariant value;
        const char *why;
    };
    QVariantList tooDeep;
    for (int i = 0; i <= PropertyList::kMaxDepth; ++i)
        tooDeep = QVariantList{tooDeep};
    const QList<Case> cases{
        {QVariant(), "nil"},
        {QVariant::fromValue(QSize(1, 2)), "QSize"},
        {QVariantMap{{"k", QVariantList{QVariant()}}}, "nil"},
        {QVariant(std::numeric_limits<qulonglong>::max()), "64 signed bits"},
        {QDateTime(), "invalid date"},
        {utc(qint64(1) << 50), "date range"},
        {QString::fromUtf8("a\0b", 3), "NUL"},
        {tooDeep, "nested deeper"},
    };
    for (const Case &c : cases) {
        for (PlistFormat format : {PlistFormat::Xml, PlistFormat::Binary}) {
            QString error;
            EXPECT_TRUE(PropertyList::dataFromPropertyList(c.value, format, &error).isNull()) << c.why;
            EXPECT_TRUE(error.contains(c.why)) << error.toStdString();
        }
    }
    // Unsigned values that fit are fine.
    EXPECT_EQ(roundTrip(QVariant(qulonglong(1) << 62), PlistFormat::Binary).toLongLong(), qlonglong(1) << 62);
}

TEST(PlistRoundTrip, ReadsABinaryListWrittenByAnotherProducer) {
    QString error;
    PlistFormat format{};
    const QVariantMap m =
        PropertyList::propertyListFromData(fixture(), Mutability::Immutable, &error, &format).toMap();
    EXPECT_EQ(format, PlistFormat::Binary);
    QByteArray bytes;
    for (char i = 0; i < 20; ++i)
        bytes.append(i);
    const QVariantMap want{
        {"ascii", "hello"},
        {"unicode", QString::fromUtf8("Grüße ✓ 写真")}, // stored as UTF-16
        {"negative", -42},
        {"big", (qlonglong(1) << 62) + 7},
        {"small", 7},
        {"real", 3.14159265358979},
        {"yes", true},
        {"no", false},
        {"when", QDateTime(QDate(2024, 2, 29), QTime(12, 34, 56), QTimeZone::utc())},
        {"bytes", bytes},
        {"list", QVariantList{1, "two", QVariantList{3.5}, QVariantMap{}}},
        {"nested", QVariantMap{{"level1", QVariantMap{{"level2", QVariantMap{{"leaf", "x"}}}}}}},
        {"empty", ""},
    };
    EXPECT_EQ(m, want) << error.toStdString();
    EXPECT_EQ(m.value("yes").typeId(), QMetaType::Bool);
}

TEST(PlistRoundTrip, XmlWithAByteOrderMarkCommentsAndEntitiesReads) {
    const QByteArray xml = "\xEF\xBB\xBF\n<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                           "<plist version=\"1.0\"><!-- <array><array> -->\n"
                           "<dict><key>a&amp;b</key><string>&lt;x&gt;</string>"
                           "<key>n</key><integer>-17</integer><key>r</key><real>2.5</real>"
                           "<key>d</key><data>AAEC\n/w==</data><key>t</key><true/></dict></plist>";
    QString error;
    const QVariantMap m = PropertyList::propertyListFromData(xml, Mutability::Immutable, &error).toMap();
    EXPECT_EQ(m, (QVariantMap{{"a&b", "<x>"},
                              {"n", qlonglong(-17)},
                              {"r", 2.5},
                              {"d", QByteArray("\x00\x01\x02\xff", 4)},
                              {"t", true}}))
        << error.toStdString();
}

const char *kStringWithName = "Error inside +[NSString(OKVA_plist) stringWithPlistObject:]: ";
const char *kPlistObjectName = "Error inside -[NSString(OKVA_plist) plistObjectWithMutability:]: ";
const char *kFromBase64Inside =
    "Error inside +[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]: ";
const char *kFromBase64Expected = "Error in +[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]: "
                                  "expected dictionary but found ";
const char *kJsonTrace = "-[NSString(OKVA_plist) asJSONObjectValueForKey:] -> jsonInfo: ";

QString jsonUrl(const QByteArray &json) {
    return "data:application/json;base64," + QString::fromLatin1(json.toBase64());
}

TEST(PlistConversions, XmlTextRoundTripsAndFailuresLogTheirOperation) {
    const QVariantMap attrs{{"rating", 4},
                            {"tags", QVariantList{"a", "b"}},
                            {"when", QDateTime::fromSecsSinceEpoch(1700000000, QTimeZone::utc())}};
    const QString xml = PropertyList::stringWithPlistObject(attrs);
    ASSERT_FALSE(xml.isNull());
    EXPECT_TRUE(xml.startsWith("<?xml"));
    EXPECT_EQ(PropertyList::plistObject(xml), QVariant(attrs));
    EXPECT_EQ(PropertyList::plistObjectWithMutability(xml, Mutability::MutableContainersAndLeaves),
              QVariant(attrs));

    test::LogCapture log;
    EXPECT_TRUE(PropertyList::stringWithPlistObject(QVariant::fromValue(QSize(1, 1))).isNull());
    EXPECT_FALSE(PropertyList::plistObject("<plist><dict><key>a</key></plist>").isValid());
    EXPECT_FALSE(PropertyList::plistObject("").isValid());
    EXPECT_FALSE(PropertyList::plistObject("{ a = b; }").isValid());
    const QStringList lines = log.messages();
    ASSERT_EQ(lines.size(), 4) << lines.join('\n').toStdString();
    EXPECT_TRUE(lines[0].startsWith(kStringWithName)) << lines[0].toStdString();
    EXPECT_TRUE(lines[0].contains("QSize"));
    for (int i = 1; i < 4; ++i)
        EXPECT_TRUE(lines[i].startsWith(kPlistObjectName)) << lines[i].toStdString();
}

TEST(PlistConversions, Base64OfBinaryListsRoundTripsDespiteLineBreaksAndBlanks) {
    QVariantMap attrs{{"image_attr", QVariantMap{{"n", 7}, {"blob", QByteArray(300, '\x9c')}}}, {"s", "x"}};
    const QString text = PropertyList::asBase64EncodedString(attrs);
    ASSERT_FALSE(text.isEmpty());
    EXPECT_FALSE(text.contains('\n'));
    EXPECT_GT(text.size(), 76); // long enough that a line length would have split it
    EXPECT_TRUE(QByteArray::fromBase64(text.toLatin1()).startsWith("bplist00"));

    // Line breaks, blanks and stray characters are skipped.
    QString messy;
    for (qsizetype i = 0; i < text.size(); ++i)
        messy += text[i] + QString(i % 10 == 9 ? "\r\n  " : (i % 7 == 0 ? "*" : ""));
    EXPECT_EQ(PropertyList::fromBase64EncodedString(messy), attrs);
    EXPECT_EQ(PropertyList::fromBase64EncodedString(text, Mutability::MutableContainersAndLeaves), attrs);

    QString error;
    EXPECT_EQ(PropertyList::base64EncodedFromPropertyListWithError(attrs, &error), text);
    EXPECT_TRUE(PropertyList::encodedBase64(QByteArray()).isEmpty());
    EXPECT_FALSE(PropertyList::encodedBase64(QByteArray()).isNull());

    // Failures are nil, with one line each.
    EXPECT_TRUE(
        PropertyList::base64EncodedFromPropertyListWithError({{"k", QVariant::fromValue(QSize())}}, &error)
            .isNull());
    EXPECT_TRUE(error.contains("base64EncodedFromPropertyListWithError")) << error.toStdString();
    EXPECT_TRUE(PropertyList::asBase64EncodedString({{"k", QVariant()}}).isNull());

    test::LogCapture log;
    // An array root.
    const QString arrayText = PropertyList::encodedBase64(
        PropertyList::dataFromPropertyList(QVariantList{1, 2}, PlistFormat::Binary));
    EXPECT_FALSE(PropertyList::fromBase64EncodedString(arrayText).has_value());
    // Not base64 at all, base64 of something else, nothing.
    EXPECT_FALSE(PropertyList::fromBase64EncodedString("abc").has_value());
    EXPECT_FALSE(PropertyList::fromBase64EncodedString(QString::fromLatin1(QByteArray("hello").toBase64())));
    EXPECT_FALSE(PropertyList::fromBase64EncodedString(""));
    const QStringList lines = log.messages();
    ASSERT_EQ(lines.size(), 4) << lines.join('\n').toStdString();
    EXPECT_EQ(lines[0].toStdString(), std::string(kFromBase64Expected) + "(\n    1,\n    2\n)");
    for (int i = 1; i < 4; ++i)
        EXPECT_TRUE(lines[i].startsWith(kFromBase64Inside)) << lines[i].toStdString();
}

TEST(PlistConversions, JsonDataUrlsDecodeWhatFollowsTheLastPrefix) {
    const QString first = jsonUrl(R"({"id": 1})");
    const QString second = jsonUrl(R"({"id": 2, "name": "shot", "list": [1, 2.5]})");
    const QVariantMap m = PropertyList::asJSONObjectFromBase64Encoding(first + second).toMap();
    EXPECT_EQ(m.value("id").toInt(), 2);
    EXPECT_EQ(m.value("list"), QVariant(QVariantList{1, 2.5}));
    // Without the prefix, the whole text is the base64.
    EXPECT_EQ(
        PropertyList::asJSONObjectFromBase64Encoding(QString::fromLatin1(QByteArray("[true]").toBase64())),
        QVariant(QVariantList{true}));

    test::LogCapture log;
    EXPECT_EQ(PropertyList::asJSONObjectValueForKey(second, "name"), QVariant("shot"));
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(second, "missing").isValid());
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(jsonUrl("[1, 2]"), "name").isValid());
    const QStringList traces = log.matching(kJsonTrace);
    ASSERT_EQ(traces.size(), 3);
    EXPECT_EQ(traces[0].toStdString(),
              std::string(kJsonTrace) +
                  "{\n    id = 2;\n    list = (\n        1,\n        2.5\n    );\n    name = shot;\n}");
    EXPECT_EQ(traces[2].toStdString(), std::string(kJsonTrace) + "(\n    1,\n    2\n)");

    // Broken JSON is nil, with an error line.
    test::LogCapture broken;
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding(jsonUrl("{\"a\": ")).isValid());
    EXPECT_FALSE(
        PropertyList::asJSONObjectFromBase64Encoding(jsonUrl("42")).isValid()); // not an object or array
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding("data:application/json;base64,@@@").isValid());
    QByteArray deep(3000, '[');
    deep += QByteArray(3000, ']');
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding(jsonUrl(deep)).isValid());
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(jsonUrl("nope"), "k").isValid());
    EXPECT_EQ(broken.matching("ERROR decoding ").size(), 5);
    EXPECT_EQ(broken.matching(QString(kJsonTrace) + "(null)").size(), 1);
}

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

TEST(PlistHostile, HostileDocumentsAreRefusedWithTheirReason) {
    // A well-formed list in the hand-built layout reads, and so does nesting just
    // inside the limit: the refusals below are the faults'.
    EXPECT_EQ(read(binary({QByteArray("\xA2", 1) + ref(1) + ref(2), "\x51x", "\x10\x05"})), "VALID");
    const int ok = PropertyList::kMaxDepth, levels = 10000;
    EXPECT_EQ(read("<plist>" + QByteArray("<array>").repeated(ok) + QByteArray("</array>").repeated(ok) +
                   "</plist>"),
              "VALID");
    // 10,000 arrays, each holding the next.
    std::vector<QByteArray> deep;
    for (int i = 0; i < levels - 1; ++i)
        deep.push_back(QByteArray("\xA1", 1) + ref(uint64_t(i + 1)));
    deep.push_back(QByteArray("\xA0", 1));
    // 30 arrays each holding the next one 16 times: 16^29 leaves once copied out.
    std::vector<QByteArray> bomb;
    for (int i = 0; i < 30; ++i) {
        QByteArray a("\xAF\x10\x10", 3);
        for (int k = 0; k < 16; ++k)
            a += ref(uint64_t(i + 1));
        bomb.push_back(a);
    }
    bomb.push_back("\x51x");
    // An array holding a string, with its trailer patched.
    const auto patched = [](const std::function<void(Trailer &)> &patch) {
        return binary({QByteArray("\xA1", 1) + ref(1), "\x51x"}, patch);
    };
    // An object whose count or value runs past the end of the data, next to a string.
    const auto liar = [](const QByteArray &object) { return binary({object, "\x51x"}); };
    const struct {
        QByteArray bytes;
        const char *why;
    } cases[] = {
        // One level past the limit, 10,000 levels, and 10,000 levels in binary.
        {"<plist>" + QByteArray("<array>").repeated(ok + 1) + QByteArray("</array>").repeated(ok + 1) +
             "</plist>",
         "nested deeper"},
        {"<plist>" + QByteArray("<dict><key>k</key>").repeated(levels) + "<true/>" +
             QByteArray("</dict>").repeated(levels) + "</plist>",
         "nested deeper"},
        {binary(deep), "nested deeper"},
        {"<plist><string>\xff\xfe</string></plist>", "string is not valid UTF-8"},
        {"<plist><dict><key>\xc3\x28</key><true/></dict></plist>", "key is not valid UTF-8"},
        {"<plist><string>\xed\xa0\x80</string></plist>", "string is not valid UTF-8"}, // an encoded surrogate
        {binary({"\x52\xff\xfe"}), "string is not valid UTF-8"}, // an "ASCII" string that is not
        {binary({QByteArray("\x61\xd8\x00", 3)}), "string is not valid UTF-16"}, // a lone UTF-16 surrogate
        {binary({QByteArray("\xA1", 1) + ref(0)}), "contains itself"},
        {binary({QByteArray("\xA1", 1) + ref(1), QByteArray("\xA1", 1) + ref(0)}), "contains itself"},
        {binary(bomb), "expands beyond"},
        {patched([](Trailer &t) { t.numObjects = uint64_t(1) << 62; }), "impossible object count"},
        {patched([](Trailer &t) { t.numObjects = 0; }), "impossible object count"},
        {patched([](Trailer &t) { t.root = 7; }), "root object is out of range"},
        {patched([](Trailer &t) { t.tableOffset = ~uint64_t(0) - 3; }), "offset table is out of range"},
        {patched([](Trailer &t) { t.tableOffset = 2; }), "offset table is out of range"},
        {patched([](Trailer &t) { t.offsetSize = 0; }), "invalid integer sizes"},
        {patched([](Trailer &t) { t.refSize = 9; }), "invalid integer sizes"},
        {liar(QByteArray("\xAF\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10) + ref(1)),
         "container count runs past"},
        {liar(QByteArray("\xDF\x13\x40\x00\x00\x00\x00\x00\x00\x00", 10) + ref(1) + ref(1)),
         "container count runs past"},
        {liar(QByteArray("\xA5", 1) + ref(1)), "container count runs past"},
        {liar(QByteArray("\x5F\x13\x7f\xff\xff\xff\xff\xff\xff\xff", 10) + "abc"),
         "string or data runs past"},
        {liar(QByteArray("\x6F\x12\x7f\xff\xff\xff", 6) + "ab"), "string or data runs past"},
        {liar(QByteArray("\x4F\x14", 2) + QByteArray(16, '\xff')), "string or data runs past"},
        {liar(QByteArray("\x1F", 1)), "number is truncated"},
        {liar(QByteArray("\x33\x7f\xf0\x00\x00\x00\x00\x00\x00", 9)), "date is out of range"}, // infinity
        {liar(QByteArray("\x33\x41\xe0\x00\x00\x00\x00\x00\x00", 9)), "date is out of range"}, // 2^31 s
        {liar(QByteArray("\x70", 1)), "unknown object marker 0x70"},
        {liar(QByteArray("\xA1", 1) + ref(5)), "reference is out of range"},
    };
    for (const auto &c : cases)
        EXPECT_TRUE(read(c.bytes).contains(c.why)) << c.why << ": " << read(c.bytes).toStdString();
}

} // namespace
