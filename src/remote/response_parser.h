// Turns the location server's XML answers into result codes and records.
//
// Elements are matched by namespace (the request namespace, exactly) and by name
// (case-sensitive, against the qualified name, so a prefixed element never matches);
// only direct children are searched. Any failure of the document or its structure,
// and an `error` element, give 6 (ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED); a missing
// value element is no failure and reads as 0.0 or empty text.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "api/location_record.h"
#include "spi/xml_parser.h"

namespace ZEL::API {

int parseRegistrationResponse(std::string_view text);
// Fills `location` (which the caller passes freshly reset); sets speed -1.0 and
// bearing 0.0. The street address is read only when `streetAddressLookup` is not 0.
int parseLocationResponse(std::string_view text, int streetAddressLookup, LocationRecord& location);
int parseIPLocationResponse(std::string_view text, int streetAddressLookup,
                            IpLocationRecord& ipLocation);

// Tree helpers, exposed for their own tests.
std::unique_ptr<SPI::XmlElement> findChild(const SPI::XmlElement& element, const std::string& name);
std::string childText(const SPI::XmlElement& element, const std::string& name);
// atof of the child's text; 0.0 when the child is missing.
double childDouble(const SPI::XmlElement& element, const std::string& name);
// name := the child's text, code := its "code" attribute, emptied unless exactly two
// characters long. A missing child leaves both as they were.
void childNameAndCode(const SPI::XmlElement& element, const std::string& name,
                      std::string& nameText, std::string& code);
void readStreetAddress(const SPI::XmlElement& element, StreetAddress& address);

}  // namespace ZEL::API
