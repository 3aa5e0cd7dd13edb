// The system clock on POSIX systems.
#pragma once

#include "spi/clock.h"

namespace ZEL::SPI {

Clock& posixClock();

}  // namespace ZEL::SPI
