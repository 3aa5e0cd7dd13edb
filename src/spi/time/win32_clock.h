// The system clock on Windows.
#pragma once

#include "spi/clock.h"

namespace ZEL::SPI {

Clock& win32Clock();

}  // namespace ZEL::SPI
