#include "service_options.h"

#include "zelapi_ext.h"

namespace ZEL::Cli {

void ServiceOptions::addTo(CLI::App* command, bool withDatabases, bool withGeolocate) {
    if (withDatabases) {
        command->add_option("--db", databases, "Tile file of access-point positions (repeatable)");
    }
    command->add_option("--realm", realm, "Realm of the user and of the tile files");
    command->add_option("--user", user, "User name sent to the location server");
    command->add_option("--server", server, "Location server URL (default: the built-in service)");
    if (withGeolocate) {
        command->add_option("--geolocate", geolocate,
                            "Ask this JSON geolocate service (full URL with ?key=) instead of "
                            "the location server");
    }
    auto* proxyOption = command->add_option("--proxy", proxy, "HTTP proxy as HOST:PORT");
    command->add_option("--proxy-user", proxyUser, "Proxy user name")->needs(proxyOption);
    command->add_option("--proxy-password", proxyPassword, "Proxy password")->needs(proxyOption);
    command->add_option("--street-address", streetAddress, "Street address wanted from the server")
        ->check(CLI::IsMember({"none", "limited", "full"}));
    command->add_flag("--json", json, "One JSON object per line");
}

void ServiceOptions::apply() const {
    if (!server.empty()) {
        ZEL_set_server_url(server.c_str());
    }
    if (!geolocate.empty()) {
        ZEL_set_geolocate_url(geolocate.c_str());
    }
    if (!proxy.empty()) {
        std::string host = proxy;
        int port = 0;  // 0: no port suffix
        auto colon = proxy.rfind(':');
        if (colon != std::string::npos && colon + 1 < proxy.size() &&
            proxy.find_first_not_of("0123456789", colon + 1) == std::string::npos) {
            host = proxy.substr(0, colon);
            port = std::stoi(proxy.substr(colon + 1));
        }
        ZEL_set_proxy(host.c_str(), port, proxyUser.c_str(), proxyPassword.c_str());
    }
    std::vector<const char*> paths;
    for (const std::string& path : databases) {
        paths.push_back(path.c_str());
    }
    paths.push_back(nullptr);
    ZEL_set_local_files_path(paths.data());
}

ZEL_StreetAddressLookup ServiceOptions::lookupLevel() const {
    if (streetAddress == "full")
        return ZEL_FULL_STREET_ADDRESS_LOOKUP;
    if (streetAddress == "limited")
        return ZEL_LIMITED_STREET_ADDRESS_LOOKUP;
    return ZEL_NO_STREET_ADDRESS_LOOKUP;
}

}  // namespace ZEL::Cli
