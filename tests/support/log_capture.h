// Captures what one log category writes, for tests that check messages.
#pragma once

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
    explicit LogCapture(const std::string& category);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LoggedMessage>& messages() const { return messages_; }
    // The texts only, in order.
    std::vector<std::string> texts() const;
    // How many messages equal `text` at `priority`.
    size_t count(SPI::LogPriority priority, const std::string& text) const;
    bool contains(const std::string& text) const;

  private:
    SPI::Logger& logger_;
    std::vector<LoggedMessage> messages_;
};

}  // namespace ZEL::Testing
