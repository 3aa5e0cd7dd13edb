// POST /v2/geosubmit and /v1/geosubmit on loopback and both database back ends: the rows
// each body leaves (503 without a database: geolocate_test; SIGKILL: zel_server_test).
#include <httplib.h>

#include <gtest/gtest.h>

#include <ctime>

#include "spi/platform.h"
#include "support/location_server_fixture.h"
#include "support/log_capture.h"
#include "support/test_databases.h"

namespace ZEL::Server {
namespace {

using namespace Testing;

constexpr int64_t kMinute = 60'000, kDay = 1440 * kMinute;

// ms since 1970 as the older item format writes it: "2026-11-22T23:27:05+00".
std::string isoTime(int64_t ms) {
    char text[32];
    const time_t seconds = ms / 1000;
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S+00", std::gmtime(&seconds));
    return text;
}

class GeosubmitRoute : public BackendTest {};

TEST_P(GeosubmitRoute, StoresWhatPassesTheFiltersAndNothingOfABadBody) {
    auto server = TestLocationServer::start({.database = url_});
    ASSERT_NE(server, nullptr);
    server->service().users().addKey("k1", kServerRealm);
    server->service().users().addKey("off", kServerRealm, false);
    server->service().users().addKey("elsewhere", "other");
    const int64_t now = SPI::currentTime().totalMilliseconds(), second = now / 1000 * 1000;
    // A v2 item made `ago` ms before now (none: without a timestamp), hearing `aps`.
    auto item = [&](std::optional<int64_t> ago, const std::string& aps, int latitude = 48) {
        std::string text = "{\"position\":{\"latitude\":" + std::to_string(latitude) +
                           ".5,\"longitude\":11.25,\"accuracy\":12.5},\"wifiAccessPoints\":[" +
                           aps + "]";
        return text + (ago ? ",\"timestamp\":" + std::to_string(now - *ago) : "") + "}";
    };
    auto items = [](const std::string& list) { return "{\"items\":[" + list + "]}"; };
    const std::string ap = R"({"macAddress":"aa:bb:cc:dd:ee:f0","signalStrength":-61})";
    // realm|key|nickname|mac|latitude|longitude|accuracy|rss|time_ms (-1: the receipt's)
    const std::string stored = "acme|k1||187723572702960|48.5|11.25|12.5|-61|";
    auto at = [&](int64_t ago) { return stored + std::to_string(now - ago); };
    const std::string geoclue =
        R"({"items":[{"lat":46.004300000000001,"lon":8.9933999999999994,"accuracy":25.5,)"
        R"("altitude":273.0,"time":")" +
        isoTime(second - 5 * kMinute) +
        R"(","radioType":"gsm","wifi":[{"key":"02:5a:45:4c:00:01","ssid":"zel-one",)"
        R"("signal":-45,"frequency":2412},{"key":"02:5a:45:4c:00:02","ssid":"b_nomap"}]}]})";
    struct Row {
        int status;
        std::string body, rows = "", key = "k1", path = "/v2/geosubmit", nickname = "";
    } rows[] = {
        {200,
         items(item(kMinute, ap + R"(,{"macAddress":"aabbccddeef2","ssid":"x_nomap"},)"
                                  R"({"macAddress":"ff:ff:ff:ff:ff:ff"},{"macAddress":"0000)"
                                  R"(00000000"},{"macAddress":"01:00:5e:00:00:01"}],"cells":[1)")),
         at(kMinute), "k1", "/v1/geosubmit"},
        {200, geoclue,
         "acme|k1|g e?o|2586732920833|46.0043|8.9934|25.5|-45|" +
             std::to_string(second - 5 * kMinute),
         "k1", "/v2/geosubmit", "g e\xe9o"},
        {200, items(item(std::nullopt, ap)), stored + "-1"},
        {200, items(item(7 * kDay - kMinute, ap)), at(7 * kDay - kMinute)},
        {200, items(item(7 * kDay + kMinute, ap))},
        {200, items(item(-9 * kMinute, ap)), at(-9 * kMinute)},
        {200, items(item(-11 * kMinute, ap))},
        {200, items(item(0, ap, 90))},              // latitude 90.5
        {200, R"({"items":[{"lat":1,"lon":2}]})"},  // no Wi-Fi
        {200, items(item(0, ap)), "other|elsewhere||" + at(0).substr(9), "elsewhere"},
        {400, items(item(0, ap)), "", ""},
        {400, items(item(0, ap)), "", "off"},
        {400, ""},
        {400, "{"},
        {400, items(item(0, ap) + R"(,{"lat":"1","lon":2,"wifi":[]})")},
        {400, items(item(0, ap) + R"(,{"lat":1,"lon":2,"time":"noon"})")},
        {400, items(item(0, ap + R"(,{"macAddress":"nope"})"))},
        {400, items(item(0, ap + "," + std::string(20, '[') + "]"))},
        {413, items(std::string(1 << 20, ' '))}};
    httplib::Client client("127.0.0.1", server->port());
    const LogCapture log("ZEL.Server.LocationService");
    for (const Row& row : rows) {
        const size_t logged = log.messages().size();
        auto reply = client.Post(row.path + "?key=" + row.key, {{"X-Nickname", row.nickname}},
                                 row.body, "application/json");
        ASSERT_TRUE(reply);
        const std::string context = row.body.substr(0, 160) + " key " + row.key;
        EXPECT_EQ(reply->status, row.status) << context << ": " << reply->body;
        EXPECT_EQ(reply->body == "{}", row.status == 200) << context;
        EXPECT_EQ(log.messages().size() > logged, row.status == 400) << context;
        EXPECT_EQ(queryTestDatabase(
                      url_,
                      "SELECT o.realm, api_key, nickname, mac, latitude, longitude, accuracy, rss,"
                      " CASE WHEN time_ms = received_ms THEN -1 ELSE time_ms END FROM reports r"
                      " JOIN observations o ON report_id = r.id ORDER BY o.id;"
                      " DELETE FROM observations; DELETE FROM reports"),
                  row.rows)
            << context;
    }
    // A report the database fails to store half way is refused, and none of it is kept.
    queryTestDatabase(url_, "DROP TABLE observations");
    auto failed = client.Post("/v1/geosubmit?key=k1", items(item(0, ap)), "application/json");
    EXPECT_TRUE(failed && failed->status == 503);
    EXPECT_EQ(queryTestDatabase(url_, "SELECT COUNT(*) FROM reports"), "0");
    auto metrics = client.Get("/metrics");
    EXPECT_TRUE(metrics &&
                metrics->body.find("zel_reports_stored_total 6\n#") != std::string::npos &&
                metrics->body.find("zel_observations_filtered_total 8\n") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(SqliteAndPostgresql, GeosubmitRoute,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgresql),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace ZEL::Server
