// The library's remote determination against a real location server on loopback.
#include <gtest/gtest.h>

#include <algorithm>

#include <mutex>

#include "local/location_determination_private.h"
#include "local/location_history.h"
#include "remote/location_determination_remote.h"
#include "support/local_entries.h"
#include "support/location_server_fixture.h"

namespace ZEL::Server {
namespace {

using Testing::kRegisteredUser;
using Testing::kServerRealm;
using Testing::TestLocationServer;
using Testing::testMac;

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

Core::ApList farClusterScan() {
    return {heard(21, -60), heard(22, -70), heard(23, -65)};
}

class ServerExchange : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        Testing::LocationServerConfig config;
        if (GetParam()) {
            certificate_ = Testing::TestCertificate::generate();
            ASSERT_NE(certificate_, nullptr);
            config.certificate = certificate_.get();
        }
        config.accessLog = [this](const std::string& line) {
            std::lock_guard lock(mutex_);
            accessLog_.push_back(line);
        };
        server_ = TestLocationServer::start(config);
        ASSERT_NE(server_, nullptr);
        remote_.setServerUrl(server_->serviceUrl());
    }
    // The access log is written after each answer went out: stop the server (which
    // waits for its workers) before the log is read or destroyed.
    void TearDown() override {
        if (server_) {
            server_->stop();
        }
    }

    Core::LocationRecord locate(const Core::ApList& aps, int level,
                                Core::ResultCode expected = Core::ResultCode::kOk,
                                const Core::Credentials& user = kAlice) {
        Core::LocationRecord record;
        EXPECT_EQ(remote_.location(user, level, aps, record), expected);
        return record;
    }

    std::vector<std::string> accessLog() {
        std::lock_guard lock(mutex_);
        return accessLog_;
    }

    std::unique_ptr<Testing::TestCertificate> certificate_;
    std::unique_ptr<TestLocationServer> server_;
    Remote::LocationDeterminationRemote remote_;
    std::mutex mutex_;
    std::vector<std::string> accessLog_;
};

TEST_P(ServerExchange, LocationMatchesTheOnDeviceEstimate) {
    const Core::LocationRecord answer = locate(clusterScan(), Core::kNoStreetAddress);
    EXPECT_EQ(answer.nap, 8);  // the unknown AP is not counted
    EXPECT_EQ(answer.speed, -1.0);
    EXPECT_TRUE(answer.streetAddress.empty());

    // The library's own first determination from the same file, with no history,
    // must give exactly the same figures.
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
    EXPECT_EQ(answer.nap, expected.nap);
    EXPECT_NEAR(answer.latitude, Testing::kBaseLatitude, 0.001);

    // Stateless: asking again gives the same answer, not a smoothed one.
    const Core::LocationRecord again = locate(clusterScan(), Core::kNoStreetAddress);
    EXPECT_EQ(again.latitude, answer.latitude);
    EXPECT_EQ(again.longitude, answer.longitude);
}

TEST_P(ServerExchange, UnknownAccessPointsCannotBeLocated) {
    locate({heard(98, -50), heard(99, -60)}, Core::kNoStreetAddress,
           Core::ResultCode::kCannotDetermine);
    locate({}, Core::kNoStreetAddress, Core::ResultCode::kCannotDetermine);
}

TEST_P(ServerExchange, StreetAddressAtEachLevel) {
    EXPECT_TRUE(locate(clusterScan(), Core::kNoStreetAddress).streetAddress.empty());

    const Core::StreetAddress limited =
        locate(clusterScan(), Core::kLimitedStreetAddress).streetAddress;
    EXPECT_EQ(limited.city, "Bern");
    EXPECT_EQ(limited.county, "Bern-Mittelland");
    EXPECT_EQ(limited.region, "Espace Mittelland");
    EXPECT_EQ(limited.state, "Bern");
    EXPECT_EQ(limited.stateCode, "BE");
    EXPECT_EQ(limited.country, "Switzerland");
    EXPECT_EQ(limited.countryCode, "CH");
    EXPECT_EQ(limited.streetNumber, "");
    EXPECT_EQ(limited.postalCode, "");
    EXPECT_TRUE(limited.addressLines.empty());

    const Core::StreetAddress full = locate(clusterScan(), Core::kFullStreetAddress).streetAddress;
    EXPECT_EQ(full.streetNumber, "12a");
    EXPECT_EQ(full.postalCode, "3011");
    // Markup characters in the data reach the client intact.
    EXPECT_EQ(full.addressLines, (std::vector<std::string>{"Rue <Haute> & Co", "2nd floor, left"}));
    EXPECT_EQ(full.city, "Bern");

    // Nothing lies within the radius of the far cluster.
    const Core::LocationRecord far = locate(farClusterScan(), Core::kFullStreetAddress);
    EXPECT_GT(far.latitude, Testing::kBaseLatitude + 0.02);
    EXPECT_TRUE(far.streetAddress.empty());
}

TEST_P(ServerExchange, IpLocationFromTheClientAddress) {
    Core::IpLocationRecord record;
    ASSERT_EQ(remote_.ipLocation(kAlice, Core::kFullStreetAddress, record), Core::ResultCode::kOk);
    EXPECT_EQ(record.ip, "127.0.0.1");
    EXPECT_EQ(record.latitude, Testing::kLoopbackLatitude);
    EXPECT_EQ(record.longitude, Testing::kLoopbackLongitude);
    EXPECT_EQ(record.streetAddress.city, "Loopback City");
    EXPECT_EQ(record.streetAddress.streetNumber, "7");

    Core::IpLocationRecord limited;
    ASSERT_EQ(remote_.ipLocation(kAlice, Core::kLimitedStreetAddress, limited),
              Core::ResultCode::kOk);
    EXPECT_EQ(limited.streetAddress.countryCode, "NW");
    EXPECT_EQ(limited.streetAddress.streetNumber, "");
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
    EXPECT_EQ(server_->service().users().count(kServerRealm), 2u);
}

INSTANTIATE_TEST_SUITE_P(HttpAndHttps, ServerExchange, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Https" : "Http"; });

}  // namespace
}  // namespace ZEL::Server
