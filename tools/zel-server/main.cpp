// zel-server: answers the library's location, ip-location and registration
// requests over HTTP or HTTPS from tile files, with its users and API keys in
// SQLite or PostgreSQL; /health and /metrics for load balancers and monitoring;
// takes the reports devices submit (/v2/geosubmit, /v1/geosubmit) into the same
// database, which must then be one that outlives the process (--database).
//
// Runs until SIGTERM or SIGINT, then finishes the exchanges under way and exits 0.
// SIGHUP reads the tile files again (LocationService::reloadTiles).
// --learn-every: a thread learns from the reports in the database at that period
// (server/database.h), writes --learned-tiles when something new came and reloads
// the tile files as SIGHUP does.
// Exit status 2: bad options or data that cannot be loaded.

#include <CLI/CLI.hpp>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>

#include "server/location_server.h"
#include "spi/log.h"

namespace {

using namespace ZEL::Server;

struct Arguments {
    ServiceOptions service;
    ServerOptions server;
    std::string listen = "127.0.0.1:8080";
    std::string database = "sqlite::memory:";
    std::string users;
    std::vector<std::string> addUsers;
    std::vector<std::string> addKeys;
    std::string ipRanges;
    std::string addresses;
    double addressRadius = 200.0;
    std::string accessLog = "-";
    bool noAccessLog = false;
    bool verbose = false;
    double headSeconds = 10, bodySeconds = 30, keepAliveSeconds = 30;
    double maxReportAgeSeconds = 7 * 86400;
    std::string learnEvery;  // a duration; empty: no learning
};

void addLimitOptions(CLI::App& app, Arguments& a) {
    app.add_option("--head-timeout", a.headSeconds,
                   "Seconds a client has for the TLS handshake and a request head (from the "
                   "connection, or the request's first byte), however it trickles")
        ->default_val(a.headSeconds)
        ->check(CLI::Range(0.1, 3600.0));
    app.add_option("--body-timeout", a.bodySeconds, "Seconds for a request body after its head")
        ->default_val(a.bodySeconds)
        ->check(CLI::Range(0.1, 3600.0));
    app.add_option("--keep-alive-timeout", a.keepAliveSeconds,
                   "Seconds a kept-alive connection may idle between requests")
        ->default_val(a.keepAliveSeconds)
        ->check(CLI::Range(0.1, 3600.0));
    app.add_option("--max-connections-per-address", a.server.maxConnectionsPerAddress,
                   "Open connections one client address may hold (0: unlimited)")
        ->default_val(0);
    app.add_option("--rate-per-address", a.server.ratePerAddress.perSecond,
                   "Requests per second one client address may make (0: unlimited)")
        ->default_val(0)
        ->check(CLI::NonNegativeNumber);
    app.add_option("--address-burst", a.server.ratePerAddress.burst,
                   "Requests one address may make at once (default: one second's worth)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--rate-per-key", a.server.ratePerKey.perSecond,
                   "Requests per second one key may make: the ?key= parameter, or the "
                   "user as username@realm (0: unlimited)")
        ->default_val(0)
        ->check(CLI::NonNegativeNumber);
    app.add_option("--key-burst", a.server.ratePerKey.burst,
                   "Requests one key may make at once (default: one second's worth)")
        ->check(CLI::NonNegativeNumber);
}

void addOptions(CLI::App& app, Arguments& a) {
    app.add_option("--tiles", a.service.tileFiles, "Tile files to answer locations from")
        ->check(CLI::ExistingFile);
    app.add_option("--learned-tiles", a.service.learnedTiles,
                   "The tile file learned from the reports in --database: answered from "
                   "first, and served at GET /v1/tiles/REALM, once it exists");
    app.add_option("--learn-every", a.learnEvery,
                   "Learn from the reports at this period (e.g. 30s, 10m, 1h) into "
                   "--learned-tiles, and answer from the new file");
    app.add_option("--realm", a.service.realm, "Realm of the tile files and of the users")
        ->required();
    app.add_option("--listen", a.listen, "HOST:PORT to listen on (port 0: any free port)")
        ->default_val(a.listen);
    app.add_option("--tls-cert", a.server.tlsCertificate, "PEM certificate: serve HTTPS");
    app.add_option("--tls-key", a.server.tlsKey, "PEM private key of the certificate");
    auto* database = app.add_option("--database", a.database,
                                    "Users, API keys and submitted reports: sqlite:PATH (a"
                                    " file) or postgresql://... (shared by nodes); without"
                                    " it reports are refused")
                         ->default_val(a.database);
    app.add_option("--users", a.users, "Same as --database sqlite:PATH")->excludes(database);
    app.add_option("--add-user", a.addUsers, "Register this user of the realm at start");
    app.add_option("--add-api-key", a.addKeys, "Add this API key of the realm at start");
    app.add_flag("--open", a.service.open, "Accept any authentication (local use only)");
    app.add_option("--ip-ranges", a.ipRanges, "CSV of IP ranges for ip-location")
        ->check(CLI::ExistingFile);
    app.add_option("--addresses", a.addresses, "CSV of points with street addresses")
        ->check(CLI::ExistingFile);
    app.add_option("--address-radius", a.addressRadius,
                   "Farthest street address from a position, metres")
        ->default_val(a.addressRadius)
        ->check(CLI::Range(1.0, 100000.0));
    app.add_flag("--trust-proxy", a.server.trustProxy,
                 "Take the client address from X-Forwarded-For (behind a proxy)");
    app.add_option("--threads", a.server.threads,
                   "Threads running the event loop and the requests (open connections hold none)")
        ->default_val(a.server.threads)
        ->check(CLI::Range(1, 1024));
    addLimitOptions(app, a);
    app.add_option("--prefix", a.server.prefix, "Path prefix of the three requests")
        ->default_val(a.server.prefix);
    app.add_option("--max-aps", a.service.maxAccessPoints,
                   "Most access points accepted in one request")
        ->default_val(a.service.maxAccessPoints)
        ->check(CLI::Range(1, 100000));
    app.add_option("--max-report-age", a.maxReportAgeSeconds,
                   "Submitted items older than this are left out: seconds, or a number"
                   " with s, m, h or d")
        ->default_str("7d")
        ->transform(CLI::AsNumberWithUnit(
            std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}}))
        ->check(CLI::Range(1.0, 3650.0 * 86400));
    app.add_option("--access-log", a.accessLog, "Access log file, - for standard output")
        ->default_val(a.accessLog);
    app.add_flag("--no-access-log", a.noAccessLog, "Write no access log");
    app.add_flag("-v,--verbose", a.verbose, "Log every request's details on standard error");
}

// Diagnostics go to standard error unless a log4cpp.properties file set them up.
void setUpLogging(bool verbose) {
    using ZEL::SPI::LogPriority;
    if (!ZEL::SPI::logToStandardError(LogPriority::kWarn)) {
        return;
    }
    ZEL::SPI::getLogger("ZEL.Server")
        .setPriority(verbose ? LogPriority::kDebug : LogPriority::kInfo);
    // The estimator's per-request complaints about implausible signals would
    // flood the log; they are shown only when asked for.
    // Likewise the XML parser's line for every malformed request, which the
    // service reports itself.
    for (const char* noisy : {"ZEL.Server.LocationService.Estimate", "ZEL.SPI.XML"}) {
        ZEL::SPI::getLogger(noisy).setPriority(verbose ? LogPriority::kDebug : LogPriority::kFatal);
    }
}

// The access-log sink, or none.
std::function<void(const std::string&)> accessLogSink(const Arguments& a, std::string& error) {
    if (a.noAccessLog) {
        return {};
    }
    FILE* file = a.accessLog == "-" ? stdout : std::fopen(a.accessLog.c_str(), "a");
    if (file == nullptr) {
        error = "cannot open access log " + a.accessLog;
        return {};
    }
    auto mutex = std::make_shared<std::mutex>();
    return [file, mutex](const std::string& line) {
        std::lock_guard lock(*mutex);
        std::fprintf(file, "%s\n", line.c_str());
        std::fflush(file);
    };
}

// Seconds in "30", "30s", "500ms", "10m" or "1h"; nullopt when it is not one.
std::optional<double> durationSeconds(const std::string& text) {
    size_t end = 0;
    double value = 0;
    try {
        value = std::stod(text, &end);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    const std::string unit = text.substr(end);
    const double scale = unit.empty() || unit == "s" ? 1
                         : unit == "ms"              ? 0.001
                         : unit == "m"               ? 60
                         : unit == "h"               ? 3600
                                                     : 0;
    return scale > 0 && value > 0 ? std::optional<double>(value * scale) : std::nullopt;
}

// Learns the realm's reports into the learned tile file, at once and then every
// `period`, and reloads the tile files after each new file; until stopped.
class PeriodicLearning {
  public:
    PeriodicLearning(std::shared_ptr<LocationService> service, ServiceOptions options,
                     std::chrono::milliseconds period)
        : service_(std::move(service)), options_(std::move(options)), period_(period) {
        thread_ = std::thread([this] { loop(); });
    }
    ~PeriodicLearning() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

  private:
    void loop() {
        ZEL::SPI::Logger& category = ZEL::SPI::getLogger("ZEL.Server.Learning");
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            lock.unlock();
            std::string error;
            const std::optional<LearnedFile> learned = learnTileFile(
                service_->users(), options_.realm, options_.learnedTiles, false, true, {}, error);
            if (!learned) {
                ZEL_LOG_ERROR(category, "learning failed, next try in a period: %s", error.c_str());
            } else if (learned->replaced) {
                ZEL_LOG_INFO(category, "learned %llu new observations: %zu access points in %s",
                             static_cast<unsigned long long>(learned->tally.observations),
                             learned->written.accessPoints, options_.learnedTiles.c_str());
                service_->reloadTiles(error);  // a refusal is logged; the old files keep serving
            } else if (learned->tally.observations > 0) {
                ZEL_LOG_INFO(category, "learned %llu new observations; %s",
                             static_cast<unsigned long long>(learned->tally.observations),
                             learned->written.error.c_str());
            }
            lock.lock();
            wake_.wait_for(lock, period_, [this] { return stopping_; });
        }
    }

    std::shared_ptr<LocationService> service_;
    const ServiceOptions options_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

std::shared_ptr<LocationService> makeService(Arguments& a, std::string& error) {
    ServiceData data;
    const std::string url = a.users.empty() ? a.database : "sqlite:" + a.users;
    data.users = Database::open(url, error);
    // An in-memory database forgets at exit what the server acknowledged.
    a.service.storeReports = url != "sqlite::memory:" && url != "sqlite:";
    a.service.maxReportAgeMs = static_cast<uint64_t>(a.maxReportAgeSeconds * 1000);
    if (!data.users) {
        return nullptr;
    }
    for (const std::string& name : a.addUsers) {
        if (data.users->addUser(name, a.service.realm) == Database::Addition::Failed) {
            error = "cannot add user " + name;
            return nullptr;
        }
    }
    for (const std::string& key : a.addKeys) {
        if (data.users->addKey(key, a.service.realm) == Database::Addition::Failed) {
            error = "cannot add API key " + key;
            return nullptr;
        }
    }
    if (!a.ipRanges.empty() && !(data.ipRanges = IpRanges::load(a.ipRanges, error))) {
        return nullptr;
    }
    if (!a.addresses.empty() &&
        !(data.addresses = StreetAddressIndex::load(a.addresses, a.addressRadius, error))) {
        return nullptr;
    }
    return LocationService::create(a.service, std::move(data), error);
}

int run(Arguments& a) {
    setUpLogging(a.verbose);
    using std::chrono::duration_cast, std::chrono::milliseconds, std::chrono::duration;
    a.server.headTimeout = duration_cast<milliseconds>(duration<double>(a.headSeconds));
    a.server.bodyTimeout = duration_cast<milliseconds>(duration<double>(a.bodySeconds));
    a.server.keepAliveTimeout = duration_cast<milliseconds>(duration<double>(a.keepAliveSeconds));
    std::string error;
    if (!parseListenAddress(a.listen, a.server.host, a.server.port)) {
        std::fprintf(stderr, "zel-server: --listen wants HOST:PORT, not %s\n", a.listen.c_str());
        return 2;
    }
    const std::optional<double> period =
        a.learnEvery.empty() ? std::optional<double>(0) : durationSeconds(a.learnEvery);
    if (!period || (a.service.tileFiles.empty() && a.service.learnedTiles.empty()) ||
        (*period > 0 && a.service.learnedTiles.empty())) {
        std::fprintf(stderr, "zel-server: %s\n",
                     !period       ? "--learn-every wants a duration such as 30s, 10m or 1h"
                     : *period > 0 ? "--learn-every needs --learned-tiles"
                                   : "give --tiles, --learned-tiles or both");
        return 2;
    }
    // Signals are taken by sigwait below: block them before any thread starts.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    std::shared_ptr<LocationService> service = makeService(a, error);
    if (service) {
        a.server.accessLog = accessLogSink(a, error);
    }
    std::unique_ptr<LocationServer> server;
    if (service && error.empty()) {
        server = LocationServer::start(a.server, service, error);
    }
    if (!server) {
        std::fprintf(stderr, "zel-server: %s\n", error.c_str());
        return 2;
    }
    std::printf("zel-server: listening on %s%s\n", server->url().c_str(), a.server.prefix.c_str());
    std::fflush(stdout);
    std::unique_ptr<PeriodicLearning> learning;
    if (*period > 0) {
        learning = std::make_unique<PeriodicLearning>(
            service, a.service, duration_cast<milliseconds>(duration<double>(*period)));
    }
    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && signal == SIGHUP) {
        service->reloadTiles(error);  // a refusal is logged; the old files keep serving
    }
    learning.reset();
    server->stop();
    std::fprintf(stderr, "zel-server: stopped by signal %d\n", signal);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zel-server: a location server for the ZELAPI library's requests"};
    Arguments arguments;
    addOptions(app, arguments);
    CLI11_PARSE(app, argc, argv);
    return run(arguments);
}
