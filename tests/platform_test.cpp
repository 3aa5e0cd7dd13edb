#include <gtest/gtest.h>

#include "spi/clock.h"
#include "spi/text.h"
#include "spi/time/posix_clock.h"

namespace ZEL::SPI {
namespace {

TEST(Age, IsComputedFromSecondsAndMillisecondsAndMaySignNegative) {
    struct Row {
        Core::TimeStamp now, then;
        int32_t age;
    };
    for (Row row : {Row{{100, 250}, {95, 750}, 4500}, Row{{100, 0}, {100, 0}, 0},
                    Row{{95, 750}, {100, 250}, -4500}}) {
        EXPECT_EQ(Core::ageMs(row.now, row.then), row.age) << row.now.seconds;
    }
}

TEST(SystemClockTime, TwoReadingsWithinASecondAgree) {
    Core::TimeStamp first = posixClock().now();
    Core::TimeStamp second = posixClock().now();
    EXPECT_LT(first.milliseconds, 1000u);
    EXPECT_GE(second.totalMilliseconds(), first.totalMilliseconds());
    EXPECT_LE(second.totalMilliseconds() - first.totalMilliseconds(), 1000u);
    EXPECT_GT(first.seconds, 1'700'000'000u);  // after November 2023
}

}  // namespace
}  // namespace ZEL::SPI
