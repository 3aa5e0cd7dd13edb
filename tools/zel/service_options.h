// Options shared by the subcommands that call the library: who asks, which server,
// which proxy, which local databases, which street-address level.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "zelapi.h"

namespace ZEL::Cli {

struct ServiceOptions {
    std::vector<std::string> databases;
    std::string realm;
    std::string user = "anonymous";
    std::string server;
    std::string geolocate;  // URL of a JSON geolocate service, ?key= included
    std::string proxy;      // HOST:PORT
    std::string proxyUser;
    std::string proxyPassword;
    std::string streetAddress = "none";
    bool json = false;

    // Adds the options to `command`; `withDatabases` adds --db, `withGeolocate` --geolocate.
    void addTo(CLI::App* command, bool withDatabases, bool withGeolocate = true);

    // Hands the settings to the library (server URL, proxy, local files).
    void apply() const;

    ZEL_Authentication authentication() const { return {user.c_str(), realm.c_str()}; }
    ZEL_StreetAddressLookup lookupLevel() const;
};

}  // namespace ZEL::Cli
