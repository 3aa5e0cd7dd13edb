// The portable half of the log: loggers by name, formatting, the test capture.
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <vector>

#include "spi/log.h"
#include "spi/log_backend.h"

namespace ZEL::SPI {

void Logger::write(LogPriority priority, const std::string& message) {
    if (capture_) {
        capture_(priority, message);
    } else {
        channel_->write(priority, message);
    }
}

Logger& getLogger(const std::string& name) {
    // Loggers are never destroyed: a message from another library's destructor at
    // exit must still find its logger.
    static auto* mutex = new std::mutex;
    static auto* loggers = new std::map<std::string, std::unique_ptr<Logger>, std::less<>>;
    std::lock_guard<std::mutex> lock(*mutex);
    auto found = loggers->find(name);
    if (found == loggers->end()) {
        found = loggers->emplace(name, std::make_unique<Logger>(openLogChannel(name))).first;
    }
    return *found->second;
}

void logFormatted(Logger& logger, LogPriority priority, const char* format, ...) {
    char small[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    int length = std::vsnprintf(small, sizeof small, format, arguments);
    va_end(arguments);
    if (length < 0) {
        va_end(again);
        return;
    }
    if (static_cast<size_t>(length) < sizeof small) {
        va_end(again);
        logger.write(priority, std::string(small, static_cast<size_t>(length)));
        return;
    }
    std::vector<char> large(static_cast<size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    va_end(again);
    logger.write(priority, std::string(large.data(), static_cast<size_t>(length)));
}

}  // namespace ZEL::SPI
