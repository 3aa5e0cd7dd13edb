// Street addresses of points, for the street-address lookup of a location: the
// nearest point within a radius gives its address.
//
// Columns: latitude, longitude and the address columns of csv_table.h. Rows that do
// not read are logged with their line numbers and skipped. Points are bucketed in
// a grid of cells one radius wide, so a lookup visits a handful of cells.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/location_record.h"

namespace ZEL::Server {

struct AddressPoint {
    double latitude = 0.0;
    double longitude = 0.0;
    Core::StreetAddress address;
};

class StreetAddressIndex {
  public:
    // Null with `error` set when the file cannot be read or lacks a column.
    // `radiusMetres` must be positive.
    static std::unique_ptr<StreetAddressIndex> load(const std::string& path, double radiusMetres,
                                                    std::string& error);
    static std::unique_ptr<StreetAddressIndex> read(std::istream& in, const std::string& name,
                                                    double radiusMetres, std::string& error);

    // The nearest point at most the radius away from the position, or null.
    const AddressPoint* nearest(double latitude, double longitude) const;
    size_t size() const { return points_.size(); }

  private:
    explicit StreetAddressIndex(double radiusMetres);
    int64_t row(double latitude) const;
    int64_t column(double longitude) const;
    void add(AddressPoint point);

    double radiusMetres_;
    double cellDegrees_;
    std::vector<AddressPoint> points_;
    std::unordered_map<uint64_t, std::vector<size_t>> cells_;
};

// What a lookup level reveals: 0 nothing; 1 (limited) the fields of city level and
// above (city, county, province, region, state, country); 2 (full) everything.
Core::StreetAddress addressForLevel(const Core::StreetAddress& address, int level);

}  // namespace ZEL::Server
