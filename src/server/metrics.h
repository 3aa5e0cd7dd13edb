// What the location server counts, for GET /metrics in the Prometheus text
// exposition format (version 0.0.4).
//
// Every figure is a lock-free atomic, so any thread may update any of them at any
// time; render() reads each one once, so a scrape taken under load is a set of
// figures each exact on its own but not one instant's snapshot.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace ZEL::Server {

// The routes requests are counted by; Other is every path the server does not serve.
enum class Route {
    Location,
    IpLocation,
    Registration,
    Health,
    Metrics,
    Geolocate,
    Tiles,
    Geosubmit,
    Other
};

class Metrics {
  public:
    // One answered request: its route, HTTP status (100..599; others count as 599)
    // and the time from its complete head to its answer.
    void countRequest(Route route, int status, std::chrono::nanoseconds latency);

    std::atomic<uint64_t> positionsFound{0};
    std::atomic<uint64_t> positionsNotFound{0};
    // 500 and 503 answers for a failing database.
    std::atomic<uint64_t> databaseErrors{0};
    // Submitted reports committed, their observations, and the access points the
    // intake rules left out.
    std::atomic<uint64_t> reportsStored{0};
    std::atomic<uint64_t> observationsStored{0};
    std::atomic<uint64_t> observationsFiltered{0};
    std::atomic<int64_t> openConnections{0};
    std::atomic<int64_t> tileFilesLoaded{0};
    std::atomic<uint64_t> tileReloadsRefused{0};

    // Upper bounds of the latency histogram's buckets, seconds; +Inf follows.
    static constexpr std::array<double, 7> kLatencyBuckets{0.001, 0.0025, 0.005, 0.01,
                                                           0.05,  0.25,   1.0};

    // The text a scrape receives.
    std::string render() const;

  private:
    static constexpr size_t kRoutes = 9;
    static constexpr int kFirstStatus = 100;
    static constexpr size_t kStatuses = 500;  // 100..599

    std::array<std::array<std::atomic<uint64_t>, kStatuses>, kRoutes> requests_{};
    // Requests per bucket (not cumulative; render() adds them up), the last one +Inf.
    std::array<std::atomic<uint64_t>, kLatencyBuckets.size() + 1> latencies_{};
    std::atomic<uint64_t> latencyNanoseconds_{0};
};

const char* routeName(Route route);

}  // namespace ZEL::Server
