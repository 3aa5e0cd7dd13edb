// The answer documents of the location server.
//
// Every answer is one well-formed document whose elements live in the request
// namespace (declared as the default namespace, since the client matches elements
// by namespace and unprefixed name). Unlike the requests, answers escape every
// text and attribute value they carry, so data from a CSV file or a request can
// never break the document.
#pragma once

#include <string>
#include <string_view>

#include "core/location_record.h"

namespace ZEL::Server {

// Which question an answer replies to; decides the document element.
enum class Question { Location, IpLocation, Registration };

// "LocationRS", "IPLocationRS" or "RegistrationRS".
const char* answerRoot(Question question);

// Text made safe for element content and quoted attribute values: & < > ' " as
// references, characters XML 1.0 forbids dropped, ill-formed UTF-8 replaced with
// U+FFFD.
std::string escapeXml(std::string_view text);

// The shortest decimal text that reads back as exactly `value`.
std::string formatDouble(double value);

// `location` with attribute nap and latitude, longitude, hpe; a street-address
// element when `address` is not empty.
std::string locationAnswer(const Core::LocationRecord& location,
                           const Core::StreetAddress& address);
// `ip-location` with ip, latitude, longitude and the address when not empty.
std::string ipLocationAnswer(const std::string& ip, double latitude, double longitude,
                             const Core::StreetAddress& address);
// An empty RegistrationRS: the user was created.
std::string registrationAnswer();
// The document element of `question` holding <error code='CODE'>MESSAGE</error>.
std::string errorAnswer(Question question, std::string_view code, std::string_view message);
// The same for an answer that belongs to no question (an unknown path, a body too
// large to read): the document element is "ErrorRS".
std::string genericErrorAnswer(std::string_view code, std::string_view message);

}  // namespace ZEL::Server
