// The log back end on Windows: log4cpp's configuration file, read here, over spdlog's
// file sinks. "log4cpp.properties" beside the library is read once, for what the
// library uses of it: the root and category priorities with their appenders (a
// category adds its ancestors' appenders, as in log4cpp), file, rolling-file and
// console appenders, and PatternLayout's conversion pattern, which is rendered here
// so that lines read as they do on Linux. spdlog only writes the finished lines.
// Nothing is written without the file; a malformed line is ignored with a note on
// standard error, since there is no log to report it to.
#include <windows.h>

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <vector>

#include "spi/log/log4cpp_pattern.h"
#include "spi/log_backend.h"
#include "spi/text.h"

namespace ZEL::SPI {
namespace {

constexpr int kInheritPriority = -1;
// log4cpp's priority of the root category when nothing configures it.
constexpr int kDefaultRootPriority = static_cast<int>(LogPriority::kInfo);

struct Appender {
    std::shared_ptr<spdlog::logger> sink;
    std::string pattern = "%m%n";  // log4cpp's basic layout when none is given
};

// The configuration as read: properties by key, then appenders made from them.
class Configuration {
  public:
    Configuration() : path_(moduleDirectory() + "log4cpp.properties") {
        std::wstring wide = toWide(path_);
        if (GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES) {
            return;  // no file: nothing is written, and that is not an error
        }
        std::ifstream in{std::filesystem::path(wide)};
        properties_ = readLog4cppProperties(in, [this](const std::string& line) {
            std::fprintf(stderr, "zelapi: %s: ignoring \"%s\"\n", path_.c_str(), line.c_str());
        });
        configured_ = true;
        auto root = categoryPriorityAndAppenders("rootCategory");
        if (root.priority != kInheritPriority) {
            rootPriority_ = root.priority;
        }
        rootAppenders_ = root.appenders;
    }

    // The priority and appenders `name` has of its own, or is given by its nearest
    // configured ancestor; the root's own are added at each write.
    struct Resolved {
        int priority = kInheritPriority;
        std::vector<Appender*> appenders;
    };
    Resolved resolve(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        Resolved resolved;
        for (std::string prefix = name; !prefix.empty(); prefix = parentOf(prefix)) {
            auto own = categoryPriorityAndAppenders("category." + prefix);
            if (resolved.priority == kInheritPriority) {
                resolved.priority = own.priority;
            }
            resolved.appenders.insert(resolved.appenders.end(), own.appenders.begin(),
                                      own.appenders.end());
        }
        return resolved;
    }

    int rootPriority() const { return rootPriority_.load(); }
    std::vector<Appender*> rootAppenders() {
        std::lock_guard<std::mutex> lock(mutex_);
        return rootAppenders_;
    }

    bool addStandardErrorToRoot(LogPriority priority) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (configured_ || !rootAppenders_.empty()) {
            return false;
        }
        auto& appender = appenders_["stderr"];
        appender.sink = makeLogger(std::make_shared<spdlog::sinks::stderr_sink_mt>());
        appender.pattern = "%d{%Y-%m-%d %H:%M:%S} %p %c: %m%n";
        rootAppenders_.push_back(&appender);
        rootPriority_ = static_cast<int>(priority);
        return true;
    }

    const std::string& path() const { return path_; }

  private:
    static std::string parentOf(const std::string& name) {
        auto dot = name.rfind('.');
        return dot == std::string::npos ? std::string() : name.substr(0, dot);
    }

    static std::shared_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink) {
        auto logger = std::make_shared<spdlog::logger>("", std::move(sink));
        // The lines come formatted, with their own line ends.
        logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%v", spdlog::pattern_time_type::local, std::string()));
        logger->set_level(spdlog::level::trace);
        logger->flush_on(spdlog::level::trace);
        return logger;
    }

    std::string property(const std::string& key) const {
        auto found = properties_.find("log4cpp." + key);
        return found == properties_.end() ? std::string() : found->second;
    }

    // "log4cpp.<key>=PRIORITY, appender, ..."; an empty priority inherits.
    Resolved categoryPriorityAndAppenders(const std::string& key) {
        Resolved resolved;
        std::vector<std::string> items = splitLog4cppList(property(key));
        if (items.empty()) {
            return resolved;
        }
        resolved.priority = log4cppPriority(items[0]);
        for (size_t i = 1; i < items.size(); ++i) {
            if (Appender* appender = appenderNamed(items[i])) {
                resolved.appenders.push_back(appender);
            }
        }
        return resolved;
    }

    // The appender of that name, made on first use; null (noted) when unusable.
    Appender* appenderNamed(const std::string& name) {
        auto found = appenders_.find(name);
        if (found != appenders_.end()) {
            return found->second.sink ? &found->second : nullptr;
        }
        Appender& appender = appenders_[name];
        std::string prefix = "appender." + name;
        std::string type = property(prefix);
        type = type.substr(type.rfind('.') + 1);  // "org.apache.log4cpp.FileAppender" too
        std::wstring file = toWide(property(prefix + ".fileName"));
        try {
            if (type == "ConsoleAppender") {
                appender.sink = makeLogger(std::make_shared<spdlog::sinks::stdout_sink_mt>());
            } else if (type == "FileAppender" && !file.empty()) {
                appender.sink =
                    makeLogger(std::make_shared<spdlog::sinks::basic_file_sink_mt>(file));
            } else if (type == "RollingFileAppender" && !file.empty()) {
                size_t maxSize =
                    std::strtoull(property(prefix + ".maxFileSize").c_str(), nullptr, 10);
                size_t backups =
                    std::strtoull(property(prefix + ".maxBackupIndex").c_str(), nullptr, 10);
                appender.sink = makeLogger(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
                    file, maxSize > 0 ? maxSize : 10 * 1024 * 1024, backups > 0 ? backups : 1));
            } else {
                std::fprintf(stderr, "zelapi: %s: appender \"%s\" of unusable type \"%s\"\n",
                             path_.c_str(), name.c_str(), type.c_str());
                return nullptr;
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "zelapi: %s: appender \"%s\": %s\n", path_.c_str(), name.c_str(),
                         e.what());
            return nullptr;
        }
        if (property(prefix + ".layout").find("PatternLayout") != std::string::npos) {
            std::string pattern = property(prefix + ".layout.ConversionPattern");
            appender.pattern = pattern.empty() ? "%m%n" : pattern;
        }
        return &appender;
    }

    std::string path_;
    bool configured_ = false;
    std::map<std::string, std::string> properties_;
    std::map<std::string, Appender> appenders_;
    std::atomic<int> rootPriority_{kDefaultRootPriority};
    std::vector<Appender*> rootAppenders_;
    std::mutex mutex_;
};

Configuration& configuration() {
    static auto* instance = new Configuration;  // outlives every logger
    return *instance;
}

class SpdlogChannel final : public LogChannel {
  public:
    explicit SpdlogChannel(std::string name)
        : name_(std::move(name)),
          resolved_(configuration().resolve(name_)),
          priority_(resolved_.priority) {}

    bool isEnabled(LogPriority priority) const override {
        int threshold = priority_.load();
        if (threshold == kInheritPriority) {
            threshold = configuration().rootPriority();
        }
        return static_cast<int>(priority) <= threshold;
    }

    void write(LogPriority priority, const std::string& message) override {
        if (!isEnabled(priority)) {
            return;
        }
        LogEvent event{name_, priority, message, std::chrono::system_clock::now()};
        auto appenders = resolved_.appenders;
        auto root = configuration().rootAppenders();
        appenders.insert(appenders.end(), root.begin(), root.end());
        for (Appender* appender : appenders) {
            appender->sink->log(spdlog::level::info,
                                renderLog4cppPattern(appender->pattern, event));
        }
    }

    void setPriority(LogPriority priority) override { priority_ = static_cast<int>(priority); }

  private:
    std::string name_;
    Configuration::Resolved resolved_;
    std::atomic<int> priority_;
};

}  // namespace

std::unique_ptr<LogChannel> openLogChannel(const std::string& name) {
    return std::make_unique<SpdlogChannel>(name);
}

std::string logConfigurationPath() {
    return configuration().path();
}

bool logToStandardError(LogPriority priority) {
    return configuration().addStandardErrorToRoot(priority);
}

}  // namespace ZEL::SPI
