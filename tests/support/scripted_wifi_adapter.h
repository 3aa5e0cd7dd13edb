// A Wi-Fi adapter that plays a script: what each scan returns, and which calls fail.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "spi/wifi_adapter.h"

namespace ZEL::Testing {

// Shared between a test and the adapter it hands to the code under test, so the
// test can read the call record after the adapter was destroyed.
struct AdapterScript {
    // Results of successive getScanResults calls; a failure when `failGet` says so.
    // When the script runs out, scans return no AP.
    std::deque<Core::ApList> scans;
    std::deque<bool> failOpen;       // successive open() results: true = fail
    std::deque<bool> failStart;      // successive startScan() results
    std::deque<bool> failGet;        // successive getScanResults() results
    std::vector<std::string> calls;  // "open", "close", "start", "get", "destroy"
};

class ScriptedWifiAdapter final : public SPI::WifiAdapter {
  public:
    explicit ScriptedWifiAdapter(std::shared_ptr<AdapterScript> script)
        : script_(std::move(script)) {}
    ~ScriptedWifiAdapter() override { script_->calls.push_back("destroy"); }

    std::string name() const override { return "scripted0"; }
    int open() override;
    void close() override { script_->calls.push_back("close"); }
    int startScan() override;
    int getScanResults(Core::ApList& list) override;

  private:
    std::shared_ptr<AdapterScript> script_;
};

// An enumerator yielding one scripted adapter over `script`.
SPI::AdapterEnumerator scriptedEnumerator(std::shared_ptr<AdapterScript> script);

// A scan record for tests: MAC given as printed text, RSS in dBm.
Core::ScannedAP ap(const char* macText, int16_t rss);

}  // namespace ZEL::Testing
