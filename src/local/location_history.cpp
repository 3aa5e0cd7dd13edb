#include "local/location_history.h"

namespace ZEL::Local {

void LocationHistory::add(const Core::LocationRecord& record) {
    if (records_.size() >= kCapacity) {
        records_.pop_back();
    }
    Core::LocationRecord& stored = records_.emplace_front();
    stored.latitude = record.latitude;
    stored.longitude = record.longitude;
    stored.hpe = record.hpe;
    stored.nap = record.nap;
    stored.speed = record.speed;
    stored.bearing = record.bearing;
    stored.time = record.time;
}

LocationHistory& rawHistory() {
    static LocationHistory history;
    return history;
}

LocationHistory& resultHistory() {
    static LocationHistory history;
    return history;
}

void resetLocationHistoriesForTesting() {
    rawHistory().clear();
    resultHistory().clear();
}

}  // namespace ZEL::Local
