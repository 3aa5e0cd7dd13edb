#include "server/location_server.h"

#include <httplib.h>

#include <chrono>
#include <ctime>

#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

constexpr const char kContentType[] = "text/xml; charset=UTF-8";
// Requests a keep-alive connection may carry before the server closes it.
constexpr size_t kKeepAliveRequests = 10000;

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
std::string accessLine(const std::string& client, const httplib::Request& request,
                       const httplib::Response& response) {
    std::string line = client + " - - " + logTime() + " \"" + request.method + " " + request.path +
                       " " + request.version + "\" " + std::to_string(response.status) + " " +
                       std::to_string(response.body.size()) + " \"" +
                       request.get_header_value("User-Agent") + "\"";
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
        case 400:
            return "malformed HTTP request";
        default:
            return "request refused";
    }
}

// `text` as a regular expression that matches only itself (routes are patterns).
std::string literalPattern(const std::string& text) {
    std::string pattern;
    for (char c : text) {
        if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern;
}

std::unique_ptr<httplib::Server> makeHttp(const ServerOptions& options, std::string& error) {
    if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
        error = "--tls-cert and --tls-key go together";
        return nullptr;
    }
    if (options.tlsCertificate.empty()) {
        return std::make_unique<httplib::Server>();
    }
    auto https = std::make_unique<httplib::SSLServer>(options.tlsCertificate.c_str(),
                                                      options.tlsKey.c_str());
    if (!https->is_valid()) {
        error = "cannot load the TLS certificate " + options.tlsCertificate + " and key " +
                options.tlsKey;
        return nullptr;
    }
    return https;
}

}  // namespace

LocationServer::LocationServer(ServerOptions options, std::shared_ptr<LocationService> service,
                               std::unique_ptr<httplib::Server> http)
    : options_(std::move(options)), service_(std::move(service)), http_(std::move(http)) {}

std::unique_ptr<LocationServer> LocationServer::start(ServerOptions options,
                                                      std::shared_ptr<LocationService> service,
                                                      std::string& error) {
    std::unique_ptr<httplib::Server> http = makeHttp(options, error);
    if (!http) {
        return nullptr;
    }
    std::unique_ptr<LocationServer> server(
        new LocationServer(std::move(options), std::move(service), std::move(http)));
    server->route();
    httplib::Server& h = *server->http_;
    const ServerOptions& o = server->options_;
    const size_t threads = std::max<size_t>(o.threads, 1);
    h.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    h.set_payload_max_length(o.maxBodyBytes);
    h.set_read_timeout(o.readTimeoutSeconds, 0);
    h.set_write_timeout(o.writeTimeoutSeconds, 0);
    h.set_keep_alive_timeout(o.keepAliveSeconds);
    h.set_keep_alive_max_count(kKeepAliveRequests);
    h.set_tcp_nodelay(true);
    server->port_ = o.port == 0 ? h.bind_to_any_port(o.host) : o.port;
    if (server->port_ <= 0 || (o.port != 0 && !h.bind_to_port(o.host, o.port))) {
        error = "cannot listen on " + o.host + ":" + std::to_string(o.port);
        return nullptr;
    }
    server->thread_ = std::thread([&h] { h.listen_after_bind(); });
    for (int waited = 0; !h.is_running() && waited < 5000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ZEL_LOG_INFO(SPI::getLogger("ZEL.Server.LocationServer"), "listening on %s%s",
                 server->url().c_str(), o.prefix.c_str());
    return server;
}

void LocationServer::route() {
    auto answer = [](httplib::Response& response, Reply reply) {
        response.status = reply.status;
        response.set_content(std::move(reply.body), kContentType);
    };
    LocationService& service = *service_;
    const std::string prefix = literalPattern(options_.prefix);
    http_->Post(prefix + "/location",
                [&service, answer](const httplib::Request& request, httplib::Response& response) {
                    answer(response, service.location(request.body));
                });
    http_->Post(prefix + "/ip-location", [this, &service, answer](const httplib::Request& request,
                                                                  httplib::Response& response) {
        answer(response, service.ipLocation(request.body, clientAddress(request)));
    });
    http_->Post(prefix + "/registration",
                [&service, answer](const httplib::Request& request, httplib::Response& response) {
                    answer(response, service.registration(request.body));
                });
    http_->set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            response.set_content(genericErrorAnswer("http-" + std::to_string(response.status),
                                                    httpErrorMessage(response.status)),
                                 kContentType);
        }
    });
    http_->set_exception_handler(
        [answer](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
            ZEL_LOG_ERROR(SPI::getLogger("ZEL.Server.LocationServer"),
                          "request failed with an exception");
            answer(response, Reply{500, genericErrorAnswer("internal", "internal error")});
        });
    if (options_.accessLog) {
        http_->set_logger(
            [this](const httplib::Request& request, const httplib::Response& response) {
                options_.accessLog(accessLine(clientAddress(request), request, response));
            });
    }
}

std::string LocationServer::clientAddress(const httplib::Request& request) const {
    if (options_.trustProxy && request.has_header("X-Forwarded-For")) {
        // The last entry is the one our own proxy added; earlier ones are the
        // client's word and could say anything.
        std::string forwarded = request.get_header_value("X-Forwarded-For");
        const size_t comma = forwarded.rfind(',');
        std::string last = comma == std::string::npos ? forwarded : forwarded.substr(comma + 1);
        const size_t first = last.find_first_not_of(' ');
        const size_t end = last.find_last_not_of(' ');
        if (first != std::string::npos) {
            return last.substr(first, end - first + 1);
        }
    }
    return request.remote_addr;
}

std::string LocationServer::url() const {
    const bool ipv6 = options_.host.find(':') != std::string::npos;
    const std::string host = ipv6 ? "[" + options_.host + "]" : options_.host;
    return (options_.tlsCertificate.empty() ? "http://" : "https://") + host + ":" +
           std::to_string(port_);
}

void LocationServer::stop() {
    if (http_) {
        http_->stop();
    }
    if (thread_.joinable()) {
        thread_.join();
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
