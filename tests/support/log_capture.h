// Captures what one log category writes, for tests that check messages.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "spi/log.h"

namespace ZEL::Testing {

struct LoggedMessage {
    SPI::LogPriority priority;
    std::string text;
};

// While alive, records every message of `category` at every priority instead of
// writing it; the category writes to its back end again afterwards.
class LogCapture {
  public:
    explicit LogCapture(const std::string& category) : logger_(SPI::getLogger(category)) {
        logger_.setCapture([this](SPI::LogPriority priority, const std::string& text) {
            messages_.push_back({priority, text});
        });
    }
    ~LogCapture() { logger_.setCapture({}); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LoggedMessage>& messages() const { return messages_; }
    // How many messages equal `text` at `priority`.
    size_t count(SPI::LogPriority priority, const std::string& text) const {
        return std::count_if(messages_.begin(), messages_.end(), [&](const LoggedMessage& m) {
            return m.priority == priority && m.text == text;
        });
    }
    bool contains(const std::string& text) const {
        return std::any_of(messages_.begin(), messages_.end(),
                           [&](const LoggedMessage& m) { return m.text == text; });
    }

  private:
    SPI::Logger& logger_;
    std::vector<LoggedMessage> messages_;
};

}  // namespace ZEL::Testing
