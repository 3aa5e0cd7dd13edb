#include "remote/response_parser.h"

#include <cstdlib>

#include "remote/request_messages.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Remote {
namespace {

using Core::ResultCode;
constexpr ResultCode kCannotBeDetermined = ResultCode::kCannotDetermine;

bool matches(const SPI::XmlElement& element, const std::string& name) {
    return element.namespaceURI() == kRequestNamespaceUri && element.name() == name;
}

// The parsed document and its root, or null when the text is not XML.
struct ParsedAnswer {
    std::unique_ptr<SPI::XmlDocument> document;
    std::unique_ptr<SPI::XmlElement> root;
};

ParsedAnswer parseAnswer(std::string_view text) {
    std::unique_ptr<SPI::XmlParser> parser = SPI::platform().newXmlParser();
    if (!parser) {
        ZEL_LOG_ERROR(SPI::getLogger("ZEL.API.ResponseParser"), "couldn't create xml parser");
        return {};
    }
    ParsedAnswer answer;
    answer.document = parser->parse(text.data(), text.size());
    if (answer.document) {
        answer.root = answer.document->documentElement();
    }
    return answer;
}

// The answer's payload element `name`, or null when the answer failed, holds an
// `error` element or lacks `name`.
std::unique_ptr<SPI::XmlElement> payload(const ParsedAnswer& answer, const std::string& name) {
    if (!answer.root || findChild(*answer.root, "error")) {
        return nullptr;
    }
    return findChild(*answer.root, name);
}

// atoi: leading digits only, 0 when there are none.
int atoiValue(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

}  // namespace

std::unique_ptr<SPI::XmlElement> findChild(const SPI::XmlElement& element,
                                           const std::string& name) {
    std::unique_ptr<SPI::XmlNodeList> children = element.childNodes();
    for (size_t i = 0; children && i < children->length(); ++i) {
        std::unique_ptr<SPI::XmlElement> child = children->item(i);
        if (child && matches(*child, name)) {
            return child;
        }
    }
    return nullptr;
}

std::string childText(const SPI::XmlElement& element, const std::string& name) {
    std::unique_ptr<SPI::XmlElement> child = findChild(element, name);
    return child ? child->text() : std::string();
}

double childDouble(const SPI::XmlElement& element, const std::string& name) {
    std::unique_ptr<SPI::XmlElement> child = findChild(element, name);
    return child ? std::strtod(child->text().c_str(), nullptr) : 0.0;
}

void childNameAndCode(const SPI::XmlElement& element, const std::string& name,
                      std::string& nameText, std::string& code) {
    std::unique_ptr<SPI::XmlElement> child = findChild(element, name);
    if (!child) {
        return;
    }
    nameText = child->text();
    code = child->getAttribute("", "code");
    if (code.size() != 2) {
        code.clear();
    }
}

void readStreetAddress(const SPI::XmlElement& element, Core::StreetAddress& address) {
    std::unique_ptr<SPI::XmlElement> street = findChild(element, "street-address");
    if (!street) {
        return;
    }
    address.streetNumber = childText(*street, "street-number");
    address.city = childText(*street, "city");
    address.postalCode = childText(*street, "postal-code");
    address.county = childText(*street, "county");
    address.province = childText(*street, "province");
    address.region = childText(*street, "region");
    childNameAndCode(*street, "state", address.state, address.stateCode);
    childNameAndCode(*street, "country", address.country, address.countryCode);
    std::unique_ptr<SPI::XmlNodeList> children = street->childNodes();
    for (size_t i = 0; children && i < children->length(); ++i) {
        std::unique_ptr<SPI::XmlElement> child = children->item(i);
        if (child && matches(*child, "address-line")) {
            address.addressLines.push_back(child->text());
        }
    }
}

ResultCode parseRegistrationResponse(std::string_view text) {
    ParsedAnswer answer = parseAnswer(text);
    if (!answer.root || findChild(*answer.root, "error")) {
        return kCannotBeDetermined;
    }
    return ResultCode::kOk;
}

ResultCode parseLocationResponse(std::string_view text, int streetAddressLookup,
                                 Core::LocationRecord& location) {
    ParsedAnswer answer = parseAnswer(text);
    std::unique_ptr<SPI::XmlElement> element = payload(answer, "location");
    if (!element) {
        return kCannotBeDetermined;
    }
    location.hpe = childDouble(*element, "hpe");
    location.nap = static_cast<uint16_t>(atoiValue(element->getAttribute("", "nap")));
    location.speed = -1.0;
    location.bearing = 0.0;
    location.latitude = childDouble(*element, "latitude");
    location.longitude = childDouble(*element, "longitude");
    if (streetAddressLookup != 0) {
        readStreetAddress(*element, location.streetAddress);
    }
    return ResultCode::kOk;
}

ResultCode parseIPLocationResponse(std::string_view text, int streetAddressLookup,
                                   Core::IpLocationRecord& ipLocation) {
    ParsedAnswer answer = parseAnswer(text);
    std::unique_ptr<SPI::XmlElement> element = payload(answer, "ip-location");
    if (!element) {
        return kCannotBeDetermined;
    }
    ipLocation.ip = childText(*element, "ip");
    ipLocation.latitude = childDouble(*element, "latitude");
    ipLocation.longitude = childDouble(*element, "longitude");
    if (streetAddressLookup != 0) {
        readStreetAddress(*element, ipLocation.streetAddress);
    }
    return ResultCode::kOk;
}

}  // namespace ZEL::Remote
