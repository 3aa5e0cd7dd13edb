#include "server/ip_ranges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "core/number_text.h"
#include "server/csv_table.h"
#include "spi/log.h"

namespace ZEL::Server {
namespace {

bool isMappedIpv4(const IpAddress& address) {
    static constexpr uint8_t kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::equal(std::begin(kPrefix), std::end(kPrefix), address.begin());
}

// Reads one data row into `range`; an empty result, or why not.
std::string readRange(const CsvTable& table, const std::vector<std::string>& fields,
                      IpRange& range) {
    std::optional<IpAddress> first = parseIpAddress(table.field(fields, "first"));
    std::optional<IpAddress> last = parseIpAddress(table.field(fields, "last"));
    if (!first || !last || isMappedIpv4(*first) != isMappedIpv4(*last) || *last < *first) {
        return "bad address range";
    }
    if (!Core::parseDoubleIn(table.field(fields, "latitude"), -90.0, 90.0, range.latitude) ||
        !Core::parseDoubleIn(table.field(fields, "longitude"), -180.0, 180.0, range.longitude)) {
        return "bad latitude or longitude";
    }
    range.first = *first;
    range.last = *last;
    range.address = table.address(fields);
    return {};
}

}  // namespace

std::optional<IpAddress> parseIpAddress(const std::string& text) {
    IpAddress address{};
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        address[10] = 0xFF;
        address[11] = 0xFF;
        std::memcpy(&address[12], &v4, 4);
        return address;
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
        std::memcpy(address.data(), &v6, 16);
        return address;
    }
    return std::nullopt;
}

std::unique_ptr<IpRanges> IpRanges::load(const std::string& path, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return nullptr;
    }
    return read(in, path, error);
}

std::unique_ptr<IpRanges> IpRanges::read(std::istream& in, const std::string& name,
                                         std::string& error) {
    SPI::Logger& category = SPI::getLogger("ZEL.Server.IpRanges");
    CsvTable table(in);
    if (!table.readHeader({"first", "last", "latitude", "longitude"}, error)) {
        error = name + ": " + error;
        return nullptr;
    }
    auto ranges = std::unique_ptr<IpRanges>(new IpRanges);
    std::vector<std::pair<IpRange, size_t>> rows;  // with their line numbers
    std::vector<std::string> fields;
    bool malformed = false;
    while (table.next(fields, malformed)) {
        IpRange range;
        std::string why = malformed ? "malformed line" : readRange(table, fields, range);
        if (!why.empty()) {
            ZEL_LOG_ERROR(category, "%s: line %zu: %s (skipped)", name.c_str(), table.lineNumber(),
                          why.c_str());
            continue;
        }
        rows.emplace_back(std::move(range), table.lineNumber());
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const auto& a, const auto& b) { return a.first.first < b.first.first; });
    for (auto& [range, line] : rows) {
        if (!ranges->ranges_.empty() && range.first <= ranges->ranges_.back().last) {
            ZEL_LOG_ERROR(category, "%s: line %zu: overlaps another range (skipped)", name.c_str(),
                          line);
            continue;
        }
        ranges->ranges_.push_back(std::move(range));
    }
    return ranges;
}

const IpRange* IpRanges::find(const std::string& text) const {
    std::optional<IpAddress> address = parseIpAddress(text);
    if (!address) {
        return nullptr;
    }
    auto after = std::upper_bound(
        ranges_.begin(), ranges_.end(), *address,
        [](const IpAddress& value, const IpRange& range) { return value < range.first; });
    if (after == ranges_.begin()) {
        return nullptr;
    }
    const IpRange& candidate = *(after - 1);
    return *address <= candidate.last ? &candidate : nullptr;
}

}  // namespace ZEL::Server
