#include "Logger.h"

#include <gtest/gtest.h>

using namespace brix;

namespace {

TEST(Hexdump, RepeatedLinesAreCountedAndAnnouncedBeforeTheNextDifferentLine) {
    QByteArray data(16, 'A');
    data += QByteArray(16 * 3, 'B');
    data += QByteArray(16, 'A');
    data += QByteArray(16 * 2, 'C');
    data += QByteArray("\x00\x7f\x1f !~", 6);
    const QString dump = hexdump(data);
    const QString a = "41 41 41 41 41 41 41 41  41 41 41 41 41 41 41 41  |AAAAAAAAAAAAAAAA|";
    const QString b = "42 42 42 42 42 42 42 42  42 42 42 42 42 42 42 42  |BBBBBBBBBBBBBBBB|";
    const QString c = "43 43 43 43 43 43 43 43  43 43 43 43 43 43 43 43  |CCCCCCCCCCCCCCCC|";
    const QString expected = "00000000  " + a + "\n" + "00000010  " + b + "\n" +
                             "* last line repeated 2 times\n" + "00000040  " + a + "\n" + "00000050  " + c +
                             "\n" + "* last line repeated 1 times\n" + "00000070  00 7f 1f 20 21 7e " +
                             QString(10 * 3 + 1, ' ') + " |... !~|\n";
    EXPECT_EQ(dump, expected);
}

TEST(Hexdump, ARunAtTheEndIsAnnouncedAndARangeCountsFromItsStart) {
    QByteArray data = "xyz" + QByteArray(48, '\0');
    const QString zero = "00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|";
    EXPECT_EQ(hexdump(data, 3), "00000000  " + zero + "\n* last line repeated 2 times\n");
    EXPECT_EQ(hexdump(data, 1, 2), "00000000  79 7a " + QString(14 * 3 + 1, ' ') + " |yz|\n");
    EXPECT_EQ(hexdump(QByteArray()), QString());
    EXPECT_EQ(hexdump(data, 100), QString());
}

} // namespace
