#include "remote/request_messages.h"

#include <charconv>

namespace ZEL::Remote {
namespace {

// Capacities reserved up front, so each document grows in one buffer.
constexpr size_t kRequestCapacity = 1024;
constexpr size_t kAuthenticationCapacity = 192;
constexpr size_t kLookupCapacity = 64;

void appendSimple(std::string& out, Core::Credentials user) {
    out += "<simple><username>";
    out += user.username;
    out += "</username><realm>";
    out += user.realm;
    out += "</realm></simple>";
}

void appendAccessPoint(std::string& out, const Core::ScannedAP& ap) {
    out += "<access-point><mac>";
    out += Core::macText(ap.mac);
    out += "</mac><signal-strength>";
    char digits[8];
    auto end = std::to_chars(digits, digits + sizeof digits, ap.rss, 10).ptr;
    out.append(digits, end);
    out += "</signal-strength></access-point>";
}

// "<?xml version='1.0'?><NAME xmlns='...' version='2.3'"
std::string openDocument(const char* name) {
    std::string out;
    out.reserve(kRequestCapacity);
    out += xmlDeclaration();
    out += '<';
    out += name;
    out += ' ';
    out += namespaceAndVersion();
    return out;
}

}  // namespace

const std::string& xmlDeclaration() {
    static const std::string declaration = "<?xml version='1.0'?>";
    return declaration;
}

const std::string& namespaceAndVersion() {
    static const std::string text =
        std::string("xmlns='") + kRequestNamespaceUri + "' version='2.3'";
    return text;
}

std::string makeAuthentication(Core::Credentials credentials) {
    std::string out;
    out.reserve(kAuthenticationCapacity);
    out += "<authentication version='2.0'>";
    appendSimple(out, credentials);
    out += "</authentication>";
    return out;
}

std::string makeStreetAddressLookup(int level) {
    std::string out;
    out.reserve(kLookupCapacity);
    out += " street-address-lookup='";
    switch (level) {
        case 0:
            out += "none";
            break;
        case 1:
            out += "limited";
            break;
        case 2:
            out += "full";
            break;
        default:
            break;  // any other level: an empty value, passed on unchecked
    }
    out += '\'';
    return out;
}

std::string makeLocationRequest(Core::Credentials credentials, int level, const Core::ApList& aps) {
    std::string out = openDocument("LocationRQ");
    out += makeStreetAddressLookup(level);
    out += '>';
    out += makeAuthentication(credentials);
    for (const Core::ScannedAP& ap : aps) {
        appendAccessPoint(out, ap);
    }
    out += "</LocationRQ>";
    return out;
}

std::string makeIPLocationRequest(Core::Credentials credentials, int level) {
    std::string out = openDocument("IPLocationRQ");
    out += makeStreetAddressLookup(level);
    out += '>';
    out += makeAuthentication(credentials);
    out += "</IPLocationRQ>";
    return out;
}

std::string makeRegistrationRequest(Core::Credentials credentials, Core::Credentials newUser) {
    std::string out = openDocument("RegistrationRQ");
    out += '>';
    out += makeAuthentication(credentials);
    appendSimple(out, newUser);
    out += "</RegistrationRQ>";
    return out;
}

}  // namespace ZEL::Remote
