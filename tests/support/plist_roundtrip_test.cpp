#include "PropertyList.h"

#include <QDateTime>
#include <QFile>
#include <QSize>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <limits>

using namespace brix;

namespace {

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
        EXPECT_EQ(back.keys(), all.keys());
        for (const QString &key : all.keys()) {
            const int want =
                all.value(key).typeId() == QMetaType::Int ? QMetaType::LongLong : all.value(key).typeId();
            EXPECT_EQ(back.value(key).typeId(), want) << key.toStdString();
        }
        EXPECT_EQ(back.value("int min").toLongLong(), std::numeric_limits<qlonglong>::min());
        EXPECT_EQ(back.value("real").toDouble(), 0.1); // exactly, not approximately
    }
}

TEST(PlistRoundTrip, RootsOtherThanDictionariesWork) {
    for (PlistFormat format : {PlistFormat::Xml, PlistFormat::Binary}) {
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
    QFile f(QStringLiteral(BRIX_TEST_SOURCE_DIR "/fixtures/other_producer.bplist"));
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    QString error;
    PlistFormat format{};
    const QVariantMap m =
        PropertyList::propertyListFromData(f.readAll(), Mutability::Immutable, &error, &format).toMap();
    ASSERT_FALSE(m.isEmpty()) << error.toStdString();
    EXPECT_EQ(format, PlistFormat::Binary);
    EXPECT_EQ(m.value("ascii"), "hello");
    EXPECT_EQ(m.value("unicode").toString(), QString::fromUtf8("Grüße ✓ 写真")); // stored as UTF-16
    EXPECT_EQ(m.value("negative").toLongLong(), -42);
    EXPECT_EQ(m.value("big").toLongLong(), (qlonglong(1) << 62) + 7);
    EXPECT_EQ(m.value("small").toLongLong(), 7);
    EXPECT_EQ(m.value("real").toDouble(), 3.14159265358979);
    EXPECT_EQ(m.value("yes").typeId(), QMetaType::Bool);
    EXPECT_TRUE(m.value("yes").toBool());
    EXPECT_FALSE(m.value("no").toBool());
    EXPECT_EQ(m.value("when").toDateTime(),
              QDateTime(QDate(2024, 2, 29), QTime(12, 34, 56), QTimeZone::utc()));
    QByteArray bytes;
    for (char i = 0; i < 20; ++i)
        bytes.append(i);
    EXPECT_EQ(m.value("bytes").toByteArray(), bytes);
    EXPECT_EQ(m.value("list"), QVariant(QVariantList{1, "two", QVariantList{3.5}, QVariantMap{}}));
    EXPECT_EQ(m.value("nested").toMap().value("level1").toMap().value("level2").toMap().value("leaf"), "x");
    EXPECT_EQ(m.value("empty"), "");
    EXPECT_EQ(m.size(), 13);
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

} // namespace
