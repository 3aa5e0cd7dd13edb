// Field parsing for the simulator's CSV files, which are untrusted input.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ZEL::Sim {

// The comma-separated fields of `line` (a trailing '\r' dropped, spaces around a
// field trimmed); empty for a blank line. No quoting: our files never need it.
std::vector<std::string> splitCsvLine(std::string_view line);

// A finite decimal number in [low, high], the whole field.
bool parseDouble(const std::string& field, double low, double high, double& value);
// A decimal integer in 0..2^32-1, the whole field.
bool parseUnsigned(const std::string& field, uint32_t& value);
// A decimal integer in 0..2^64-1, the whole field.
bool parseUnsigned64(const std::string& field, uint64_t& value);

}  // namespace ZEL::Sim
