// The log configuration language the Windows log back end reads.
#include <gtest/gtest.h>

#include <sstream>

#include "spi/log/log4cpp_pattern.h"

namespace ZEL::SPI {
namespace {

TEST(Log4cppPattern, RendersEachConversionWithItsWidth) {
    std::string category = "ZEL.SPI.IO.Win32File", message = "t.zel: ReadFile failed (5)";
    std::tm noon{};  // 2026-03-04 12:05:06.789 local time
    noon.tm_year = 126, noon.tm_mon = 2, noon.tm_mday = 4, noon.tm_hour = 12, noon.tm_min = 5,
    noon.tm_sec = 6, noon.tm_isdst = -1;
    auto time =
        std::chrono::system_clock::from_time_t(std::mktime(&noon)) + std::chrono::milliseconds(789);
    LogEvent event{category, LogPriority::kWarn, message, time};
    struct Row {
        const char* pattern;
        const char* line;
    };
    for (Row row :
         {Row{"%d{%Y-%m-%d %H:%M:%S,%l} %-5p %c: %m%n",
              "2026-03-04 12:05:06,789 WARN  ZEL.SPI.IO.Win32File: t.zel: ReadFile failed (5)\n"},
          Row{"%d %p", "2026-03-04 12:05:06,789 WARN"}, Row{"[%7p]", "[   WARN]"},
          Row{"%-3p|%2p", "WARN|WARN"}, Row{"100%% %q %", "100% %q %"},
          Row{"%c%", "ZEL.SPI.IO.Win32File%"}, Row{"%d{%H}", "12"}}) {
        EXPECT_EQ(renderLog4cppPattern(row.pattern, event), row.line) << row.pattern;
    }
}

TEST(Log4cppProperties, ReadsKeysListsAndPriorities) {
    std::istringstream in(
        "# comment\n log4cpp.rootCategory = DEBUG, A , B\r\n\nno equals sign\n=value\n"
        "log4cpp.appender.A.layout.ConversionPattern=%m = %n\n");
    std::vector<std::string> malformed;
    auto properties =
        readLog4cppProperties(in, [&](const std::string& line) { malformed.push_back(line); });
    EXPECT_EQ(properties.size(), 2u);
    EXPECT_EQ(properties["log4cpp.rootCategory"], "DEBUG, A , B");
    EXPECT_EQ(properties["log4cpp.appender.A.layout.ConversionPattern"], "%m = %n");
    EXPECT_EQ(malformed, (std::vector<std::string>{"no equals sign", "=value"}));
    EXPECT_EQ(splitLog4cppList(properties["log4cpp.rootCategory"]),
              (std::vector<std::string>{"DEBUG", "A", "B"}));
    EXPECT_EQ(splitLog4cppList(" , A"), (std::vector<std::string>{"", "A"}));  // inherit, with A
    EXPECT_TRUE(splitLog4cppList(" ").empty());
    for (auto [name, value] : {std::pair{"fatal", 0},
                               {"ERROR", 300},
                               {"Warn", 400},
                               {"NOTICE", 500},
                               {"info", 600},
                               {"DEBUG", 700},
                               {"NOTSET", -1},
                               {"", -1},
                               {"LOUD", -1}}) {
        EXPECT_EQ(log4cppPriority(name), value) << name;
    }
}

}  // namespace
}  // namespace ZEL::SPI
