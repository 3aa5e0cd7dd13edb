// Reads access-point positions from CSV text for the tile builder:
//
//   mac,latitude,longitude[,quality,signal_exponent]
//       one access point per line (columns found by header name; quality
//       defaults to 50, signal_exponent to 0.25).
//
// Observations (WiGLE exports and others) are read by learn/observation_readers.h.
// Lines, quoting and blank lines follow core/text_reader.h; header names are
// matched ignoring case, and every row must have as many fields as the header.
// The input is untrusted: a malformed line is reported with its number and
// skipped; nothing in the text can make the parser fail other than a missing
// or unusable header.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tiles/tile_writer.h"

namespace ZEL::Tiles {

struct CsvIssue {
    size_t line = 0;  // counted from 1
    std::string message;
};

struct ApCsvResult {
    std::string error;                              // set when the text has no usable header
    std::vector<AccessPointPosition> accessPoints;  // in order of first appearance
    std::vector<CsvIssue> issues;                   // the lines skipped, and why
};

ApCsvResult parseAccessPointCsv(std::string_view text);

}  // namespace ZEL::Tiles
