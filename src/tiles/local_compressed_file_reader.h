// Reads one tile file (the on-device access-point database of a realm): opens and
// checks it, parses every tile header once, and answers lookups by MAC by decoding
// in place, in the memory-mapped file, only the block of one tile where the key
// can lie. The format is described in tiles/tile_format.h; TileWriter produces it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/scanned_ap.h"
#include "spi/file.h"

namespace ZEL::Tiles {

// What the database holds per access point.
struct StoredApData {
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    uint32_t quality = 0;    // confidence figure: below 18 almost nothing, above 30 full weight
    double signalExponent = 0.0;  // exponent applied to the received power in mW
};

class LocalCompressedFileReader {
  public:
    // A new, closed reader; null only when memory runs out.
    static std::unique_ptr<LocalCompressedFileReader> create();

    virtual ~LocalCompressedFileReader() = default;

    // What the first tile holding `mac` stores for it (tiles in the order of
    // tile_search.h); nothing when no tile holds it or the reader is not open. Not
    // thread-safe: all lookups share one bit cursor.
    virtual std::optional<StoredApData> lookup(const Core::MacAddress& mac) = 0;

    // Opens, maps and checks the file at `path` for `realm` (the realm decides the
    // digest the file must carry and the key form). Logs and returns false on any
    // failure, leaving the reader closed.
    virtual bool open(const std::string& path, const std::string& realm) = 0;
    // The same over a file's bytes already in memory, which any number of readers
    // may share; `name` labels the debug line.
    virtual bool open(std::shared_ptr<const SPI::FileMapping> image, const std::string& name,
                      const std::string& realm) = 0;

    // Releases everything open built; the reader can be opened again.
    virtual void close() = 0;
};

}  // namespace ZEL::Tiles
