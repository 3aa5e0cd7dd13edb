// A location server on 127.0.0.1 (ephemeral port) for tests, over a small tile
// file written for the run, with street addresses and IP ranges of its own.
//
// The tile file (realm "acme") holds a cluster of twelve APs, testMac(1..12),
// within 60 m of the base point of local_entries.h, and a second cluster,
// testMac(21..24), 3 km north of it. Only the first cluster has a street address
// within the radius. IP ranges: 127.0.0.0/8 and 10.0.0.0/8.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "server/location_server.h"
#include "support/test_certificate.h"

namespace ZEL::Testing {

inline constexpr const char kServerRealm[] = "acme";
inline constexpr const char kRegisteredUser[] = "alice";

// Where 127.0.0.0/8 and 10.0.0.0/8 are said to be.
inline constexpr double kLoopbackLatitude = 47.5;
inline constexpr double kLoopbackLongitude = 8.5;
inline constexpr double kTenNetLatitude = 40.25;

struct LocationServerConfig {
    const TestCertificate* certificate = nullptr;  // set: HTTPS
    bool open = false;
    bool trustProxy = false;
    std::string usersPath = ":memory:";
    std::function<void(const std::string&)> accessLog;
};

class TestLocationServer {
  public:
    // Null (after a gtest failure message) when anything fails to start.
    static std::unique_ptr<TestLocationServer> start(const LocationServerConfig& config = {});

    // The client's server URL: "http(s)://127.0.0.1:PORT/zel2".
    std::string serviceUrl() const { return server_->url() + "/zel2"; }
    // Scheme, host and port only.
    std::string baseUrl() const { return server_->url(); }
    int port() const { return server_->port(); }
    Server::LocationService& service() { return *service_; }
    void stop() { server_->stop(); }

    // The tile file every server of this process answers from.
    static const std::string& tilePath();

  private:
    std::shared_ptr<Server::LocationService> service_;
    std::unique_ptr<Server::LocationServer> server_;
};

}  // namespace ZEL::Testing
