// A location server on 127.0.0.1 (ephemeral port) for tests, over a tile file
// (realm "acme") of twelve APs, testMac(1..12), within 60 m of the base point of
// local_entries.h, which has a street address. IP ranges: 127/8 and 10/8.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/location_server.h"
#include "tiles/tile_writer.h"

namespace ZEL::Testing {

inline constexpr const char kServerRealm[] = "acme";
inline constexpr const char kRegisteredUser[] = "alice";

// Where 127.0.0.0/8 and 10.0.0.0/8 are said to be.
inline constexpr double kLoopbackLatitude = 47.5;
inline constexpr double kTenNetLatitude = 40.25;

struct LocationServerConfig {
    // HTTPS with a self-signed certificate for "localhost", so a client reaching
    // 127.0.0.1 sees an unknown issuer and a name that does not match.
    bool https = false;
    bool trustProxy = false;
    std::string database = "sqlite::memory:";  // URL of users and keys; reports unless memory
    // Sets server options beyond these (limits, deadlines) before the start.
    std::function<void(Server::ServerOptions&)> configure = nullptr;
};

class TestLocationServer {
  public:
    // Null (after a gtest failure message) when anything fails to start.
    static std::unique_ptr<TestLocationServer> start(const LocationServerConfig& config = {});
    ~TestLocationServer();

    // The client's server URL: "http(s)://127.0.0.1:PORT/zel2".
    std::string serviceUrl() const { return server_->url() + "/zel2"; }
    int port() const { return server_->port(); }
    Server::LocationService& service() { return *service_; }

    static const std::string& tilePath();
    // The access points of that file, or all of them `northMetres` further north.
    static std::vector<Tiles::AccessPointPosition> tileAccessPoints(double northMetres = 0.0);

  private:
    std::string certificateDirectory_;
    std::shared_ptr<Server::LocationService> service_;
    std::unique_ptr<Server::LocationServer> server_;
};

}  // namespace ZEL::Testing
