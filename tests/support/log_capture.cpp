#include "support/log_capture.h"

#include <algorithm>

#include "spi/log.h"

namespace ZEL::Testing {

LogCapture::LogCapture(const std::string& name) : logger_(SPI::getLogger(name)) {
    logger_.setCapture([this](SPI::LogPriority priority, const std::string& text) {
        messages_.push_back({priority, text});
    });
}

LogCapture::~LogCapture() {
    logger_.setCapture({});
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> result;
    for (const auto& message : messages_) {
        result.push_back(message.text);
    }
    return result;
}

size_t LogCapture::count(SPI::LogPriority priority, const std::string& text) const {
    return std::count_if(messages_.begin(), messages_.end(), [&](const LoggedMessage& message) {
        return message.priority == priority && message.text == text;
    });
}

bool LogCapture::contains(const std::string& text) const {
    return std::any_of(messages_.begin(), messages_.end(),
                       [&](const LoggedMessage& message) { return message.text == text; });
}

}  // namespace ZEL::Testing
