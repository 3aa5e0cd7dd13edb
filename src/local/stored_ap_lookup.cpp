#include "local/stored_ap_lookup.h"

#include <algorithm>

#include "spi/log.h"

namespace ZEL::Local {
namespace {

// Defaults for an AP heard but not in the database.
constexpr uint32_t kUnknownQuality = 50;
constexpr double kUnknownSignalExponent = 0.25;

// The first answer in reader order.
std::optional<Tiles::StoredApData> findInReaders(ReaderList& readers, const Core::MacAddress& mac) {
    for (auto& reader : readers) {
        if (std::optional<Tiles::StoredApData> found = reader->lookup(mac)) {
            return found;
        }
    }
    return std::nullopt;
}

const LocalApEntry* findEntry(const std::vector<LocalApEntry>& entries,
                              const Core::MacAddress& mac) {
    auto it = std::find_if(entries.begin(), entries.end(), [&](const LocalApEntry& entry) {
        return Core::sameMac(entry.mac, mac);
    });
    return it == entries.end() ? nullptr : &*it;
}

void recordCurrentScan(LocalApEntry& entry, const Core::ScannedAP& ap) {
    entry.rss[0] = ap.rss;
    entry.time[0] = ap.time;
}

bool heardInAnySlot(const LocalApEntry& entry) {
    int64_t sum = 0;
    for (int32_t rss : entry.rss) {
        sum += rss;
    }
    return sum != 0;
}

}  // namespace

LocalApEntry LocalApEntry::heard(const Core::ScannedAP& ap, const Tiles::StoredApData& data) {
    LocalApEntry entry;
    entry.mac = ap.mac;
    entry.latitude = data.latitude;
    entry.longitude = data.longitude;
    entry.quality = data.quality;
    entry.signalExponent = data.signalExponent;
    recordCurrentScan(entry, ap);
    return entry;
}

StoredApMap lookupStoredAps(ReaderList& readers, const Core::ApList& aps, SPI::Logger& log) {
    StoredApMap known;
    if (readers.empty()) {
        return known;
    }
    for (const Core::ScannedAP& ap : aps) {
        std::optional<Tiles::StoredApData> found = findInReaders(readers, ap.mac);
        if (!found) {
            ZEL_LOG_DEBUG(log, "MAC %s not found", Core::macText(ap.mac).c_str());
            continue;
        }
        known.emplace(ap.mac, *found);
        const Tiles::StoredApData& data = *found;
        ZEL_LOG_DEBUG(log, "MAC %s extracted successfully: %f %f %u %f",
                      Core::macText(ap.mac).c_str(), data.latitude, data.longitude, data.quality,
                      data.signalExponent);
    }
    return known;
}

const LocalApEntry* findTracked(const std::vector<LocalApEntry>& tracked,
                                const Core::MacAddress& mac) {
    return findEntry(tracked, mac);
}

void updateTrackedAps(std::vector<LocalApEntry>& tracked, const std::vector<LocalApEntry>& entries,
                      const Core::ApList& aps) {
    for (LocalApEntry& entry : tracked) {
        std::copy_backward(entry.rss.begin(), entry.rss.end() - 1, entry.rss.end());
        std::copy_backward(entry.time.begin(), entry.time.end() - 1, entry.time.end());
        entry.rss[0] = 0;
        entry.time[0] = Core::TimeStamp{};
    }
    for (const Core::ScannedAP& ap : aps) {
        auto it = std::find_if(tracked.begin(), tracked.end(), [&](const LocalApEntry& entry) {
            return Core::sameMac(entry.mac, ap.mac);
        });
        if (it != tracked.end()) {
            recordCurrentScan(*it, ap);
            continue;
        }
        if (const LocalApEntry* known = findEntry(entries, ap.mac)) {
            tracked.push_back(LocalApEntry::heard(
                ap, {known->latitude, known->longitude, known->quality, known->signalExponent}));
        } else {
            tracked.push_back(
                LocalApEntry::heard(ap, {0.0, 0.0, kUnknownQuality, kUnknownSignalExponent}));
        }
    }
    std::erase_if(tracked, [](const LocalApEntry& entry) { return !heardInAnySlot(entry); });
}

}  // namespace ZEL::Local
