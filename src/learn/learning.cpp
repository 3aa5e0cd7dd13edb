#include "learn/learning.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>
#include <unordered_map>

namespace ZEL::Learn {
namespace {

constexpr double kMetresPerDegree = 6372800.0 * 3.14159265358979323846 / 180.0;

bool cellBefore(const Cell& a, const Cell& b) {
    return a.row != b.row ? a.row < b.row : a.column < b.column;
}

void addCell(Cell& into, const Cell& from) {
    into.count += from.count;
    into.weight += from.weight;
    into.weightedLatitude += from.weightedLatitude;
    into.weightedLongitude += from.weightedLongitude;
    into.accuracySum += from.accuracySum;
    into.rssCount += from.rssCount;
    into.rssSum += from.rssSum;
    into.rssSquares += from.rssSquares;
    into.oldestMs = std::min(into.oldestMs, from.oldestMs);
    into.newestMs = std::max(into.newestMs, from.newestMs);
}

// A point in metres east and north of an origin; plane geometry is exact enough
// over the few kilometres one access point's observations may span.
struct Plane {
    double originLatitude, originLongitude, metresPerLongitude;
    explicit Plane(double latitude, double longitude)
        : originLatitude(latitude),
          originLongitude(longitude),
          metresPerLongitude(kMetresPerDegree * std::cos(latitude * 3.14159265358979323846 / 180)) {
    }
};

struct Point {
    double x = 0.0, y = 0.0;  // metres east, north
    double weight = 0.0;      // the cell's observation weight
    double count = 0.0;       // its observations
    const Cell* cell = nullptr;
};

double distance(const Point& a, double x, double y) {
    return std::hypot(a.x - x, a.y - y);
}

// The weighted median of `values` (value, weight): the first value at which the
// cumulative weight reaches half the total.
double weightedMedian(std::vector<std::pair<double, double>> values) {
    std::sort(values.begin(), values.end());
    double total = 0.0;
    for (const auto& value : values) {
        total += value.second;
    }
    double cumulative = 0.0;
    for (const auto& value : values) {
        cumulative += value.second;
        if (cumulative >= total / 2) {
            return value.first;
        }
    }
    return values.back().first;
}

// Connected components of the points under the relation "closer than kLinkMetres".
std::vector<std::vector<size_t>> clusters(const std::vector<Point>& points) {
    std::vector<size_t> parent(points.size());
    std::iota(parent.begin(), parent.end(), 0);
    auto root = [&](size_t i) {
        while (parent[i] != i) {
            i = parent[i] = parent[parent[i]];
        }
        return i;
    };
    // Sorted by x, a pair farther apart in x than the link distance ends the scan.
    std::vector<size_t> order(points.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](size_t a, size_t b) { return points[a].x < points[b].x; });
    for (size_t i = 0; i < order.size(); ++i) {
        for (size_t j = i + 1; j < order.size(); ++j) {
            const Point& a = points[order[i]];
            const Point& b = points[order[j]];
            if (b.x - a.x >= kLinkMetres) {
                break;
            }
            if (distance(a, b.x, b.y) < kLinkMetres) {
                parent[root(order[i])] = root(order[j]);
            }
        }
    }
    std::vector<std::vector<size_t>> groups;
    std::unordered_map<size_t, size_t> groupOf;
    for (size_t i = 0; i < points.size(); ++i) {
        auto [it, inserted] = groupOf.emplace(root(i), groups.size());
        if (inserted) {
            groups.emplace_back();
        }
        groups[it->second].push_back(i);
    }
    return groups;
}

struct Cluster {
    std::vector<size_t> members;
    double count = 0.0;
    uint64_t oldestMs = UINT64_MAX, newestMs = 0;
};

// The cluster kept by rules 1 and 2 of the header, or nullopt for Moving.
std::optional<Cluster> keptCluster(const std::vector<Point>& points, double total, bool& moved) {
    std::vector<Cluster> all;
    for (std::vector<size_t>& members : clusters(points)) {
        Cluster cluster;
        for (size_t i : members) {
            cluster.count += points[i].count;
            cluster.oldestMs = std::min(cluster.oldestMs, points[i].cell->oldestMs);
            cluster.newestMs = std::max(cluster.newestMs, points[i].cell->newestMs);
        }
        cluster.members = std::move(members);
        all.push_back(std::move(cluster));
    }
    const double needed = std::max(2.0, kSignificantShare * total);
    std::vector<Cluster> significant;
    for (const Cluster& cluster : all) {
        if (cluster.count >= needed) {
            significant.push_back(cluster);
        }
    }
    if (significant.empty()) {
        significant = std::move(all);
    }
    moved = significant.size() > 1;
    if (!moved) {
        return significant.front();
    }
    std::sort(significant.begin(), significant.end(),
              [](const Cluster& a, const Cluster& b) { return a.newestMs > b.newestMs; });
    for (size_t i = 1; i < significant.size(); ++i) {
        if (significant[i].newestMs + kMoveGapMs > significant.front().oldestMs) {
            return std::nullopt;
        }
    }
    return significant.front();
}

struct Fit {
    double x = 0.0, y = 0.0;  // the position, metres in the plane
    std::vector<double> robustWeights;
};

// Rule POSITION of the header over the kept points.
Fit robustPosition(const std::vector<Point>& points) {
    std::vector<std::pair<double, double>> xs, ys;
    for (const Point& point : points) {
        xs.emplace_back(point.x, point.weight);
        ys.emplace_back(point.y, point.weight);
    }
    Fit fit{weightedMedian(xs), weightedMedian(ys), std::vector<double>(points.size(), 1.0)};
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        std::vector<std::pair<double, double>> distances;
        for (const Point& point : points) {
            distances.emplace_back(distance(point, fit.x, fit.y), point.count);
        }
        const double scale = std::max(kMinScaleMetres, 1.4826 * weightedMedian(distances));
        const double cutoff = kBiweightCutoff * scale;
        double sum = 0.0, x = 0.0, y = 0.0;
        for (size_t i = 0; i < points.size(); ++i) {
            const double ratio = distances[i].first / cutoff;
            fit.robustWeights[i] = ratio < 1 ? (1 - ratio * ratio) * (1 - ratio * ratio) : 0.0;
            const double weight = points[i].weight * fit.robustWeights[i];
            sum += weight;
            x += weight * points[i].x;
            y += weight * points[i].y;
        }
        const double moved = std::hypot(x / sum - fit.x, y / sum - fit.y);
        fit.x = x / sum;
        fit.y = y / sum;
        if (moved < 0.1) {
            break;
        }
    }
    return fit;
}

// Rule SIGNAL EXPONENT of the header; nullopt when it cannot be fitted.
std::optional<double> fitExponent(const std::vector<Point>& points, const Fit& fit) {
    double count = 0.0, sumX = 0.0, sumY = 0.0, sumXX = 0.0, sumXY = 0.0;
    size_t cells = 0;
    for (size_t i = 0; i < points.size(); ++i) {
        const Cell& cell = *points[i].cell;
        if (fit.robustWeights[i] == 0.0 || cell.rssCount == 0) {
            continue;
        }
        const double n = static_cast<double>(cell.rssCount);
        const double x = 10 * std::log10(std::max(1.0, distance(points[i], fit.x, fit.y)));
        const double y = cell.rssSum / n;
        ++cells;
        count += n;
        sumX += n * x;
        sumY += n * y;
        sumXX += n * x * x;
        sumXY += n * x * y;
    }
    if (cells < kMinFitCells) {
        return std::nullopt;
    }
    const double variance = sumXX / count - (sumX / count) * (sumX / count);
    if (variance < kMinFitSpread * kMinFitSpread) {
        return std::nullopt;
    }
    const double slope = (sumXY / count - sumX / count * sumY / count) / variance;
    if (slope >= 0) {
        return std::nullopt;  // stronger farther away: no path loss to fit
    }
    return std::clamp(kDistancePower / -slope, 1.0 / 6, 0.5);
}

}  // namespace

void ApSummary::add(const Observation& observation) {
    ++observations;
    if (overflowing) {
        return;
    }
    const double rss = observation.rss == 0 ? kUnknownRss : observation.rss;
    const double accuracy = observation.accuracy > 0 ? observation.accuracy : kDefaultAccuracy;
    Cell cell;
    cell.row = static_cast<int32_t>(std::floor(observation.latitude / kCellDegrees));
    cell.column = static_cast<int32_t>(std::floor(observation.longitude / kCellDegrees));
    cell.count = 1;
    cell.weight = std::pow(10.0, rss / 20) / (kRangeMetres * kRangeMetres + accuracy * accuracy);
    cell.weightedLatitude = cell.weight * observation.latitude;
    cell.weightedLongitude = cell.weight * observation.longitude;
    cell.accuracySum = accuracy;
    if (observation.rss != 0) {
        cell.rssCount = 1;
        cell.rssSum = observation.rss;
        cell.rssSquares = double(observation.rss) * observation.rss;
    }
    cell.oldestMs = cell.newestMs = observation.timeMs;
    auto at = std::lower_bound(cells.begin(), cells.end(), cell, cellBefore);
    if (at != cells.end() && !cellBefore(cell, *at)) {
        addCell(*at, cell);
    } else if (cells.size() == kMaxCells) {
        overflowing = true;
        cells.clear();
    } else {
        cells.insert(at, cell);
    }
}

void ApSummary::merge(const ApSummary& other) {
    observations += other.observations;
    overflowing = overflowing || other.overflowing;
    if (overflowing) {
        cells.clear();
        return;
    }
    std::vector<Cell> merged;
    merged.reserve(cells.size() + other.cells.size());
    auto a = cells.begin();
    auto b = other.cells.begin();
    while (a != cells.end() || b != other.cells.end()) {
        if (b == other.cells.end() || (a != cells.end() && cellBefore(*a, *b))) {
            merged.push_back(*a++);
        } else if (a == cells.end() || cellBefore(*b, *a)) {
            merged.push_back(*b++);
        } else {
            merged.push_back(*a++);
            addCell(merged.back(), *b++);
        }
    }
    if (merged.size() > kMaxCells) {
        overflowing = true;
        merged.clear();
    }
    cells = std::move(merged);
}

LearnedAp learn(const Core::MacAddress& mac, const ApSummary& summary) {
    LearnedAp result;
    result.position.mac = mac;
    if (summary.overflowing || summary.cells.empty()) {
        result.verdict = Verdict::Moving;
        return result;
    }
    const Cell& first = summary.cells.front();
    const Plane plane(first.weightedLatitude / first.weight,
                      first.weightedLongitude / first.weight);
    std::vector<Point> points;
    double total = 0.0;
    for (const Cell& cell : summary.cells) {
        Point point;
        point.y = (cell.weightedLatitude / cell.weight - plane.originLatitude) * kMetresPerDegree;
        point.x = (cell.weightedLongitude / cell.weight - plane.originLongitude) *
                  plane.metresPerLongitude;
        point.weight = cell.weight;
        point.count = static_cast<double>(cell.count);
        point.cell = &cell;
        total += point.count;
        points.push_back(point);
    }
    bool moved = false;
    std::optional<Cluster> cluster = keptCluster(points, total, moved);
    if (!cluster) {
        result.verdict = Verdict::Moving;
        return result;
    }
    std::vector<Point> kept;
    std::vector<std::pair<double, double>> xs, ys;
    for (size_t i : cluster->members) {
        kept.push_back(points[i]);
        xs.emplace_back(points[i].x, points[i].weight);
        ys.emplace_back(points[i].y, points[i].weight);
    }
    const double medianX = weightedMedian(xs), medianY = weightedMedian(ys);
    double far = 0.0;
    for (const Point& point : kept) {
        far += distance(point, medianX, medianY) > kHotspotMetres ? point.count : 0.0;
    }
    if (far > kFarShare * cluster->count) {
        result.verdict = Verdict::Moving;
        return result;
    }
    const Fit fit = robustPosition(kept);
    double used = 0.0, squares = 0.0, accuracy = 0.0;
    for (size_t i = 0; i < kept.size(); ++i) {
        if (fit.robustWeights[i] > 0) {
            const double d = distance(kept[i], fit.x, fit.y);
            used += kept[i].count;
            squares += kept[i].count * d * d;
            accuracy += kept[i].cell->accuracySum;
        }
    }
    result.verdict = moved ? Verdict::Moved : Verdict::Placed;
    result.used = static_cast<uint64_t>(used);
    result.spreadMetres = std::sqrt(squares / used);
    const double meanAccuracy = accuracy / used;
    const double uncertainty = std::sqrt(
        (squares / used + meanAccuracy * meanAccuracy + kPriorSpreadMetres * kPriorSpreadMetres) /
        used);
    const double quality = 18 + 12 * std::log2(1 + kQualityMetres / uncertainty);
    result.position.quality = static_cast<uint32_t>(std::lround(std::clamp(quality, 18.0, 145.0)));
    result.position.latitude =
        std::clamp(plane.originLatitude + fit.y / kMetresPerDegree, -90.0, 90.0);
    result.position.longitude =
        std::clamp(plane.originLongitude + fit.x / plane.metresPerLongitude, -180.0, 180.0);
    std::optional<double> exponent = fitExponent(kept, fit);
    result.exponentFitted = exponent.has_value();
    result.position.signalExponent = exponent.value_or(kDefaultExponent);
    return result;
}

void Learner::add(const Observation& observation) {
    ++observations_;
    summaries_[macKey(observation.mac)].add(observation);
}

void Learner::merge(const Learner& other) {
    observations_ += other.observations_;
    for (const auto& [key, summary] : other.summaries_) {
        summaries_[key].merge(summary);
    }
}

std::vector<std::pair<Core::MacAddress, LearnedAp>> Learner::learnAll() const {
    std::vector<uint64_t> keys;
    keys.reserve(summaries_.size());
    for (const auto& entry : summaries_) {
        keys.push_back(entry.first);
    }
    std::sort(keys.begin(), keys.end());
    std::vector<std::pair<Core::MacAddress, LearnedAp>> results;
    results.reserve(keys.size());
    for (uint64_t key : keys) {
        const Core::MacAddress mac = macOfKey(key);
        results.emplace_back(mac, learn(mac, summaries_.at(key)));
    }
    return results;
}

uint64_t macKey(const Core::MacAddress& mac) {
    uint64_t key = 0;
    for (size_t i = mac.size(); i-- > 0;) {
        key = key << 8 | mac[i];  // printed order, so keys sort as MACs print
    }
    return key;
}

Core::MacAddress macOfKey(uint64_t key) {
    Core::MacAddress mac{};
    for (uint8_t& byte : mac) {
        byte = static_cast<uint8_t>(key);
        key >>= 8;
    }
    return mac;
}

}  // namespace ZEL::Learn
