// What the location server answers, apart from HTTP: each operation takes a
// request body (and, for ip-location, the client's address) and returns the HTTP
// status and the answer document.
//
// Statuses: 200 with the answer, or with an `error` document when the question
// has no answer (no known access point, no range for the address, a user that
// exists already); 400 for a request that does not read (see request_reader.h);
// 401 when the authentication is not a registered user of the server's realm;
// 500 when the user database fails. Every refusal is logged.
// Positions come from the on-device estimator over the tile files, one stateless
// call per request: no history is kept between requests.
// Threading: all operations may run concurrently.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/database.h"
#include "server/ip_ranges.h"
#include "server/metrics.h"
#include "server/reader_pool.h"
#include "server/request_reader.h"
#include "server/street_address_index.h"

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Server {

struct ServiceOptions {
    std::vector<std::string> tileFiles;
    std::string realm;              // of the tile files and of the users served
    bool open = false;              // accept any authentication
    size_t maxAccessPoints = 1000;  // per location request
    // Reports (geosubmit) are stored only in a database that outlives the process.
    bool storeReports = false;
    uint64_t maxReportAgeMs = 7 * 86'400'000ull;  // older report items are left out
    // A tile file the server learns (--learned-tiles): answered from before the
    // others, and downloaded, once it exists; left out until the first is written.
    std::string learnedTiles = {};
};

struct GeolocateCall;  // geolocate_service.h
struct GeosubmitCall;  // geosubmit_service.h

struct Reply {
    int status = 200;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers = {};  // beyond the content type
};

// What the service answers from; only `users` is required.
struct ServiceData {
    std::unique_ptr<Database> users;                // and API keys
    std::unique_ptr<IpRanges> ipRanges;             // ip-location: none without
    std::unique_ptr<StreetAddressIndex> addresses;  // no street addresses without
};

class LocationService {
  public:
    // Null with `error` set when a tile file does not open for the realm or no
    // user store was given.
    static std::unique_ptr<LocationService> create(ServiceOptions options, ServiceData data,
                                                   std::string& error);

    Reply location(std::string_view body);
    Reply ipLocation(std::string_view body, const std::string& clientAddress);
    Reply registration(std::string_view body);
    // POST /v1/geolocate, in geolocate_service.cpp.
    Reply geolocate(const GeolocateCall& call);
    // POST /v2/geosubmit and /v1/geosubmit, in geosubmit_service.cpp.
    Reply geosubmit(const GeosubmitCall& call);
    // GET /v1/tiles/REALM ("_" for the plain realm): the first tile file as it was
    // last loaded, with its ETag and Last-Modified; 304 without a body when
    // `ifNoneMatch` names its tag; 404 for another realm; the key as for geolocate.
    Reply tileDownload(std::string_view realm, std::string_view key, std::string_view ifNoneMatch);

    // Reads the tile files again and answers from them from now on; requests under
    // way finish on the files they started with. When a file fails to read or to
    // check, logs why, keeps the files it had and returns false with `error` set.
    bool reloadTiles(std::string& error);

    Database& users() { return *data_.users; }
    Metrics& metrics() { return metrics_; }
    // Refuses a request with 429 when `admit`, asked with its user as
    // "username@realm" once the user is authorised, says no. Set before serving;
    // empty: no limit.
    void limitUsers(std::function<bool(const std::string& user)> admit) {
        admitUser_ = std::move(admit);
    }

  private:
    LocationService(ServiceOptions options, ServiceData data, std::unique_ptr<ReaderPool> readers);
    // The tile files to load now: the learned one when it exists, then the others.
    static std::vector<std::string> tilePaths(const ServiceOptions& options);
    // The JSON refusal of a missing, unknown, disabled or foreign API key, or of a
    // failing key store; nothing when the key may be used (or with --open).
    std::optional<Reply> refuseKey(std::string_view key, const char* what);
    // The request, or nullopt with `reply` set to the refusal.
    std::optional<ClientRequest> accept(Question question, std::string_view body, Reply& reply);
    // True when the user may ask; otherwise `reply` holds the refusal.
    bool authorised(Question question, const Credentials& user, Reply& reply);
    Core::StreetAddress addressNear(double latitude, double longitude, int level) const;
    // The stateless estimate; false when no access point of the request is known.
    bool estimate(const Core::ApList& accessPoints, Core::LocationRecord& out);

    SPI::Logger& category_;
    SPI::Logger& estimatorCategory_;
    ServiceOptions options_;
    ServiceData data_;
    std::shared_ptr<ReaderPool> currentReaders() const {
        std::lock_guard lock(readersMutex_);
        return readers_;
    }

    mutable std::mutex readersMutex_;  // guards the pointer, not the pool
    std::shared_ptr<ReaderPool> readers_;
    Metrics metrics_;
    std::function<bool(const std::string&)> admitUser_;
};

}  // namespace ZEL::Server
