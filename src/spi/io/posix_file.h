// The file service over POSIX descriptors and mmap.
#pragma once

#include <memory>

#include "spi/file.h"

namespace ZEL::SPI {

// A new, closed file object; null when none can be made.
std::unique_ptr<File> newPosixFile();

}  // namespace ZEL::SPI
