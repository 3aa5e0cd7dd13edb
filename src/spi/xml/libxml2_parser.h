// The XML parser over libxml2.
#pragma once

#include <memory>

#include "spi/xml_parser.h"

namespace ZEL::SPI {

// A new parser, or null when the XML library could not be set up.
std::unique_ptr<XmlParser> newLibXml2Parser();

}  // namespace ZEL::SPI
