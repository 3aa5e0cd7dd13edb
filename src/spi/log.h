// Logging set-up: categories by name over log4cpp, configured once from
// "log4cpp.properties" beside the library.
//
// Names are dotted: "ZEL.API.<Class>" for location logic, "ZEL.SPI.<Area>.<Class>"
// for platform services, and the exported operations' own names ("ZEL_location").
// Messages are printf-style; use the ZEL_LOG_* macros so that the arguments of a
// message (a list rendered as text, say) are only computed when its priority is on.
#pragma once

#include <log4cpp/Category.hh>
#include <log4cpp/Priority.hh>

#include <cstdarg>
#include <string>

namespace ZEL::SPI {

// The process-wide log manager. Its first use looks for the configuration file and
// hands it to log4cpp's property configurator; without the file log4cpp's defaults
// stay in force and nothing is written.
class LogManager {
  public:
    static LogManager& instance();
    log4cpp::Category& getCategory(const std::string& name);
    const std::string& configurationPath() const { return configurationPath_; }

  private:
    LogManager();
    std::string configurationPath_;
};

// Shorthand for LogManager::instance().getCategory(name).
log4cpp::Category& getCategory(const std::string& name);

// printf-style message at `priority`, with the compiler checking the arguments.
void logFormatted(log4cpp::Category& category, log4cpp::Priority::Value priority,
                  const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace ZEL::SPI

#define ZEL_LOG(category, priority, ...)                                   \
    do {                                                                   \
        if ((category).isPriorityEnabled(priority)) {                      \
            ::ZEL::SPI::logFormatted((category), (priority), __VA_ARGS__); \
        }                                                                  \
    } while (0)
#define ZEL_LOG_FATAL(category, ...) ZEL_LOG(category, ::log4cpp::Priority::FATAL, __VA_ARGS__)
#define ZEL_LOG_ERROR(category, ...) ZEL_LOG(category, ::log4cpp::Priority::ERROR, __VA_ARGS__)
#define ZEL_LOG_WARN(category, ...) ZEL_LOG(category, ::log4cpp::Priority::WARN, __VA_ARGS__)
#define ZEL_LOG_INFO(category, ...) ZEL_LOG(category, ::log4cpp::Priority::INFO, __VA_ARGS__)
#define ZEL_LOG_DEBUG(category, ...) ZEL_LOG(category, ::log4cpp::Priority::DEBUG, __VA_ARGS__)
