// The HTTP(S) exchange over libcurl.
#pragma once

#include <memory>

#include "spi/http_request.h"

namespace ZEL::SPI {

// A new request, or null when the HTTP library could not be set up.
std::unique_ptr<XmlHttpRequest> newCurlXmlHttpRequest();

}  // namespace ZEL::SPI
