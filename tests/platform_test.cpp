#include <gtest/gtest.h>

#include "spi/clock.h"
#include "spi/log.h"
#include "spi/text.h"
#include "spi/manual_clock.h"
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

TEST(ManualClockTime, MovesOnlyWhenToldAndSleepAdvancesIt) {
    ManualClock manual(5'000'123, 0xFFFFFFF0u);
    ScopedClock scoped(manual);
    EXPECT_EQ(currentTime(), (Core::TimeStamp{5000, 123}));
    EXPECT_EQ(tickCount(), 0xFFFFFFF0u);
    platform().clock().sleep(32);  // the tick count wraps
    EXPECT_EQ(tickCount(), 0x10u);
    EXPECT_EQ(currentTime(), (Core::TimeStamp{5000, 155}));
    EXPECT_EQ(manual.sleptMs(), 32u);
}

TEST(ScopedClockInstall, RestoresThePreviousPlatform) {
    Platform* before = &platform();
    {
        ManualClock manual;
        ScopedClock scoped(manual);
        EXPECT_EQ(&platform().clock(), &manual);
    }
    EXPECT_EQ(&platform(), before);
    EXPECT_EQ(&systemPlatform().clock(), &posixClock());
}

TEST(ModuleDirectory, EndsWithSeparatorAndNamesThisProgramsDirectory) {
    std::string directory = moduleDirectory();
    ASSERT_FALSE(directory.empty());
    EXPECT_EQ(directory.back(), '/');
    EXPECT_EQ(directory, std::string(ZEL_BINARY_DIR) + "/bin/");
}

TEST(Logging, CategoriesAreNamedAndConfigurationIsLookedForBesideTheModule) {
    EXPECT_EQ(&getLogger("ZEL.API.Test"), &getLogger("ZEL.API.Test"));
    EXPECT_NE(&getLogger("ZEL.API.Test"), &getLogger("ZEL.API.Other"));
    EXPECT_EQ(logConfigurationPath(), moduleDirectory() + "log4cpp.properties");
}

}  // namespace
}  // namespace ZEL::SPI
