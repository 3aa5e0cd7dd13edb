#include "location_output.h"

#include <cstdio>

#include "core/scanned_ap.h"

namespace ZEL::Cli {
namespace {

nlohmann::json apTableJson(const ZEL_APTable& table) {
    nlohmann::json list = nlohmann::json::array();
    for (unsigned i = 0; i < table.count; ++i) {
        ZEL::Core::MacAddress mac;
        std::copy_n(table.aps[i].mac, 6, mac.begin());
        list.push_back({{"mac", ZEL::Core::macText(mac)}, {"rss", table.aps[i].rss}});
    }
    return list;
}

nlohmann::json streetAddressJson(const ZEL_StreetAddress* address) {
    if (address == nullptr) {
        return nullptr;
    }
    nlohmann::json lines = nlohmann::json::array();
    for (char** line = address->address_line; line != nullptr && *line != nullptr; ++line) {
        lines.push_back(*line);
    }
    return {{"street_number", address->street_number},
            {"address_lines", lines},
            {"city", address->city},
            {"postal_code", address->postal_code},
            {"county", address->county},
            {"province", address->province},
            {"region", address->region},
            {"state", address->state},
            {"state_code", address->state_code},
            {"country", address->country},
            {"country_code", address->country_code}};
}

std::string streetAddressText(const ZEL_StreetAddress* address) {
    std::string text;
    auto add = [&](const char* part) {
        if (part != nullptr && *part != '\0') {
            text += text.empty() ? "" : ", ";
            text += part;
        }
    };
    std::string street = address->street_number;
    if (address->address_line != nullptr && address->address_line[0] != nullptr) {
        street += street.empty() ? "" : " ";
        street += address->address_line[0];
    }
    add(street.c_str());
    for (char** line = address->address_line; line != nullptr && *line != nullptr; ++line) {
        if (line != address->address_line)
            add(*line);
    }
    add(address->postal_code);
    add(address->city);
    add(address->county);
    add(address->region);
    add(address->state);
    add(address->country);
    return text;
}

void printApTable(const char* title, const ZEL_APTable& table) {
    std::printf("%-10s %u", title, table.count);
    for (unsigned i = 0; i < table.count; ++i) {
        ZEL::Core::MacAddress mac;
        std::copy_n(table.aps[i].mac, 6, mac.begin());
        std::printf("%s%s %d dBm", i == 0 ? ": " : ", ", ZEL::Core::macText(mac).c_str(),
                    table.aps[i].rss);
    }
    std::printf("\n");
}

}  // namespace

const char* describeCode(int code) {
    switch (code) {
        case ZEL_OK:
            return "success";
        case ZEL_ERROR_WIFI:
            return "no usable Wi-Fi adapter";
        case ZEL_ERROR_NO_WIFI_IN_RANGE:
            return "no access point heard";
        case ZEL_ERROR_UNAUTHORIZED:
            return "the server refused the credentials";
        case ZEL_ERROR_SERVER_UNAVAILABLE:
            return "communication with the server failed";
        case ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED:
            return "the location cannot be determined";
        case ZEL_ERROR_PROXY_UNAUTHORIZED:
            return "the proxy asked for authentication";
        case ZEL_ERROR_NOT_READY:
            return "the request could not be prepared";
        default:
            return "unknown error";
    }
}

std::string geoUri(double latitude, double longitude, double hpe) {
    char text[96];
    std::snprintf(text, sizeof text, "geo:%.6f,%.6f;u=%.0f", latitude, longitude, hpe);
    return text;
}

nlohmann::json locationJson(int code, const ZEL_Location* location) {
    nlohmann::json json{{"code", code}};
    if (location == nullptr) {
        return json;
    }
    json["latitude"] = location->latitude;
    json["longitude"] = location->longitude;
    json["hpe"] = location->hpe;
    json["nap"] = location->nap;
    json["speed"] = location->speed;
    json["bearing"] = location->bearing;
    json["street_address"] = streetAddressJson(location->street_address);
    json["known_aps"] = apTableJson(location->known_aps);
    json["unknown_aps"] = apTableJson(location->unknown_aps);
    json["geo"] = geoUri(location->latitude, location->longitude, location->hpe);
    return json;
}

nlohmann::json ipLocationJson(int code, const ZEL_IPLocation* location) {
    nlohmann::json json{{"code", code}};
    if (location != nullptr) {
        json["ip"] = location->ip;
        json["latitude"] = location->latitude;
        json["longitude"] = location->longitude;
        json["street_address"] = streetAddressJson(location->street_address);
        json["geo"] = geoUri(location->latitude, location->longitude, 0);
    }
    return json;
}

void printLocation(int code, const ZEL_Location* location, bool json) {
    if (json) {
        std::printf("%s\n", locationJson(code, location).dump().c_str());
        return;
    }
    if (location == nullptr) {
        std::printf("no position: %s (code %d)\n", describeCode(code), code);
        return;
    }
    if (code != ZEL_OK) {
        std::printf("code %d: %s\n", code, describeCode(code));
    }
    std::printf("position   %.6f, %.6f  +/- %.0f m from %u APs\n", location->latitude,
                location->longitude, location->hpe, location->nap);
    if (location->speed < 0) {
        std::printf("motion     unknown (a server's position)\n");
    } else {
        std::printf("motion     %.1f km/h, bearing %.1f\n", location->speed, location->bearing);
    }
    if (location->street_address != nullptr) {
        std::printf("address    %s\n", streetAddressText(location->street_address).c_str());
    }
    printApTable("known", location->known_aps);
    printApTable("unknown", location->unknown_aps);
    std::printf("map        %s\n",
                geoUri(location->latitude, location->longitude, location->hpe).c_str());
}

void printLocationLine(int code, const ZEL_Location* location, bool json) {
    if (json) {
        std::printf("%s\n", locationJson(code, location).dump().c_str());
    } else if (location == nullptr) {
        std::printf("no position: %s (code %d)\n", describeCode(code), code);
    } else {
        std::printf("%.6f, %.6f  +/- %.0f m  %u APs  %.1f km/h  bearing %.1f  %s\n",
                    location->latitude, location->longitude, location->hpe, location->nap,
                    location->speed, location->bearing,
                    geoUri(location->latitude, location->longitude, location->hpe).c_str());
    }
}

void printIpLocation(int code, const ZEL_IPLocation* location, bool json) {
    if (json) {
        std::printf("%s\n", ipLocationJson(code, location).dump().c_str());
        return;
    }
    if (location == nullptr) {
        std::printf("no position: %s (code %d)\n", describeCode(code), code);
        return;
    }
    std::printf("ip         %s\n", location->ip);
    std::printf("position   %.6f, %.6f\n", location->latitude, location->longitude);
    if (location->street_address != nullptr) {
        std::printf("address    %s\n", streetAddressText(location->street_address).c_str());
    }
    std::printf("map        %s\n", geoUri(location->latitude, location->longitude, 0).c_str());
}

}  // namespace ZEL::Cli
