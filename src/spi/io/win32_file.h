// The file service over Win32 file handles and file mappings.
#pragma once

#include <memory>

#include "spi/file.h"

namespace ZEL::SPI {

// A new, closed file object; null when none can be made.
std::unique_ptr<File> newWin32File();

}  // namespace ZEL::SPI
