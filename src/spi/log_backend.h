// What a log back end provides to the facade of spi/log.h; one back end is linked
// per platform.
#pragma once

#include <memory>
#include <string>

#include "spi/log.h"

namespace ZEL::SPI {

// The channel of category `name`. The first call configures the back end.
std::unique_ptr<LogChannel> openLogChannel(const std::string& name);

}  // namespace ZEL::SPI
