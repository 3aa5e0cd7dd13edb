#include "support/location_server_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/hand_built_tile.h"
#include "support/local_entries.h"
#include "tiles/tile_writer.h"

namespace ZEL::Testing {
namespace {

constexpr const char kAddresses[] =
    "latitude,longitude,street_number,address_lines,city,postal_code,county,province,region,"
    "state,state_code,country,country_code\n"
    "47.0,8.0,12a,\"Rue <Haute> & Co|2nd floor, left\",Bern,3011,Bern-Mittelland,,Espace "
    "Mittelland,Bern,BE,Switzerland,CH\n";

constexpr const char kRanges[] =
    "first,last,latitude,longitude,city,country,country_code,street_number\n"
    "127.0.0.0,127.255.255.255,47.5,8.5,Loopback City,Nowhere,NW,7\n"
    "10.0.0.0,10.255.255.255,40.25,-3.5,Ten Town,Spain,ES,\n";

}  // namespace

std::vector<Tiles::AccessPointPosition> TestLocationServer::tileAccessPoints(double northMetres) {
    std::vector<Tiles::AccessPointPosition> aps;
    for (int i = 1; i <= 12; ++i) {
        aps.push_back({testMac(i), latitudeAt((i % 4) * 20.0 - 30.0 + northMetres),
                       longitudeAt((i / 4) * 25.0 - 30.0), 40, 0.3});
    }
    return aps;
}

const std::string& TestLocationServer::tilePath() {
    static const TempDir directory;  // removed at exit
    static const std::string path = [] {
        const auto result = Tiles::TileWriter::writeFile(directory.path() + "/tiles.zel",
                                                         tileAccessPoints(), kServerRealm);
        EXPECT_TRUE(result.ok) << result.error;
        return directory.path() + "/tiles.zel";
    }();
    return path;
}

std::unique_ptr<TestLocationServer> TestLocationServer::start(const LocationServerConfig& config) {
    std::string error;
    Server::ServiceData data;
    data.users = Server::Database::open(config.database, error);
    std::istringstream addresses(kAddresses);
    data.addresses = Server::StreetAddressIndex::read(addresses, "addresses", 200.0, error);
    std::istringstream ranges(kRanges);
    data.ipRanges = Server::IpRanges::read(ranges, "ranges", error);
    if (!data.users || !data.addresses || !data.ipRanges) {
        ADD_FAILURE() << error;
        return nullptr;
    }
    data.users->addUser(kRegisteredUser, kServerRealm);
    Server::ServiceOptions options{{tilePath()}, kServerRealm, false, 100};
    options.storeReports = config.database != "sqlite::memory:";
    auto test = std::unique_ptr<TestLocationServer>(new TestLocationServer);
    test->service_ = Server::LocationService::create(options, std::move(data), error);
    if (!test->service_) {
        ADD_FAILURE() << error;
        return nullptr;
    }
    Server::ServerOptions serverOptions;
    serverOptions.port = 0;
    serverOptions.threads = 8;
    serverOptions.trustProxy = config.trustProxy;
    if (config.configure) {
        config.configure(serverOptions);
    }
    if (config.https) {
        std::string& directory = test->certificateDirectory_;
        directory = std::filesystem::temp_directory_path() / "zel_cert_XXXXXX";
        const bool made = mkdtemp(directory.data()) != nullptr;
        serverOptions.tlsCertificate = directory + "/certificate.pem";
        serverOptions.tlsKey = directory + "/key.pem";
        // An EC key is made in milliseconds; RSA would slow every TLS test down.
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
            " -subj /CN=localhost -keyout '" +
            serverOptions.tlsKey + "' -out '" + serverOptions.tlsCertificate + "' >/dev/null 2>&1";
        if (!made || std::system(command.c_str()) != 0) {
            ADD_FAILURE() << "no certificate";
            return nullptr;
        }
    }
    test->server_ = Server::LocationServer::start(serverOptions, test->service_, error);
    if (!test->server_) {
        ADD_FAILURE() << error;
        return nullptr;
    }
    return test;
}

TestLocationServer::~TestLocationServer() {
    server_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(certificateDirectory_, ignored);
}

}  // namespace ZEL::Testing
