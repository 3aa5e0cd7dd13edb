// Builds tile files field by field, including ones the writer never produces
// (odd counts, zero widths, absolute first deltas), and writes them to a
// temporary directory that is removed with the object.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/scanned_ap.h"

namespace ZEL::Testing {

// The MAC whose plain tile key is `key`: the last octet is stored first.
inline Core::MacAddress macOfKey(uint64_t key) {
    Core::MacAddress mac{};
    for (int i = 0; i < 6; ++i) {
        mac[i] = static_cast<uint8_t>(key >> (8 * i));
    }
    return mac;
}

struct HandRecord {
    uint64_t keyDelta = 0;  // written as given: 0 opens a block
    uint64_t latOffset = 0, lonOffset = 0, qualityCode = 0, exponentCode = 0;
};

struct HandBlock {
    uint64_t key = 0;  // the block's index key
    std::vector<HandRecord> records;
};

struct HandTile {
    unsigned precision = 5;
    int64_t latBase = 3'000'000;  // about 45.8 degrees at precision 5
    int64_t lonBase = 500'000;
    unsigned latBits = 12, lonBits = 12, qualityBits = 4, exponentBits = 4;
    std::vector<HandBlock> blocks;
    // Counts written into the header; by default the real ones (-1).
    int64_t recordCount = -1;
    int64_t indexCount = -1;
};

// The bytes of one tile; bit deltas are the true lengths of the blocks.
std::vector<uint8_t> encodeHandTile(const HandTile& tile);

// A whole file: magic, the tiles, the directory, the count and the digest for `realm`.
std::vector<uint8_t> handFile(const std::vector<std::vector<uint8_t>>& tiles,
                              const std::string& realm);

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    // Writes `bytes` to a file `name` in the directory; returns its path.
    std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const;

  private:
    std::string path_;
};

}  // namespace ZEL::Testing
