#include "server/street_address_index.h"

#include <algorithm>
#include <cmath>
#include <fstream>

#include "core/number_text.h"
#include "local/position_estimate.h"
#include "server/csv_table.h"
#include "spi/log.h"

namespace ZEL::Server {
namespace {

constexpr double kMetresPerDegree = 111320.0;
// Below this cosine (within about 0.6 degrees of a pole) the longitude span of a
// lookup stops growing; such positions look only at nearby columns.
constexpr double kSmallestCosine = 0.01;

uint64_t cellKey(int64_t row, int64_t column) {
    return (static_cast<uint64_t>(row) << 32) ^ static_cast<uint64_t>(column & 0xFFFFFFFF);
}

}  // namespace

StreetAddressIndex::StreetAddressIndex(double radiusMetres)
    : radiusMetres_(radiusMetres), cellDegrees_(radiusMetres / kMetresPerDegree) {}

int64_t StreetAddressIndex::row(double latitude) const {
    return static_cast<int64_t>(std::floor(latitude / cellDegrees_));
}

int64_t StreetAddressIndex::column(double longitude) const {
    return static_cast<int64_t>(std::floor(longitude / cellDegrees_));
}

void StreetAddressIndex::add(AddressPoint point) {
    cells_[cellKey(row(point.latitude), column(point.longitude))].push_back(points_.size());
    points_.push_back(std::move(point));
}

std::unique_ptr<StreetAddressIndex> StreetAddressIndex::load(const std::string& path,
                                                             double radiusMetres,
                                                             std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return nullptr;
    }
    return read(in, path, radiusMetres, error);
}

std::unique_ptr<StreetAddressIndex> StreetAddressIndex::read(std::istream& in,
                                                             const std::string& name,
                                                             double radiusMetres,
                                                             std::string& error) {
    if (!(radiusMetres > 0.0) || !std::isfinite(radiusMetres)) {
        error = "the address radius must be a positive number of metres";
        return nullptr;
    }
    SPI::Logger& category = SPI::getLogger("ZEL.Server.StreetAddressIndex");
    CsvTable table(in);
    if (!table.readHeader({"latitude", "longitude"}, error)) {
        error = name + ": " + error;
        return nullptr;
    }
    auto index = std::unique_ptr<StreetAddressIndex>(new StreetAddressIndex(radiusMetres));
    std::vector<std::string> fields;
    bool malformed = false;
    while (table.next(fields, malformed)) {
        AddressPoint point;
        if (malformed ||
            !Core::parseDoubleIn(table.field(fields, "latitude"), -90.0, 90.0, point.latitude) ||
            !Core::parseDoubleIn(table.field(fields, "longitude"), -180.0, 180.0,
                                 point.longitude)) {
            ZEL_LOG_ERROR(category, "%s: line %zu: malformed row (skipped)", name.c_str(),
                          table.lineNumber());
            continue;
        }
        point.address = table.address(fields);
        index->add(std::move(point));
    }
    return index;
}

const AddressPoint* StreetAddressIndex::nearest(double latitude, double longitude) const {
    const double cosine = std::max(std::cos(latitude * Local::kRadiansPerDegree), kSmallestCosine);
    const int64_t columnSpan = static_cast<int64_t>(std::ceil(1.0 / cosine));
    const int64_t centreRow = row(latitude);
    const int64_t centreColumn = column(longitude);
    const AddressPoint* best = nullptr;
    double bestDistance = radiusMetres_;
    for (int64_t r = centreRow - 1; r <= centreRow + 1; ++r) {
        for (int64_t c = centreColumn - columnSpan; c <= centreColumn + columnSpan; ++c) {
            auto cell = cells_.find(cellKey(r, c));
            if (cell == cells_.end()) {
                continue;
            }
            for (size_t i : cell->second) {
                const AddressPoint& point = points_[i];
                const double distance = Local::greatCircleDistance(latitude, longitude,
                                                                   point.latitude, point.longitude);
                if (distance <= bestDistance) {
                    best = &point;
                    bestDistance = distance;
                }
            }
        }
    }
    return best;
}

Core::StreetAddress addressForLevel(const Core::StreetAddress& address, int level) {
    if (level == 2) {
        return address;
    }
    Core::StreetAddress limited;
    if (level == 1) {
        limited.city = address.city;
        limited.county = address.county;
        limited.province = address.province;
        limited.region = address.region;
        limited.state = address.state;
        limited.stateCode = address.stateCode;
        limited.country = address.country;
        limited.countryCode = address.countryCode;
    }
    return limited;
}

}  // namespace ZEL::Server
