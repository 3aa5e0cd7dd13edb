// zel scan [--json]: one scan on the first Wi-Fi adapter, printed.
#include <nlohmann/json.hpp>

#include <cstdio>

#include "command.h"
#include "spi/platform.h"
#include "spi/wifi_adapter.h"

namespace {

// Exit statuses follow the library's codes: 2 when no adapter could scan.
constexpr int kAdapterFailure = 2;

int scanOnce(bool json) {
    using namespace ZEL;
    SPI::AdapterList adapters = SPI::platform().wifiAdapters();
    if (adapters.empty()) {
        std::fprintf(stderr, "zel scan: couldn't find any Wi-Fi adapters\n");
        return kAdapterFailure;
    }
    SPI::WifiAdapter& adapter = *adapters.front();
    Core::ApList list;
    int error = adapter.open();
    if (error == 0 && (error = adapter.startScan()) == 0) {
        error = adapter.getScanResults(list);
    }
    adapter.close();
    if (error != 0) {
        std::fprintf(stderr, "zel scan: %s: scan failed with error %d\n", adapter.name().c_str(),
                     error);
        return kAdapterFailure;
    }
    if (json) {
        // The scan-recording line: the scan's time and its APs.
        nlohmann::json aps = nlohmann::json::array();
        for (const Core::ScannedAP& ap : list) {
            aps.push_back(
                {{"mac", Core::macText(ap.mac)}, {"rss", ap.rss}, {"ssid", ap.ssidText()}});
        }
        nlohmann::json line = {{"adapter", adapter.name()},
                               {"t_ms", SPI::currentTime().totalMilliseconds()},
                               {"aps", aps}};
        std::printf("%s\n",
                    line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        return 0;
    }
    std::printf("%s: %zu APs\n", adapter.name().c_str(), list.size());
    for (const Core::ScannedAP& ap : list) {
        std::printf("%s %4d %s\n", Core::macText(ap.mac).c_str(), ap.rss, ap.ssidText().c_str());
    }
    return 0;
}

}  // namespace

namespace ZEL::Cli {

void addScanCommand(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("scan", "Scan with the first Wi-Fi adapter and print what it hears");
    auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "One JSON line: the adapter, the time and the APs heard");
    command->callback([json] { ZEL::Cli::setExitStatus(scanOnce(*json)); });
}

}  // namespace ZEL::Cli
