// The location server end to end on loopback: the library's remote determination
// over HTTP and over HTTPS with a certificate the client does not trust, hostile
// requests, slow and idle clients, the limits and the metrics, the user table
// shared by two servers, and the zel-server program.
#include <httplib.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "local/location_determination_private.h"
#include "local/location_history.h"
#include "remote/location_determination_remote.h"
#include "remote/request_messages.h"
#include "remote/response_parser.h"
#include "server/geolocate_service.h"
#include "spi/xml/libxml2_parser.h"
#include "support/hand_built_tile.h"
#include "support/local_entries.h"
#include "support/location_server_fixture.h"
#include "support/test_databases.h"

namespace ZEL::Server {
namespace {

using namespace Testing;

const Core::Credentials kAlice{kRegisteredUser, kServerRealm};

Core::ScannedAP heard(int number, int16_t rss) {
    Core::ScannedAP ap;
    ap.mac = testMac(number);
    ap.rss = rss;
    return ap;
}

// Eight APs of the first cluster at varied strengths, and one the database lacks.
Core::ApList clusterScan() {
    Core::ApList aps;
    for (int i = 1; i <= 8; ++i) {
        aps.push_back(heard(i, static_cast<int16_t>(-50 - 5 * i)));
    }
    aps.push_back(heard(99, -40));
    return aps;
}

class ServerExchange : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        server_ = TestLocationServer::start({.https = GetParam()});
        ASSERT_NE(server_, nullptr);
        remote_.setServerUrl(server_->serviceUrl());
    }

    Core::LocationRecord locate(const Core::ApList& aps, int level,
                                Core::ResultCode expected = Core::ResultCode::kOk,
                                const Core::Credentials& user = kAlice) {
        Core::LocationRecord record;
        EXPECT_EQ(remote_.location(user, level, aps, record), expected);
        return record;
    }

    std::unique_ptr<TestLocationServer> server_;
    Remote::LocationDeterminationRemote remote_;
};

TEST_P(ServerExchange, LocationMatchesTheOnDeviceEstimate) {
    const Core::LocationRecord answer = locate(clusterScan(), Core::kNoStreetAddress);
    EXPECT_EQ(answer.speed, -1.0);
    EXPECT_TRUE(answer.streetAddress.empty());

    // The library's own first determination from the same file, with no history,
    // must give exactly the same figures; the unknown AP is not counted.
    Local::resetLocationHistoriesForTesting();
    Local::LocationDeterminationPrivate device;
    device.setLocalFilesPath({TestLocationServer::tilePath()});
    device.prepare(kAlice.realm);
    Core::LocationRecord expected;
    ASSERT_EQ(device.determine(nullptr, clusterScan(), expected), Core::ResultCode::kOk);
    Local::resetLocationHistoriesForTesting();
    EXPECT_EQ(answer.latitude, expected.latitude);
    EXPECT_EQ(answer.longitude, expected.longitude);
    EXPECT_EQ(answer.hpe, expected.hpe);
    EXPECT_EQ(answer.nap, 8);

    // Stateless: asking again gives the same answer, not a smoothed one.
    EXPECT_EQ(locate(clusterScan(), 0).latitude, answer.latitude);

    locate({heard(98, -50), heard(99, -60)}, 0, Core::ResultCode::kCannotDetermine);
    locate({}, 0, Core::ResultCode::kCannotDetermine);
}

TEST_P(ServerExchange, GeolocateInJsonGivesTheXmlRoutesPosition) {
    const Core::LocationRecord xml = locate(clusterScan(), 0);
    server_->service().users().addKey("k1", kServerRealm);
    const std::string base = server_->serviceUrl();
    remote_.setGeolocateUrl(base.substr(0, base.rfind('/')) + "/v1/geolocate?key=k1");
    const Core::LocationRecord json = locate(clusterScan(), 0);
    EXPECT_EQ(std::make_tuple(json.latitude, json.longitude, json.hpe, json.nap),
              std::make_tuple(xml.latitude, xml.longitude, calibratedAccuracy(xml.hpe), 9));
    Core::IpLocationRecord ip;
    ASSERT_EQ(remote_.ipLocation(kAlice, 0, ip), Core::ResultCode::kOk);
    EXPECT_EQ(ip.latitude, kLoopbackLatitude);
    locate({heard(1, -50), heard(99, -60)}, 0, Core::ResultCode::kCannotDetermine);  // one known
}

TEST_P(ServerExchange, StreetAddressAtEachLevel) {
    const Core::StreetAddress limited =
        locate(clusterScan(), Core::kLimitedStreetAddress).streetAddress;
    EXPECT_EQ(limited.city + limited.stateCode + limited.countryCode, "BernBECH");
    EXPECT_EQ(limited.streetNumber + limited.postalCode, "");
    EXPECT_TRUE(limited.addressLines.empty());

    const Core::StreetAddress full = locate(clusterScan(), Core::kFullStreetAddress).streetAddress;
    EXPECT_EQ(full.streetNumber + full.postalCode, "12a3011");
    // Markup characters in the data reach the client intact.
    EXPECT_EQ(full.addressLines, (std::vector<std::string>{"Rue <Haute> & Co", "2nd floor, left"}));
    // A level the protocol does not name reads as none.
    EXPECT_TRUE(locate(clusterScan(), 7).streetAddress.empty());
}

TEST_P(ServerExchange, RegistrationAndAuthentication) {
    const Core::Credentials bob{"bob", kServerRealm};
    const Core::Credentials carol{"carol", kServerRealm};
    locate(clusterScan(), 0, Core::ResultCode::kUnauthorized, bob);
    EXPECT_EQ(remote_.registerUser(kAlice, bob), Core::ResultCode::kOk);
    locate(clusterScan(), 0, Core::ResultCode::kOk, bob);
    // An existing user is an error answer; so is a user of another realm.
    EXPECT_EQ(remote_.registerUser(kAlice, bob), Core::ResultCode::kCannotDetermine);
    EXPECT_EQ(remote_.registerUser(kAlice, {"dave", "other"}), Core::ResultCode::kCannotDetermine);
    // Only registered users may register others, and realms must match.
    EXPECT_EQ(remote_.registerUser(carol, {"erin", kServerRealm}), Core::ResultCode::kUnauthorized);
    locate(clusterScan(), 0, Core::ResultCode::kUnauthorized, {kRegisteredUser, "other"});
    Core::IpLocationRecord record;
    EXPECT_EQ(remote_.ipLocation(carol, 0, record), Core::ResultCode::kUnauthorized);
    EXPECT_EQ(server_->service().users().countUsers(kServerRealm), 2u);
}

INSTANTIATE_TEST_SUITE_P(HttpAndHttps, ServerExchange, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Https" : "Http"; });

const std::string kNamespace = Remote::kRequestNamespaceUri;
const std::string kHead = "<?xml version='1.0'?><LocationRQ xmlns='" + kNamespace + "'>";
const std::string kAuthentication =
    "<authentication version='2.0'><simple><username>alice</username><realm>acme</realm>"
    "</simple></authentication>";

std::string simple(const std::string& user, const std::string& realm) {
    return "<simple><username>" + user + "</username><realm>" + realm + "</realm></simple>";
}
std::string locationRequest(const std::string& inside) {
    return kHead + kAuthentication + inside + "</LocationRQ>";
}
std::string accessPoint(const std::string& mac, const std::string& rss) {
    return "<access-point><mac>" + mac + "</mac><signal-strength>" + rss +
           "</signal-strength></access-point>";
}

// The code of the answer's error element, "" without one, "not xml" for no answer.
std::string errorCode(const std::string& body) {
    auto document = SPI::newLibXml2Parser()->parse(body.data(), body.size());
    if (!document || document->documentElement()->namespaceURI() != kNamespace) {
        return "not xml";
    }
    auto error = Remote::findChild(*document->documentElement(), "error");
    return error ? error->getAttribute("", "code") : "";
}

TEST(HostileRequests, AreRefusedWithWellFormedAnswers) {
    auto server = TestLocationServer::start();
    ASSERT_NE(server, nullptr);
    httplib::Client client("127.0.0.1", server->port());

    const std::string longName(257, 'u');
    std::string tooMany;
    for (int i = 0; i < 101; ++i) {  // the fixture allows 100
        tooMany += accessPoint("000000000001", "-60");
    }
    // Just under the size limit is read (and answered for what it is, not its size).
    const std::string empty = locationRequest(accessPoint("000000000001", "-60"));
    const std::string padded = empty.substr(0, empty.size() - 13) +
                               std::string((1 << 20) - empty.size(), ' ') + "</LocationRQ>";
    const std::string registration =
        "<?xml version='1.0'?><RegistrationRQ xmlns='" + kNamespace + "'>" + kAuthentication;
    auto user = [](const std::string& name, const std::string& realm) {
        return kHead + "<authentication>" + simple(name, realm) + "</authentication></LocationRQ>";
    };
    const std::pair<const char*, std::string> rows[] = {
        {"location 400", "not xml at all"},
        {"location 400", kHead + kAuthentication},  // unterminated
        {"location 400", "<LocationRQ>" + kAuthentication + "</LocationRQ>"},
        {"ip-location 400", locationRequest("")},  // the wrong root
        {"location 400", kHead + "</LocationRQ>"},
        {"location 400", user("", "acme")},
        {"location 400", user(longName, "acme")},
        {"location 400", user("alice", longName)},
        {"location 400", locationRequest(accessPoint("0000000001", "-60"))},
        {"location 400", locationRequest(accessPoint("00000000000G", "-60"))},
        {"location 400", locationRequest(accessPoint("000000000001", "-60dBm"))},
        {"location 400", locationRequest(accessPoint("000000000001", "40000"))},
        {"location 400", locationRequest(tooMany)},
        // Access points are read wherever they stand, before the authentication too,
        // but only in the request namespace.
        {"location 400",
         kHead + accessPoint("0000000001", "-60") + kAuthentication + "</LocationRQ>"},
        {"location 200", locationRequest("<x:access-point xmlns:x='urn:x'><x:mac>1</x:mac>"
                                         "</x:access-point>" +
                                         accessPoint("000000000001", "-60"))},
        {"registration 400", registration + "</RegistrationRQ>"},
        {"registration 400", registration + simple("", "acme") + "</RegistrationRQ>"},
        {"location 413", locationRequest(std::string(1 << 20, ' '))},
        {"locations 404", locationRequest("")},
        {"location 200", padded},
    };
    for (const auto& [route, body] : rows) {
        const std::string path = route;
        const int status = std::stoi(path.substr(path.find(' ') + 1));
        auto result = client.Post("/zel2/" + path.substr(0, path.find(' ')), body, "text/xml");
        ASSERT_TRUE(result) << body.substr(0, 200);
        EXPECT_EQ(result->status, status) << body.substr(0, 200);
        EXPECT_EQ(errorCode(result->body), status == 400   ? "bad-request"
                                           : status == 200 ? ""
                                                           : "http-" + std::to_string(status))
            << body.substr(0, 200);
    }
}

TEST(ForwardedFor, TrustedOnlyWhenConfigured) {
    const std::string request = "<?xml version='1.0'?><IPLocationRQ xmlns='" + kNamespace +
                                "' street-address-lookup='limited'>" + kAuthentication +
                                "</IPLocationRQ>";
    for (bool trusted : {false, true}) {
        auto server = TestLocationServer::start({.trustProxy = trusted});
        ASSERT_NE(server, nullptr);
        httplib::Client client("127.0.0.1", server->port());
        auto result =
            client.Post("/zel2/ip-location", {{"X-Forwarded-For", "203.0.113.9, 10.1.2.3"}},
                        request, "text/xml");
        ASSERT_TRUE(result);
        Core::IpLocationRecord record;
        ASSERT_EQ(Remote::parseIPLocationResponse(result->body, 1, record), Core::ResultCode::kOk)
            << result->body;
        EXPECT_EQ(record.ip, trusted ? "10.1.2.3" : "127.0.0.1");
        EXPECT_EQ(record.latitude, trusted ? Testing::kTenNetLatitude : Testing::kLoopbackLatitude);
        EXPECT_EQ(record.streetAddress.countryCode + record.streetAddress.streetNumber,
                  trusted ? "ES" : "NW");  // limited: no street number
    }
}

class SharedUserDatabase : public BackendTest {};

TEST_P(SharedUserDatabase, ConcurrentRegistrationsCreateEachUserOnce) {
    std::unique_ptr<TestLocationServer> servers[] = {TestLocationServer::start({.database = url_}),
                                                     TestLocationServer::start({.database = url_})};
    ASSERT_TRUE(servers[0] && servers[1]);
    // Every thread tries every name, alternating between the servers: each name is
    // created exactly once, and every other attempt is told that it exists.
    constexpr int kThreads = 6, kNames = 30;
    std::atomic<int> created{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Remote::LocationDeterminationRemote remote;
            for (int n = 0; n < kNames; ++n) {
                remote.setServerUrl(servers[(n + t) % 2]->serviceUrl());
                const std::string user = "user" + std::to_string((n + t * 5) % kNames);
                const Core::ResultCode code = remote.registerUser(kAlice, {user, kServerRealm});
                created += code == Core::ResultCode::kOk;
                refused += code == Core::ResultCode::kCannotDetermine;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(created.load(), kNames);
    EXPECT_EQ(refused.load(), kThreads * kNames - kNames);
    EXPECT_EQ(servers[0]->service().users().countUsers(kServerRealm), size_t{kNames + 1});
}

INSTANTIATE_TEST_SUITE_P(SqliteAndPostgresql, SharedUserDatabase,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

std::map<std::string, double> readMetrics(const std::string& text) {
    std::map<std::string, double> samples;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t space = line.rfind(' ');
        if (!line.starts_with('#') && space != std::string::npos) {
            samples[line.substr(0, space)] = std::stod(line.substr(space + 1));
        }
    }
    return samples;
}

// zel-server started through a shell that prints its process id, then becomes it.
class ServerProcess {
  public:
    explicit ServerProcess(const std::string& arguments) {
        const std::string command = "echo $$; exec " + std::string(ZEL_BINARY_DIR) +
                                    "/bin/zel-server " + arguments + " 2>&1";
        output_ = popen(command.c_str(), "r");
        pid_ = std::stoi(nextLine());
        const std::string started = nextLine();
        const size_t at = started.find("listening on http://127.0.0.1:");
        EXPECT_NE(at, std::string::npos) << started;
        if (at != std::string::npos) {
            url_ = started.substr(at + 13, started.find('\n') - at - 13);
        }
    }
    ~ServerProcess() {
        if (output_ != nullptr) {
            kill(pid_, SIGKILL);
            pclose(output_);
        }
    }
    // The service URL with its prefix; empty when the program did not start.
    const std::string& url() const { return url_; }
    int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }
    void signal(int number) const { kill(pid_, number); }
    // Reads what the program writes up to a line holding `text`; false at its end.
    bool waitFor(const std::string& text) {
        for (std::string line = nextLine(); !line.empty(); line = nextLine()) {
            if (line.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    // Terminates the program; its wait status.
    int stop() {
        signal(SIGTERM);
        const int status = pclose(output_);
        output_ = nullptr;
        return status;
    }

  private:
    std::string nextLine() {
        char buffer[1024];
        return std::fgets(buffer, sizeof buffer, output_) ? buffer : "";
    }

    FILE* output_ = nullptr;
    pid_t pid_ = 0;
    std::string url_;
};

const std::string kProgramOptions = std::string(" --realm ") + kServerRealm +
                                    " --listen 127.0.0.1:0 --add-user alice --no-access-log";

// Serves until terminated; a hangup reloads the tiles.
TEST(ServerProgram, HangupReloadsTilesAndNoRewriteInPlaceReachesTheRequests) {
    const TempDir directory;
    const std::string tiles = directory.path() + "/tiles.zel";
    std::filesystem::copy_file(TestLocationServer::tilePath(), tiles);
    ServerProcess server("--tiles " + tiles + kProgramOptions);
    ASSERT_FALSE(server.url().empty());
    const Core::ApList scan = {heard(1, -50), heard(2, -60), heard(6, -70)};
    Remote::LocationDeterminationRemote remote;
    remote.setServerUrl(server.url());
    auto latitude = [&] {
        Core::LocationRecord record;
        EXPECT_EQ(remote.location(kAlice, 0, scan, record), Core::ResultCode::kOk);
        return record.latitude;
    };
    const double first = latitude();

    // Requests all along from a second client: every one must be answered.
    std::atomic<bool> done{false};
    std::atomic<int> answered{0}, failed{0};
    std::thread load([&] {
        Remote::LocationDeterminationRemote client;
        client.setServerUrl(server.url());
        for (int i = 0; i < 100'000 && !done; ++i) {
            Core::LocationRecord record;
            (client.location(kAlice, 0, scan, record) == Core::ResultCode::kOk ? answered
                                                                               : failed)++;
        }
    });
    auto write = [&](const std::string& path, double north, const char* realm) {
        const auto result =
            Tiles::TileWriter::writeFile(path, TestLocationServer::tileAccessPoints(north), realm);
        ASSERT_TRUE(result.ok) << result.error;
    };
    const std::tuple<const char*, std::function<void()>, const char*, double> rows[] = {
        {"renamed over, 1 km north",
         [&] {
             write(directory.path() + "/new.zel", 1000, kServerRealm);
             std::filesystem::rename(directory.path() + "/new.zel", tiles);
         },
         "tile files reloaded", 1000},
        {"truncated in place", [&] { std::filesystem::resize_file(tiles, 0); },
         "tile reload refused, still answering from the files loaded before: tile file", 1000},
        {"rewritten in place for another realm", [&] { write(tiles, 0, "other"); },
         "is not a valid tile file for realm \"acme\"", 1000},
        {"rewritten in place, back south", [&] { write(tiles, 0, kServerRealm); },
         "tile files reloaded", 0},
    };
    double served = 0;                            // metres north of the first answer
    const double metre = 1.0 / kMetresPerDegree;  // the tile stores positions to about 0.5 m
    for (const auto& [change, apply, logged, north] : rows) {
        apply();
        EXPECT_NEAR(latitude(), first + served * metre, metre) << change << ": unasked";
        server.signal(SIGHUP);
        ASSERT_TRUE(server.waitFor(logged)) << change;
        served = north;
        EXPECT_NEAR(latitude(), first + served * metre, metre) << change;
    }
    done = true;
    load.join();
    EXPECT_EQ(failed, 0);
    EXPECT_GT(answered, 0);
    httplib::Client client("127.0.0.1", server.port());
    auto metrics = client.Get("/metrics");
    ASSERT_TRUE(metrics);
    EXPECT_EQ(readMetrics(metrics->body)["zel_tile_reloads_refused_total"], 2);
    EXPECT_EQ(server.stop(), 0);
}

// Acknowledged means committed: killed at once (SIGKILL), the server has left it stored.
TEST_P(SharedUserDatabase, AnAcknowledgedReportSurvivesSigkill) {
    ServerProcess server("--tiles " + TestLocationServer::tilePath() + kProgramOptions +
                         " --add-api-key k1 --database '" + url_ + "'");
    auto reply = httplib::Client("127.0.0.1", server.port())
                     .Post("/v2/geosubmit?key=k1",
                           R"({"position":{"latitude":1,"longitude":2},)"
                           R"("wifiAccessPoints":[{"macAddress":"02:00:00:00:00:01"}]})",
                           "application/json");
    ASSERT_TRUE(reply && reply->status == 200) << (reply ? reply->body : "no answer");
    server.signal(SIGKILL);
    EXPECT_EQ(queryTestDatabase(url_, "SELECT mac FROM observations"), "2199023255553");
}

// Reports stored in the server's database are learned in-process: the learned file
// appears, is answered from and downloaded, and is replaced when an access point moves.
TEST(ServerProgram, LearnsFromTheReportsAndSwapsTheLearnedFileIn) {
    const TempDir directory;
    const std::string learned = directory.path() + "/learned.zel";
    const std::string url = "sqlite:" + directory.path() + "/zel.db";
    std::string error;
    const std::unique_ptr<Database> database = Database::open(url, error);
    ASSERT_NE(database, nullptr) << error;
    ServerProcess server("--database " + url + " --learned-tiles " + learned +
                         " --learn-every 100ms --add-api-key k1" + kProgramOptions);
    ASSERT_FALSE(server.url().empty());
    Remote::LocationDeterminationRemote remote;
    remote.setServerUrl(server.url());
    const Core::ApList scan = {heard(1, -50), heard(2, -60), heard(6, -70)};
    Core::LocationRecord record;
    EXPECT_NE(remote.location(kAlice, 0, scan, record), Core::ResultCode::kOk);
    // Each access point heard at its place in the fixture's file, `north` metres on.
    auto report = [&](double north, uint64_t day) {
        Database::Report report{kServerRealm, "", "", 1, {}};
        for (const Tiles::AccessPointPosition& ap : TestLocationServer::tileAccessPoints(north)) {
            for (int i = 0; i < 3; ++i) {
                report.observations.push_back(
                    {ap.mac, ap.latitude, ap.longitude, 5, -60 - i, day * 86'400'000 + i});
            }
        }
        ASSERT_EQ(database->addReport(report), Database::Addition::Added);
    };
    httplib::Client client("127.0.0.1", server.port());
    for (const double north : {0.0, 2000.0}) {
        report(north, north > 0 ? 3 : 1);
        ASSERT_TRUE(server.waitFor("tile files reloaded (1)")) << north;
        ASSERT_EQ(remote.location(kAlice, 0, scan, record), Core::ResultCode::kOk);
        EXPECT_NEAR(record.latitude, latitudeAt(north), 100 / kMetresPerDegree) << north;
        auto download = client.Get("/v1/tiles/acme?key=k1");
        ASSERT_TRUE(download);
        std::ifstream file(learned, std::ios::binary);
        EXPECT_EQ(download->body, std::string(std::istreambuf_iterator<char>(file), {}));
    }
    EXPECT_EQ(server.stop(), 0);
}

// A raw loopback connection to `port`, -1 when it fails; reads give up after 5 s.
int connectTo(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval timeout{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// True while the server keeps `fd` open: nothing to read and no end of stream.
bool stillOpen(int fd) {
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

// Sends `request` on `fd`; what comes back until `end` or the end of the stream.
std::string roundTrip(int fd, const std::string& request, std::string_view end) {
    std::string answer;
    char buffer[512];
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    for (ssize_t n; !answer.ends_with(end) && (n = recv(fd, buffer, 512, 0)) > 0;) {
        answer.append(buffer, n);
    }
    return answer;
}

// Sends a keep-alive GET /health on `fd`; true when it is answered.
bool healthOn(int fd) {
    return roundTrip(fd, "GET /health HTTP/1.1\r\nHost: test\r\n\r\n", "\r\n\r\nok\n")
        .starts_with("HTTP/1.1 200");
}

TEST(ServerSlowClients, TricklersAreCutOffAtTheHeadDeadlineAndNobodyWaits) {
    constexpr int kEach = 1000;
    constexpr auto kHead = std::chrono::seconds(4), kTrickle = std::chrono::seconds(2);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::max<rlim_t>(files.rlim_cur, std::min<rlim_t>(files.rlim_max, 8192));
    if (setrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur < 4 * kEach + 200) {
        GTEST_SKIP() << "both ends of 2,000 sockets need more open files than " << files.rlim_cur;
    }
    auto server = TestLocationServer::start({.configure = [&](Server::ServerOptions& options) {
        options.threads = 2;
        options.headTimeout = kHead;
        options.keepAliveTimeout = std::chrono::seconds(60);
    }});
    ASSERT_NE(server, nullptr);
    std::vector<int> idle, tricklers;
    for (int i = 0; i < kEach; ++i) {
        idle.push_back(connectTo(server->port()));
        tricklers.push_back(connectTo(server->port()));
        ASSERT_TRUE(healthOn(idle.back()) && tricklers.back() >= 0) << i;
    }
    const std::string head = "POST /zel2/location HTTP/1.1\r\nHost: t\r\nContent-Length: 9\r\n";
    httplib::Client client("127.0.0.1", server->port());  // waits 5 s at most
    const std::string request = locationRequest(accessPoint(Core::macText(testMac(1)), "-60"));
    // Rounds two seconds apart, three bytes per trickler each: the head deadline
    // passes before the third round, long before their head is complete.
    const auto begun = std::chrono::steady_clock::now();
    for (int round = 0; round < 4; ++round) {
        std::this_thread::sleep_until(begun + round * kTrickle);
        for (int fd : tricklers) {
            send(fd, head.data() + round * 3, 3, MSG_NOSIGNAL);
        }
        if (round == 1) {
            for (int fd : tricklers) {
                ASSERT_TRUE(stillOpen(fd)) << "cut off before the head deadline";
            }
            EXPECT_GE(server->service().metrics().openConnections.load(), 2 * kEach);
        }
        auto answer = client.Post("/zel2/location", request, "text/xml");
        ASSERT_TRUE(answer) << "round " << round;
        EXPECT_EQ(errorCode(answer->body), "") << answer->body;
    }
    // Closed by the server (the end of the stream or a reset) well before any
    // other deadline, without an answer.
    int cutOff = 0;
    const auto lastChance = begun + kHead + 2 * kTrickle;
    for (int fd : tricklers) {
        pollfd ready{fd, POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            lastChance - std::chrono::steady_clock::now());
        char byte;
        cutOff += poll(&ready, 1, std::max<int>(0, left.count())) == 1 &&
                  recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
        close(fd);
    }
    EXPECT_EQ(cutOff, kEach);
    EXPECT_TRUE(healthOn(idle.front()));  // the idle ones are still served
    for (int fd : idle) {
        EXPECT_TRUE(stillOpen(fd));
        close(fd);
    }
}

// Prometheus text as sample name (with labels) to value.
TEST(ServerLimits, RatesAndConnectionsPerAddressAndPerKeyAreCountedInTheMetrics) {
    auto server = TestLocationServer::start(
        {.trustProxy = true, .configure = [](Server::ServerOptions& options) {
             options.ratePerAddress = {0.001, 3};
             options.ratePerKey = {0.001, 2};
             options.maxConnectionsPerAddress = 2;
         }});
    ASSERT_NE(server, nullptr);
    for (const char* user : {"bob", "dave"}) {
        server->service().users().addUser(user, kServerRealm);
    }
    httplib::Client client("127.0.0.1", server->port());
    client.set_keep_alive(true);  // one connection throughout
    const std::tuple<const char*, const char*, const char*, int> rows[] = {
        {"10.0.0.1", "alice", "", 200},
        {"10.0.0.1", "alice", "", 200},
        {"10.0.0.1", "alice", "", 429},  // the user's burst is spent
        {"10.0.0.1", "bob", "", 429},    // and the address's
        {"10.0.0.2", "bob", "", 200},    // another address, another user
        {"10.0.0.3", "bob", "?v=2&key=k1", 200},
        {"10.0.0.4", "dave", "?key=k1", 200},
        {"10.0.0.5", "dave", "?v=2&key=k1&w", 429},  // the key's burst is spent
        {"10.0.0.5", "dave", "?key=k2", 200},
    };
    for (const auto& [address, user, query, status] : rows) {
        const std::string body = kHead + "<authentication>" + simple(user, kServerRealm) +
                                 "</authentication>" +
                                 accessPoint(Core::macText(testMac(1)), "-60") + "</LocationRQ>";
        auto answer = client.Post(std::string("/zel2/location") + query,
                                  {{"X-Forwarded-For", address}}, body, "text/xml");
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, status) << address << " " << user << query;
        EXPECT_EQ(errorCode(answer->body), status == 429 ? "rate-limited" : "");
    }
    // The geolocate route shares the limits and refuses as its clients expect.
    for (const char* key : {"k1", "k3", "k4"}) {
        server->service().users().addKey(key, kServerRealm);
    }
    for (const auto& [key, status] :
         {std::pair{"k1", 403}, {"k3", 200}, {"k4", 200}, {"k5", 403}}) {
        auto answer = client.Post(std::string("/v1/geolocate?key=") + key,
                                  {{"X-Forwarded-For", "10.0.0.6"}}, "{}", "application/json");
        ASSERT_TRUE(answer);  // k1's burst is spent, then the address's
        EXPECT_EQ(answer->status, status) << key;
        EXPECT_EQ(answer->body.find("userRateLimitExceeded") != std::string::npos, status == 403);
    }
    for (int i = 0; i < 5; ++i) {  // not limited
        auto health = client.Get("/health");
        ASSERT_TRUE(health);
        EXPECT_EQ(health->status, 200);
    }

    auto metrics = client.Get("/metrics");
    ASSERT_TRUE(metrics);
    std::map<std::string, double> samples = readMetrics(metrics->body);
    const std::pair<std::string, double> expected[] = {
        {"zel_http_requests_total{route=\"location\",status=\"200\"}", 6},
        {"zel_http_requests_total{route=\"location\",status=\"429\"}", 3},
        {"zel_http_requests_total{route=\"health\",status=\"200\"}", 5},
        {"zel_http_requests_total{route=\"geolocate\",status=\"200\"}", 2},
        {"zel_http_requests_total{route=\"geolocate\",status=\"403\"}", 2},
        {"zel_http_request_duration_seconds_count", 18},
        {"zel_positions_found_total", 6},
        {"zel_positions_not_found_total", 0},
        {"zel_open_connections", 1},
        {"zel_tile_files_loaded", 1},
    };
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(samples[name], value) << name;
    }

    // The client's connection and one more from this address, but no third.
    const int second = connectTo(server->port()), third = connectTo(server->port());
    EXPECT_TRUE(healthOn(second));
    EXPECT_FALSE(healthOn(third));
    const std::string answer = roundTrip(second, "NOT HTTP\r\n\r\n", "</ErrorRS>");
    EXPECT_EQ(errorCode(answer.substr(std::min(answer.find("<?xml"), answer.size()))), "http-400");
    close(third);
    close(second);
    bool servedAgain = false;  // once the server has seen the second one close
    for (int attempt = 0; attempt < 100 && !servedAgain; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const int next = connectTo(server->port());
        servedAgain = healthOn(next);
        close(next);
    }
    EXPECT_TRUE(servedAgain);
}

}  // namespace
}  // namespace ZEL::Server
