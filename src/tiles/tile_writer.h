// Writes tile files (tile_format.h) from access-point positions.
//
//   std::vector<Tiles::AccessPointPosition> aps = {{mac, 48.137, 11.575, 40, 0.3}, ...};
//   auto result = Tiles::TileWriter::writeFile("city.zel", aps, "realm");
//   if (!result.ok) { ... result.error ... }
//
// Layout: in the plain form (empty realm) a key is the MAC itself, so tiles are
// runs of consecutive keys, each with its own bases; a lookup then meets one
// candidate tile. In the hashed form a key depends on the tile's bases, so the
// access points are grouped by geographic cell (cellDegrees), every tile of a cell
// shares the cell's bases, and a cell with more than tileRecords access points is
// split into tiles by key. A cell holding a single access point is merged into a
// neighbouring one, since a tile needs two distinct keys. A MAC absent from the file
// costs one key (one MD4) per cell, so cells are large and the grid starts at the
// data's south-west corner: a city smaller than half a degree lies in one cell, and
// a tile's offsets widen only as far as its access points actually spread.
//
// Every tile has its own field widths, just wide enough for its data, blocks of
// blockRecords records, at least two index entries and its greatest key alone in
// the last block; no base is exactly 0. Positions are rounded to the nearest code
// (precision 5: within 0.9 m), qualities are clamped to 18..145, exponents to
// 1/6..1/2 and rounded with the fewest bits that keep them within
// exponentTolerance. A MAC given twice keeps its first position; in the hashed
// form two MACs whose keys collide in a tile keep the first; each drop is logged
// as a warning and counted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/scanned_ap.h"

namespace ZEL::Tiles {

struct AccessPointPosition {
    Core::MacAddress mac{};        // stored last octet first, like every Core::MacAddress
    double latitude = 0.0;         // degrees, -90..90
    double longitude = 0.0;        // degrees, -180..180
    uint32_t quality = 50;         // stored as 18..145
    double signalExponent = 0.25;  // stored as 1/6..1/2
};

struct TileWriterOptions {
    unsigned precision = 5;             // 1..7: coordinate unit 2^-(precision + 11) degree
    uint32_t blockRecords = 16;         // records per block, 1..496 (bit lengths fit 16 bits)
    uint32_t tileRecords = 512;         // at most this many records per tile, at least 4
    double cellDegrees = 0.5;           // hashed form: side of a geographic cell
    double exponentTolerance = 0.0112;  // largest rounding error of an exponent (4 bits)
};

struct TileWriteResult {
    bool ok = false;
    std::string error;           // why not, when !ok
    std::vector<uint8_t> bytes;  // the file (build() only)
    size_t accessPoints = 0;     // records written
    size_t tiles = 0;
    size_t droppedDuplicates = 0;
    uint64_t fileBytes = 0;
    // For each input access point, the tile (in file order) holding it; -1 when dropped.
    std::vector<int32_t> tileOfInput;
};

class TileWriter {
  public:
    // The file for `realm` in memory.
    static TileWriteResult build(const std::vector<AccessPointPosition>& accessPoints,
                                 const std::string& realm, const TileWriterOptions& options = {});
    // The same, written to `path` (created or overwritten); `bytes` stays empty.
    static TileWriteResult writeFile(const std::string& path,
                                     const std::vector<AccessPointPosition>& accessPoints,
                                     const std::string& realm,
                                     const TileWriterOptions& options = {});
};

}  // namespace ZEL::Tiles
