#include "core/scanned_ap.h"

#include <algorithm>
#include <cstdio>

namespace ZEL::Core {

void ScannedAP::setSsid(std::string_view text) {
    ssidLength = static_cast<uint8_t>(std::min(text.size(), ssid.size()));
    std::copy_n(text.begin(), ssidLength, ssid.begin());
}

std::string macText(const MacAddress& mac) {
    char text[13];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", mac[5], mac[4], mac[3], mac[2],
                  mac[1], mac[0]);
    return text;
}

std::optional<MacAddress> parseMacText(std::string_view text) {
    auto hexValue = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    MacAddress mac{};
    size_t pos = 0;
    char separator = 0;  // decided by the first octet boundary: ':', '-' or none
    for (int octet = 0; octet < 6; ++octet) {
        if (octet == 1 && pos < text.size() && (text[pos] == ':' || text[pos] == '-')) {
            separator = text[pos];
        }
        if (octet > 0 && separator != 0) {
            if (pos >= text.size() || text[pos] != separator)
                return std::nullopt;
            ++pos;
        }
        if (pos + 2 > text.size())
            return std::nullopt;
        int high = hexValue(text[pos]);
        int low = hexValue(text[pos + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        mac[5 - octet] = static_cast<uint8_t>(high * 16 + low);
        pos += 2;
    }
    if (pos != text.size())
        return std::nullopt;
    return mac;
}

}  // namespace ZEL::Core
