#include "spi/wifi/nl80211_scan_results.h"

#include "core/ap_list.h"
#include "spi/log.h"

namespace ZEL::SPI {

void collectScanResults(const std::vector<BssEntry>& entries, Core::ApList& list, Logger& log) {
    list.clear();
    ZEL_LOG_DEBUG(log, "scanned %d APs", static_cast<int>(entries.size()));
    for (const BssEntry& entry : entries) {
        std::string mac = Core::macText(entry.ap.mac);
        std::string ssid = entry.ap.ssidText();
        if (!entry.infrastructure()) {
            // The capability field stands where a driver's network mode would.
            ZEL_LOG_DEBUG(log, "AP %s (%s) not infrastructure (%d)", mac.c_str(), ssid.c_str(),
                          entry.capability);
            continue;
        }
        if (entry.ageMs > Core::kRecentMaxAgeMs) {
            ZEL_LOG_DEBUG(log, "AP %s (%s) last heard %llu ms ago", mac.c_str(), ssid.c_str(),
                          static_cast<unsigned long long>(entry.ageMs));
            continue;
        }
        list.push_back(entry.ap);
        if (log.isEnabled(LogPriority::kDebug)) {
            ZEL_LOG_DEBUG(log, "scanned AP %s (%s) %d", mac.c_str(), ssid.c_str(), entry.ap.rss);
        } else {
            ZEL_LOG_INFO(log, "scanned AP %s %d", mac.c_str(), entry.ap.rss);
        }
    }
}

}  // namespace ZEL::SPI
