// POST /v1/geolocate end to end on loopback: the server's answers to good, hostile
// and compressed bodies and keys (its limits and metrics: zel_server_test.cpp). The library's JSON
// back end against it is in zel_server_test.cpp, over HTTP and HTTPS.
#include <httplib.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "server/geolocate_service.h"
#include "support/local_entries.h"
#include "support/location_server_fixture.h"
#include "support/log_capture.h"

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

TEST(GeolocateRoute, AnswersAndRefuses) {
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
        {R"({"cellTowers":[{}],"bluetoothBeacons":[]})", 200, "", kLoopbackLatitude},
        {fixOnly + wifi({1, 2}, ",\"age\":0") + "}", 200, "", kBaseLatitude},  // lowest age
        {fixOnly + wifi({1, 99}) + "}", 404, "notFound"},  // one known network: no answer
        {fixOnly + wifi({1, 2}, ",\"ssid\":\"home_nomap\"") + "}", 404, "notFound"},
        {"{" + wifi({1, 99}) + "}", 200, "", kLoopbackLatitude},
        {"{\"fallbacks\":{\"ipf\":false}," + wifi({1, 99}) + "}", 404, "notFound"},
        {"{" + hundred.substr(0, hundred.size() - 1) + "]}", 404, "notFound"},
        {"{" + hundred + "{\"macAddress\":\"02:00:00:00:02:00\"}]}", 400, "parseError"},
        {"{\"x\":[[[[[[[1]]]]]]]}", 200, "", kLoopbackLatitude},  // 8 levels
        {"{\"x\":[[[[[[[[1]]]]]]]]}", 400, "parseError"},
        {"{", 400, "parseError"},
        {"{\"considerIp\":\"yes\"}", 400, "parseError"},
        {"{\"fallbacks\":[]}", 400, "parseError"},
        {"{\"wifiAccessPoints\":[1]}", 400, "parseError"},
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
    const LogCapture log("ZEL.Server.LocationService");
    for (const Row& row : rows) {
        const size_t logged = log.messages().size();
        const httplib::Headers headers =
            row.gzipped ? httplib::Headers{{"Content-Encoding", "gzip"}} : httplib::Headers{};
        auto reply =
            client.Post("/v1/geolocate?key=" + row.key, headers, row.body, "application/json");
        ASSERT_TRUE(reply);
        const std::string context = row.body.substr(0, 80) + " key " + row.key;
        EXPECT_EQ(reply->status, row.status) << context << ": " << reply->body;
        EXPECT_EQ(log.messages().size() > logged, row.status == 400 || row.status == 404)
            << context;
        EXPECT_EQ(reply->get_header_value("Content-Type"), "application/json; charset=UTF-8");
        const Json answer = Json::parse(reply->body);
        EXPECT_EQ(answer.contains("error") ? answer["error"]["errors"][0]["reason"] : "",
                  row.reason)
            << context;
        if (row.reason.empty()) {
            EXPECT_NEAR(answer["location"]["lat"].get<double>(), row.latitude, 0.001) << context;
            EXPECT_EQ(answer.contains("fallback"), row.latitude == kLoopbackLatitude) << context;
        } else {
            EXPECT_TRUE(answer["error"]["code"] == row.status && answer["error"]["message"] != "");
        }
    }
    auto wrongMethod = client.Get("/v1/geolocate?key=k1");
    EXPECT_TRUE(wrongMethod && wrongMethod->status == 405);
    // Reports need a database that outlives the process, which this in-memory one is not.
    auto report = client.Post("/v2/geosubmit?key=k1", R"({"items":[]})", "application/json");
    EXPECT_TRUE(report && report->status == 503);
}

}  // namespace
}  // namespace ZEL::Server
