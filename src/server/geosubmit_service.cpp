#include "server/geosubmit_service.h"

#include "learn/observation_readers.h"
#include "server/geolocate_protocol.h"
#include "server/location_service.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

Reply refusal(int status, std::string_view domain, std::string_view reason,
              std::string_view message) {
    return {status, geolocateError(status, domain, reason, message)};
}

// The text as stored: at most kMaxNicknameBytes, bytes outside printable ASCII as '?'
// (a client's header need not be UTF-8, which PostgreSQL's TEXT insists on).
std::string storable(std::string_view text) {
    std::string kept(text.substr(0, kMaxNicknameBytes));
    for (char& c : kept) {
        if (c < 0x20 || c > 0x7e) {
            c = '?';
        }
    }
    return kept;
}

}  // namespace

Reply LocationService::geosubmit(const GeosubmitCall& call) {
    if (!options_.storeReports) {
        ZEL_LOG_WARN(category_,
                     "refused a report: no database keeps reports (start the server "
                     "with --database sqlite:PATH or postgresql://...)");
        return refusal(503, "global", "backendError", "this server keeps no reports");
    }
    Database::Report report;
    report.realm = options_.realm;
    if (!options_.open) {
        const Database::KeyLookup found =
            call.key.empty() ? Database::KeyLookup{Database::Lookup::Unknown, "", false}
                             : data_.users->findKey(std::string(call.key));
        if (found.result == Database::Lookup::Failed) {
            ++metrics_.databaseErrors;
            return refusal(503, "global", "backendError", "the key store failed");
        }
        if (found.result != Database::Lookup::Registered || !found.enabled) {
            ZEL_LOG_INFO(category_, "refused a report with key \"%s\"", storable(call.key).c_str());
            return refusal(
                400, "usageLimits", "keyInvalid",
                call.key.empty() ? "an API key is required" : "the API key is not valid");
        }
        report.realm = found.realm;
    }
    std::string inflated, error;
    std::string_view body = call.body;
    if (call.gzip && !inflateBody(call.body, call.maxInflatedBytes, inflated, error)) {
        ZEL_LOG_INFO(category_, "bad report: %s", error.c_str());
        return refusal(400, "global", "parseError", error);
    }
    body = call.gzip ? std::string_view(inflated) : body;
    report.receivedMs = SPI::currentTime().totalMilliseconds();
    const Learn::Intake intake{report.receivedMs, options_.maxReportAgeMs};
    Learn::ReadResult read = Learn::readGeosubmit(body, &intake);
    if (!read.issues.empty()) {
        const std::string& why = read.issues.front().message;
        ZEL_LOG_INFO(category_, "bad report: %s", why.c_str());
        return refusal(400, "global", "parseError", why);
    }
    metrics_.observationsFiltered += read.filtered;
    if (read.observations.empty()) {
        return {200, "{}"};
    }
    report.apiKey = storable(call.key);
    report.nickname = storable(call.nickname);
    report.observations = std::move(read.observations);
    if (data_.users->addReport(report) != Database::Addition::Added) {
        ++metrics_.databaseErrors;
        return refusal(503, "global", "backendError", "the report could not be stored");
    }
    ++metrics_.reportsStored;
    metrics_.observationsStored += report.observations.size();
    return {200, "{}"};
}

}  // namespace ZEL::Server
