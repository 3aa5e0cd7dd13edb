#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/engine_fixture.h"
#include "zelapi.h"
#include "zelapi_ext.h"

namespace ZEL::API {
namespace {

using Exports = Testing::EngineTest;

const ZEL_Authentication kTester{"tester", "testrealm"};

TEST_F(Exports, SettersTranslateNullToEmpty) {
    ZEL_set_server_url(nullptr);
    EXPECT_EQ(remoteDetermination().serverUrl(), "");
    ZEL_set_proxy("proxy", 3128, nullptr, "secret");
    EXPECT_EQ(remoteDetermination().proxy(), "proxy:3128");
    EXPECT_EQ(remoteDetermination().proxyUser(), "");
    EXPECT_EQ(ZEL_set_local_files_path(nullptr), ZEL_OK);
    EXPECT_TRUE(localDetermination().localFilesPath().empty());
    const char* paths[] = {"a.zel", "b.zel", nullptr};
    EXPECT_EQ(ZEL_set_local_files_path(paths), ZEL_OK);
    EXPECT_EQ(localDetermination().localFilesPath(), (std::vector<std::string>{"a.zel", "b.zel"}));
    ZEL_free_location(nullptr);
}

TEST_F(Exports, IpLocationGivesARecordOnlyOnSuccess) {
    platform_.http().respond(
        {200,
         Testing::serverAnswer("IPLocationRS", "<ip-location><ip>192.0.2.9</ip></ip-location>")});
    ZEL_IPLocation* location = nullptr;
    ASSERT_EQ(ZEL_ip_location(&kTester, ZEL_NO_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    EXPECT_STREQ(location->ip, "192.0.2.9");
    ZEL_free_ip_location(location);

    platform_.http().respond({401, ""});
    ZEL_IPLocation* untouched = nullptr;
    EXPECT_EQ(ZEL_ip_location(&kTester, ZEL_NO_STREET_ADDRESS_LOOKUP, &untouched),
              ZEL_ERROR_UNAUTHORIZED);
    EXPECT_EQ(untouched, nullptr);
}

// A scan source over a fixed list of APs, as an application would write one.
struct FixedScan {
    Core::ApList aps;
    unsigned int lastCapacity = 0;
    int failure = 0;
};

int fixedScan(void* argument, ZEL_APEntry* aps, unsigned int capacity, unsigned int* count) {
    auto* scan = static_cast<FixedScan*>(argument);
    scan->lastCapacity = capacity;
    if (scan->failure != 0) {
        return scan->failure;
    }
    *count = 0;
    for (const Core::ScannedAP& ap : scan->aps) {
        std::copy(ap.mac.begin(), ap.mac.end(), aps[*count].mac);
        aps[*count].rss = ap.rss;
        ++*count;
    }
    return 0;
}

TEST_F(Exports, ScanSourceDrivesTheEngine) {
    FixedScan scan{knownScan(3)};
    ASSERT_EQ(ZEL_set_scan_source(fixedScan, &scan), ZEL_OK);
    ZEL_Location* location = nullptr;
    EXPECT_EQ(ZEL_location(&kTester, ZEL_NO_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    EXPECT_EQ(location->known_aps.count, 3);
    EXPECT_GE(scan.lastCapacity, 256u);
    ZEL_free_location(location);

    scan.failure = 7;  // the source's own failure is an adapter failure
    ZEL_Location* none = nullptr;
    EXPECT_EQ(ZEL_location(&kTester, ZEL_NO_STREET_ADDRESS_LOOKUP, &none), ZEL_ERROR_WIFI);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(ZEL_set_scan_source(nullptr, nullptr), ZEL_OK);
}

TEST_F(Exports, NullArgumentsDoNotCrash) {
    repeatScan(knownScan(3), 12);
    // No authentication reads as the empty user and realm: the tile file (of another
    // realm) does not open, so the server is asked, which does not answer.
    EXPECT_EQ(ZEL_location(nullptr, ZEL_NO_STREET_ADDRESS_LOOKUP, nullptr),
              ZEL_ERROR_SERVER_UNAVAILABLE);
    EXPECT_EQ(ZEL_periodic_location(&kTester, 0, 100, 1, nullptr, nullptr), ZEL_ERROR_NOT_READY);
    EXPECT_EQ(ZEL_register_user(nullptr, nullptr), ZEL_ERROR_SERVER_UNAVAILABLE);
}

// A periodic location holds the API lock for its whole run: a setter called from
// another thread meanwhile waits until it ends.
TEST_F(Exports, CallsFromTwoThreadsAreSerialised) {
    repeatScan(knownScan(3), 10);
    static std::atomic<bool> inCallback{false}, callbackEnded{false};
    auto callback = [](void*, int, const ZEL_Location*) -> int {
        inCallback = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the other thread waits
        callbackEnded = true;
        return 0;
    };
    std::thread periodic([&] { ZEL_periodic_location(&kTester, 0, 1000, 0, callback, nullptr); });
    while (!inCallback) {
        std::this_thread::yield();
    }
    ZEL_set_server_url("https://other.test/zel2");
    EXPECT_TRUE(callbackEnded);
    periodic.join();
}

}  // namespace
}  // namespace ZEL::API
