#include "api/engine.h"

#include "api/one_shot_location.h"
#include "api/scan_loop.h"

namespace ZEL::API {
namespace {

using Core::ResultCode;

// Scan timing of a one-shot location: 10 periods of 500 ms, about 5 s in all.
constexpr uint32_t kOneShotPeriodMs = 500;
constexpr uint32_t kOneShotPeriods = 10;

// Prepares the local determination for a call and releases its readers on every
// way out of it.
class Preparation {
  public:
    explicit Preparation(std::string_view realm) { localDetermination().prepare(realm); }
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
Remote::LocationDeterminationRemote& remoteDetermination() {
    static auto* instance = new Remote::LocationDeterminationRemote();
    return *instance;
}

Local::LocationDeterminationPrivate& localDetermination() {
    static auto* instance = new Local::LocationDeterminationPrivate();
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

ResultCode locate(Core::Credentials credentials, int streetAddressLookup,
                  std::optional<Core::LocationRecord>& out) {
    Preparation preparation(credentials.realm);
    OneShotLocationState state(
        streetAddressLookup, localDetermination(),
        [&](const Core::ApList& aps, Core::LocationRecord& found) {
            return remoteDetermination().location(credentials, streetAddressLookup, aps, found);
        },
        locationCache());
    ResultCode result = ScanLoop::run(kOneShotPeriodMs, kOneShotPeriods, state.callback());
    if (result != ResultCode::kOk) {
        return result;
    }
    if (!state.heard().empty()) {
        locationCache().store(state.heard().aps(), state.location());
    }
    out = state.location();
    return state.result();
}

ResultCode locatePeriodically(Core::Credentials credentials, uint32_t periodMs, uint32_t periods,
                              const LocationCallback& callback) {
    Preparation preparation(credentials.realm);
    PeriodicLocationState state(periodMs, callback, localDetermination(), locationSmoother());
    return ScanLoop::run(state.periodMs(), periods, state.callback());
}

ResultCode locateByIp(Core::Credentials credentials, int streetAddressLookup,
                      Core::IpLocationRecord& out) {
    return remoteDetermination().ipLocation(credentials, streetAddressLookup, out);
}

}  // namespace ZEL::API
