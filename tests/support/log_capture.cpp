#include "support/log_capture.h"

#include <algorithm>

#include "spi/log.h"

namespace ZEL::Testing {

class LogCapture::Appender final : public log4cpp::AppenderSkeleton {
  public:
    explicit Appender(std::vector<LoggedMessage>& sink)
        : AppenderSkeleton("capture"), sink_(sink) {}
    void close() override {}
    bool requiresLayout() const override { return false; }
    void setLayout(log4cpp::Layout* layout) override { delete layout; }

  protected:
    void _append(const log4cpp::LoggingEvent& event) override {
        sink_.push_back({event.priority, event.message});
    }

  private:
    std::vector<LoggedMessage>& sink_;
};

LogCapture::LogCapture(const std::string& name)
    : category_(SPI::getCategory(name)),
      oldPriority_(category_.getPriority()),
      oldAdditivity_(category_.getAdditivity()),
      appender_(new Appender(messages_)) {
    category_.addAppender(appender_);
    category_.setPriority(log4cpp::Priority::DEBUG);
    category_.setAdditivity(false);
}

LogCapture::~LogCapture() {
    category_.removeAppender(appender_);
    category_.setPriority(oldPriority_);
    category_.setAdditivity(oldAdditivity_);
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> result;
    for (const auto& message : messages_) {
        result.push_back(message.text);
    }
    return result;
}

size_t LogCapture::count(log4cpp::Priority::Value priority, const std::string& text) const {
    return std::count_if(messages_.begin(), messages_.end(), [&](const LoggedMessage& message) {
        return message.priority == priority && message.text == text;
    });
}

bool LogCapture::contains(const std::string& text) const {
    return std::any_of(messages_.begin(), messages_.end(),
                       [&](const LoggedMessage& message) { return message.text == text; });
}

}  // namespace ZEL::Testing
