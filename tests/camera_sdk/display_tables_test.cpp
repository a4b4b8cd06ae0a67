// The battery level's display text: a signed number, with its own text for
// mains power (the texts are dictionary keys elsewhere, so a wrong one is a
// real fault).
#include "PropertyDisplay.h"

#include <gtest/gtest.h>

using namespace brix;
using namespace brix::eds;

TEST(DisplayTables, BatteryLevelIsSignedWithMainsPower) {
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFF), "AC Power");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 100), "100 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryLevel, 0xFFFFFFFE), "-2 %");
    EXPECT_EQ(stringForPropertyID(kEdsPropID_BatteryQuality, 4), "unknown");
}
