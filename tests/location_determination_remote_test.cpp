#include "remote/location_determination_remote.h"

#include <gtest/gtest.h>

#include "remote/request_messages.h"
#include "support/log_capture.h"
#include "support/raw_http_server.h"
#include "support/scripted_wifi_adapter.h"
#include "support/test_http_server.h"

namespace ZEL::API {
namespace {

using Testing::ScriptedResponse;
using Testing::TestHttpServer;

const char kCategory[] = "ZEL.API.LocationDeterminationRemote";
const ZEL_Authentication kAlice{"alice", "acme"};

std::string answer(const std::string& root, const std::string& body) {
    return "<" + root + " xmlns='" + Remote::kRequestNamespaceUri + "'>" + body + "</" + root + ">";
}

const std::string kLocationAnswer = answer(
    "LocationRS",
    "<location nap='4'><latitude>48.2</latitude><longitude>16.37</longitude><hpe>30</hpe>"
    "<street-address><city>Vienna</city><country code='AT'>Austria</country></street-address>"
    "</location>");

TEST(RemoteSettings, DefaultsAndServerUrl) {
    Remote::LocationDeterminationRemote remote;
    EXPECT_EQ(remote.serverUrl(), std::string("https://") + Remote::kDefaultServerHost + "/zel2");
    EXPECT_EQ(remote.userAgent(), "ZEL API");
    EXPECT_EQ(remote.proxy(), "");
    EXPECT_EQ(remote.proxyPort(), 0);
    remote.setServerUrl("anything at all/");
    EXPECT_EQ(remote.serverUrl(), "anything at all/");
}

TEST(RemoteSettings, ProxyRules) {
    Remote::LocationDeterminationRemote remote;
    remote.setProxy("proxy", 3128, "user", "secret");
    EXPECT_EQ(remote.proxy(), "proxy:3128");
    EXPECT_EQ(remote.proxyUser(), "user");
    EXPECT_EQ(remote.proxyPassword(), "secret");
    for (int port : {0, -1}) {
        remote.setProxy("host", port, "u", "p");
        EXPECT_EQ(remote.proxy(), "host") << port;
    }
    remote.setProxy("host", -2, "u", "p");
    EXPECT_EQ(remote.proxy(), "host:-2");
    // An empty host turns the proxy off and keeps user and password.
    remote.setProxy("", 8080, "other", "other");
    EXPECT_EQ(remote.proxy(), "");
    EXPECT_EQ(remote.proxyUser(), "u");
    EXPECT_EQ(remote.proxyPassword(), "p");
    remote.setProxy(nullptr, 8080, nullptr, nullptr);
    EXPECT_EQ(remote.proxy(), "");
    EXPECT_EQ(remote.proxyUser(), "u");
    EXPECT_EQ(remote.proxyPort(), 0);  // no setter writes it
}

class RemoteExchange : public ::testing::Test {
  protected:
    void SetUp() override {
        server_ = TestHttpServer::start();
        ASSERT_NE(server_, nullptr);
        remote_.setServerUrl(server_->url() + "/zel2");
    }
    std::unique_ptr<TestHttpServer> server_;
    Remote::LocationDeterminationRemote remote_;
};

TEST_F(RemoteExchange, LocationPostsTheRequestAndParsesTheAnswer) {
    server_->respond("/zel2/location", ScriptedResponse{200, {}, kLocationAnswer});
    Core::ApList aps = {Testing::ap("AB:CD:EF:12:34:56", -71), Testing::ap("01:00:00:00:00:00", -90)};
    Core::LocationRecord record;
    record.knownAps = aps;  // the record is reset before the answer is read
    record.streetAddress.city = "stale";
    Testing::LogCapture log(kCategory);
    ASSERT_EQ(remote_.location(kAlice, 2, aps, record), 0);

    EXPECT_EQ(record.latitude, 48.2);
    EXPECT_EQ(record.longitude, 16.37);
    EXPECT_EQ(record.hpe, 30.0);
    EXPECT_EQ(record.nap, 4);
    EXPECT_EQ(record.speed, -1.0);
    EXPECT_EQ(record.streetAddress.city, "Vienna");
    EXPECT_EQ(record.streetAddress.countryCode, "AT");
    EXPECT_TRUE(record.knownAps.empty());

    auto requests = server_->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].path, "/zel2/location");
    EXPECT_EQ(requests[0].body, Remote::makeLocationRequest(kAlice, 2, aps));
    EXPECT_EQ(requests[0].header("Content-Type"), "text/xml");
    EXPECT_EQ(requests[0].header("User-Agent"), "ZEL API");
    EXPECT_EQ(requests[0].headerCount("Accept") + requests[0].headerCount("Expect"), 0u);

    using Priority = SPI::LogPriority;
    EXPECT_EQ(log.count(Priority::kInfo, "about to send request: " + requests[0].body), 1u);
    EXPECT_EQ(log.count(Priority::kInfo, "status code: 200 status text: OK"), 1u);
    EXPECT_EQ(log.count(Priority::kInfo, "received response: " + kLocationAnswer), 1u);
    EXPECT_EQ(log.count(Priority::kDebug, "location request result: 0"), 1u);
    EXPECT_EQ(log.count(Priority::kDebug, "returning with code 0"), 1u);
    EXPECT_FALSE(log.contains("about to get ip-location from server"));
}

TEST_F(RemoteExchange, IpLocationAndRegistration) {
    server_->respond("/zel2/ip-location",
                     ScriptedResponse{200,
                                      {},
                                      answer("IPLocationRS",
                                             "<ip-location><ip>203.0.113.9</ip>"
                                             "<latitude>1</latitude><longitude>2"
                                             "</longitude></ip-location>")});
    server_->respond("/zel2/registration", ScriptedResponse{200, {}, answer("RegistrationRS", "")});
    Testing::LogCapture log(kCategory);
    Core::IpLocationRecord ip;
    ASSERT_EQ(remote_.ipLocation(kAlice, 1, ip), 0);
    EXPECT_EQ(ip.ip, "203.0.113.9");
    EXPECT_EQ(ip.longitude, 2.0);
    ZEL_Authentication bob{"bob", "example"};
    EXPECT_EQ(remote_.registerUser(kAlice, bob), 0);

    auto requests = server_->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].path, "/zel2/ip-location");
    EXPECT_EQ(requests[0].body, Remote::makeIPLocationRequest(kAlice, 1));
    EXPECT_EQ(requests[1].path, "/zel2/registration");
    EXPECT_EQ(requests[1].body, Remote::makeRegistrationRequest(kAlice, bob));
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "about to get ip-location from server"), 1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "about to register a user on server"), 1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kInfo, "registration request result: 0"), 1u);

    server_->respond("/zel2/registration",
                     ScriptedResponse{200, {}, answer("RegistrationRS", "<error>taken</error>")});
    EXPECT_EQ(remote_.registerUser(kAlice, bob), ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED);
}

TEST_F(RemoteExchange, HttpStatusesMapToCodes) {
    struct Case {
        int status;
        int code;
    };
    for (Case test : {Case{401, 4}, Case{403, 4}, Case{407, 7}, Case{500, 5}, Case{404, 5},
                      Case{302, 5}, Case{204, 5}}) {
        server_->respond("/zel2/location", ScriptedResponse{test.status, {}, kLocationAnswer});
        Core::LocationRecord record;
        record.nap = 99;
        Testing::LogCapture log(kCategory);
        EXPECT_EQ(remote_.location(kAlice, 0, {}, record), test.code) << test.status;
        EXPECT_EQ(record.nap, 99) << "the record is only reset after a 200";
        EXPECT_FALSE(log.contains("about to get response text")) << test.status;
        EXPECT_FALSE(log.contains("received response: " + kLocationAnswer));
        Core::IpLocationRecord ip;
        server_->respond("/zel2/ip-location", ScriptedResponse{test.status, {}, ""});
        EXPECT_EQ(remote_.ipLocation(kAlice, 0, ip), test.code) << test.status;
        server_->respond("/zel2/registration", ScriptedResponse{test.status, {}, ""});
        EXPECT_EQ(remote_.registerUser(kAlice, kAlice), test.code) << test.status;
    }
}

TEST_F(RemoteExchange, UnusableAnswersGiveSix) {
    const std::vector<std::string> bodies = {
        "",  // a 200 without a body
        "<html>not ours</html>",
        "<LocationRS><location nap='1'/></LocationRS>",  // no namespace
        answer("LocationRS", "<error/>"),
        "<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><a>&x;</a>",
    };
    for (const std::string& body : bodies) {
        server_->respond("/zel2/location",
                         ScriptedResponse{200, {{"X-Dup", "1"}, {"X-Dup", "2"}}, body});
        Core::LocationRecord record;
        EXPECT_EQ(remote_.location(kAlice, 2, {}, record), ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED)
            << body;
        EXPECT_EQ(record.latitude, 0.0);
        EXPECT_TRUE(record.streetAddress.empty());
    }
}

TEST_F(RemoteExchange, PathsAreAppendedAsTheyStand) {
    remote_.setServerUrl(server_->url() + "/zel2/");
    Core::LocationRecord record;
    EXPECT_EQ(remote_.location(kAlice, 0, {}, record), 5);  // 404
    ASSERT_EQ(server_->requests().size(), 1u);
    EXPECT_EQ(server_->requests()[0].path, "/zel2//location");
}

TEST(RemoteFailures, TransportFailuresGiveFive) {
    Remote::LocationDeterminationRemote remote;
    Core::LocationRecord record;
    Testing::LogCapture log(kCategory);
    remote.setServerUrl("http://127.0.0.1:" + std::to_string(Testing::freeLoopbackPort()));
    EXPECT_EQ(remote.location(kAlice, 0, {}, record), 5);
    EXPECT_TRUE(log.contains("couldn't send request, error 10061"));

    remote.setServerUrl("no url here");
    EXPECT_EQ(remote.location(kAlice, 0, {}, record), 5);
    EXPECT_TRUE(log.contains("couldn't open connection, error 22"));
    // Through a proxy the open succeeds and the send fails instead.
    remote.setProxy("127.0.0.1", 1, "", "");
    EXPECT_EQ(remote.registerUser(kAlice, kAlice), 5);
    EXPECT_TRUE(log.contains("couldn't send request, error -1"));

    auto cut = Testing::RawHttpServer::replying("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n<a");
    ASSERT_NE(cut, nullptr);
    Remote::LocationDeterminationRemote direct;
    direct.setServerUrl(cut->url());
    EXPECT_EQ(direct.location(kAlice, 0, {}, record), 5);
    EXPECT_TRUE(log.contains("couldn't send request, error 10054"));
}

TEST(RemoteFailures, NoRequestObjectGivesNinetyNine) {
    int made = 0;
    Remote::LocationDeterminationRemote remote([&made]() -> std::unique_ptr<SPI::XmlHttpRequest> {
        ++made;
        return nullptr;
    });
    Testing::LogCapture log(kCategory);
    Core::LocationRecord record;
    Core::IpLocationRecord ip;
    EXPECT_EQ(remote.location(kAlice, 0, {}, record), ZEL_ERROR_NOT_READY);
    EXPECT_EQ(remote.ipLocation(kAlice, 0, ip), ZEL_ERROR_NOT_READY);
    EXPECT_EQ(remote.registerUser(kAlice, kAlice), ZEL_ERROR_NOT_READY);
    EXPECT_EQ(made, 3);
    EXPECT_EQ(log.count(SPI::LogPriority::kFatal, "couldn't create new instance of XmlHttpRequest"),
              3u);
}

TEST(RemoteHttps, SelfSignedServerAnswers) {
    auto certificate = Testing::TestCertificate::generate();
    ASSERT_NE(certificate, nullptr) << "the openssl command could not make a certificate";
    auto server = TestHttpServer::startHttps(*certificate);
    ASSERT_NE(server, nullptr);
    server->respond("/zel2/location", ScriptedResponse{200, {}, kLocationAnswer});
    Remote::LocationDeterminationRemote remote;
    remote.setServerUrl(server->url() + "/zel2");
    Core::LocationRecord record;
    ASSERT_EQ(remote.location(kAlice, 0, {}, record), 0);
    EXPECT_EQ(record.nap, 4);
    EXPECT_TRUE(record.streetAddress.empty());  // level 0
}

}  // namespace
}  // namespace ZEL::API
