// Turns the location server's XML answers into result codes and records.
//
// Elements are matched by namespace (the request namespace, exactly) and by name
// (case-sensitive, against the qualified name, so a prefixed element never matches);
// only direct children are searched. Any failure of the document or its structure,
// and an `error` element, give kCannotDetermine; a missing
// value element is no failure and reads as 0.0 or empty text.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "core/location_record.h"
#include "core/result_code.h"
#include "spi/xml_parser.h"

namespace ZEL::Remote {

Core::ResultCode parseRegistrationResponse(std::string_view text);
// Fills `location` (which the caller passes freshly reset); sets speed -1.0 and
// bearing 0.0. The street address is read only when `streetAddressLookup` is not 0.
Core::ResultCode parseLocationResponse(std::string_view text, int streetAddressLookup,
                                       Core::LocationRecord& location);
Core::ResultCode parseIPLocationResponse(std::string_view text, int streetAddressLookup,
                                         Core::IpLocationRecord& ipLocation);

// Tree helpers, exposed for their own tests.
std::unique_ptr<SPI::XmlElement> findChild(const SPI::XmlElement& element, const std::string& name);
std::string childText(const SPI::XmlElement& element, const std::string& name);
// atof of the child's text; 0.0 when the child is missing.
double childDouble(const SPI::XmlElement& element, const std::string& name);
// name := the child's text, code := its "code" attribute, emptied unless exactly two
// characters long. A missing child leaves both as they were.
void childNameAndCode(const SPI::XmlElement& element, const std::string& name,
                      std::string& nameText, std::string& code);
void readStreetAddress(const SPI::XmlElement& element, Core::StreetAddress& address);

}  // namespace ZEL::Remote
