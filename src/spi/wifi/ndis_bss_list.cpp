#include "spi/wifi/ndis_bss_list.h"

#include "spi/wifi/driver_signal.h"

#include <cstring>

namespace ZEL::SPI::NdisBss {
namespace {

uint32_t readUlong(const uint8_t* at) {
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

}  // namespace

Core::ScannedAP scannedAp(const uint8_t* mac, const uint8_t* ssid, uint32_t ssidLength, int16_t dbm,
                          Core::TimeStamp time, Logger& log) {
    Core::ScannedAP ap;
    // The scan record keeps the MAC last octet first.
    for (size_t i = 0; i < ap.mac.size(); ++i) {
        ap.mac[i] = mac[ap.mac.size() - 1 - i];
    }
    ap.rss = dbm;
    ap.time = time;
    if (ssidLength > kSsidCapacity) {
        ZEL_LOG_DEBUG(log, "AP %s: SSID length %u, kept %u bytes", Core::macText(ap.mac).c_str(),
                      ssidLength, static_cast<unsigned>(kSsidCapacity));
        ssidLength = kSsidCapacity;
    }
    ap.ssidLength = static_cast<uint8_t>(ssidLength);
    std::memcpy(ap.ssid.data(), ssid, ssidLength);
    return ap;
}

void addHeard(Core::ApList& list, const Core::ScannedAP& ap, bool infrastructure, int mode,
              Logger& log) {
    const std::string mac = Core::macText(ap.mac);
    if (!infrastructure) {
        ZEL_LOG_DEBUG(log, "AP %s (%s) not infrastructure (%d)", mac.c_str(), ap.ssidText().c_str(),
                      mode);
        return;
    }
    if (log.isEnabled(LogPriority::kDebug)) {
        ZEL_LOG_DEBUG(log, "scanned AP %s (%s) %d", mac.c_str(), ap.ssidText().c_str(), ap.rss);
    } else {
        ZEL_LOG_INFO(log, "scanned AP %s %d", mac.c_str(), ap.rss);
    }
    list.push_back(ap);
}

bool readBssidList(const uint8_t* data, size_t size, Core::TimeStamp time, Core::ApList& list,
                   Logger& log) {
    list.clear();
    if (size < kItemsOffset) {
        ZEL_LOG_ERROR(log, "BSSID list of %u bytes has no item count", static_cast<unsigned>(size));
        return false;
    }
    // The count is the driver's word, not a size to reserve.
    const uint32_t count = readUlong(data);
    ZEL_LOG_DEBUG(log, "scanned %d APs", static_cast<int>(count));
    size_t offset = kItemsOffset;
    for (uint32_t i = 0; i < count; ++i) {
        const size_t left = size - offset;
        const uint32_t length = left >= sizeof(uint32_t) ? readUlong(data + offset) : 0;
        if (left < kMinItemLength || length < kMinItemLength || length > left) {
            ZEL_LOG_ERROR(
                log, "BSSID list item %u of %u: length %u, %u bytes left (at least %u needed)", i,
                count, length, static_cast<unsigned>(left), static_cast<unsigned>(kMinItemLength));
            return false;
        }
        const uint8_t* item = data + offset;
        offset += length;
        const auto rssi = static_cast<int32_t>(readUlong(item + kRssiOffset));
        const uint32_t mode = readUlong(item + kInfrastructureModeOffset);
        addHeard(list,
                 scannedAp(item + kMacOffset, item + kSsidOffset,
                           readUlong(item + kSsidLengthOffset), rssToDbm(rssi), time, log),
                 mode == kInfrastructure, static_cast<int>(mode), log);
    }
    return true;
}

}  // namespace ZEL::SPI::NdisBss
