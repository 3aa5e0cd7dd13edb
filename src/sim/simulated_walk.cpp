#include "sim/simulated_walk.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unordered_map>

#include "core/number_text.h"
#include "core/text_reader.h"

namespace ZEL::Sim {
namespace {

constexpr double kShadowingDb = 4.0;
constexpr double kDetectionDbm = -90.0;
constexpr double kMissShare = 0.1;
constexpr double kUnlistedShare = 0.25;  // unlisted APs per listed one: 1 in 5 on the air
constexpr double kBucketMetres = 100.0;
constexpr int kReachBuckets = 2;  // APs up to 200-300 m away are considered
constexpr double kStopChance = 0.2;

struct Transmitter {
    Core::MacAddress mac;
    ApRadio radio;
};

int64_t bucketKey(double north, double east) {
    const auto row = static_cast<int64_t>(std::floor(north / kBucketMetres));
    const auto column = static_cast<int64_t>(std::floor(east / kBucketMetres));
    return row * 1'000'003 + column;
}

class Air {
  public:
    void add(const Transmitter& transmitter) {
        buckets_[bucketKey(transmitter.radio.northMetres, transmitter.radio.eastMetres)].push_back(
            transmitters_.size());
        transmitters_.push_back(transmitter);
    }

    Core::ApList scan(double north, double east, uint64_t timeMs, Random& random) const {
        Core::ApList heard;
        for (int dn = -kReachBuckets; dn <= kReachBuckets; ++dn) {
            for (int de = -kReachBuckets; de <= kReachBuckets; ++de) {
                auto it =
                    buckets_.find(bucketKey(north + dn * kBucketMetres, east + de * kBucketMetres));
                if (it == buckets_.end()) {
                    continue;
                }
                for (size_t index : it->second) {
                    listen(transmitters_[index], north, east, timeMs, random, heard);
                }
            }
        }
        for (size_t i = heard.size(); i > 1; --i) {  // adapters report in no useful order
            std::swap(heard[i - 1], heard[static_cast<size_t>(random.uniform() * i)]);
        }
        return heard;
    }

  private:
    static void listen(const Transmitter& transmitter, double north, double east, uint64_t timeMs,
                       Random& random, Core::ApList& heard) {
        const ApRadio& radio = transmitter.radio;
        const double metres =
            std::max(1.0, std::hypot(radio.northMetres - north, radio.eastMetres - east));
        const double rss = radio.powerAt1mDbm - 10.0 * radio.pathLossExponent * std::log10(metres) +
                           random.normal(0.0, kShadowingDb);
        const bool missed = random.uniform() < kMissShare;
        if (rss < kDetectionDbm || missed) {
            return;
        }
        Core::ScannedAP ap;
        ap.mac = transmitter.mac;
        ap.rss = static_cast<int16_t>(std::lround(rss));
        ap.time = Core::TimeStamp::fromMilliseconds(timeMs);
        heard.push_back(ap);
    }

    std::vector<Transmitter> transmitters_;
    std::unordered_map<int64_t, std::vector<size_t>> buckets_;
};

Air buildAir(const std::vector<CityAp>& city, Random& random) {
    Air air;
    for (const CityAp& ap : city) {
        air.add({ap.mac, radioOf(ap)});
    }
    const auto unlisted = static_cast<size_t>(static_cast<double>(city.size()) * kUnlistedShare);
    for (size_t i = 0; i < unlisted; ++i) {
        const CityAp& neighbour = city[static_cast<size_t>(random.uniform() * city.size())];
        Transmitter transmitter{{}, radioOf(neighbour)};
        transmitter.radio.northMetres += random.normal(0.0, 8.0);
        transmitter.radio.eastMetres += random.normal(0.0, 8.0);
        transmitter.radio.powerAt1mDbm = random.uniform(-50.0, -30.0);
        uint64_t bits = random.bits();
        for (auto& octet : transmitter.mac) {
            octet = static_cast<uint8_t>(bits);
            bits >>= 8;
        }
        transmitter.mac[5] = static_cast<uint8_t>((transmitter.mac[5] & 0xF0) | 0x0A);
        air.add(transmitter);
    }
    return air;
}

// The street grid's crossings the walk may use: multiples of the pitch inside the
// area the APs cover.
struct Grid {
    int minRow = 0, maxRow = 0, minColumn = 0, maxColumn = 0;
    bool contains(int row, int column) const {
        return row >= minRow && row <= maxRow && column >= minColumn && column <= maxColumn;
    }
};

Grid gridOf(const std::vector<CityAp>& city) {
    double minNorth = 1e18, maxNorth = -1e18, minEast = 1e18, maxEast = -1e18;
    for (const CityAp& ap : city) {
        minNorth = std::min(minNorth, LocalFrame::north(ap.latitude));
        maxNorth = std::max(maxNorth, LocalFrame::north(ap.latitude));
        minEast = std::min(minEast, LocalFrame::east(ap.longitude));
        maxEast = std::max(maxEast, LocalFrame::east(ap.longitude));
    }
    return {static_cast<int>(std::ceil(minNorth / kStreetPitchMetres)),
            static_cast<int>(std::floor(maxNorth / kStreetPitchMetres)),
            static_cast<int>(std::ceil(minEast / kStreetPitchMetres)),
            static_cast<int>(std::floor(maxEast / kStreetPitchMetres))};
}

// Moves along the grid: from one crossing to a neighbouring one, then a turn.
class Walker {
  public:
    Walker(const Grid& grid, const WalkOptions& options, Random& random)
        : grid_(grid), options_(options), random_(random) {
        row_ = grid.minRow + static_cast<int>(random.uniform() * (grid.maxRow - grid.minRow + 1));
        column_ = grid.minColumn +
                  static_cast<int>(random.uniform() * (grid.maxColumn - grid.minColumn + 1));
        direction_ = static_cast<int>(random.uniform() * 4);
        chooseNextStreet();
    }

    // Advances by `seconds` of travel.
    void advance(double seconds) {
        while (seconds > 0.0) {
            if (stopSeconds_ > 0.0) {
                const double waited = std::min(stopSeconds_, seconds);
                stopSeconds_ -= waited;
                seconds -= waited;
                continue;
            }
            const double metresPerSecond = speedKmh_ / 3.6;
            const double left = kStreetPitchMetres - progress_;
            if (metresPerSecond * seconds < left) {
                progress_ += metresPerSecond * seconds;
                return;
            }
            seconds -= left / metresPerSecond;
            arrive();
        }
    }

    double speedKmh() const { return stopSeconds_ > 0.0 ? 0.0 : speedKmh_; }
    // The device's position: on the right of the street's centre line.
    void position(double& north, double& east) const {
        const double side = options_.speedKmh < 20.0 ? 6.0 : 2.5;
        north = row_ * kStreetPitchMetres + kSteps[direction_][0] * progress_ -
                kSteps[direction_][1] * side;
        east = column_ * kStreetPitchMetres + kSteps[direction_][1] * progress_ +
               kSteps[direction_][0] * side;
    }

  private:
    static constexpr int kSteps[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};  // N, E, S, W

    void arrive() {
        row_ += kSteps[direction_][0];
        column_ += kSteps[direction_][1];
        progress_ = 0.0;
        if (random_.uniform() < kStopChance) {
            stopSeconds_ = random_.uniform(5.0, 25.0);
        }
        chooseNextStreet();
    }

    void chooseNextStreet() {
        int choices[3];
        int count = 0;
        for (int turn : {0, 1, 3}) {  // straight on, right, left
            const int direction = (direction_ + turn) % 4;
            if (grid_.contains(row_ + kSteps[direction][0], column_ + kSteps[direction][1])) {
                choices[count++] = direction;
            }
        }
        direction_ = count == 0 ? (direction_ + 2) % 4
                                : choices[static_cast<int>(random_.uniform() * count)];
        speedKmh_ = options_.speedKmh * random_.uniform(0.85, 1.15);
    }

    Grid grid_;
    WalkOptions options_;
    Random& random_;
    int row_ = 0;
    int column_ = 0;
    int direction_ = 0;
    double progress_ = 0.0;  // metres from the last crossing
    double speedKmh_ = 0.0;
    double stopSeconds_ = 0.0;
};

}  // namespace

SimulatedWalk generateWalk(const std::vector<CityAp>& city, const WalkOptions& options) {
    SimulatedWalk walk;
    const Grid grid = city.empty() ? Grid{0, -1, 0, -1} : gridOf(city);
    if (grid.maxRow <= grid.minRow || grid.maxColumn <= grid.minColumn) {
        walk.error = "the city has no street to walk along";
        return walk;
    }
    if (options.periodMs == 0 || !(options.speedKmh > 0.0) || !(options.minutes > 0.0)) {
        walk.error = "period, speed and duration must be positive";
        return walk;
    }
    Random random(options.seed);
    const Air air = buildAir(city, random);
    Walker walker(grid, options, random);
    const auto scans = static_cast<uint64_t>(options.minutes * 60000.0 / options.periodMs);
    for (uint64_t i = 0; i < scans; ++i) {
        const uint64_t timeMs = options.startMs + i * options.periodMs;
        double north = 0.0;
        double east = 0.0;
        walker.position(north, east);
        walk.truth.push_back(
            {timeMs, LocalFrame::latitude(north), LocalFrame::longitude(east), walker.speedKmh()});
        walk.scans.push_back({timeMs, air.scan(north, east, timeMs, random), std::nullopt});
        walker.advance(options.periodMs / 1000.0);
    }
    return walk;
}

void writeTruthCsv(std::ostream& out, const std::vector<TruthPoint>& truth) {
    out << "t_ms,latitude,longitude,speed_kmh\n";
    char line[128];
    for (const TruthPoint& point : truth) {
        std::snprintf(line, sizeof line, "%llu,%.8f,%.8f,%.2f\n",
                      static_cast<unsigned long long>(point.timeMs), point.latitude,
                      point.longitude, point.speedKmh);
        out << line;
    }
}

std::vector<TruthPoint> readTruthCsv(std::istream& in, std::vector<std::string>& errors) {
    std::vector<TruthPoint> truth;
    Core::TextReader reader(in);
    Core::CsvRecord record;
    while (reader.nextRecord(record)) {
        const std::vector<std::string>& fields = record.fields;
        if (reader.lineNumber() == 1 && !fields.empty() && fields[0] == "t_ms") {
            continue;
        }
        if (!record.error.empty()) {
            errors.push_back(reader.lineMessage(record.error));
            continue;
        }
        TruthPoint point;
        if (fields.size() != 4 || !Core::parseUnsigned(fields[0], point.timeMs) ||
            !Core::parseDoubleIn(fields[1], -90.0, 90.0, point.latitude) ||
            !Core::parseDoubleIn(fields[2], -180.0, 180.0, point.longitude) ||
            !Core::parseDoubleIn(fields[3], 0.0, 1e6, point.speedKmh)) {
            errors.push_back(reader.lineMessage("expected t_ms,latitude,longitude,speed_kmh"));
            continue;
        }
        truth.push_back(point);
    }
    return truth;
}

}  // namespace ZEL::Sim
