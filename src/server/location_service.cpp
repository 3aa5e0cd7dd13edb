#include "server/location_service.h"

#include <unistd.h>

#include "local/location_history.h"
#include "local/position_estimate.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

Reply refusal(int status, Question question, std::string_view code, std::string_view message) {
    return Reply{status, errorAnswer(question, code, message)};
}

const char* questionName(Question question) {
    switch (question) {
        case Question::Location:
            return "location";
        case Question::IpLocation:
            return "ip-location";
        case Question::Registration:
            return "registration";
    }
    return "";
}

}  // namespace

LocationService::LocationService(ServiceOptions options, ServiceData data,
                                 std::unique_ptr<ReaderPool> readers)
    : category_(SPI::getLogger("ZEL.Server.LocationService")),
      estimatorCategory_(SPI::getLogger("ZEL.Server.LocationService.Estimate")),
      options_(std::move(options)),
      data_(std::move(data)),
      readers_(std::move(readers)) {}

std::vector<std::string> LocationService::tilePaths(const ServiceOptions& options) {
    std::vector<std::string> paths;
    if (!options.learnedTiles.empty() && access(options.learnedTiles.c_str(), F_OK) == 0) {
        paths.push_back(options.learnedTiles);
    }
    paths.insert(paths.end(), options.tileFiles.begin(), options.tileFiles.end());
    return paths;
}

std::unique_ptr<LocationService> LocationService::create(ServiceOptions options, ServiceData data,
                                                         std::string& error) {
    if (!data.users) {
        error = "no user store";
        return nullptr;
    }
    const std::vector<std::string> paths = tilePaths(options);
    std::unique_ptr<ReaderPool> readers = ReaderPool::open(paths, options.realm, error);
    if (!readers) {
        return nullptr;
    }
    const auto files = static_cast<int64_t>(paths.size());
    std::unique_ptr<LocationService> service(
        new LocationService(std::move(options), std::move(data), std::move(readers)));
    service->metrics_.tileFilesLoaded = files;
    return service;
}

bool LocationService::reloadTiles(std::string& error) {
    const std::vector<std::string> paths = tilePaths(options_);
    std::shared_ptr<ReaderPool> readers = ReaderPool::open(paths, options_.realm, error);
    if (!readers) {
        ++metrics_.tileReloadsRefused;
        ZEL_LOG_ERROR(category_,
                      "tile reload refused, still answering from the files loaded before: %s",
                      error.c_str());
        return false;
    }
    {
        std::lock_guard lock(readersMutex_);
        readers_.swap(readers);
    }
    metrics_.tileFilesLoaded = static_cast<int64_t>(paths.size());
    ZEL_LOG_INFO(category_, "tile files reloaded (%zu)", paths.size());
    return true;  // the old pool goes when its last request gives it back
}

std::optional<ClientRequest> LocationService::accept(Question question, std::string_view body,
                                                     Reply& reply) {
    ReadResult read = readRequest(question, body, options_.maxAccessPoints);
    if (!read.request) {
        ZEL_LOG_INFO(category_, "bad %s request: %s", questionName(question), read.error.c_str());
        reply = refusal(400, question, "bad-request", read.error);
        return std::nullopt;
    }
    const Credentials& user = read.request->authentication;
    if (!authorised(question, user, reply)) {
        return std::nullopt;
    }
    if (admitUser_ && !admitUser_(user.username + "@" + user.realm)) {
        reply = refusal(429, question, "rate-limited", "too many requests");
        return std::nullopt;
    }
    return std::move(read.request);
}

bool LocationService::authorised(Question question, const Credentials& user, Reply& reply) {
    if (options_.open) {
        return true;
    }
    Database::Lookup lookup = user.realm == options_.realm
                                  ? data_.users->findUser(user.username, user.realm)
                                  : Database::Lookup::Unknown;
    if (lookup == Database::Lookup::Registered) {
        return true;
    }
    if (lookup == Database::Lookup::Failed) {
        ++metrics_.databaseErrors;
        reply = refusal(500, question, "internal", "the user database failed");
        return false;
    }
    ZEL_LOG_INFO(category_, "refused user \"%s\" of realm \"%s\"", user.username.c_str(),
                 user.realm.c_str());
    reply = refusal(401, question, "unauthorized", "not a registered user of this realm");
    return false;
}

Core::StreetAddress LocationService::addressNear(double latitude, double longitude,
                                                 int level) const {
    if (level == 0 || !data_.addresses) {
        return {};
    }
    const AddressPoint* point = data_.addresses->nearest(latitude, longitude);
    return point ? addressForLevel(point->address, level) : Core::StreetAddress{};
}

bool LocationService::estimate(const Core::ApList& accessPoints, Core::LocationRecord& out) {
    Local::StoredApMap known;
    {
        const std::shared_ptr<ReaderPool> readers = currentReaders();
        ReaderPool::Lease lease = readers->borrow();
        known = Local::lookupStoredAps(lease.readers(), accessPoints, estimatorCategory_);
    }
    std::vector<Local::LocalApEntry> entries;
    for (const Core::ScannedAP& ap : accessPoints) {
        auto found = known.find(ap.mac);
        if (found != known.end()) {
            entries.push_back(Local::LocalApEntry::heard(ap, found->second));
        }
    }
    if (entries.empty()) {
        return false;
    }
    out.time = SPI::currentTime();
    // No history and no tracked signals: each request stands alone.
    const Local::LocationHistory noHistory;
    const std::vector<Local::LocalApEntry> noTracked;
    Local::estimatePosition(entries, out, noHistory, noTracked, estimatorCategory_);
    out.hpe = Local::estimateHpe(entries);
    return !(out.latitude == 0.0 && out.longitude == 0.0);
}

Reply LocationService::location(std::string_view body) {
    Reply reply;
    std::optional<ClientRequest> request = accept(Question::Location, body, reply);
    if (!request) {
        return reply;
    }
    Core::LocationRecord position;
    if (!estimate(request->accessPoints, position)) {
        ZEL_LOG_DEBUG(category_, "no position from %zu access points",
                      request->accessPoints.size());
        ++metrics_.positionsNotFound;
        return refusal(200, Question::Location, "unknown-location",
                       "the location cannot be determined");
    }
    ++metrics_.positionsFound;
    const Core::StreetAddress address =
        addressNear(position.latitude, position.longitude, request->streetAddressLookup);
    return Reply{200, locationAnswer(position, address)};
}

Reply LocationService::ipLocation(std::string_view body, const std::string& clientAddress) {
    Reply reply;
    std::optional<ClientRequest> request = accept(Question::IpLocation, body, reply);
    if (!request) {
        return reply;
    }
    const IpRange* range = data_.ipRanges ? data_.ipRanges->find(clientAddress) : nullptr;
    if (!range) {
        ZEL_LOG_DEBUG(category_, "no range holds %s", clientAddress.c_str());
        return refusal(200, Question::IpLocation, "unknown-location",
                       "no position is known for this address");
    }
    const Core::StreetAddress address =
        addressForLevel(range->address, request->streetAddressLookup);
    return Reply{200, ipLocationAnswer(clientAddress, range->latitude, range->longitude, address)};
}

Reply LocationService::registration(std::string_view body) {
    Reply reply;
    std::optional<ClientRequest> request = accept(Question::Registration, body, reply);
    if (!request) {
        return reply;
    }
    const Credentials& user = request->newUser;
    if (user.realm != options_.realm) {
        return refusal(200, Question::Registration, "wrong-realm",
                       "users can only be made in this server's realm");
    }
    switch (data_.users->addUser(user.username, user.realm)) {
        case Database::Addition::Added:
            ZEL_LOG_INFO(category_, "registered user \"%s\" of realm \"%s\"", user.username.c_str(),
                         user.realm.c_str());
            return Reply{200, registrationAnswer()};
        case Database::Addition::Exists:
            return refusal(200, Question::Registration, "user-exists", "the user exists already");
        case Database::Addition::Failed:
            break;
    }
    ++metrics_.databaseErrors;
    return refusal(500, Question::Registration, "internal", "the user database failed");
}

}  // namespace ZEL::Server
