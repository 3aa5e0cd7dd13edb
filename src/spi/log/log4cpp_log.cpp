// The log back end over log4cpp: one category per logger, configured once from
// "log4cpp.properties" beside the library by log4cpp's property configurator.
#include <sys/stat.h>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include <cstdio>
#include <iostream>

#include "spi/log_backend.h"
#include "spi/text.h"

namespace ZEL::SPI {
namespace {

class Log4cppChannel final : public LogChannel {
  public:
    explicit Log4cppChannel(log4cpp::Category& category) : category_(category) {}
    bool isEnabled(LogPriority priority) const override {
        return category_.isPriorityEnabled(static_cast<int>(priority));
    }
    void write(LogPriority priority, const std::string& message) override {
        category_.log(static_cast<int>(priority), message);
    }
    void setPriority(LogPriority priority) override {
        category_.setPriority(static_cast<int>(priority));
    }

  private:
    log4cpp::Category& category_;
};

// Reads the configuration file once, on the first logger's making.
struct Configuration {
    Configuration() : path(moduleDirectory() + "log4cpp.properties") {
        struct stat attributes {};
        if (stat(path.c_str(), &attributes) != 0) {
            return;  // no file: log4cpp's defaults stay in force, and that is not an error
        }
        try {
            log4cpp::PropertyConfigurator::configure(path);
            configured = true;
        } catch (const std::exception& e) {
            // There is no log to report a broken log configuration to.
            std::fprintf(stderr, "zelapi: ignoring %s: %s\n", path.c_str(), e.what());
        }
    }
    std::string path;
    bool configured = false;
};

const Configuration& configuration() {
    static const Configuration instance;
    return instance;
}

}  // namespace

std::unique_ptr<LogChannel> openLogChannel(const std::string& name) {
    configuration();
    return std::make_unique<Log4cppChannel>(log4cpp::Category::getInstance(name));
}

std::string logConfigurationPath() {
    return configuration().path;
}

bool logToStandardError(LogPriority priority) {
    log4cpp::Category& root = log4cpp::Category::getRoot();
    if (configuration().configured || !root.getAllAppenders().empty()) {
        return false;
    }
    auto* appender = new log4cpp::OstreamAppender("stderr", &std::cerr);
    auto* layout = new log4cpp::PatternLayout();
    layout->setConversionPattern("%d{%Y-%m-%d %H:%M:%S} %p %c: %m%n");
    appender->setLayout(layout);
    root.addAppender(appender);
    root.setPriority(static_cast<int>(priority));
    return true;
}

}  // namespace ZEL::SPI
