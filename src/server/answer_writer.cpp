#include "server/answer_writer.h"

#include <charconv>

#include "remote/request_messages.h"

namespace ZEL::Server {
namespace {

constexpr const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// XML 1.0 Char: tab, line feed, carriage return and everything from space up,
// except surrogates and U+FFFE, U+FFFF.
bool allowedInXml(char32_t c) {
    if (c < 0x20) {
        return c == 0x09 || c == 0x0A || c == 0x0D;
    }
    return (c < 0xD800) || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// Decodes one UTF-8 sequence at `text[i]`; returns its length, or 0 when ill-formed
// (bad lead byte, missing continuation, overlong form, surrogate, beyond U+10FFFF).
size_t decodeUtf8(std::string_view text, size_t i, char32_t& c) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    size_t length;
    char32_t minimum;
    if (lead < 0x80) {
        c = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, minimum = 0x80, c = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, minimum = 0x800, c = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, minimum = 0x10000, c = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) {
        return 0;
    }
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return 0;
        }
        c = (c << 6) | (byte(i + k) & 0x3F);
    }
    if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) {
        return 0;
    }
    return length;
}

void appendEscaped(std::string& out, char c) {
    switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '\'':
            out += "&apos;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
    }
}

// "<?xml version='1.0' encoding='UTF-8'?><ROOT xmlns='...' version='2.3'>"
std::string openAnswer(const char* root) {
    std::string out = "<?xml version='1.0' encoding='UTF-8'?><";
    out += root;
    out += ' ';
    out += Remote::namespaceAndVersion();
    out += '>';
    return out;
}

void closeAnswer(std::string& out, const char* root) {
    out += "</";
    out += root;
    out += '>';
}

// <NAME>escaped text</NAME>, left out when the text is empty.
void appendElement(std::string& out, const char* name, std::string_view text) {
    if (text.empty()) {
        return;
    }
    out += '<';
    out += name;
    out += '>';
    out += escapeXml(text);
    out += "</";
    out += name;
    out += '>';
}

// <NAME code='CODE'>text</NAME>, left out when both are empty.
void appendNameAndCode(std::string& out, const char* name, const std::string& text,
                       const std::string& code) {
    if (text.empty() && code.empty()) {
        return;
    }
    out += '<';
    out += name;
    if (!code.empty()) {
        out += " code='" + escapeXml(code) + "'";
    }
    out += '>';
    out += escapeXml(text);
    out += "</";
    out += name;
    out += '>';
}

void appendStreetAddress(std::string& out, const Core::StreetAddress& address) {
    if (address.empty()) {
        return;
    }
    out += "<street-address>";
    appendElement(out, "street-number", address.streetNumber);
    for (const std::string& line : address.addressLines) {
        appendElement(out, "address-line", line);
    }
    appendElement(out, "city", address.city);
    appendElement(out, "postal-code", address.postalCode);
    appendElement(out, "county", address.county);
    appendElement(out, "province", address.province);
    appendElement(out, "region", address.region);
    appendNameAndCode(out, "state", address.state, address.stateCode);
    appendNameAndCode(out, "country", address.country, address.countryCode);
    out += "</street-address>";
}

}  // namespace

const char* answerRoot(Question question) {
    switch (question) {
        case Question::Location:
            return "LocationRS";
        case Question::IpLocation:
            return "IPLocationRS";
        case Question::Registration:
            return "RegistrationRS";
    }
    return "ErrorRS";
}

std::string escapeXml(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        char32_t c = 0;
        const size_t length = decodeUtf8(text, i, c);
        if (length == 0) {
            out += kReplacement;
            ++i;
            continue;
        }
        if (allowedInXml(c)) {
            if (length == 1) {
                appendEscaped(out, text[i]);
            } else {
                out.append(text.substr(i, length));
            }
        }
        i += length;
    }
    return out;
}

std::string formatDouble(double value) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return std::string(digits, end);
}

std::string locationAnswer(const Core::LocationRecord& location,
                           const Core::StreetAddress& address) {
    const char* root = answerRoot(Question::Location);
    std::string out = openAnswer(root);
    out += "<location nap='" + std::to_string(location.nap) + "'>";
    appendElement(out, "latitude", formatDouble(location.latitude));
    appendElement(out, "longitude", formatDouble(location.longitude));
    appendElement(out, "hpe", formatDouble(location.hpe));
    appendStreetAddress(out, address);
    out += "</location>";
    closeAnswer(out, root);
    return out;
}

std::string ipLocationAnswer(const std::string& ip, double latitude, double longitude,
                             const Core::StreetAddress& address) {
    const char* root = answerRoot(Question::IpLocation);
    std::string out = openAnswer(root);
    out += "<ip-location>";
    appendElement(out, "ip", ip);
    appendElement(out, "latitude", formatDouble(latitude));
    appendElement(out, "longitude", formatDouble(longitude));
    appendStreetAddress(out, address);
    out += "</ip-location>";
    closeAnswer(out, root);
    return out;
}

std::string registrationAnswer() {
    const char* root = answerRoot(Question::Registration);
    std::string out = openAnswer(root);
    closeAnswer(out, root);
    return out;
}

namespace {

std::string errorDocument(const char* root, std::string_view code, std::string_view message) {
    std::string out = openAnswer(root);
    out += "<error code='" + escapeXml(code) + "'>" + escapeXml(message) + "</error>";
    closeAnswer(out, root);
    return out;
}

}  // namespace

std::string errorAnswer(Question question, std::string_view code, std::string_view message) {
    return errorDocument(answerRoot(question), code, message);
}

std::string genericErrorAnswer(std::string_view code, std::string_view message) {
    return errorDocument("ErrorRS", code, message);
}

}  // namespace ZEL::Server
