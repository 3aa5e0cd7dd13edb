// The diagnostic log: categories by name, priorities, printf-style messages.
//
// Names are dotted: "ZEL.API.<Class>" for location logic, "ZEL.SPI.<Area>.<Class>"
// for platform services, and the exported operations' own names ("ZEL_location").
// A back end stands behind the facade (log4cpp on Linux, configured once from
// "log4cpp.properties" beside the library; without the file nothing is written).
// Use the ZEL_LOG_* macros: a message's arguments (a list rendered as text, say)
// are computed and formatted only when its priority is enabled.
// Threading: loggers may be used from any thread; each lives as long as the process.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace ZEL::SPI {

// Lower is more severe; the values are those of the back end's priorities.
enum class LogPriority : int { kFatal = 0, kError = 300, kWarn = 400, kInfo = 600, kDebug = 700 };

// Where one category's messages go: the back end's side of a logger.
class LogChannel {
  public:
    virtual ~LogChannel() = default;
    virtual bool isEnabled(LogPriority priority) const = 0;
    virtual void write(LogPriority priority, const std::string& message) = 0;
    virtual void setPriority(LogPriority priority) = 0;
};

class Logger {
  public:
    using Capture = std::function<void(LogPriority, const std::string&)>;

    explicit Logger(std::unique_ptr<LogChannel> channel) : channel_(std::move(channel)) {}
    bool isEnabled(LogPriority priority) const {
        return capture_ ? true : channel_->isEnabled(priority);
    }
    void write(LogPriority priority, const std::string& message);
    // Messages below `priority` are dropped from now on.
    void setPriority(LogPriority priority) { channel_->setPriority(priority); }
    // Hands every message of this category, at every priority, to `capture` instead
    // of the back end; an empty function restores the back end. For tests.
    void setCapture(Capture capture) { capture_ = std::move(capture); }

  private:
    std::unique_ptr<LogChannel> channel_;
    Capture capture_;
};

// The logger of category `name`, made on first use.
Logger& getLogger(const std::string& name);

// When the log was not configured from a file: writes messages of `priority` and
// above, of every category, to standard error with a time stamp and the category.
// Returns false, doing nothing, when a configuration file or another set-up is in force.
bool logToStandardError(LogPriority priority);

// The path of the configuration file looked for.
std::string logConfigurationPath();

// printf-style message at `priority`, with the compiler checking the arguments.
void logFormatted(Logger& logger, LogPriority priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace ZEL::SPI

#define ZEL_LOG(logger, priority, ...)                                   \
    do {                                                                 \
        if ((logger).isEnabled(priority)) {                              \
            ::ZEL::SPI::logFormatted((logger), (priority), __VA_ARGS__); \
        }                                                                \
    } while (0)
#define ZEL_LOG_FATAL(logger, ...) ZEL_LOG(logger, ::ZEL::SPI::LogPriority::kFatal, __VA_ARGS__)
#define ZEL_LOG_ERROR(logger, ...) ZEL_LOG(logger, ::ZEL::SPI::LogPriority::kError, __VA_ARGS__)
#define ZEL_LOG_WARN(logger, ...) ZEL_LOG(logger, ::ZEL::SPI::LogPriority::kWarn, __VA_ARGS__)
#define ZEL_LOG_INFO(logger, ...) ZEL_LOG(logger, ::ZEL::SPI::LogPriority::kInfo, __VA_ARGS__)
#define ZEL_LOG_DEBUG(logger, ...) ZEL_LOG(logger, ::ZEL::SPI::LogPriority::kDebug, __VA_ARGS__)
