// The location server over HTTP or HTTPS: POST {prefix}/location, /ip-location and
// /registration, answered by a LocationService.
//
// Limits protect the server from its clients: a body over maxBodyBytes is refused
// with 413 before it is read in full, a client that stalls longer than the read
// or write time-out is dropped, and an idle keep-alive connection is closed after
// keepAliveSeconds. Each open connection holds one of `threads` workers while it
// lives, so more simultaneous connections than threads wait in line.
// Every answer, also a refusal by the HTTP layer (404, 413...), is a document in
// the request namespace. Each exchange writes one access-log line.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "server/location_service.h"

namespace httplib {
class Server;
struct Request;
}  // namespace httplib

namespace ZEL::Server {

struct ServerOptions {
    std::string host = "127.0.0.1";
    int port = 8080;             // 0: any free port, see LocationServer::port()
    std::string tlsCertificate;  // both PEM files set: HTTPS
    std::string tlsKey;
    std::string prefix = "/zel2";
    size_t threads = 16;
    bool trustProxy = false;  // take the client address from X-Forwarded-For
    size_t maxBodyBytes = 1 << 20;
    int readTimeoutSeconds = 5;
    int writeTimeoutSeconds = 5;
    int keepAliveSeconds = 5;
    // Receives one line per exchange (without line end), from any worker thread;
    // calls are not serialised. Empty: no access log.
    std::function<void(const std::string&)> accessLog;
};

class LocationServer {
  public:
    // Binds and starts serving on a thread of its own; null with `error` set when
    // the TLS files do not load or the address cannot be bound.
    static std::unique_ptr<LocationServer> start(ServerOptions options,
                                                 std::shared_ptr<LocationService> service,
                                                 std::string& error);
    // Stops accepting, finishes the exchanges under way and returns.
    ~LocationServer();
    void stop();

    int port() const { return port_; }
    // "http://HOST:PORT" or "https://HOST:PORT", without the prefix.
    std::string url() const;

  private:
    LocationServer(ServerOptions options, std::shared_ptr<LocationService> service,
                   std::unique_ptr<httplib::Server> http);
    void route();
    std::string clientAddress(const httplib::Request& request) const;

    ServerOptions options_;
    std::shared_ptr<LocationService> service_;
    std::unique_ptr<httplib::Server> http_;
    int port_ = 0;
    std::thread thread_;
};

// "HOST:PORT" as --listen takes it (a bracketed IPv6 host allowed); false when it
// does not read.
bool parseListenAddress(const std::string& text, std::string& host, int& port);

}  // namespace ZEL::Server
