// Captures what one log category writes, for tests that check messages.
#pragma once

#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Category.hh>

#include <string>
#include <vector>

namespace ZEL::Testing {

struct LoggedMessage {
    log4cpp::Priority::Value priority;
    std::string text;
};

// While alive, records every message of `category` at DEBUG and above (and keeps
// it from reaching other appenders); restores the category's settings afterwards.
class LogCapture {
  public:
    explicit LogCapture(const std::string& category);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LoggedMessage>& messages() const { return messages_; }
    // The texts only, in order.
    std::vector<std::string> texts() const;
    // How many messages equal `text` at `priority`.
    size_t count(log4cpp::Priority::Value priority, const std::string& text) const;
    bool contains(const std::string& text) const;

  private:
    class Appender;
    log4cpp::Category& category_;
    log4cpp::Priority::Value oldPriority_;
    bool oldAdditivity_;
    Appender* appender_;  // owned by the category while attached
    std::vector<LoggedMessage> messages_;
};

}  // namespace ZEL::Testing
