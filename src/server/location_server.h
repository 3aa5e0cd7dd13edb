// The location server over HTTP or HTTPS: POST {prefix}/location, /ip-location and
// /registration, answered by a LocationService; GET /health and GET /metrics
// (metrics.h) beside them, outside the prefix, and POST /v1/geolocate, the JSON
// protocol (geolocate_service.h), and POST /v2/geosubmit and /v1/geosubmit, the
// reports devices submit (geosubmit_service.h), whose refusals are JSON error
// documents too.
//
// Event-driven (Boost.Beast over Boost.Asio): `threads` threads run one event loop
// and the service's calls; an open connection holds no thread while it waits, only
// its socket and buffer, so idle and slow clients cost memory, not workers.
//
// Limits protect the server from its clients. Each phase of an exchange has an
// absolute deadline, so a client that trickles bytes cannot stretch it: the TLS
// handshake and the request head must arrive within headTimeout (counted from the
// accept, or on a kept-alive connection from the next request's first byte), the
// body within bodyTimeout after the head, the answer must be taken within
// writeTimeout, and a kept-alive connection may idle keepAliveTimeout between
// requests. A connection that misses a deadline is closed without an answer. A
// body over maxBodyBytes is refused with 413 before it is read, a head over 16 KiB
// with 431. Connections beyond maxConnectionsPerAddress from one address are
// closed at once. Requests beyond the rate limits are refused with 429: per client
// address (every route but /health and /metrics), and per key: a `key` query
// parameter, and for the three requests the user (username@realm) the service
// authenticates.
// Every answer to the three requests, also a refusal by the HTTP layer (404, 413,
// 429...), is a document in the request namespace. Each answer writes one
// access-log line.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "server/location_service.h"
#include "server/rate_limiter.h"

namespace ZEL::Server {

struct ServerOptions {
    using Duration = std::chrono::milliseconds;

    std::string host = "127.0.0.1";
    int port = 8080;             // 0: any free port, see LocationServer::port()
    std::string tlsCertificate;  // both PEM files set: HTTPS
    std::string tlsKey;
    std::string prefix = "/zel2";
    size_t threads = 4;       // run the event loop and the service; at least 1
    bool trustProxy = false;  // take the client address from X-Forwarded-For
    size_t maxBodyBytes = 1 << 20;
    Duration headTimeout{10'000};
    Duration bodyTimeout{30'000};
    Duration writeTimeout{10'000};
    Duration keepAliveTimeout{30'000};
    size_t maxConnectionsPerAddress = 0;  // 0: unlimited (behind a proxy, all share its address)
    RateLimit ratePerAddress;
    RateLimit ratePerKey;
    // Receives one line per exchange (without line end), from any server thread;
    // calls are not serialised. Empty: no access log.
    std::function<void(const std::string&)> accessLog;
};

class LocationServer {
  public:
    // Binds and starts serving on threads of its own; null with `error` set when
    // the TLS files do not load or the address cannot be bound. The per-key limit
    // is installed in `service` (LocationService::limitUsers).
    static std::unique_ptr<LocationServer> start(ServerOptions options,
                                                 std::shared_ptr<LocationService> service,
                                                 std::string& error);
    // Stops accepting, closes idle connections, finishes the exchanges under way
    // (each within its deadlines) and returns.
    ~LocationServer();
    void stop();

    int port() const;
    // "http://HOST:PORT" or "https://HOST:PORT", without the prefix.
    std::string url() const;

    struct State;

  private:
    explicit LocationServer(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

// "HOST:PORT" as --listen takes it (a bracketed IPv6 host allowed); false when it
// does not read.
bool parseListenAddress(const std::string& text, std::string& host, int& port);

}  // namespace ZEL::Server
