// POST /v1/geolocate end to end on loopback: the server's answers to good, hostile
// and compressed bodies, keys and limits; the library's JSON back end against it
// over HTTP and HTTPS.
#include <httplib.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "remote/location_determination_remote.h"
#include "server/geolocate_service.h"
#include "spi/platform.h"
#include "support/local_entries.h"
#include "support/location_server_fixture.h"

namespace ZEL::Server {
namespace {

using namespace Testing;
using Json = nlohmann::json;

// "wifiAccessPoints":[...] of testMac(n) for each number (99: one the tiles lack).
std::string wifi(std::initializer_list<int> numbers, const std::string& lastExtra = "") {
    std::string list;
    for (int number : numbers) {
        list += std::string(list.empty() ? "{" : "},{") + "\"macAddress\":\"" +
                Core::macText(testMac(number)) + "\",\"signalStrength\":-60";
    }
    return "\"wifiAccessPoints\":[" + list + lastExtra + "}]";
}

std::string gzip(const std::string& text) {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

std::string reasonOf(const Json& answer) {
    return answer.contains("error") ? answer["error"]["errors"][0]["reason"].get<std::string>()
                                    : "";
}

TEST(GeolocateRoute, AnswersRefusesAndCounts) {
    auto server = TestLocationServer::start();  // at most 100 access points per request
    ASSERT_NE(server, nullptr);
    server->service().users().addKey("k1", kServerRealm);
    server->service().users().addKey("off", kServerRealm, false);
    server->service().users().addKey("elsewhere", "other");
    std::string hundred = "\"considerIp\":false,\"wifiAccessPoints\":[";
    for (int i = 0; i < 100; ++i) {
        hundred += "{\"macAddress\":\"02:00:00:00:01:" + std::to_string(10 + i % 90) + "\"},";
    }
    struct Row {
        std::string body;
        int status;
        std::string reason;   // of the error, "" for a position
        double latitude = 0;  // of a position: kLoopbackLatitude from the ranges
        std::string key = "k1";
        bool gzipped = false;
    };
    const std::string fixOnly = "{\"considerIp\":false,";
    const Row rows[] = {
        {"{}", 200, "", kLoopbackLatitude},
        {"", 200, "", kLoopbackLatitude},  // zero bytes, as browsers send
        {"{\"cellTowers\":[{}],\"bluetoothBeacons\":[],\"radioType\":\"gsm\"}", 200, "",
         kLoopbackLatitude},
        {fixOnly + wifi({1, 2, 3}) + "}", 200, "", kBaseLatitude},
        {fixOnly + wifi({1, 2}) + "}", 200, "", kBaseLatitude},
        {fixOnly + wifi({1, 99}) + "}", 404, "notFound"},  // one known network: no answer
        {fixOnly + wifi({1, 2}, ",\"ssid\":\"home_nomap\"") + "}", 404, "notFound"},
        {"{" + wifi({1, 99}) + "}", 200, "", kLoopbackLatitude},
        {"{\"fallbacks\":{\"ipf\":false}," + wifi({1, 99}) + "}", 404, "notFound"},
        {"{" + hundred.substr(0, hundred.size() - 1) + "]}", 404, "notFound"},
        {"{" + hundred + "{\"macAddress\":\"02:00:00:00:02:00\"}]}", 400, "parseError"},
        {"{\"x\":[[[[[[[1]]]]]]]}", 200, "", kLoopbackLatitude},  // 8 levels
        {"{\"x\":[[[[[[[[1]]]]]]]]}", 400, "parseError"},
        {"{", 400, "parseError"},
        {"[]", 400, "parseError"},
        {"{\"considerIp\":\"yes\"}", 400, "parseError"},
        {"{\"fallbacks\":[]}", 400, "parseError"},
        {"{" + wifi({1}, ",\"macAddress\":\"zz\"") + "}", 400, "parseError"},
        {"{" + wifi({1}, ",\"signalStrength\":1") + "}", 400, "parseError"},
        {"{" + wifi({1}, ",\"age\":-1") + "}", 400, "parseError"},
        {"{" + wifi({1}, ",\"channel\":\"6\"") + "}", 400, "parseError"},
        {"{}", 400, "keyInvalid", 0, ""},
        {"{}", 400, "keyInvalid", 0, "nope"},
        {"{}", 400, "keyInvalid", 0, "off"},
        {"{}", 400, "keyInvalid", 0, "elsewhere"},
        {gzip(fixOnly + wifi({1, 2, 3}) + "}"), 200, "", kBaseLatitude, "k1", true},
        {gzip("{}").substr(0, 12), 400, "parseError", 0, "k1", true},
        {gzip(std::string((1 << 20) + 1, ' ')), 400, "parseError", 0, "k1", true},
        {std::string((1 << 20) + 1, ' '), 413, "http-413"},
    };
    httplib::Client client("127.0.0.1", server->port());
    int found = 0;
    for (const Row& row : rows) {
        httplib::Headers headers;
        if (row.gzipped) {
            headers.emplace("Content-Encoding", "gzip");
        }
        auto reply =
            client.Post("/v1/geolocate?key=" + row.key, headers, row.body, "application/json");
        ASSERT_TRUE(reply);
        const std::string context = row.body.substr(0, 80) + " key " + row.key;
        EXPECT_EQ(reply->status, row.status) << context << ": " << reply->body;
        EXPECT_EQ(reply->get_header_value("Content-Type"), "application/json; charset=UTF-8");
        const Json answer = Json::parse(reply->body);
        EXPECT_EQ(reasonOf(answer), row.reason) << context;
        if (row.reason.empty()) {
            ++found;
            EXPECT_NEAR(answer["location"]["lat"].get<double>(), row.latitude, 0.001) << context;
            EXPECT_EQ(answer.contains("fallback"), row.latitude == kLoopbackLatitude) << context;
            EXPECT_EQ(answer["accuracy"] == kIpAccuracy, answer.contains("fallback"));
        } else {
            EXPECT_EQ(answer["error"]["code"], row.status);
        }
    }
    auto wrongMethod = client.Get("/v1/geolocate?key=k1");
    ASSERT_TRUE(wrongMethod);
    EXPECT_EQ(wrongMethod->status, 405);
    auto metrics = client.Get("/metrics");
    ASSERT_TRUE(metrics);
    EXPECT_NE(metrics->body.find("route=\"geolocate\",status=\"200\"} " + std::to_string(found)),
              std::string::npos);
}

TEST(GeolocateRoute, LimitsPerAddressAndPerKeyAnswer403) {
    auto server = TestLocationServer::start(
        {.trustProxy = true, .configure = [](Server::ServerOptions& options) {
             options.ratePerAddress = {0.001, 2};
             options.ratePerKey = {0.001, 1};
         }});
    ASSERT_NE(server, nullptr);
    for (const char* key : {"k1", "k2", "k3"}) {
        server->service().users().addKey(key, kServerRealm);
    }
    httplib::Client client("127.0.0.1", server->port());
    const std::tuple<const char*, const char*, int> rows[] = {
        {"10.0.0.1", "k1", 200},
        {"10.0.0.2", "k1", 403},  // the key's burst is spent
        {"10.0.0.2", "k2", 200},
        {"10.0.0.2", "k3", 403},  // the address's burst is spent
    };
    for (const auto& [address, key, status] : rows) {
        auto reply = client.Post(std::string("/v1/geolocate?key=") + key,
                                 {{"X-Forwarded-For", address}}, "{}", "application/json");
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, status) << address << " " << key;
        const Json answer = Json::parse(reply->body);
        if (status == 200) {  // 10/8 from the ranges, by the forwarded address
            EXPECT_EQ(answer["location"]["lat"], kTenNetLatitude);
        } else {
            EXPECT_EQ(reasonOf(answer), "userRateLimitExceeded");
        }
    }
}

class GeolocateClient : public ::testing::TestWithParam<bool> {};

TEST_P(GeolocateClient, TheLibraryAsksTheServerInJson) {
    auto server = TestLocationServer::start({.https = GetParam()});
    ASSERT_NE(server, nullptr);
    server->service().users().addKey("k1", kServerRealm);
    Core::ApList aps;
    for (int i = 1; i <= 8; ++i) {
        Core::ScannedAP ap;
        ap.mac = testMac(i);
        ap.rss = static_cast<int16_t>(-50 - 5 * i);
        ap.time = SPI::currentTime();
        aps.push_back(ap);
    }
    Remote::LocationDeterminationRemote remote;
    remote.setServerUrl(server->serviceUrl());
    const Core::Credentials alice{kRegisteredUser, kServerRealm};
    Core::LocationRecord xml, json;
    ASSERT_EQ(remote.location(alice, 0, aps, xml), Core::ResultCode::kOk);

    remote.setGeolocateUrl(server->serviceUrl().substr(0, server->serviceUrl().size() - 5) +
                           "/v1/geolocate?key=k1");
    ASSERT_EQ(remote.location(alice, 0, aps, json), Core::ResultCode::kOk);
    EXPECT_NEAR(json.latitude, xml.latitude, 1e-9);
    EXPECT_NEAR(json.longitude, xml.longitude, 1e-9);
    EXPECT_NEAR(json.hpe, xml.hpe * kAccuracyScale, 1e-6);
    EXPECT_EQ(json.nap, 8);
    Core::IpLocationRecord ip;
    ASSERT_EQ(remote.ipLocation(alice, 0, ip), Core::ResultCode::kOk);
    EXPECT_EQ(ip.latitude, kLoopbackLatitude);
    aps.resize(2);
    aps[1].mac = testMac(99);  // one known network is not located
    EXPECT_EQ(remote.location(alice, 0, aps, json), Core::ResultCode::kCannotDetermine);
}

INSTANTIATE_TEST_SUITE_P(HttpAndHttps, GeolocateClient, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Https" : "Http"; });

}  // namespace
}  // namespace ZEL::Server
