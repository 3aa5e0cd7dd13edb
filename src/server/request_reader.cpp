#include "server/request_reader.h"

#include <charconv>
#include <memory>

#include "remote/request_messages.h"
#include "remote/response_parser.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

using Remote::childText;
using Remote::findChild;

const char* requestRoot(Question question) {
    switch (question) {
        case Question::Location:
            return "LocationRQ";
        case Question::IpLocation:
            return "IPLocationRQ";
        case Question::Registration:
            return "RegistrationRQ";
    }
    return "";
}

ReadResult refuse(std::string why) {
    return ReadResult{std::nullopt, std::move(why)};
}

// A `simple` element's username and realm; false when either is missing, empty
// or too long.
bool readSimple(const SPI::XmlElement& simple, Credentials& out) {
    if (!Remote::findChild(simple, "username") || !Remote::findChild(simple, "realm")) {
        return false;
    }
    out.username = Remote::childText(simple, "username");
    out.realm = Remote::childText(simple, "realm");
    return !out.username.empty() && out.username.size() <= kMaxNameBytes &&
           out.realm.size() <= kMaxNameBytes;
}

bool readAuthentication(const SPI::XmlElement& root, Credentials& out) {
    std::unique_ptr<SPI::XmlElement> authentication = Remote::findChild(root, "authentication");
    if (!authentication) {
        return false;
    }
    std::unique_ptr<SPI::XmlElement> simple = Remote::findChild(*authentication, "simple");
    return simple && readSimple(*simple, out);
}

int lookupLevel(const SPI::XmlElement& root) {
    const std::string word = root.getAttribute("", "street-address-lookup");
    if (word == "limited") {
        return 1;
    }
    if (word == "full") {
        return 2;
    }
    return 0;
}

bool readSignal(const std::string& text, int16_t& rss) {
    const char* end = text.data() + text.size();
    auto [rest, error] = std::from_chars(text.data(), end, rss);
    return error == std::errc() && rest == end;
}

// Every access-point child, in document order.
std::string readAccessPoints(const SPI::XmlElement& root, size_t maxAccessPoints,
                             Core::ApList& out) {
    std::unique_ptr<SPI::XmlNodeList> children = root.childNodes();
    const Core::TimeStamp now = SPI::currentTime();
    for (size_t i = 0; children && i < children->length(); ++i) {
        std::unique_ptr<SPI::XmlElement> child = children->item(i);
        if (!child || child->namespaceURI() != Remote::kRequestNamespaceUri ||
            child->name() != "access-point") {
            continue;
        }
        if (out.size() == maxAccessPoints) {
            return "too many access points";
        }
        Core::ScannedAP ap;
        const std::string macText = Remote::childText(*child, "mac");
        std::optional<Core::MacAddress> mac =
            macText.size() == 12 ? Core::parseMacText(macText) : std::nullopt;
        if (!mac || !readSignal(Remote::childText(*child, "signal-strength"), ap.rss)) {
            return "access point without a valid mac and signal-strength";
        }
        ap.mac = *mac;
        ap.time = now;
        out.push_back(ap);
    }
    return {};
}

}  // namespace

ReadResult readRequest(Question question, std::string_view body, size_t maxAccessPoints) {
    std::unique_ptr<SPI::XmlParser> parser = SPI::platform().newXmlParser();
    std::unique_ptr<SPI::XmlDocument> document =
        parser ? parser->parse(body.data(), body.size()) : nullptr;
    if (!document) {
        return refuse("not a well-formed XML document");
    }
    std::unique_ptr<SPI::XmlElement> root = document->documentElement();
    const char* expected = requestRoot(question);
    if (root->namespaceURI() != Remote::kRequestNamespaceUri || root->name() != expected) {
        return refuse(std::string("expected a ") + expected + " document");
    }
    ClientRequest request;
    request.question = question;
    if (!readAuthentication(*root, request.authentication)) {
        return refuse("no valid authentication");
    }
    if (question != Question::Registration) {
        request.streetAddressLookup = lookupLevel(*root);
    }
    if (question == Question::Location) {
        std::string error = readAccessPoints(*root, maxAccessPoints, request.accessPoints);
        if (!error.empty()) {
            return refuse(std::move(error));
        }
    }
    if (question == Question::Registration) {
        std::unique_ptr<SPI::XmlElement> simple = Remote::findChild(*root, "simple");
        if (!simple || !readSimple(*simple, request.newUser)) {
            return refuse("no valid user to register");
        }
    }
    return ReadResult{std::move(request), {}};
}

}  // namespace ZEL::Server
