// Pieces of the camera code that need no camera: log-line formatting, command
// texts and dictionaries, and the conversions between dates and time records.
#include "CameraText.h"
#include "OKVA_CanonCamera.h"

#include <QTimeZone>

#include <gtest/gtest.h>

#include <cstring>

using namespace brix;
using namespace brix::eds;

TEST(CameraLogFormat, ConversionsFollowTheArgumentsWidthAndObjectsAreDescribed) {
    using cameratext::format;
    // 32-bit codes print as 32-bit even when handed over as signed numbers.
    EXPECT_EQ(format("error %x (%s)", {-1, "x"}), "error ffffffff (x)");
    EXPECT_EQ(format("0X%X / %d", {0xA102u, 0xFFFFFFFFu}), "0XA102 / -1");
    EXPECT_EQ(format("download progress (%u %%)", {75u}), "download progress (75 %)");
    EXPECT_EQ(format("waiting %.1f secs, %.3f sec", {2.96, 0.0125}), "waiting 3.0 secs, 0.013 sec");
    EXPECT_EQ(format("Detected %u camera%s", {1u, ""}), "Detected 1 camera");
    EXPECT_EQ(format("%.4u-%.2u-%.2u", {2024u, 3u, 7u}), "2024-03-07");
    EXPECT_EQ(format("%ld", {long(1) << 40}), "1099511627776");
    // A missing argument prints as none rather than reading past the list.
    EXPECT_EQ(format("a %@ b %u"), "a (null) b 0");

    QVariantMap dict{{"commandNumber", 0u}, {"description", "Take a picture"}};
    EXPECT_EQ(format("%@", {QVariant(dict)}),
              "{\n    commandNumber = 0;\n    description = \"Take a picture\";\n}");
    EXPECT_EQ(format("got value %@", {QVariant()}), "got value (null)");
    EXPECT_EQ(format("got value %@", {QVariant("Canon EOS")}), "got value Canon EOS");
    // A value from outside (a body's owner name, a sibling's message) cannot flood the log.
    QVariantList many;
    for (int i = 0; i < 100000; ++i)
        many << QString(100, 'x');
    EXPECT_LT(format("%@ %@", {QVariant(QString(1'000'000, 'x')), QVariant(many)}).size(), 30'000);
}

TEST(CameraTimeRecord, RoundTripWithMillisecondsAndInvalidRecords) {
    EdsTime record{2024, 3, 7, 13, 45, 9, 250};
    const QDateTime date = OKVA_CanonCamera::dateForEDSTime(&record);
    ASSERT_TRUE(date.isValid());
    const QDateTime local = date.toLocalTime();
    EXPECT_EQ(local.date(), QDate(2024, 3, 7));
    EXPECT_EQ(local.time(), QTime(13, 45, 9, 250));

    EdsTime back{};
    OKVA_CanonCamera::EDSTime(&back, date);
    EXPECT_EQ(std::memcmp(&back, &record, sizeof record), 0);

    EdsTime impossible{2024, 2, 30, 0, 0, 0, 0};
    EXPECT_FALSE(OKVA_CanonCamera::dateForEDSTime(&impossible).isValid());
    EXPECT_FALSE(OKVA_CanonCamera::dateForEDSTime(nullptr).isValid());

    // Nothing is written for a value that is not a date.
    EdsTime untouched{1, 2, 3, 4, 5, 6, 7};
    OKVA_CanonCamera::EDSTime(&untouched, QString("2024-03-07"));
    EXPECT_EQ(untouched.year, 1u);
    EXPECT_EQ(untouched.milliseconds, 7u);
    OKVA_CanonCamera::EDSTime(nullptr, date); // and nothing breaks without a record
}

TEST(CameraTimeRecord, YearIsTheWeekBasedYear) {
    // 30 December 2024 falls in week 1 of 2025: the record says 2025.
    const QDateTime lateDecember(QDate(2024, 12, 30), QTime(12, 0), Qt::LocalTime);
    EdsTime record{};
    OKVA_CanonCamera::EDSTime(&record, lateDecember);
    EXPECT_EQ(record.year, 2025u);
    EXPECT_EQ(record.day, 30u);
}
