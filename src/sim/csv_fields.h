// Field parsing for the simulator's CSV files, which are untrusted input.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ZEL::Sim {

// The comma-separated fields of `line` (a trailing '\r' dropped, spaces around a
// field trimmed); empty for a blank line. No quoting: our files never need it.
std::vector<std::string> splitCsvLine(std::string_view line);

// Numbers in the fields: spi/number_text.h.

}  // namespace ZEL::Sim
