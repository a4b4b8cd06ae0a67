#include "LogCapture.h"
#include "PropertyList.h"

#include <QDateTime>
#include <QSize>
#include <QTimeZone>

#include <gtest/gtest.h>

using namespace brix;

namespace {

const char *kStringWithName = "Error inside +[NSString(OKVA_plist) stringWithPlistObject:]: ";
const char *kPlistObjectName = "Error inside -[NSString(OKVA_plist) plistObjectWithMutability:]: ";
const char *kFromBase64Inside = "Error inside +[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]: ";
const char *kFromBase64Expected =
    "Error in +[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]: expected dictionary but found ";
const char *kJsonTrace = "-[NSString(OKVA_plist) asJSONObjectValueForKey:] -> jsonInfo: ";

QString jsonUrl(const QByteArray &json) {
    return "data:application/json;base64," + QString::fromLatin1(json.toBase64());
}

TEST(PlistConversions, XmlTextRoundTripsAndFailuresLogTheirOperation) {
    const QVariantMap attrs{{"rating", 4}, {"tags", QVariantList{"a", "b"}}, {"when", QDateTime::fromSecsSinceEpoch(1700000000, QTimeZone::utc())}};
    const QString xml = PropertyList::stringWithPlistObject(attrs);
    ASSERT_FALSE(xml.isNull());
    EXPECT_TRUE(xml.startsWith("<?xml"));
    EXPECT_EQ(PropertyList::plistObject(xml), QVariant(attrs));
    for (auto m : {Mutability::Immutable, Mutability::MutableContainers, Mutability::MutableContainersAndLeaves})
        EXPECT_EQ(PropertyList::plistObjectWithMutability(xml, m), QVariant(attrs));

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
    EXPECT_EQ(PropertyList::encodedBase64(QByteArray(100, 'a')), QString::fromLatin1(QByteArray(100, 'a').toBase64()));
}

TEST(PlistConversions, Base64FailuresAreNilWithOneLine) {
    QString error;
    EXPECT_TRUE(PropertyList::base64EncodedFromPropertyListWithError({{"k", QVariant::fromValue(QSize())}}, &error)
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
    EXPECT_EQ(PropertyList::asJSONObjectFromBase64Encoding(QString::fromLatin1(QByteArray("[true]").toBase64())),
              QVariant(QVariantList{true}));

    test::LogCapture log;
    EXPECT_EQ(PropertyList::asJSONObjectValueForKey(second, "name"), QVariant("shot"));
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(second, "missing").isValid());
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(jsonUrl("[1, 2]"), "name").isValid());
    const QStringList traces = log.matching(kJsonTrace);
    ASSERT_EQ(traces.size(), 3);
    EXPECT_EQ(traces[0].toStdString(),
              std::string(kJsonTrace) + "{\n    id = 2;\n    list = (\n        1,\n        2.5\n    );\n    name = shot;\n}");
    EXPECT_EQ(traces[2].toStdString(), std::string(kJsonTrace) + "(\n    1,\n    2\n)");
}

TEST(PlistConversions, BrokenJsonIsNilWithAnErrorLine) {
    test::LogCapture log;
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding(jsonUrl("{\"a\": ")).isValid());
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding(jsonUrl("42")).isValid()); // not an object or array
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding("data:application/json;base64,@@@").isValid());
    QByteArray deep(3000, '[');
    deep += QByteArray(3000, ']');
    EXPECT_FALSE(PropertyList::asJSONObjectFromBase64Encoding(jsonUrl(deep)).isValid());
    EXPECT_FALSE(PropertyList::asJSONObjectValueForKey(jsonUrl("nope"), "k").isValid());
    EXPECT_EQ(log.matching("ERROR decoding ").size(), 5);
    EXPECT_EQ(log.matching(QString(kJsonTrace) + "(null)").size(), 1);
}

TEST(PlistConversions, DescriptionsReadLikeOldStylePropertyLists) {
    const QVariantMap m{{"a", 1}, {"b c", QVariantList{"x", true}}, {"d", QByteArray("\x01\x02", 2)}};
    EXPECT_EQ(PropertyList::describe(m), "{\n    a = 1;\n    \"b c\" = (\n        x,\n        1\n    );\n"
                                         "    d = {length = 2, bytes = 0x0102};\n}");
    EXPECT_EQ(PropertyList::describe(QVariant()), "(null)");
}

} // namespace
