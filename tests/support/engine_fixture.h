// The engine as the exports drive it: a tile file of known APs, a scripted server.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "api/engine.h"
#include "support/test_platform.h"

namespace ZEL::Testing {

class EngineTest : public ::testing::Test {
  protected:
    // Access points of the tile file, a few tens of metres apart near 48.137, 11.575.
    static constexpr const char* kKnown[] = {"0A0000000001", "0A0000000002", "0A0000000003",
                                             "0A0000000004", "0A0000000005"};
    static constexpr const char* kRealm = "testrealm";
    static constexpr const char* kServer = "https://zel.test/zel2";

    void SetUp() override;
    void TearDown() override;

    // A scan of the first `count` known APs, each at `rss` dBm.
    static Core::ApList knownScan(size_t count, int16_t rss = -60);
    // `count` scans of the same APs.
    void repeatScan(const Core::ApList& scan, size_t count);
    // How many scan results the engine read.
    size_t scansRead();

    static std::string locationAnswer(int nap, const std::string& city = "");

    Core::Credentials credentials_{"tester", kRealm};
    TestPlatform platform_;
};

}  // namespace ZEL::Testing
