#include "api/engine.h"

#include "api/one_shot_location.h"
#include "spi/log.h"

namespace ZEL::API {
namespace {

// Scan timing of a one-shot location: 10 periods of 500 ms, about 5 s in all.
constexpr uint32_t kOneShotPeriodMs = 500;
constexpr uint32_t kOneShotPeriods = 10;

// Releases the local determination's readers on every way out of a call.
class Preparation {
  public:
    Preparation() = default;
    ~Preparation() { localDetermination().release(); }
    Preparation(const Preparation&) = delete;
    Preparation& operator=(const Preparation&) = delete;
};

}  // namespace

std::mutex& apiLock() {
    static std::mutex lock;
    return lock;
}

// The process-wide objects are deliberately never destroyed: a call from another
// library's destructor at exit must still find them.
LocationDeterminationRemote& remoteDetermination() {
    static auto* instance = new LocationDeterminationRemote();
    return *instance;
}

LocationDeterminationPrivate& localDetermination() {
    static auto* instance = new LocationDeterminationPrivate();
    return *instance;
}

LocationCache& locationCache() {
    static auto* instance = new LocationCache();
    return *instance;
}

LocationSmoother& locationSmoother() {
    static auto* instance = new LocationSmoother();
    return *instance;
}

int locate(const ZEL_Authentication& auth, int streetAddressLookup, ZEL_Location** out) {
    LocationDeterminationPrivate& local = localDetermination();
    if (int prepared = local.prepare(auth); prepared != ZEL_OK) {
        return prepared;
    }
    Preparation preparation;
    OneShotLocationState state(
        streetAddressLookup, local,
        [&](const ApList& aps, LocationRecord& found) {
            return remoteDetermination().location(auth, streetAddressLookup, aps, found);
        },
        locationCache());
    int result = ScanLoop().run(kOneShotPeriodMs, kOneShotPeriods, state.callback());
    if (result != ZEL_OK) {
        return result;
    }
    if (!state.heard().empty()) {
        locationCache().store(state.heard().aps(), state.location());
    }
    ZEL_Location* record = makeCallerLocation(state.location());
    if (record == nullptr) {
        ZEL_LOG_ERROR(SPI::getCategory("ZEL_location"), "out of memory for the caller's location");
        return ZEL_ERROR_NOT_READY;
    }
    if (out != nullptr) {
        *out = record;
    } else {
        freeCallerLocation(record);
    }
    return state.result();
}

int locatePeriodically(const ZEL_Authentication& auth, uint32_t periodMs, uint32_t periods,
                       ZEL_LocationCallback callback, void* argument) {
    LocationDeterminationPrivate& local = localDetermination();
    if (int prepared = local.prepare(auth); prepared != ZEL_OK) {
        return prepared;
    }
    Preparation preparation;
    PeriodicLocationState state(periodMs, callback, argument, local, locationSmoother());
    return ScanLoop().run(state.periodMs(), periods, state.callback());
}

int locateByIp(const ZEL_Authentication& auth, int streetAddressLookup, ZEL_IPLocation** out) {
    IpLocationRecord found;
    int result = remoteDetermination().ipLocation(auth, streetAddressLookup, found);
    if (result != ZEL_OK) {
        return result;
    }
    ZEL_IPLocation* record = makeCallerIpLocation(found);
    if (record == nullptr) {
        ZEL_LOG_ERROR(SPI::getCategory("ZEL_location"),
                      "out of memory for the caller's ip-location");
        return ZEL_ERROR_NOT_READY;
    }
    if (out != nullptr) {
        *out = record;
    } else {
        freeCallerIpLocation(record);
    }
    return result;
}

}  // namespace ZEL::API
