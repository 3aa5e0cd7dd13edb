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

// One item, known to hold kMinItemLength bytes, as a scan record.
Core::ScannedAP readItem(const uint8_t* item, Core::TimeStamp time, Logger& log) {
    Core::ScannedAP ap;
    // The scan record keeps the MAC last octet first.
    for (size_t i = 0; i < ap.mac.size(); ++i) {
        ap.mac[i] = item[kMacOffset + ap.mac.size() - 1 - i];
    }
    ap.rss = rssToDbm(static_cast<int32_t>(readUlong(item + kRssiOffset)));
    ap.time = time;
    uint32_t ssidLength = readUlong(item + kSsidLengthOffset);
    if (ssidLength > kSsidCapacity) {
        ZEL_LOG_DEBUG(log, "AP %s: SSID length %u, kept %zu bytes", Core::macText(ap.mac).c_str(),
                      ssidLength, kSsidCapacity);
        ssidLength = kSsidCapacity;
    }
    ap.ssidLength = static_cast<uint8_t>(ssidLength);
    std::memcpy(ap.ssid.data(), item + kSsidOffset, ssidLength);
    return ap;
}

}  // namespace

bool readBssidList(const uint8_t* data, size_t size, Core::TimeStamp time, Core::ApList& list,
                   Logger& log) {
    list.clear();
    if (size < kItemsOffset) {
        ZEL_LOG_ERROR(log, "BSSID list of %zu bytes has no item count", size);
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
                log, "BSSID list item %u of %u: length %u, %zu bytes left (at least %zu needed)", i,
                count, length, left, kMinItemLength);
            return false;
        }
        const uint8_t* item = data + offset;
        offset += length;
        Core::ScannedAP ap = readItem(item, time, log);
        const std::string mac = Core::macText(ap.mac);
        const uint32_t mode = readUlong(item + kInfrastructureModeOffset);
        if (mode != kInfrastructure) {
            ZEL_LOG_DEBUG(log, "AP %s (%s) not infrastructure (%d)", mac.c_str(),
                          ap.ssidText().c_str(), static_cast<int>(mode));
            continue;
        }
        if (log.isEnabled(LogPriority::kDebug)) {
            ZEL_LOG_DEBUG(log, "scanned AP %s (%s) %d", mac.c_str(), ap.ssidText().c_str(), ap.rss);
        } else {
            ZEL_LOG_INFO(log, "scanned AP %s %d", mac.c_str(), ap.rss);
        }
        list.push_back(ap);
    }
    return true;
}

}  // namespace ZEL::SPI::NdisBss
