// The HTTP(S) exchange over WinInet.
#pragma once

#include <cstdint>
#include <memory>

#include "spi/http_request.h"

namespace ZEL::SPI {

// A new request, or null when none can be made.
std::unique_ptr<XmlHttpRequest> newWinInetXmlHttpRequest();

// The result send() gives for a WinInet error number (socket-style, see http_request.h).
int winInetErrorResult(uint32_t error);

}  // namespace ZEL::SPI
