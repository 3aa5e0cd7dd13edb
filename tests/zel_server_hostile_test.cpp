// Malformed and hostile requests against a real location server: each gets a
// refusal that is itself a well-formed answer, and the server keeps serving.
#include <httplib.h>

#include <gtest/gtest.h>

#include <chrono>

#include "remote/request_messages.h"
#include "remote/response_parser.h"
#include "spi/xml/libxml2_parser.h"
#include "spi/xml_parser.h"
#include "support/location_server_fixture.h"

namespace ZEL::Server {
namespace {

using Testing::TestLocationServer;

const std::string kNamespace = Remote::kRequestNamespaceUri;
const std::string kAuthentication =
    "<authentication version='2.0'><simple><username>alice</username><realm>acme</realm>"
    "</simple></authentication>";

std::string locationRequest(const std::string& inside) {
    return "<?xml version='1.0'?><LocationRQ xmlns='" + kNamespace + "' version='2.3'>" +
           kAuthentication + inside + "</LocationRQ>";
}

std::string accessPoint(const std::string& mac, const std::string& rss) {
    return "<access-point><mac>" + mac + "</mac><signal-strength>" + rss +
           "</signal-strength></access-point>";
}

// The code attribute of the answer's error element, or "" when it has none. Fails
// the test when the answer is not a document in the request namespace.
std::string errorCode(const std::string& body) {
    auto parser = SPI::newLibXml2Parser();
    auto document = parser->parse(body.data(), body.size());
    EXPECT_NE(document, nullptr) << body;
    if (!document) {
        return "not xml";
    }
    auto root = document->documentElement();
    EXPECT_EQ(root->namespaceURI(), kNamespace);
    auto error = Remote::findChild(*root, "error");
    return error ? error->getAttribute("", "code") : "";
}

class HostileRequests : public ::testing::Test {
  protected:
    void SetUp() override {
        server_ = TestLocationServer::start();
        ASSERT_NE(server_, nullptr);
        client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        client_->set_read_timeout(5, 0);
    }

    // Posts `body` to /zel2/`path`; returns status and body (status -1 on no answer).
    std::pair<int, std::string> post(const std::string& path, const std::string& body,
                                     const httplib::Headers& headers = {}) {
        auto result = client_->Post(("/zel2/" + path).c_str(), headers, body, "text/xml");
        if (!result) {
            return {-1, ""};
        }
        return {result->status, result->body};
    }

    void expectStillServing() {
        auto [status, body] = post("location", locationRequest(accessPoint("000000000001", "-60")));
        EXPECT_EQ(status, 200);
        EXPECT_EQ(errorCode(body), "");
    }

    std::unique_ptr<TestLocationServer> server_;
    std::unique_ptr<httplib::Client> client_;
};

TEST_F(HostileRequests, MalformedDocumentsAreBadRequests) {
    const std::string noNamespace =
        "<LocationRQ version='2.3'>" + kAuthentication + "</LocationRQ>";
    const std::string wrongRoot =
        "<IPLocationRQ xmlns='" + kNamespace + "'>" + kAuthentication + "</IPLocationRQ>";
    const std::string noAuthentication = locationRequest("").replace(
        locationRequest("").find(kAuthentication), kAuthentication.size(), "");
    const std::string emptyUser = "<?xml version='1.0'?><LocationRQ xmlns='" + kNamespace +
                                  "'><authentication><simple><username></username><realm>acme"
                                  "</realm></simple></authentication></LocationRQ>";
    const std::string unescapedUser = "<?xml version='1.0'?><LocationRQ xmlns='" + kNamespace +
                                      "'><authentication><simple><username>a<b</username>"
                                      "<realm>acme</realm></simple></authentication></LocationRQ>";
    for (const std::string& body : {std::string("not xml at all"), std::string(), noNamespace,
                                    wrongRoot, noAuthentication, emptyUser, unescapedUser,
                                    std::string("<?xml version='1.0'?><LocationRQ xmlns='") +
                                        kNamespace + "'>" + kAuthentication}) {
        auto [status, answer] = post("location", body);
        EXPECT_EQ(status, 400) << body;
        EXPECT_EQ(errorCode(answer), "bad-request") << body;
    }
    expectStillServing();
}

TEST_F(HostileRequests, BadAccessPointsAreRefused) {
    for (const std::string& ap :
         {accessPoint("0000000001", "-60"), accessPoint("00000000000G", "-60"),
          accessPoint("00:00:00:00:00:01", "-60"), accessPoint("000000000001", "-60dBm"),
          accessPoint("000000000001", "40000"), accessPoint("000000000001", "")}) {
        auto [status, answer] = post("location", locationRequest(ap));
        EXPECT_EQ(status, 400) << ap;
        EXPECT_EQ(errorCode(answer), "bad-request");
    }
    std::string tooMany;
    for (int i = 0; i < 101; ++i) {  // the fixture allows 100
        tooMany += accessPoint("000000000001", "-60");
    }
    EXPECT_EQ(post("location", locationRequest(tooMany)).first, 400);
    // Access points are read wherever they stand, before the authentication too.
    EXPECT_EQ(
        post("location", "<?xml version='1.0'?><LocationRQ xmlns='" + kNamespace + "'>" +
                             accessPoint("0000000001", "-60") + kAuthentication + "</LocationRQ>")
            .first,
        400);
    expectStillServing();
}

TEST_F(HostileRequests, OversizedBodyIsRefusedUnread) {
    const std::string huge = locationRequest(std::string(1 << 20, ' '));
    auto [status, answer] = post("location", huge);
    EXPECT_EQ(status, 413);
    EXPECT_EQ(errorCode(answer), "http-413");
    // Just under the limit is read (and refused for what it is, not its size).
    const std::string document = locationRequest("");
    const std::string padded = document.substr(0, document.size() - 13) +
                               std::string((1 << 20) - document.size(), ' ') + "</LocationRQ>";
    ASSERT_EQ(padded.size(), size_t{1} << 20);
    EXPECT_EQ(post("location", padded).first, 200);
    expectStillServing();
}

TEST_F(HostileRequests, EntitiesAreNeverExpanded) {
    std::string laughs = "<?xml version='1.0'?><!DOCTYPE LocationRQ [<!ENTITY l0 'ha'>";
    for (int i = 1; i <= 10; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " '";
        for (int k = 0; k < 10; ++k) {
            laughs += "&l" + std::to_string(i - 1) + ";";
        }
        laughs += "'>";
    }
    laughs += "<!ENTITY file SYSTEM 'file:///etc/passwd'>]><LocationRQ xmlns='" + kNamespace +
              "'><authentication><simple><username>&l10;&file;</username><realm>acme</realm>"
              "</simple></authentication></LocationRQ>";
    const auto start = std::chrono::steady_clock::now();
    auto [status, answer] = post("location", laughs);
    // The username reads as empty: the entities stand for nothing.
    EXPECT_EQ(status, 400);
    EXPECT_EQ(answer.find("root:"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    expectStillServing();
}

TEST(ForwardedFor, TrustedOnlyWhenConfigured) {
    const std::string request = "<?xml version='1.0'?><IPLocationRQ xmlns='" + kNamespace +
                                "' street-address-lookup='limited'>" + kAuthentication +
                                "</IPLocationRQ>";
    const httplib::Headers forwarded = {{"X-Forwarded-For", "203.0.113.9, 10.1.2.3"}};
    for (bool trusted : {false, true}) {
        Testing::LocationServerConfig config;
        config.trustProxy = trusted;
        auto server = TestLocationServer::start(config);
        ASSERT_NE(server, nullptr);
        httplib::Client client("127.0.0.1", server->port());
        auto result = client.Post("/zel2/ip-location", forwarded, request, "text/xml");
        ASSERT_TRUE(result);
        Core::IpLocationRecord record;
        ASSERT_EQ(Remote::parseIPLocationResponse(result->body, 1, record), Core::ResultCode::kOk)
            << result->body;
        EXPECT_EQ(record.ip, trusted ? "10.1.2.3" : "127.0.0.1");
        EXPECT_EQ(record.latitude, trusted ? Testing::kTenNetLatitude : Testing::kLoopbackLatitude);
        EXPECT_EQ(record.streetAddress.city, trusted ? "Ten Town" : "Loopback City");
    }
}

}  // namespace
}  // namespace ZEL::Server
