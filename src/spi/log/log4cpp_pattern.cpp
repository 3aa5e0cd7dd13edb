#include "spi/log/log4cpp_pattern.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <sstream>
#include <thread>

namespace ZEL::SPI {
namespace {

std::string trim(const std::string& text) {
    auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string priorityName(LogPriority priority) {
    switch (priority) {
        case LogPriority::kFatal:
            return "FATAL";
        case LogPriority::kError:
            return "ERROR";
        case LogPriority::kWarn:
            return "WARN";
        case LogPriority::kInfo:
            return "INFO";
        case LogPriority::kDebug:
            return "DEBUG";
    }
    return "NOTSET";
}

// strftime with %l for the milliseconds, in local time.
std::string formatTime(std::string format, std::chrono::system_clock::time_point time) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    char millis[4];
    std::snprintf(millis, sizeof millis, "%03d", static_cast<int>(ms.count()));
    for (auto at = format.find("%l"); at != std::string::npos; at = format.find("%l", at + 3)) {
        format.replace(at, 2, millis);
    }
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &seconds);
#else
    localtime_r(&seconds, &local);
#endif
    char text[256];
    size_t length = std::strftime(text, sizeof text, format.c_str(), &local);
    return std::string(text, length);
}

std::chrono::system_clock::time_point firstEventTime(std::chrono::system_clock::time_point now) {
    static const auto first = now;
    return first;
}

}  // namespace

std::map<std::string, std::string> readLog4cppProperties(
    std::istream& in, const std::function<void(const std::string&)>& malformed) {
    std::map<std::string, std::string> properties;
    std::string line;
    while (std::getline(in, line)) {
        std::string text = trim(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        auto equals = text.find('=');
        if (equals == std::string::npos || equals == 0) {
            malformed(text);
            continue;
        }
        properties[trim(text.substr(0, equals))] = trim(text.substr(equals + 1));
    }
    return properties;
}

std::vector<std::string> splitLog4cppList(const std::string& text) {
    std::vector<std::string> items;
    if (trim(text).empty()) {
        return items;
    }
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        items.push_back(trim(item));
    }
    return items;
}

int log4cppPriority(const std::string& name) {
    static const std::map<std::string, int> kValues = {
        {"EMERG", 0},  {"FATAL", 0},    {"ALERT", 100}, {"CRIT", 200}, {"ERROR", 300},
        {"WARN", 400}, {"NOTICE", 500}, {"INFO", 600},  {"DEBUG", 700}};
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    auto found = kValues.find(upper);
    return found == kValues.end() ? -1 : found->second;
}

std::string renderLog4cppPattern(const std::string& pattern, const LogEvent& event) {
    std::string out;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%' || i + 1 == pattern.size()) {
            out += pattern[i];
            continue;
        }
        size_t start = i++;
        bool left = pattern[i] == '-';
        if (left) {
            ++i;
        }
        size_t width = 0;
        while (i < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[i]))) {
            width = width * 10 + static_cast<size_t>(pattern[i++] - '0');
        }
        if (i == pattern.size()) {
            out += pattern.substr(start);
            break;
        }
        std::string field;
        switch (pattern[i]) {
            case 'c':
                field = event.category;
                break;
            case 'p':
                field = priorityName(event.priority);
                break;
            case 'm':
                field = event.message;
                break;
            case 'n':
                field = "\n";
                break;
            case '%':
                field = "%";
                break;
            case 'r':
                field = std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           event.time - firstEventTime(event.time))
                                           .count());
                break;
            case 't': {
                std::ostringstream id;
                id << std::this_thread::get_id();
                field = id.str();
                break;
            }
            case 'd': {
                std::string format = "%Y-%m-%d %H:%M:%S,%l";
                auto close = pattern.find('}', i);
                if (i + 1 < pattern.size() && pattern[i + 1] == '{' && close != std::string::npos) {
                    format = pattern.substr(i + 2, close - i - 2);
                    i = close;
                }
                field = formatTime(format, event.time);
                break;
            }
            default:
                field = pattern.substr(start, i - start + 1);
                break;
        }
        if (field.size() < width) {
            field.insert(left ? field.end() : field.begin(), width - field.size(), ' ');
        }
        out += field;
    }
    return out;
}

}  // namespace ZEL::SPI
