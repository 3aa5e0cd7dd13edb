// The XML parser adapter over the MSXML DOM, through COM.
#pragma once

#include <memory>

#include "spi/xml_parser.h"

namespace ZEL::SPI {

// A new parser, or null when none can be made.
std::unique_ptr<XmlParser> newMsxmlParser();

}  // namespace ZEL::SPI
