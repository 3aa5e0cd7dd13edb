// A test bench for the engine as the exports drive it: a manual clock, a scripted
// Wi-Fi adapter installed as the only adapter, a small tile file of known access
// points, a loopback location server, and clean process-wide state.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "api/engine.h"
#include "spi/manual_clock.h"
#include "support/scripted_wifi_adapter.h"
#include "support/test_http_server.h"

namespace ZEL::Testing {

class EngineTest : public ::testing::Test {
  protected:
    // Access points of the tile file, a few tens of metres apart near 48.137, 11.575.
    static constexpr const char* kKnown[] = {"0A0000000001", "0A0000000002", "0A0000000003",
                                             "0A0000000004", "0A0000000005"};
    static constexpr const char* kRealm = "testrealm";

    void SetUp() override;
    void TearDown() override;

    // A scan of the first `count` known APs, each at `rss` dBm.
    static Core::ApList knownScan(size_t count, int16_t rss = -60);

    // `count` scans of the same APs.
    void repeatScan(const Core::ApList& scan, size_t count);

    // A location answer of the server with `nap` APs and, optionally, a city.
    static std::string locationAnswer(int nap, const std::string& city = "");
    static std::string errorAnswer();

    ZEL_Authentication auth_{"tester", kRealm};
    SPI::ManualClock clock_;
    std::unique_ptr<SPI::ScopedClock> scopedClock_;
    std::shared_ptr<AdapterScript> script_ = std::make_shared<AdapterScript>();
    std::unique_ptr<TestHttpServer> server_;
    std::string tilePath_;
};

}  // namespace ZEL::Testing
