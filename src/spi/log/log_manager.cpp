#include <sys/stat.h>
#include <log4cpp/Configurator.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include <cstdio>
#include <mutex>

#include "spi/log.h"
#include "spi/text.h"

namespace ZEL::SPI {

LogManager::LogManager() : configurationPath_(moduleDirectory() + "log4cpp.properties") {
    struct stat attributes {};
    if (stat(configurationPath_.c_str(), &attributes) != 0) {
        return;  // no file: log4cpp's defaults stay in force, and that is not an error
    }
    try {
        log4cpp::PropertyConfigurator::configure(configurationPath_);
    } catch (const std::exception& e) {
        // There is no log to report a broken log configuration to.
        std::fprintf(stderr, "zelapi: ignoring %s: %s\n", configurationPath_.c_str(), e.what());
    }
}

LogManager& LogManager::instance() {
    // Made on first use, destroyed at exit; the first call may come from any thread.
    static LogManager manager;
    return manager;
}

log4cpp::Category& LogManager::getCategory(const std::string& name) {
    return log4cpp::Category::getInstance(name);
}

log4cpp::Category& getCategory(const std::string& name) {
    return LogManager::instance().getCategory(name);
}

void logFormatted(log4cpp::Category& category, log4cpp::Priority::Value priority,
                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    category.logva(priority, format, arguments);
    va_end(arguments);
}

}  // namespace ZEL::SPI
