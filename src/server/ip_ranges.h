// Coarse positions by client IP address, from a CSV of address ranges.
//
// Columns: first, last (IPv4 or IPv6 addresses, both of one family, first <= last),
// latitude, longitude, and the address columns of csv_table.h. Ranges must not
// overlap: of two overlapping rows the one starting higher is skipped. Skipped
// rows (also those that do not read) are logged with their line numbers.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/location_record.h"

namespace ZEL::Server {

// An address as 16 bytes; IPv4 addresses in their IPv4-mapped IPv6 form.
using IpAddress = std::array<uint8_t, 16>;
std::optional<IpAddress> parseIpAddress(const std::string& text);

struct IpRange {
    IpAddress first{};
    IpAddress last{};
    double latitude = 0.0;
    double longitude = 0.0;
    Core::StreetAddress address;
};

class IpRanges {
  public:
    // Null with `error` set when the file cannot be read or lacks a column.
    static std::unique_ptr<IpRanges> load(const std::string& path, std::string& error);
    static std::unique_ptr<IpRanges> read(std::istream& in, const std::string& name,
                                          std::string& error);

    // The range holding `address` (text as a socket reports it), or null.
    const IpRange* find(const std::string& address) const;
    size_t size() const { return ranges_.size(); }

  private:
    std::vector<IpRange> ranges_;  // sorted by first, disjoint
};

}  // namespace ZEL::Server
