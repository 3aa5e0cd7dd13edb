#include "server/metrics.h"

#include <algorithm>

#include "server/answer_writer.h"

namespace ZEL::Server {
namespace {

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

template <typename Number>
void sample(std::string& out, const std::string& name, Number value) {
    out += name + " " + std::to_string(value) + "\n";
}

}  // namespace

const char* routeName(Route route) {
    switch (route) {
        case Route::Location:
            return "location";
        case Route::IpLocation:
            return "ip-location";
        case Route::Registration:
            return "registration";
        case Route::Health:
            return "health";
        case Route::Metrics:
            return "metrics";
        case Route::Geolocate:
            return "geolocate";
        case Route::Tiles:
            return "tiles";
        case Route::Geosubmit:
            return "geosubmit";
        case Route::Other:
            break;
    }
    return "other";
}

void Metrics::countRequest(Route route, int status, std::chrono::nanoseconds latency) {
    const int clamped = std::clamp(status, kFirstStatus, kFirstStatus + int{kStatuses} - 1);
    requests_[static_cast<size_t>(route)][clamped - kFirstStatus].fetch_add(
        1, std::memory_order_relaxed);
    const double seconds = std::chrono::duration<double>(latency).count();
    const size_t bucket =
        std::lower_bound(kLatencyBuckets.begin(), kLatencyBuckets.end(), seconds) -
        kLatencyBuckets.begin();
    latencies_[bucket].fetch_add(1, std::memory_order_relaxed);
    latencyNanoseconds_.fetch_add(latency.count(), std::memory_order_relaxed);
}

std::string Metrics::render() const {
    std::string out;
    family(out, "zel_http_requests_total", "counter",
           "HTTP requests answered, by route and status.");
    for (size_t route = 0; route < kRoutes; ++route) {
        for (size_t status = 0; status < kStatuses; ++status) {
            const uint64_t count = requests_[route][status].load(std::memory_order_relaxed);
            if (count != 0) {
                sample(out,
                       std::string("zel_http_requests_total{route=\"") +
                           routeName(static_cast<Route>(route)) + "\",status=\"" +
                           std::to_string(status + kFirstStatus) + "\"}",
                       count);
            }
        }
    }
    family(out, "zel_http_request_duration_seconds", "histogram",
           "Time from a complete request head to its answer.");
    uint64_t cumulative = 0;
    for (size_t bucket = 0; bucket < latencies_.size(); ++bucket) {
        cumulative += latencies_[bucket].load(std::memory_order_relaxed);
        const std::string bound =
            bucket < kLatencyBuckets.size() ? formatDouble(kLatencyBuckets[bucket]) : "+Inf";
        sample(out, "zel_http_request_duration_seconds_bucket{le=\"" + bound + "\"}", cumulative);
    }
    out += "zel_http_request_duration_seconds_sum " +
           formatDouble(latencyNanoseconds_.load(std::memory_order_relaxed) / 1e9) + "\n";
    sample(out, "zel_http_request_duration_seconds_count", cumulative);

    family(out, "zel_positions_found_total", "counter",
           "Location requests answered with a position.");
    sample(out, "zel_positions_found_total", positionsFound.load());
    family(out, "zel_positions_not_found_total", "counter",
           "Location requests none of whose access points gave a position.");
    sample(out, "zel_positions_not_found_total", positionsNotFound.load());
    family(out, "zel_database_errors_total", "counter",
           "Answers refused because the database failed.");
    sample(out, "zel_database_errors_total", databaseErrors.load());
    family(out, "zel_reports_stored_total", "counter", "Submitted reports committed.");
    sample(out, "zel_reports_stored_total", reportsStored.load());
    family(out, "zel_observations_stored_total", "counter",
           "Observations of the submitted reports committed.");
    sample(out, "zel_observations_stored_total", observationsStored.load());
    family(out, "zel_observations_filtered_total", "counter",
           "Submitted access points left out by the intake rules.");
    sample(out, "zel_observations_filtered_total", observationsFiltered.load());
    family(out, "zel_open_connections", "gauge", "Client connections open now.");
    sample(out, "zel_open_connections", openConnections.load());
    family(out, "zel_tile_files_loaded", "gauge", "Tile files the server answers from.");
    sample(out, "zel_tile_files_loaded", tileFilesLoaded.load());
    family(out, "zel_tile_reloads_refused_total", "counter",
           "Reloads refused because a tile file failed to read or to check.");
    sample(out, "zel_tile_reloads_refused_total", tileReloadsRefused.load());
    return out;
}

}  // namespace ZEL::Server
