// The parts of log4cpp's configuration language that a back end without log4cpp
// needs: the properties file, priority names and PatternLayout's conversion pattern.
#pragma once

#include <chrono>
#include <functional>
#include <istream>
#include <map>
#include <string>
#include <vector>

#include "spi/log.h"

namespace ZEL::SPI {

// "key=value" lines, both trimmed; '#' starts a comment line. A line that is
// neither blank, a comment nor holds '=' is handed to `malformed` and skipped.
std::map<std::string, std::string> readLog4cppProperties(
    std::istream& in, const std::function<void(const std::string&)>& malformed);

// "A, B ,C" -> {"A", "B", "C"}; an empty first item stays (it means "inherit").
std::vector<std::string> splitLog4cppList(const std::string& text);

// log4cpp's value of a priority name (case-insensitive: "DEBUG" is 700, "NOTSET"
// and unknown names are -1, which inherits the parent's priority).
int log4cppPriority(const std::string& name);

struct LogEvent {
    const std::string& category;
    LogPriority priority;
    const std::string& message;
    std::chrono::system_clock::time_point time;
};

// One line as PatternLayout renders it: %c category, %p priority name, %m message,
// %n line end, %d{strftime format, %l for milliseconds} local time (default
// "%Y-%m-%d %H:%M:%S,%l"), %r milliseconds since the first event, %t thread id,
// %% a percent sign; each may carry a width ("%-5p" pads on the right, "%5p" on
// the left). Unknown conversions are written as they stand.
std::string renderLog4cppPattern(const std::string& pattern, const LogEvent& event);

}  // namespace ZEL::SPI
