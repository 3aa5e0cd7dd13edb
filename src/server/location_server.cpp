#include "server/location_server.h"

#include <utility>  // before Asio: Boost 1.74's awaitable.hpp uses std::exchange without it

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <ctime>
#include <optional>
#include <thread>
#include <unordered_map>

#include "server/geolocate_protocol.h"
#include "server/geolocate_service.h"
#include "server/geosubmit_service.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using ErrorCode = boost::system::error_code;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

namespace {

constexpr const char kContentType[] = "text/xml; charset=UTF-8";
constexpr const char kTextType[] = "text/plain; charset=utf-8";
constexpr const char kJsonType[] = "application/json; charset=UTF-8";
// The JSON geolocate route, outside the prefix like /health.
constexpr std::string_view kGeolocatePath = "/v1/geolocate";
// Reports devices submit: two paths, one route (both item formats on each).
constexpr std::string_view kGeosubmitPaths[] = {"/v2/geosubmit", "/v1/geosubmit"};
// Tile files for download: /v1/tiles/REALM.
constexpr std::string_view kTilesPath = "/v1/tiles/";
constexpr const char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";
// Requests a keep-alive connection may carry before the server closes it.
constexpr size_t kKeepAliveRequests = 10000;
constexpr uint32_t kMaxHeadBytes = 16 * 1024;
// Bytes read to learn that a kept-alive connection's next request has begun.
constexpr size_t kFirstRead = 512;
// How long a connection closed after an answer keeps reading (and dropping) what
// the client still sends, so that its unread bytes do not reset the connection
// before the client has read the answer (a 413 sent while the body comes in).
constexpr std::chrono::seconds kLinger{2};
// Pause before accepting again when accepting fails (out of descriptors).
constexpr std::chrono::milliseconds kAcceptRetry{50};

// "[21/Nov/2026:15:45:55 +0000]"
std::string logTime() {
    const time_t seconds = SPI::currentTime().seconds;
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "[%d/%b/%Y:%H:%M:%S +0000]", &utc);
    return text;
}

// A common-log-format line with the user agent.
std::string accessLine(const std::string& client, const Request& request, std::string_view path,
                       const Response& response) {
    const unsigned version = request.version();
    std::string line = client + " - - " + logTime() + " \"" + std::string(request.method_string()) +
                       " " + std::string(path) + " HTTP/" + std::to_string(version / 10) + "." +
                       std::to_string(version % 10) + "\" " +
                       std::to_string(response.result_int()) + " " +
                       std::to_string(response.body().size()) + " \"" +
                       std::string(request[http::field::user_agent]) + "\"";
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20) {
            c = '?';  // keep a hostile header from splitting the log line
        }
    }
    return line;
}

std::string httpErrorMessage(int status) {
    switch (status) {
        case 404:
            return "no such resource";
        case 413:
            return "request body too large";
        case 431:
            return "request head too large";
        case 400:
            return "malformed HTTP request";
        default:
            return "request refused";
    }
}

Route routeOf(std::string_view path, std::string_view prefix) {
    if (path == "/health") {
        return Route::Health;
    }
    if (path == "/metrics") {
        return Route::Metrics;
    }
    if (path == kGeolocatePath) {
        return Route::Geolocate;
    }
    if (path == kGeosubmitPaths[0] || path == kGeosubmitPaths[1]) {
        return Route::Geosubmit;
    }
    if (path.starts_with(kTilesPath)) {
        return Route::Tiles;
    }
    if (path.substr(0, prefix.size()) != prefix) {
        return Route::Other;
    }
    const std::string_view rest = path.substr(prefix.size());
    return rest == "/location"       ? Route::Location
           : rest == "/ip-location"  ? Route::IpLocation
           : rest == "/registration" ? Route::Registration
                                     : Route::Other;
}

std::optional<Question> questionOf(Route route) {
    switch (route) {
        case Route::Location:
            return Question::Location;
        case Route::IpLocation:
            return Question::IpLocation;
        case Route::Registration:
            return Question::Registration;
        default:
            return std::nullopt;
    }
}

// The value of query parameter `name` in `target` as sent (not decoded), "" when absent.
std::string_view queryParameter(std::string_view target, std::string_view name) {
    const size_t question = target.find('?');
    std::string_view query = question == std::string_view::npos ? "" : target.substr(question + 1);
    while (!query.empty()) {
        const size_t end = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, end);
        if (pair.size() > name.size() && pair.substr(0, name.size()) == name &&
            pair[name.size()] == '=') {
            return pair.substr(name.size() + 1);
        }
        query.remove_prefix(std::min(end + 1, query.size()));
    }
    return {};
}

// The geolocate clients read errors as JSON, also the HTTP layer's.
Reply geolocateRefusal(int status, std::string_view reason, const std::string& message) {
    return {status,
            geolocateError(status, status == 403 ? "usageLimits" : "global", reason, message)};
}

Reply tooManyRequests(std::optional<Question> question) {
    constexpr const char kMessage[] = "too many requests";
    return {429, question ? errorAnswer(*question, "rate-limited", kMessage)
                          : genericErrorAnswer("rate-limited", kMessage)};
}

// What the server can close when it stops.
class Connection {
  public:
    virtual ~Connection() = default;
    // Closes the connection if it waits for a request; otherwise it closes after
    // the answer under way. Safe from any thread.
    virtual void closeWhenIdle() = 0;
};

}  // namespace

// Everything the connections share; outlives every connection (see stop()).
struct LocationServer::State {
    State(ServerOptions serverOptions, std::shared_ptr<LocationService> locationService)
        : options(std::move(serverOptions)),
          service(std::move(locationService)),
          metrics(service->metrics()),
          addressLimits(options.ratePerAddress),
          keyLimits(options.ratePerKey) {}

    void accept();
    void admit(tcp::socket socket);
    // Counts a connection from `peer`; false when the address has its fill.
    bool openConnection(const std::string& peer);
    void track(uint64_t id, std::weak_ptr<Connection> connection);
    void closed(uint64_t id, const std::string& peer);
    Response exchange(const Request& request, const std::string& peer, std::optional<int> refusal);
    Reply dispatch(const Request& request, Route route, const std::string& client,
                   std::string_view target, std::string& contentType);
    // The refusal shared by the JSON POST routes: the address's limit, the method, then
    // the key's limit; nothing when the request may go on.
    std::optional<Reply> refuseJsonPost(const Request& request, const std::string& client,
                                        std::string_view key);
    Reply geolocate(const Request& request, const std::string& client, std::string_view target);
    Reply tiles(const Request& request, const std::string& client, std::string_view target);
    Reply geosubmit(const Request& request, const std::string& client, std::string_view target);
    std::string clientAddress(const Request& request, const std::string& peer) const;

    SPI::Logger& log = SPI::getLogger("ZEL.Server.LocationServer");
    const ServerOptions options;
    const std::shared_ptr<LocationService> service;
    Metrics& metrics;
    RateLimiter addressLimits;
    RateLimiter keyLimits;
    std::optional<asio::ssl::context> tls;
    std::atomic<bool> stopping{false};
    int port = 0;
    std::mutex connectionsMutex;
    std::unordered_map<std::string, size_t> connectionsByAddress;
    std::unordered_map<uint64_t, std::weak_ptr<Connection>> connections;
    uint64_t nextConnection = 0;
    bool acceptFailing = false;
    std::vector<std::thread> threads;
    // Declared after what connections use: destroying the loop destroys the
    // connections its pending handlers still hold.
    asio::io_context loop;
    tcp::acceptor acceptor{asio::make_strand(loop)};
    asio::steady_timer acceptRetry{acceptor.get_executor()};
};

namespace {

using State = LocationServer::State;
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// One client connection: reads requests one after the other, each phase under its
// deadline, and answers each through State::exchange. Every handler of one
// connection runs on its own strand.
template <class Stream>
class Session final : public Connection, public std::enable_shared_from_this<Session<Stream>> {
  public:
    Session(State& state, Stream stream, std::string peer)
        : state_(state), stream_(std::move(stream)), peer_(std::move(peer)) {
        ++state_.metrics.openConnections;
    }
    ~Session() override { state_.closed(id_, peer_); }

    void start(uint64_t id) {
        id_ = id;
        state_.track(id_, this->weak_from_this());
        const Clock::time_point deadline = Clock::now() + state_.options.headTimeout;
        if (state_.stopping) {
            return close();
        }
        if constexpr (std::is_same_v<Stream, TlsStream>) {
            tcp().expires_at(deadline);
            stream_.async_handshake(asio::ssl::stream_base::server,
                                    [self = this->shared_from_this(), deadline](ErrorCode error) {
                                        error ? self->close() : self->readHead(deadline);
                                    });
        } else {
            readHead(deadline);
        }
    }

    void closeWhenIdle() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] {
            self->closeAfterAnswer_ = true;
            if (self->waiting_) {
                self->tcp().close();  // the pending read ends with an error, then the session
            }
        });
    }

  private:
    beast::tcp_stream& tcp() { return beast::get_lowest_layer(stream_); }

    // Between requests on a kept-alive connection: the head deadline starts with
    // the next request's first byte.
    void waitForRequest() {
        if (closeAfterAnswer_) {
            return close();
        }
        if (buffer_.size() > 0) {
            return readHead(Clock::now() + state_.options.headTimeout);
        }
        buffer_.shrink_to_fit();
        waiting_ = true;
        tcp().expires_after(state_.options.keepAliveTimeout);
        stream_.async_read_some(buffer_.prepare(kFirstRead),
                                [self = this->shared_from_this()](ErrorCode error, size_t bytes) {
                                    if (error) {
                                        return self->close();
                                    }
                                    self->buffer_.commit(bytes);
                                    self->readHead(Clock::now() + self->state_.options.headTimeout);
                                });
    }

    void readHead(Clock::time_point deadline) {
        waiting_ = true;
        parser_.emplace();
        parser_->header_limit(kMaxHeadBytes);
        parser_->body_limit(state_.options.maxBodyBytes);
        tcp().expires_at(deadline);
        http::async_read_header(
            stream_, buffer_, *parser_,
            [self = this->shared_from_this()](ErrorCode error, size_t) { self->onHead(error); });
    }

    void onHead(ErrorCode error) {
        waiting_ = false;
        if (error) {
            return refuseOrClose(error);
        }
        if (parser_->is_done()) {
            return answer(std::nullopt);
        }
        tcp().expires_after(state_.options.bodyTimeout);
        if (beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
            static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
            asio::async_write(stream_, asio::buffer(kContinue.data(), kContinue.size()),
                              [self = this->shared_from_this()](ErrorCode error, size_t) {
                                  error ? self->close() : self->readBody();
                              });
            return;
        }
        readBody();
    }

    void readBody() {
        http::async_read(stream_, buffer_, *parser_,
                         [self = this->shared_from_this()](ErrorCode error, size_t) {
                             error ? self->refuseOrClose(error) : self->answer(std::nullopt);
                         });
    }

    // A request that breaks the limits or HTTP's grammar is answered and the
    // connection closed; one that missed a deadline or was cut off is just closed.
    void refuseOrClose(ErrorCode error) {
        if (error == http::error::body_limit) {
            return answer(413);
        }
        if (error == http::error::header_limit) {
            return answer(431);
        }
        const bool malformed =
            error.category() == http::make_error_code(http::error::bad_method).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message;
        if (error == beast::error::timeout) {
            ZEL_LOG_DEBUG(state_.log, "closed the connection from %s: a deadline passed",
                          peer_.c_str());
        }
        malformed ? answer(400) : close();
    }

    void answer(std::optional<int> refusal) {
        const Request& request = parser_->get();
        response_ = state_.exchange(request, peer_, refusal);
        const bool keepAlive = !refusal && request.keep_alive() && !closeAfterAnswer_ &&
                               !state_.stopping && ++requests_ < kKeepAliveRequests;
        response_.keep_alive(keepAlive);
        tcp().expires_after(state_.options.writeTimeout);
        http::async_write(stream_, response_,
                          [self = this->shared_from_this(), keepAlive](ErrorCode error, size_t) {
                              self->onWritten(error, keepAlive);
                          });
    }

    void onWritten(ErrorCode error, bool keepAlive) {
        parser_.reset();
        response_ = {};
        if (error) {
            return close();
        }
        keepAlive ? waitForRequest() : linger();
    }

    // Half-closes, then reads and drops what still comes for a while.
    void linger() {
        ErrorCode ignored;
        tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
        tcp().expires_after(kLinger);
        drain();
    }

    void drain() {
        buffer_.clear();
        stream_.async_read_some(buffer_.prepare(kFirstRead),
                                [self = this->shared_from_this()](ErrorCode error, size_t) {
                                    error ? self->close() : self->drain();
                                });
    }

    void close() {
        ErrorCode ignored;
        tcp().socket().shutdown(tcp::socket::shutdown_both, ignored);
        tcp().close();
    }

    State& state_;
    Stream stream_;
    const std::string peer_;
    uint64_t id_ = 0;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Response response_;
    size_t requests_ = 0;
    bool waiting_ = false;  // for a request or its head: closed at once on stop
    bool closeAfterAnswer_ = false;
};

}  // namespace

void State::accept() {
    acceptor.async_accept(asio::make_strand(loop), [this](ErrorCode error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        if (error) {
            if (!acceptFailing) {
                ZEL_LOG_WARN(log, "cannot accept connections: %s", error.message().c_str());
            }
            acceptFailing = true;
            acceptRetry.expires_after(kAcceptRetry);
            acceptRetry.async_wait([this](ErrorCode waited) {
                if (!waited) {
                    accept();
                }
            });
            return;
        }
        acceptFailing = false;
        admit(std::move(socket));
        accept();
    });
}

void State::admit(tcp::socket socket) {
    ErrorCode error;
    const tcp::endpoint remote = socket.remote_endpoint(error);
    if (error) {
        return;
    }
    std::string peer = remote.address().to_string();
    if (!openConnection(peer)) {
        ZEL_LOG_DEBUG(log, "refused a connection from %s: it has its fill open", peer.c_str());
        socket.close(error);
        return;
    }
    socket.set_option(tcp::no_delay(true), error);
    const uint64_t id = ++nextConnection;  // only the acceptor's strand counts
    const auto strand = socket.get_executor();
    auto start = [&](auto made) { asio::dispatch(strand, [made, id] { made->start(id); }); };
    if (tls) {
        start(
            std::make_shared<Session<TlsStream>>(*this, TlsStream(std::move(socket), *tls), peer));
    } else {
        start(std::make_shared<Session<PlainStream>>(*this, PlainStream(std::move(socket)), peer));
    }
}

bool State::openConnection(const std::string& peer) {
    if (options.maxConnectionsPerAddress == 0) {
        return true;
    }
    std::lock_guard lock(connectionsMutex);
    size_t& open = connectionsByAddress[peer];
    if (open >= options.maxConnectionsPerAddress) {
        return false;  // `open` is at least 1: the entry stays
    }
    ++open;
    return true;
}

void State::track(uint64_t id, std::weak_ptr<Connection> connection) {
    std::lock_guard lock(connectionsMutex);
    connections.emplace(id, std::move(connection));
}

void State::closed(uint64_t id, const std::string& peer) {
    --metrics.openConnections;
    std::lock_guard lock(connectionsMutex);
    connections.erase(id);
    if (options.maxConnectionsPerAddress == 0) {
        return;
    }
    auto open = connectionsByAddress.find(peer);
    if (open != connectionsByAddress.end() && --open->second == 0) {
        connectionsByAddress.erase(open);
    }
}

Response State::exchange(const Request& request, const std::string& peer,
                         std::optional<int> refusal) {
    const Clock::time_point begun = Clock::now();
    const std::string_view target(request.target().data(), request.target().size());
    const std::string_view path = target.substr(0, target.find('?'));
    const Route route = routeOf(path, options.prefix);
    const std::string client = clientAddress(request, peer);
    // The /v1 routes answer errors in JSON; a tile file goes as octets, below.
    const bool json =
        route == Route::Geolocate || route == Route::Geosubmit || route == Route::Tiles;
    std::string contentType = json ? kJsonType : kContentType;
    Reply reply;
    if (!refusal) {
        reply = dispatch(request, route, client, target, contentType);
    } else if (json) {
        reply = geolocateRefusal(*refusal, "http-" + std::to_string(*refusal),
                                 httpErrorMessage(*refusal));
    } else {
        reply = {*refusal, genericErrorAnswer("http-" + std::to_string(*refusal),
                                              httpErrorMessage(*refusal))};
    }
    Response response;
    response.version(request.version());
    response.result(reply.status);
    response.set(http::field::content_type, route == Route::Tiles && reply.status == 200
                                                ? "application/octet-stream"
                                                : contentType);
    for (const auto& [name, value] : reply.headers) {
        response.set(name, value);
    }
    response.body() = std::move(reply.body);
    response.prepare_payload();
    metrics.countRequest(route, reply.status, Clock::now() - begun);
    if (options.accessLog) {
        options.accessLog(accessLine(client, request, path, response));
    }
    return response;
}

Reply State::dispatch(const Request& request, Route route, const std::string& client,
                      std::string_view target, std::string& contentType) {
    const bool get = request.method() == http::verb::get;
    if (route == Route::Health && get) {
        contentType = kTextType;
        return {200, "ok\n"};
    }
    if (route == Route::Metrics && get) {
        contentType = kMetricsType;
        return {200, metrics.render()};
    }
    const std::optional<Question> question = questionOf(route);
    if (route == Route::Geolocate) {
        return geolocate(request, client, target);
    }
    if (route == Route::Tiles) {
        return tiles(request, client, target);
    }
    if (route == Route::Geosubmit) {
        return geosubmit(request, client, target);
    }
    if (!addressLimits.allow(client)) {
        return tooManyRequests(question);
    }
    if (!question || request.method() != http::verb::post) {
        return {404, genericErrorAnswer("http-404", httpErrorMessage(404))};
    }
    const std::string_view key = queryParameter(target, "key");
    if (!key.empty() && !keyLimits.allow(std::string(key))) {
        return tooManyRequests(question);
    }
    try {
        const std::string& body = request.body();
        return *question == Question::Location     ? service->location(body)
               : *question == Question::IpLocation ? service->ipLocation(body, client)
                                                   : service->registration(body);
    } catch (const std::exception& exception) {
        ZEL_LOG_ERROR(log, "request failed with an exception: %s", exception.what());
        return {500, genericErrorAnswer("internal", "internal error")};
    }
}

std::optional<Reply> State::refuseJsonPost(const Request& request, const std::string& client,
                                           std::string_view key) {
    // The documented refusal of a limit: 403 userRateLimitExceeded.
    const auto limited = [] {
        return geolocateRefusal(403, "userRateLimitExceeded", "too many requests");
    };
    if (!addressLimits.allow(client)) {
        return limited();
    }
    if (request.method() != http::verb::post) {
        return geolocateRefusal(405, "methodNotAllowed", "POST only");
    }
    if (!key.empty() && !keyLimits.allow(std::string(key))) {
        return limited();
    }
    return std::nullopt;
}

Reply State::geolocate(const Request& request, const std::string& client, std::string_view target) {
    GeolocateCall call;
    call.key = queryParameter(target, "key");
    if (auto refusal = refuseJsonPost(request, client, call.key)) {
        return *refusal;
    }
    call.body = request.body();
    call.gzip = beast::iequals(request[http::field::content_encoding], "gzip");
    call.clientAddress = client;
    call.maxInflatedBytes = options.maxBodyBytes;
    try {
        return service->geolocate(call);
    } catch (const std::exception& exception) {
        ZEL_LOG_ERROR(log, "geolocate request failed with an exception: %s", exception.what());
        return geolocateRefusal(500, "backendError", "internal error");
    }
}

Reply State::geosubmit(const Request& request, const std::string& client, std::string_view target) {
    GeosubmitCall call;
    call.key = queryParameter(target, "key");
    if (auto refusal = refuseJsonPost(request, client, call.key)) {
        return *refusal;
    }
    call.body = request.body();
    call.gzip = beast::iequals(request[http::field::content_encoding], "gzip");
    const auto nickname = request["X-Nickname"];
    call.nickname = std::string_view(nickname.data(), nickname.size());
    call.maxInflatedBytes = options.maxBodyBytes;
    try {
        return service->geosubmit(call);
    } catch (const std::exception& exception) {
        ZEL_LOG_ERROR(log, "geosubmit request failed with an exception: %s", exception.what());
        return geolocateRefusal(500, "backendError", "internal error");
    }
}

Reply State::tiles(const Request& request, const std::string& client, std::string_view target) {
    if (!addressLimits.allow(client)) {
        return geolocateRefusal(403, "userRateLimitExceeded", "too many requests");
    }
    if (request.method() != http::verb::get) {
        return geolocateRefusal(405, "methodNotAllowed", "GET only");
    }
    const std::string_view key = queryParameter(target, "key");
    if (!key.empty() && !keyLimits.allow(std::string(key))) {
        return geolocateRefusal(403, "userRateLimitExceeded", "too many requests");
    }
    const std::string_view path = target.substr(0, target.find('?'));
    const auto ifNoneMatch = request[http::field::if_none_match];
    return service->tileDownload(path.substr(kTilesPath.size()), key,
                                 std::string_view(ifNoneMatch.data(), ifNoneMatch.size()));
}

std::string State::clientAddress(const Request& request, const std::string& peer) const {
    const auto forwardedHeader = request.find("X-Forwarded-For");
    if (options.trustProxy && forwardedHeader != request.end()) {
        // The last entry is the one our own proxy added; earlier ones are the
        // client's word and could say anything.
        const std::string_view forwarded(forwardedHeader->value().data(),
                                         forwardedHeader->value().size());
        const size_t comma = forwarded.rfind(',');
        const std::string_view last =
            comma == std::string_view::npos ? forwarded : forwarded.substr(comma + 1);
        const size_t first = last.find_first_not_of(' ');
        const size_t end = last.find_last_not_of(' ');
        if (first != std::string_view::npos) {
            return std::string(last.substr(first, end - first + 1));
        }
    }
    return peer;
}

LocationServer::LocationServer(std::unique_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<LocationServer> LocationServer::start(ServerOptions options,
                                                      std::shared_ptr<LocationService> service,
                                                      std::string& error) {
    if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
        error = "--tls-cert and --tls-key go together";
        return nullptr;
    }
    auto state = std::make_unique<State>(std::move(options), std::move(service));
    const ServerOptions& o = state->options;
    if (!o.tlsCertificate.empty()) {
        try {
            state->tls.emplace(asio::ssl::context::tls_server);
            state->tls->set_options(asio::ssl::context::default_workarounds |
                                    asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
            state->tls->use_certificate_chain_file(o.tlsCertificate);
            state->tls->use_private_key_file(o.tlsKey, asio::ssl::context::pem);
        } catch (const boost::system::system_error&) {
            error = "cannot load the TLS certificate " + o.tlsCertificate + " and key " + o.tlsKey;
            return nullptr;
        }
    }
    try {
        tcp::resolver resolver(state->loop);
        const tcp::endpoint endpoint =
            *resolver.resolve(o.host, std::to_string(o.port), tcp::resolver::passive).begin();
        state->acceptor.open(endpoint.protocol());
        state->acceptor.set_option(asio::socket_base::reuse_address(true));
        state->acceptor.bind(endpoint);
        state->acceptor.listen(asio::socket_base::max_listen_connections);
        state->port = state->acceptor.local_endpoint().port();
    } catch (const boost::system::system_error& failure) {
        error = "cannot listen on " + o.host + ":" + std::to_string(o.port) + ": " +
                failure.code().message();
        return nullptr;
    }
    if (o.ratePerKey.perSecond > 0) {
        State& shared = *state;
        state->service->limitUsers(
            [&shared](const std::string& user) { return shared.keyLimits.allow(user); });
    }
    state->accept();
    for (size_t i = 0; i < std::max<size_t>(o.threads, 1); ++i) {
        state->threads.emplace_back([&loop = state->loop, &log = state->log] {
            for (;;) {
                try {
                    loop.run();
                    return;
                } catch (const std::exception& exception) {
                    ZEL_LOG_ERROR(log, "event loop: %s", exception.what());
                }
            }
        });
    }
    std::unique_ptr<LocationServer> server(new LocationServer(std::move(state)));
    ZEL_LOG_INFO(server->state_->log, "listening on %s%s", server->url().c_str(),
                 server->state_->options.prefix.c_str());
    return server;
}

int LocationServer::port() const {
    return state_->port;
}

std::string LocationServer::url() const {
    const std::string& host = state_->options.host;
    const bool ipv6 = host.find(':') != std::string::npos;
    return (state_->options.tlsCertificate.empty() ? "http://" : "https://") +
           (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(state_->port);
}

void LocationServer::stop() {
    State& state = *state_;
    if (state.stopping.exchange(true)) {
        return;
    }
    asio::post(state.acceptor.get_executor(), [&state] {
        ErrorCode ignored;
        state.acceptor.close(ignored);
        state.acceptRetry.cancel();
    });
    std::vector<std::shared_ptr<Connection>> open;
    {
        std::lock_guard lock(state.connectionsMutex);
        for (auto& [id, connection] : state.connections) {
            if (auto alive = connection.lock()) {
                open.push_back(std::move(alive));
            }
        }
    }
    for (auto& connection : open) {
        connection->closeWhenIdle();
    }
    open.clear();
    // Each thread returns once no connection is left.
    for (std::thread& thread : state.threads) {
        thread.join();
    }
    if (state.service) {
        state.service->limitUsers({});
    }
}

LocationServer::~LocationServer() {
    stop();
}

bool parseListenAddress(const std::string& text, std::string& host, int& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    port = std::stoi(digits);
    return port <= 65535 && !host.empty();
}

}  // namespace ZEL::Server
