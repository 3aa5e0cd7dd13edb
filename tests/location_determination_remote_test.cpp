#include "remote/location_determination_remote.h"

#include <gtest/gtest.h>

#include "remote/request_messages.h"
#include "spi/platform.h"
#include "support/test_platform.h"

namespace ZEL::Remote {
namespace {

using Core::ResultCode;
using Testing::HttpReply;
using Testing::serverAnswer;

const Core::Credentials kAlice{"alice", "acme"};

const std::string kLocationAnswer = serverAnswer(
    "LocationRS",
    "<location nap='4'><latitude>48.2</latitude><longitude>16.37</longitude><hpe>30</hpe>"
    "<street-address><city>Vienna</city><country code='AT'>Austria</country></street-address>"
    "</location>");

class RemoteExchange : public ::testing::Test {
  protected:
    void SetUp() override { remote_.setServerUrl("https://zel.test/zel2"); }
    const std::vector<Testing::HttpCall>& calls() { return platform_.http().calls; }

    Testing::TestPlatform platform_;
    LocationDeterminationRemote remote_;
};

TEST_F(RemoteExchange, LocationPostsTheRequestAndParsesTheAnswer) {
    platform_.http().respond({200, kLocationAnswer});
    Core::ApList aps = {Testing::ap("AB:CD:EF:12:34:56", -71), Testing::ap("010000000000", -90)};
    Core::LocationRecord record;
    record.knownAps = aps;  // the record is reset before the answer is read
    ASSERT_EQ(remote_.location(kAlice, 2, aps, record), ResultCode::kOk);
    EXPECT_EQ(record.streetAddress.countryCode, "AT");  // level 2 reaches the parser
    EXPECT_TRUE(record.knownAps.empty());

    ASSERT_EQ(calls().size(), 1u);
    EXPECT_EQ(calls()[0].method, SPI::XmlHttpRequest::kPost);
    EXPECT_EQ(calls()[0].url, "https://zel.test/zel2/location");
    EXPECT_EQ(calls()[0].body, makeLocationRequest(kAlice, 2, aps));
    EXPECT_EQ(calls()[0].headers, (std::map<std::string, std::string>{{"Content-Type", "text/xml"},
                                                                      {"User-Agent", "ZEL API"}}));
}

TEST_F(RemoteExchange, IpLocationAndRegistrationGoToTheirPaths) {
    remote_.setServerUrl("https://zel.test/zel2/");  // paths are appended as they stand
    platform_.http().respond(
        {200, serverAnswer("IPLocationRS",
                           "<ip-location><ip>203.0.113.9</ip><latitude>1</latitude>"
                           "<longitude>2</longitude></ip-location>")});
    platform_.http().respond({200, serverAnswer("RegistrationRS", "")});
    platform_.http().respond({200, serverAnswer("RegistrationRS", "<error>taken</error>")});
    Core::IpLocationRecord ip;
    ASSERT_EQ(remote_.ipLocation(kAlice, 1, ip), ResultCode::kOk);
    EXPECT_EQ(ip.ip, "203.0.113.9");
    Core::Credentials bob{"bob", "example"};
    EXPECT_EQ(remote_.registerUser(kAlice, bob), ResultCode::kOk);
    EXPECT_EQ(remote_.registerUser(kAlice, bob), ResultCode::kCannotDetermine);
    ASSERT_EQ(calls().size(), 3u);
    EXPECT_EQ(calls()[0].url, "https://zel.test/zel2//ip-location");
    EXPECT_EQ(calls()[0].body, makeIPLocationRequest(kAlice, 1));
    EXPECT_EQ(calls()[1].url, "https://zel.test/zel2//registration");
    EXPECT_EQ(calls()[1].body, makeRegistrationRequest(kAlice, bob));
}

TEST_F(RemoteExchange, FailuresMapToCodes) {
    struct Row {
        HttpReply reply;
        ResultCode code;
    };
    const Row rows[] = {
        {{401, kLocationAnswer}, ResultCode::kUnauthorized},
        {{403, kLocationAnswer}, ResultCode::kUnauthorized},
        {{407, kLocationAnswer}, ResultCode::kProxyUnauthorized},
        {{500, kLocationAnswer}, ResultCode::kServerUnavailable},
        {{204, kLocationAnswer}, ResultCode::kServerUnavailable},
        {{0, "", 10061}, ResultCode::kServerUnavailable},  // the transport failed
        {{200, "<html>not ours</html>"}, ResultCode::kCannotDetermine},
        {{200, "<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><a>&x;</a>"},
         ResultCode::kCannotDetermine},
    };
    for (const Row& row : rows) {
        platform_.http().replies.assign(3, row.reply);
        Core::LocationRecord record;
        record.nap = 99;
        EXPECT_EQ(remote_.location(kAlice, 2, {}, record), row.code) << row.reply.body;
        // The record is only reset after a 200.
        EXPECT_EQ(record.nap, row.reply.status == 200 ? 0 : 99) << row.reply.status;
        Core::IpLocationRecord ip;
        EXPECT_EQ(remote_.ipLocation(kAlice, 0, ip), row.code) << row.reply.status;
        if (row.reply.status != 200) {  // the registration answer has rules of its own
            EXPECT_EQ(remote_.registerUser(kAlice, kAlice), row.code) << row.reply.status;
        }
    }
}

TEST_F(RemoteExchange, UnopenableUrlAndMissingRequestObjectAreReported) {
    remote_.setServerUrl("no url here");
    Core::LocationRecord record;
    EXPECT_EQ(remote_.location(kAlice, 0, {}, record), ResultCode::kServerUnavailable);

    Testing::FailingPlatform failing("http", 1, true);
    Core::IpLocationRecord ip;
    EXPECT_EQ(remote_.location(kAlice, 0, {}, record), ResultCode::kRequestNotCreated);
    EXPECT_EQ(remote_.ipLocation(kAlice, 0, ip), ResultCode::kRequestNotCreated);
    EXPECT_EQ(remote_.registerUser(kAlice, kAlice), ResultCode::kRequestNotCreated);
}

TEST_F(RemoteExchange, ProxyHostPortAndCredentialsReachTheExchange) {
    struct Row {
        const char* host;
        int port;
        const char* proxy;  // what the exchange is opened with
    };
    for (Row row : {Row{"proxy", 3128, "proxy:3128"}, Row{"proxy", 0, "proxy"},
                    Row{"proxy", -1, "proxy"}, Row{"proxy", -2, "proxy:-2"}}) {
        remote_.setProxy(row.host, row.port, "user", "secret");
        platform_.http().respond({200, serverAnswer("RegistrationRS", "")});
        EXPECT_EQ(remote_.registerUser(kAlice, kAlice), ResultCode::kOk);
        const Testing::HttpCall& call = calls().back();
        EXPECT_EQ(call.proxy, row.proxy);
        EXPECT_EQ(call.proxyPassword, "secret");
        // Kept on purpose: nothing writes the separate port; it travels in the proxy text.
        EXPECT_EQ(call.proxyPort, 0);
        EXPECT_EQ(remote_.proxyPort(), 0);
    }
    // An empty host turns the proxy off and keeps user and password.
    remote_.setProxy("", 8080, "other", "other");
    platform_.http().respond({200, serverAnswer("RegistrationRS", "")});
    EXPECT_EQ(remote_.registerUser(kAlice, kAlice), ResultCode::kOk);
    EXPECT_EQ(calls().back().proxy, "");
    EXPECT_EQ(calls().back().proxyUser, "");
    EXPECT_EQ(remote_.proxyUser(), "user");
}

TEST_F(RemoteExchange, GeolocateSpeaksJsonAndMapsEveryAnswer) {
    const std::string url = "https://geo.test/v1/geolocate?key=k";
    remote_.setGeolocateUrl(url);
    Core::ApList aps = {Testing::ap("AB:CD:EF:12:34:56", -71), Testing::ap("0A0000000001", -60),
                        Testing::ap("010000000000", -90)};
    for (size_t i = 0; i < aps.size(); ++i) {  // heard 1.2 s ago
        aps[i].time =
            Core::TimeStamp::fromMilliseconds(SPI::currentTime().totalMilliseconds() - 1200);
        aps[i].setSsid(std::array{"cafe", "home_nomap", "_nomap_not"}[i]);
    }
    const std::string fix = R"({"location":{"lat":48.2,"lng":16.37},"accuracy":30)";
    struct Row {
        HttpReply reply;
        ResultCode code;
        uint16_t nap = 0;
    };
    const Row rows[] = {
        {{200, fix + "}"}, ResultCode::kOk, 2},
        {{200, fix + R"(,"fallback":"ipf"})"}, ResultCode::kOk, 0},
        {{200, fix + R"(,"fallback":null})"}, ResultCode::kOk, 2},  // null: no fallback
        {{401, ""}, ResultCode::kUnauthorized},
        {{407, ""}, ResultCode::kProxyUnauthorized},
        {{404, R"({"error":{"errors":[{"reason":"notFound"}],"code":404}})"},
         ResultCode::kCannotDetermine},
        {{400, ""}, ResultCode::kServerUnavailable},
        {{0, "", 10061}, ResultCode::kServerUnavailable},
        {{200, "not json"}, ResultCode::kCannotDetermine},
        {{200, R"({"error":{"message":"no"}})"}, ResultCode::kCannotDetermine},
        {{200, R"({"location":{"lat":90.5,"lng":1},"accuracy":3})"}, ResultCode::kCannotDetermine},
        {{200, R"({"location":{"lat":1,"lng":-180.5},"accuracy":3})"},
         ResultCode::kCannotDetermine},
        {{200, R"({"location":{"lat":1,"lng":2},"accuracy":-1})"}, ResultCode::kCannotDetermine},
        {{200, R"({"location":{"lat":"1","lng":2},"accuracy":3})"}, ResultCode::kCannotDetermine},
        {{200, R"({"location":{"lat":1,"lng":2}})"}, ResultCode::kCannotDetermine},
        {{200, R"({"location":[[[[[[[[[1]]]]]]]]],"accuracy":3})"}, ResultCode::kCannotDetermine},
    };
    for (const Row& row : rows) {
        platform_.http().replies.assign(2, row.reply);
        Core::LocationRecord record;
        EXPECT_EQ(remote_.location(kAlice, 0, aps, record), row.code) << row.reply.body;
        Core::IpLocationRecord ip;
        EXPECT_EQ(remote_.ipLocation(kAlice, 0, ip), row.code) << row.reply.body;
        if (row.code == ResultCode::kOk) {
            EXPECT_EQ(std::tie(record.latitude, record.longitude, record.hpe, record.nap,
                               record.speed, ip.latitude, ip.longitude),
                      std::make_tuple(48.2, 16.37, 30.0, row.nap, -1.0, 48.2, 16.37));
        }
    }
    ASSERT_EQ(calls().size(), 2 * std::size(rows));
    EXPECT_EQ(calls()[0].url, url);
    EXPECT_EQ(calls()[0].body,
              R"({"considerIp":false,"fallbacks":{"ipf":false,"lacf":false},"wifiAccessPoints":[)"
              R"({"age":1200,"macAddress":"ab:cd:ef:12:34:56","signalStrength":-71},)"
              R"({"age":1200,"macAddress":"01:00:00:00:00:00","signalStrength":-90}]})");
    EXPECT_EQ(calls()[0].headers.at("Content-Type"), "application/json");
    EXPECT_EQ(calls()[1].body, R"({"considerIp":true})");

    // One sendable access point: nothing is sent. Registration stays with the XML server.
    Core::LocationRecord record;
    EXPECT_EQ(remote_.location(kAlice, 0, {aps[0], aps[1]}, record), ResultCode::kCannotDetermine);
    platform_.http().respond({200, serverAnswer("RegistrationRS", "")});
    EXPECT_EQ(remote_.registerUser(kAlice, kAlice), ResultCode::kOk);
    remote_.setGeolocateUrl("");
    platform_.http().respond({200, kLocationAnswer});
    EXPECT_EQ(remote_.location(kAlice, 0, aps, record), ResultCode::kOk);
    EXPECT_EQ(calls()[calls().size() - 2].url, "https://zel.test/zel2/registration");
    EXPECT_EQ(calls().back().url, "https://zel.test/zel2/location");

    remote_.setGeolocateUrl(url);
    Testing::FailingPlatform failing("http", 1, true);
    EXPECT_EQ(remote_.location(kAlice, 0, aps, record), ResultCode::kRequestNotCreated);
}

}  // namespace
}  // namespace ZEL::Remote
